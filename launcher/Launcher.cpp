#include "launcher/Launcher.h"

#include "launcher/CommandLine.h"
#include "launcher/Modes.h"
#include "storage/StartupItemsStorage.h"
#include "support/CrashHandler.h"
#include "support/LogDLL.h"
#include "support/ScopeTrace.h"

#include <exception>

namespace launcher {

namespace {

constexpr wchar_t kFunction[] = L"wWinMain";

// Exactly one mode runs, by fixed priority whatever the order of the switches.
void RunMode(const LaunchSettings& settings)
{
    if (settings.restore) {
        logging::ScopeTrace trace(L"RESTORE", kFunction);
        RestoreApps();
    } else if (settings.checkCurrentUser) {
        logging::ScopeTrace trace(L"CHECK CRT USER", kFunction);
        CheckCrtUserApps();
    } else if (settings.checkUser) {
        logging::ScopeTrace trace(L"CHECK USER", kFunction);
        CheckCrtUserApps();
    } else {
        logging::ScopeTrace trace(L"START APPS", kFunction);
        QM_LOG_INFO(kFunction, L"time=%lld", static_cast<long long>(settings.timeLimit));
        StartApps(settings.timeLimit);
    }
}

int RunWithLogging(const wchar_t* commandLine)
{
    QM_LOG_INFO(kFunction, L"cmd line=%s", commandLine ? commandLine : L"");

    const LaunchSettings settings = ParseCommandLine(commandLine);
    const std::wstring storagePath = BuildStoragePath(settings.userFolder);

    auto& store = storage::CStartupItemsStorage::Instance();
    if (store.Init(storagePath.c_str()) != ERROR_SUCCESS) {
        QM_LOG_ERROR(kFunction, L"CStartupItemsStorage::Init failed");
        return 1;
    }
    try {
        RunMode(settings);
    } catch (const std::exception& error) {
        QM_LOG_ERROR(kFunction, L"mode ended by an exception: %S", error.what());
    }
    return 0;
}

} // namespace

int RunLauncher(const wchar_t* commandLine)
{
    // First of all, before logging exists; neither result changes the run.
    support::InstallCrashHandler();
    support::ArmTestCrash();

    logging::LogHold hold;  // keeps the logging library loaded for the whole run
    return RunWithLogging(commandLine);
}

} // namespace launcher
