#include "tests/support/SuiteFixture.h"

#include <sstream>

using namespace testing_support;

namespace support_tests {

std::vector<std::string> OpenedCalls()
{
    return {"qmsvccfg load",
            std::string("qmsvccfg QmCreateObject productinfo ") + kObjectGuid,
            std::string("qmsvccfg GetInterface ") + kInterfaceGuid,
            "qmsvccfg Init 0",
            "qmsvccfg Start"};
}

std::vector<std::string> ClosedCalls()
{
    return {"qmsvccfg Uninit", "qmsvccfg Release", "qmsvccfg QmDestroyObject productinfo",
            "qmsvccfg unload"};
}

std::vector<std::string> ItemSession(int item)
{
    return Concat({OpenedCalls(), {"qmsvccfg GetString " + std::to_string(item) + " Desktop"},
                   ClosedCalls()});
}

std::vector<std::string> Concat(std::initializer_list<std::vector<std::string>> parts)
{
    std::vector<std::string> all;
    for (const auto& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

void SuiteFolder::PlaceProgram(const wchar_t* name)
{
    ASSERT_TRUE(CopyFileW(JoinPath(ProgramFolder(), name).c_str(), (m_dir / name).c_str(), FALSE))
        << Utf8(name);
}

void SuiteFolder::PlaceDouble(const wchar_t* built, const std::wstring& placedAs)
{
    PlaceDouble(built, m_dir.Path(), placedAs);
}

void SuiteFolder::PlaceDouble(const wchar_t* built, const std::wstring& folder,
                              const std::wstring& placedAs)
{
    ASSERT_TRUE(CopyFileW(JoinPath(DoublesFolder(), built).c_str(), JoinPath(folder, placedAs).c_str(),
                          FALSE))
        << Utf8(built);
}

DWORD SuiteFolder::Run(const std::wstring& program, const std::wstring& arguments, DWORD timeoutMs)
{
    ChildOptions options;
    options.environment = m_environment;
    options.environment.push_back(L"QMSUITE_RECORD=" + m_record);
    options.currentFolder = m_dir.Path();
    options.timeoutMs = timeoutMs;
    auto exitCode = RunChild(L"\"" + (m_dir / program) + L"\" " + arguments, options);
    EXPECT_TRUE(exitCode.has_value()) << "did not finish: " << Utf8(program) << " " << Utf8(arguments);
    return exitCode.value_or(0xFFFFFFFF);
}

std::vector<std::string> SuiteFolder::Record() const
{
    std::vector<std::string> lines;
    std::istringstream in(ReadFileBytes(m_record).value_or(""));
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

} // namespace support_tests
