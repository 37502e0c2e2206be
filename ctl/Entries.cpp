#include "ctl/Entries.h"

#include "actions/CommandTarget.h"
#include "actions/IStartupAppsActions.h"
#include "launcher/Modes.h"

#include <cstring>
#include <cwchar>

namespace ctl {

namespace {

std::wstring LocationLabel(EntryKind kind, const storage::StartupItem& item)
{
    return LocationOfPath(kind, item.Path).value_or(item.Path);
}

std::wstring Key(EntryKind kind, const storage::StartupItem& item)
{
    std::wstring path = item.Path;
    while (!path.empty() && path.back() == L'\\') {
        path.pop_back();
    }
    return std::to_wstring(static_cast<int>(kind)) + L"|" + Folded(path) + L"|" + Folded(item.Name);
}

Entry FromLocation(LocationEntry shown)
{
    Entry entry;
    entry.kind = shown.kind;
    entry.location = shown.location;
    entry.id = shown.location + L"\\" + shown.item.Name;
    entry.item = std::move(shown.item);
    entry.shown = true;
    entry.switchedOn = shown.switchedOn;
    entry.taskState = shown.taskState;
    return entry;
}

void AttachSaved(std::vector<Entry>& entries, EntryKind kind, const char* section, const storage::StartupItem& saved)
{
    const std::wstring key = Key(kind, saved);
    for (Entry& entry : entries) {
        if (entry.kind == kind && Key(entry.kind, entry.item) == key) {
            if (!entry.saved) {  // a record saved twice shows once, as its first copy
                entry.saved = saved;
                entry.section = section;
            }
            return;
        }
    }
    Entry entry;
    entry.kind = kind;
    entry.location = LocationLabel(kind, saved);
    entry.id = IdOfSavedItem(kind, saved);
    entry.item = saved;
    entry.saved = saved;
    entry.section = section;
    entries.push_back(std::move(entry));
}

} // namespace

EntryKind KindOfSection(int locationKind)
{
    return locationKind == actions::RunKey ? EntryKind::RunValue : EntryKind::FolderFile;
}

bool IsDelayedSection(const char* section)
{
    return section != nullptr && (std::strcmp(section, storage::kDelayedSection) == 0 ||
                                  std::strcmp(section, storage::kStartupDelayedSection) == 0);
}

std::wstring StateOf(const Entry& entry)
{
    if (entry.section != nullptr) {
        return IsDelayedSection(entry.section) ? L"delayed" : L"disabled";
    }
    return entry.switchedOn ? L"enabled" : L"disabled";
}

bool HasDrift(const Entry& entry)
{
    return entry.section != nullptr && entry.switchedOn;
}

std::wstring SavedText(const Entry& entry)
{
    if (entry.section == nullptr) {
        return {};
    }
    const std::string section = entry.section;
    return std::wstring(entry.saved->IsUser ? L"user/" : L"system/") + std::wstring(section.begin(), section.end());
}

bool IsStorable(const storage::StartupItem& item)
{
    for (const std::wstring* text : {&item.Name, &item.Path, &item.Cmd}) {
        for (const wchar_t unit : *text) {
            if (unit > 0x7F) {
                return false;
            }
        }
    }
    return true;
}

std::optional<std::wstring> TargetOf(const std::wstring& command)
{
    std::wstring target;
    if (command.empty() || !actions::ResolveCommandTarget(command.c_str(), target)) {
        return std::nullopt;
    }
    return target;
}

const char* SectionFor(EntryKind kind, bool delayed)
{
    if (kind == EntryKind::RunValue) {
        return delayed ? storage::kDelayedSection : storage::kDisabledSection;
    }
    return delayed ? storage::kStartupDelayedSection : storage::kStartupDisabledSection;
}

std::wstring IdOfSavedItem(EntryKind kind, const storage::StartupItem& item)
{
    return LocationLabel(kind, item) + L"\\" + item.Name;
}

std::vector<Entry> CollectEntries(bool windows8)
{
    std::vector<Entry> entries;
    for (LocationEntry& shown : ReadLocations(windows8)) {
        entries.push_back(FromLocation(std::move(shown)));
    }
    launcher::WalkSavedSections(L"ctl::CollectEntries",
                                [&entries](const launcher::SavedSection& step, storage::SharedStartupItemList& items) {
                                    for (const auto& saved : items) {
                                        AttachSaved(entries, KindOfSection(step.kind), step.section, *saved);
                                    }
                                });
    return entries;
}

const Entry* FindEntry(const std::vector<Entry>& entries, const std::wstring& text, std::wstring& problem)
{
    std::vector<const Entry*> named;
    for (const Entry& entry : entries) {
        if (_wcsicmp(entry.id.c_str(), text.c_str()) == 0) {
            return &entry;
        }
        if (_wcsicmp(entry.item.Name.c_str(), text.c_str()) == 0) {
            named.push_back(&entry);
        }
    }
    if (named.size() == 1) {
        return named.front();
    }
    std::vector<const Entry*> candidates = named;
    if (candidates.empty()) {
        const std::wstring wanted = Folded(text);
        for (const Entry& entry : entries) {
            if (Folded(entry.id).find(wanted) != std::wstring::npos) {
                candidates.push_back(&entry);
            }
        }
    }
    problem = (named.empty() ? L"no entry is called " : L"more than one entry is called ") + text;
    if (candidates.empty()) {
        problem += L"; mgctl list shows every entry";
    } else {
        problem += L"; did you mean:";
        for (const Entry* candidate : candidates) {
            problem += L"\r\n  " + candidate->id;
        }
    }
    return nullptr;
}

} // namespace ctl
