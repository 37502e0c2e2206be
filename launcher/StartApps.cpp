#include "launcher/Modes.h"

#include "actions/StartupAppsActionExec.h"
#include "storage/StartupItemsStorage.h"
#include "support/LogDLL.h"
#include "support/ScopeTrace.h"

#include <windows.h>

#include <cstring>
#include <cwchar>
#include <memory>

namespace launcher {

namespace {

bool WithinTimeLimit(const storage::StartupItem& item, std::int64_t timeLimit)
{
    return timeLimit == 0 || item.ChangedTime <= timeLimit;
}

// Decides for every item of one delayed section; the target is checked by the item's location
// object only when the time bound lets the item through.
void WalkSection(storage::CStartupItemsStorage& store, const actions::StartupAppsActionExec& exec,
                 const char* section, int kind, std::int64_t timeLimit, storage::StartupItemList& items,
                 const StartStep& step)
{
    store.LoadStartupItems(section, items);  // a failed load leaves the list empty
    actions::IStartupAppsActions* location = exec[kind];
    if (location == nullptr) {
        return;
    }
    for (const auto& item : items) {
        if (!WithinTimeLimit(item, timeLimit)) {
            step(item, section, StartDecision::AfterTimeLimit);
        } else if (location->Check(item) == actions::kActionSucceeded) {
            step(item, section, StartDecision::Start);
        } else {
            step(item, section, StartDecision::CheckFailed);
        }
    }
}

} // namespace

void WalkDelayedItems(std::int64_t timeLimit, const StartStep& step)
{
    auto& store = storage::CStartupItemsStorage::Instance();
    actions::StartupAppsActionExec exec;
    storage::StartupItemList items;
    // Registry items first, then Startup-folder items.
    WalkSection(store, exec, storage::kDelayedSection, actions::RunKey, timeLimit, items, step);
    items.clear();
    WalkSection(store, exec, storage::kStartupDelayedSection, actions::StartupFolder, timeLimit, items, step);
    items.clear();
}

bool StartApps(std::int64_t timeLimit)
{
    logging::ScopeTrace trace(L"StartApps");
    // One start right after the other: the user is waiting at logon, so there is no pause.
    WalkDelayedItems(timeLimit, [](const storage::StartupItem& item, const char*, StartDecision decision) {
        if (decision == StartDecision::Start) {
            StartApp(item.Cmd);
        }
    });
    return true;
}

bool StartApp(const std::wstring& commandLine)
{
    logging::ScopeTrace trace(L"StartApp");
    QM_LOG_INFO(trace.FunctionName(), L"CmdLine=%s", commandLine.c_str());

    // The size field stays 0 as the suite has always started these programs; Windows accepts it.
    STARTUPINFOW startup;
    std::memset(&startup, 0, sizeof startup);
    PROCESS_INFORMATION process{};
    // CreateProcessW may write into its command line, so it gets a copy of its own.
    const size_t chars = commandLine.size() + 1;
    auto buffer = std::make_unique<wchar_t[]>(chars);
    wcscpy_s(buffer.get(), chars, commandLine.c_str());

    if (CreateProcessW(nullptr,  // the program is the command line's first token
                       buffer.get(),
                       nullptr,  // default process security
                       nullptr,  // default thread security
                       FALSE,    // no handle inheritance
                       0,        // no creation flags
                       nullptr,  // the launcher's environment
                       nullptr,  // the launcher's current folder
                       &startup, &process)) {
        CloseHandle(process.hProcess);
        // process.hThread is deliberately left open: it goes when the launcher exits.
        return true;
    }
    const DWORD error = GetLastError();
    QM_LOG_ERROR(trace.FunctionName(), L"FAILED CreateProcess(%s) error 0x%x", buffer.get(), error);
    return false;
}

} // namespace launcher
