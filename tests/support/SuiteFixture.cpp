#include "tests/support/SuiteFixture.h"

#include <algorithm>
#include <sstream>

using namespace testing_support;

namespace support_tests {

Lines Concat(std::initializer_list<Lines> parts)
{
    Lines all;
    for (const auto& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

void SuiteFolder::SetUp()
{
    for (const wchar_t* program : {L"supportprobe.exe", L"Morrowgate.exe"}) {
        ASSERT_TRUE(CopyFileW(JoinPath(ProgramFolder(), program).c_str(), (m_dir / program).c_str(), FALSE));
    }
    ASSERT_TRUE(CreateDirectoryW(m_install.c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW(m_settings.c_str(), nullptr));
    PlaceDouble(L"qmsvccfg.dll", L"qmsvccfg.dll");
    PlaceDouble(L"qmtrace_recorder.dll", L"qmtrace.dll");
    PlaceDouble(L"qmcrash.dll", L"install\\qmcrash.dll");
    SetString(HKEY_LOCAL_MACHINE, m_productKey.SubKey(), L"AppPath", m_install + L"\\Morrowgate.exe");
    m_environment = {L"QMSVCCFG_ITEM_400=" + m_settings, L"QMSVCCFG_ITEM_202=" + m_productKey.SubKey()};
}

void SuiteFolder::PlaceDouble(const wchar_t* built, const std::wstring& placedAs)
{
    ASSERT_TRUE(CopyFileW(JoinPath(DoublesFolder(), built).c_str(), (m_dir / placedAs).c_str(), FALSE))
        << Utf8(built);
}

DWORD SuiteFolder::Run(const std::wstring& program, const std::wstring& arguments)
{
    ChildOptions options;
    options.environment = m_environment;
    options.environment.push_back(L"QMSUITE_RECORD=" + m_record);
    options.environment.push_back(L"QMTRACE_RECORD=" + m_record);
    options.currentFolder = m_dir.Path();
    options.timeoutMs = 30000;
    auto exitCode = RunChild(L"\"" + (m_dir / program) + L"\" " + arguments, options);
    EXPECT_TRUE(exitCode.has_value()) << "did not finish: " << Utf8(program) << " " << Utf8(arguments);
    return exitCode.value_or(0xFFFFFFFF);
}

Lines SuiteFolder::Record() const
{
    Lines lines;
    std::istringstream in(ReadFileBytes(m_record).value_or(""));
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

size_t SuiteFolder::Count(const std::string& text) const
{
    const Lines record = Record();
    return static_cast<size_t>(std::count_if(record.begin(), record.end(), [&](const std::string& line) {
        return line.find(text) != std::string::npos;
    }));
}

} // namespace support_tests
