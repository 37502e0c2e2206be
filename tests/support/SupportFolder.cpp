#include "tests/support/SupportFolder.h"

#include "support/CrashHandler.h"
#include "support/LogDLL.h"
#include "support/ProductInfo.h"
#include "support/ScopeTrace.h"

#include <cwchar>
#include <sstream>
#include <stdexcept>

using namespace testing_support;

namespace {

// The probe's scenarios, each ending the process with its result:
//   open          the result of opening a product information connection (closed again)
//   with, throw   WithProductInfo copying item 202 into a buffer of 7 characters: the buffer's
//                 length after it, 0 when the call-back did not run; "throw" then throws from
//                 the call-back, 1000 when that reached the caller
//   install       the result of InstallCrashHandler
//   lock:OPS      ApplyLockOps on the process-wide lock: 0, or the lock ends the process
//   held, unheld  logging with and without a hold (see LoggingTests.cpp)
int PlayProbe(const std::wstring& scenario)
{
    if (scenario == L"open") {
        return static_cast<int>(support::ProductInfoConnection().Open());
    }
    if (scenario == L"with" || scenario == L"throw") {
        wchar_t buffer[support::kProductStringChars] = L"preset!";
        try {
            const bool ran = support::WithProductInfo([&](support::IProductInfoUI* productInfo) {
                support::CopyProductString(productInfo, 202, buffer);
                if (scenario == L"throw") {
                    throw std::runtime_error("call-back failed");
                }
            });
            return ran ? static_cast<int>(std::wcslen(buffer)) : 0;
        } catch (const std::runtime_error&) {
            return 1000;
        }
    }
    if (scenario == L"install") {
        return static_cast<int>(support::InstallCrashHandler());
    }
    if (scenario.starts_with(L"lock:")) {
        const DWORD ids[1] = {};
        ApplyLockOps(support::ProcessSyncRWLock(), Utf8(scenario.substr(5)), ids);
        return 0;
    }
    if (scenario == L"held") {
        logging::LogHold hold;
        logging::ScopeTrace outer(std::wstring(300, L'n').c_str());
        logging::ScopeTrace inner(L"inner", L"Probe::Function");
        QM_LOG_INFO(inner.FunctionName(), L"info %d", 1);
        QM_LOG_ERROR(L"Probe::Function", L"error %s", L"two");
        Sleep(100);
    } else {
        QM_LOG_INFO(L"Probe::Unheld", L"dropped: nobody holds logging");
        logging::Write(logging::kDepthNone, logging::kClassInfo, L"Probe::Unheld", L"one");
        logging::Write(logging::kDepthNone, logging::kClassInfo, L"Probe::Unheld", L"two");
    }
    return 0;
}

// Built right after the process-wide lock (priority 101) and before every other global, so
// that the lock scenarios find it built, and before GoogleTest starts.
struct ProbeStart {
    ProbeStart()
    {
        wchar_t scenario[64];
        const DWORD length = GetEnvironmentVariableW(L"SUPPORT_PROBE", scenario, 64);
        if (length > 0 && length < 64) {
            ExitProcess(static_cast<UINT>(PlayProbe(scenario)));
        }
    }
} g_probeStart __attribute__((init_priority(102)));

} // namespace

void SupportFolder::SetUp()
{
    wchar_t self[MAX_PATH];
    ASSERT_NE(GetModuleFileNameW(nullptr, self, MAX_PATH), 0u);
    ASSERT_TRUE(CopyFileW(self, (m_dir / L"probe.exe").c_str(), FALSE));
    ASSERT_TRUE(CopyFileW((ProgramFolder() + L"Morrowgate.exe").c_str(), (m_dir / L"Morrowgate.exe").c_str(), FALSE));
    ASSERT_TRUE(CreateDirectoryW(m_install.c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW(m_settings.c_str(), nullptr));
    Place(L"suite_double.dll", L"qmsvccfg.dll");
    Place(L"suite_double.dll", L"install\\qmcrash.dll");
    SetString(HKEY_LOCAL_MACHINE, m_productKey.SubKey(), L"AppPath", m_install + L"\\Morrowgate.exe");
    m_environment = {L"DOUBLE_ITEM_400=" + m_settings, L"DOUBLE_ITEM_202=" + m_productKey.SubKey()};
}

void SupportFolder::Place(const wchar_t* built, const std::wstring& placedAs)
{
    DeleteFileW((m_dir / placedAs).c_str());
    if (built != nullptr) {
        ASSERT_TRUE(CopyFileW(JoinPath(DoublesFolder(), built).c_str(), (m_dir / placedAs).c_str(), FALSE));
    }
}

DWORD SupportFolder::Run(const std::wstring& program, const std::wstring& arguments, const std::wstring& probe)
{
    DeleteFileW((m_dir / L"record.txt").c_str());
    ChildOptions options;
    options.environment = m_environment;
    options.environment.push_back(L"DOUBLE_RECORD=" + (m_dir / L"record.txt"));
    options.environment.push_back(probe);
    options.currentFolder = m_dir.Path();
    options.timeoutMs = 20000;
    const auto exitCode = RunChild(L"\"" + (m_dir / program) + L"\" " + arguments, options);
    EXPECT_TRUE(exitCode.has_value()) << "did not finish: " << Utf8(program + L" " + arguments + L" " + probe);
    return exitCode.value_or(0xFFFFFFFF);
}

Lines SupportFolder::Record() const
{
    Lines lines;
    std::istringstream in(ReadFileBytes(m_dir / L"record.txt").value_or(""));
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}
