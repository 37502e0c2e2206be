#include "ctl/EntryChanges.h"

#include "actions/MicrosoftStoreStartupItem.h"
#include "actions/StartupAppsActionExec.h"
#include "ctl/Console.h"
#include "launcher/Modes.h"
#include "storage/StartupItemsStorage.h"
#include "support/Handles.h"

#include <shellapi.h>

#include <cstring>
#include <cwchar>
#include <memory>

namespace ctl {

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;

int Fail(const std::wstring& message)
{
    Err(L"mgctl: " + message + L"\r\n");
    return kFailed;
}

int Done(const std::wstring& message)
{
    Out(message + L"\r\n");
    return kDone;
}

int ActionKind(EntryKind kind)
{
    return kind == EntryKind::RunValue ? actions::RunKey : actions::StartupFolder;
}

// One item through the design's action object of its kind; true when it succeeded.
bool Execute(int action, EntryKind kind, const storage::StartupItem& item, bool save)
{
    actions::StartupAppsActionExec exec;
    storage::SharedStartupItemList items{std::make_shared<storage::StartupItem>(item)};
    return exec.Execute(action, ActionKind(kind), items, save) == actions::kActionSucceeded;
}

bool EndsWithNoCase(const std::wstring& text, const wchar_t* tail)
{
    const size_t length = std::wcslen(tail);
    return text.size() >= length && _wcsicmp(text.c_str() + text.size() - length, tail) == 0;
}

// Whether CreateProcessW can start the command as it stands: its program (an unquoted path with
// blanks is joined up as CreateProcessW tries it) must be an .exe, .com, .bat or .cmd file, and
// must not need environment variables expanded, which CreateProcessW does not do.
bool StartsWithStartableProgram(const std::wstring& command)
{
    int count = 0;
    support::UniqueLocal<LPWSTR> argv(CommandLineToArgvW(command.c_str(), &count));
    if (command.empty() || !argv || count == 0) {
        return false;
    }
    const bool quoted = command.front() == L'"';
    std::wstring program;
    for (int i = 0; i < (quoted ? 1 : count); ++i) {
        program += (i == 0 ? L"" : L" ") + std::wstring(argv.get()[i]);
        if (program.find(L'%') != std::wstring::npos) {
            return false;
        }
        for (const wchar_t* extension : {L".exe", L".com", L".bat", L".cmd"}) {
            if (EndsWithNoCase(program, extension)) {
                return true;
            }
        }
    }
    return false;
}

// Where the store would refuse a write: the file cannot be opened for writing (it is a folder, it
// is read-only, or the user may not write it). A missing file is created by the save.
bool StoreRefusesWrites()
{
    const wchar_t* path = storage::CStartupItemsStorage::Instance().StoragePath();
    if (GetFileAttributesW(path) == INVALID_FILE_ATTRIBUTES) {
        return false;
    }
    const support::UniqueFile file(CreateFileW(path, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                               nullptr,  // default security
                                               OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    return !file;
}

bool StoreHolds(const char* section, const storage::StartupItem& item)
{
    storage::StartupItemList saved;
    storage::CStartupItemsStorage::Instance().LoadStartupItems(section, saved);
    for (const auto& stored : saved) {
        if (stored.Path == item.Path && stored.Name == item.Name) {
            return true;
        }
    }
    return false;
}

bool RemoveFromStore(const storage::StartupItem& item, const char* section)
{
    const storage::SharedStartupItemList items{std::make_shared<storage::StartupItem>(item)};
    return storage::CStartupItemsStorage::Instance().RemoveStartupItems(items, section) == ERROR_SUCCESS;
}

// Entries of HKLM and of the common Startup folder need an elevated prompt. Asks for the access
// the change needs before anything is changed.
DWORD ProbeSystemAccess(const Entry& entry, bool windows8)
{
    if (entry.item.IsUser) {
        return ERROR_SUCCESS;
    }
    if (windows8) {
        support::UniqueHKey key;
        const LSTATUS status = support::OpenKey(HKEY_LOCAL_MACHINE, L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer",
                                                KEY_CREATE_SUB_KEY | KEY_SET_VALUE, key);
        return status == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : static_cast<DWORD>(status);
    }
    if (entry.kind == EntryKind::RunValue) {
        const size_t slash = entry.item.Path.find(L'\\');
        support::UniqueHKey key;
        return static_cast<DWORD>(support::OpenKey(HKEY_LOCAL_MACHINE, entry.item.Path.c_str() + slash + 1,
                                                   KEY_SET_VALUE, key));
    }
    // The file is moved into a backup folder inside the Startup folder.
    const std::wstring file = entry.item.Path + L"\\" + entry.item.Name;
    const support::UniqueFile moved(CreateFileW(file.c_str(), DELETE | FILE_WRITE_ATTRIBUTES,
                                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                                nullptr,  // default security
                                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    return moved ? ERROR_SUCCESS : GetLastError();
}

int RefuseUnlessAllowed(const Entry& entry, bool windows8, const wchar_t* verb)
{
    const DWORD access = ProbeSystemAccess(entry, windows8);
    if (access == ERROR_ACCESS_DENIED) {
        return Fail(std::wstring(verb) + L" " + entry.id +
                    L" needs administrator rights: run mgctl from an elevated prompt. Nothing was changed.");
    }
    return kDone;
}

int SwitchTask(const Entry& entry, bool on)
{
    const DWORD status = on ? actions::MicrosoftStoreStartupItem::Enable(entry.item)
                            : actions::MicrosoftStoreStartupItem::Disable(entry.item);
    if (status != ERROR_SUCCESS) {
        return Fail(L"could not switch " + entry.id + L" " + (on ? L"on" : L"off") + L" (error " +
                    std::to_wstring(status) + L")");
    }
    return Done(std::wstring(on ? L"enabled " : L"disabled ") + entry.id +
                L" (Store app task: its State was switched; the store does not record it)");
}

// Delay or disable of an entry the store does not hold yet: the design's action with save, whose
// rollback undoes the location change when the store refuses the record.
int SwitchOffAndSave(const Entry& entry, bool delay)
{
    const bool windows8 = actions::IsWindows8OrGreater();
    const wchar_t* verb = delay ? L"delaying" : L"disabling";
    if (RefuseUnlessAllowed(entry, windows8, verb) != kDone) {
        return kFailed;
    }
    storage::StartupItem record = entry.item;
    record.ChangedTime = UnixTimeNow();
    const char* section = SectionFor(entry.kind, delay);
    const bool succeeded = Execute(delay ? actions::ActionDelay : actions::ActionDisable, entry.kind, record, true);
    if (succeeded && StoreHolds(section, record)) {
        return Done(std::wstring(delay ? L"delayed " : L"disabled ") + entry.id);
    }
    if (StoreRefusesWrites()) {
        return Fail(L"the store refused to save " + entry.id + L" (" +
                    storage::CStartupItemsStorage::Instance().StoragePath() +
                    L"), so the change to its location was undone");
    }
    return Fail(L"could not take " + entry.id + L" out of its location; nothing was saved (the log has the details)");
}

// Delay or disable of an entry already saved: only the section changes, and a location that
// switched the entry back on is switched off again without a second save.
int Resave(const Entry& entry, bool delay)
{
    const char* section = SectionFor(entry.kind, delay);
    const bool sameSection = std::strcmp(section, entry.section) == 0;
    if (HasDrift(entry) &&
        !Execute(delay ? actions::ActionDelay : actions::ActionDisable, entry.kind, *entry.saved, false)) {
        return Fail(L"could not switch " + entry.id + L" off again (the log has the details)");
    }
    if (sameSection) {
        return Done(HasDrift(entry) ? entry.id + L" had switched itself back on; it is " + StateOf(entry) + L" again"
                                    : entry.id + L" is already " + StateOf(entry));
    }
    storage::StartupItem record = *entry.saved;
    record.ChangedTime = UnixTimeNow();
    if (storage::CStartupItemsStorage::Instance().SaveStartupItems(record, section) != ERROR_SUCCESS) {
        return Fail(L"the store refused to save " + entry.id + L"; it stays " + StateOf(entry));
    }
    if (!RemoveFromStore(record, entry.section)) {
        return Fail(L"saved " + entry.id + L" as " + (delay ? L"delayed" : L"disabled") +
                    L" but could not remove its old record from the store");
    }
    return Done(entry.id + L" is now " + (delay ? L"delayed" : L"disabled") + L" (was " + StateOf(entry) + L")");
}

// Delay or disable of a Run value or a Startup-folder file; Store app tasks never get here.
int SwitchOff(const Entry& entry, bool delay)
{
    if (!IsStorable(entry.item)) {
        return Fail(entry.id + L" has characters other than ASCII in its name, folder or command, which "
                               L"Storage.json cannot keep; nothing was changed");
    }
    if (entry.section != nullptr) {
        return Resave(entry, delay);
    }
    if (!entry.shown) {
        return Fail(entry.id + L" is not in its location any more");
    }
    return SwitchOffAndSave(entry, delay);
}

} // namespace

std::int64_t UnixTimeNow()
{
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const std::int64_t ticks = (static_cast<std::int64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
    constexpr std::int64_t kTicksAt1970 = 116444736000000000;  // 100 ns ticks from 1601 to 1970
    return (ticks - kTicksAt1970) / 10000000;
}

int DelayEntry(const Entry& entry)
{
    if (entry.kind == EntryKind::StoreTask) {
        return Fail(L"Store app tasks cannot be delayed: the logon run does not start them. Use mgctl disable " +
                    entry.id);
    }
    if (!StartsWithStartableProgram(entry.item.Cmd)) {
        return Fail(entry.id + L" does not start a program the launcher can start itself (an .exe, .com, .bat "
                               L"or .cmd file), so it cannot be delayed. Use mgctl disable " + entry.id);
    }
    return SwitchOff(entry, true);
}

int DisableEntry(const Entry& entry)
{
    if (entry.kind != EntryKind::StoreTask) {
        return SwitchOff(entry, false);
    }
    if (entry.taskState == kTaskOnByPolicy) {
        return Fail(entry.id + L" is switched on by policy; only an administrator can switch it off");
    }
    if (!entry.switchedOn) {
        return Done(entry.id + L" is already off");
    }
    return SwitchTask(entry, false);
}

int EnableEntry(const Entry& entry)
{
    if (entry.kind == EntryKind::StoreTask) {
        switch (entry.taskState) {
        case kTaskOffByUser:
            return SwitchTask(entry, true);
        case kTaskOffByApp:
            return Fail(entry.id + L" was switched off by the app itself; only the app can switch it on again");
        case kTaskOffByPolicy:
            return Fail(entry.id + L" is switched off by policy; only an administrator can switch it on");
        default:
            return Done(entry.id + L" is already on");
        }
    }
    if (entry.section == nullptr && entry.switchedOn) {
        return Done(entry.id + L" is already enabled");
    }
    if (RefuseUnlessAllowed(entry, actions::IsWindows8OrGreater(), L"enabling") != kDone) {
        return kFailed;
    }
    const storage::StartupItem& record = entry.saved ? *entry.saved : entry.item;
    if (!Execute(actions::ActionEnable, entry.kind, record, false)) {
        return Fail(L"could not put " + entry.id + L" back into its location" +
                    (entry.section != nullptr ? L"; it stays saved" : L"") + L" (the log has the details)");
    }
    if (entry.section != nullptr && !RemoveFromStore(record, entry.section)) {
        return Fail(L"enabled " + entry.id + L" but could not remove it from the store");
    }
    return Done(L"enabled " + entry.id);
}

int EnableAllSaved()
{
    actions::StartupAppsActionExec exec;
    std::vector<std::wstring> failed;
    size_t enabled = 0;
    bool storeFailed = false;
    auto& store = storage::CStartupItemsStorage::Instance();
    launcher::WalkSavedSections(L"ctl::EnableAllSaved", [&](const launcher::SavedSection& step,
                                                            storage::SharedStartupItemList& items) {
        storage::SharedStartupItemList back;
        for (const auto& item : items) {
            storage::SharedStartupItemList one{item};
            if (exec.Execute(actions::ActionEnable, step.kind, one, false) == actions::kActionSucceeded) {
                back.push_back(item);
            } else {
                failed.push_back(IdOfSavedItem(KindOfSection(step.kind), *item));
            }
        }
        enabled += back.size();
        storeFailed |= store.RemoveStartupItems(back, step.section) != ERROR_SUCCESS;
    });
    if (storeFailed) {
        return Fail(L"put " + std::to_wstring(enabled) + L" items back, but the store could not be updated");
    }
    if (!failed.empty()) {
        std::wstring message = L"put " + std::to_wstring(enabled) + L" items back; these could not be put back and "
                                                                    L"stay saved:";
        for (const auto& id : failed) {
            message += L"\r\n  " + id;
        }
        return Fail(message);
    }
    return Done(L"put " + std::to_wstring(enabled) + L" saved items back into their locations");
}

} // namespace ctl
