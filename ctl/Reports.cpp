#include "ctl/Reports.h"

#include "ctl/Console.h"
#include "launcher/Modes.h"

#include <picojson.h>

#include <algorithm>

namespace ctl {

namespace {

using Row = std::vector<std::wstring>;

picojson::value Text(const std::wstring& text)
{
    return picojson::value(ToUtf8(text));
}

picojson::value TextOrNull(const std::wstring& text)
{
    return text.empty() ? picojson::value() : Text(text);
}

picojson::value Number(std::int64_t number)
{
    return picojson::value(static_cast<double>(number));
}

void PrintJson(const picojson::array& rows)
{
    const std::string json = picojson::value(rows).serialize();
    Out(FromUtf8(json) + L"\r\n");
}

// Columns padded to their widest cell; the last column is not padded.
void PrintTable(const Row& heading, const std::vector<Row>& rows)
{
    std::vector<size_t> widths(heading.size());
    for (size_t column = 0; column < heading.size(); ++column) {
        widths[column] = heading[column].size();
        for (const Row& row : rows) {
            widths[column] = std::max(widths[column], row[column].size());
        }
    }
    std::wstring text;
    for (const Row* row = &heading; row != nullptr;) {
        for (size_t column = 0; column < row->size(); ++column) {
            text += (*row)[column];
            if (column + 1 < row->size()) {
                text += std::wstring(widths[column] - (*row)[column].size() + 2, L' ');
            }
        }
        text += L"\r\n";
        const size_t next = row == &heading ? 0 : static_cast<size_t>(row - rows.data()) + 1;
        row = next < rows.size() ? &rows[next] : nullptr;
    }
    Out(text);
}

std::wstring Dash(const std::wstring& text)
{
    return text.empty() ? L"-" : text;
}

std::wstring SavedTextOf(const storage::StartupItem& item, const char* section)
{
    const std::string name = section;
    return std::wstring(item.IsUser ? L"user/" : L"system/") + std::wstring(name.begin(), name.end());
}

} // namespace

void PrintEntries(const std::vector<Entry>& entries, bool json)
{
    picojson::array objects;
    std::vector<Row> rows;
    for (const Entry& entry : entries) {
        const std::optional<std::wstring> target = entry.kind == EntryKind::StoreTask ? std::nullopt : TargetOf(entry.item.Cmd);
        const bool exists = target && GetFileAttributesW(target->c_str()) != INVALID_FILE_ATTRIBUTES;
        const std::wstring changed = entry.saved ? std::to_wstring(entry.saved->ChangedTime) : L"";
        picojson::object fields;
        fields["id"] = Text(entry.id);
        fields["location"] = Text(entry.location);
        fields["name"] = Text(entry.item.Name);
        fields["command"] = TextOrNull(entry.item.Cmd);
        fields["state"] = Text(StateOf(entry));
        fields["saved"] = TextOrNull(SavedText(entry));
        fields["target"] = target ? Text(*target) : picojson::value();
        fields["target_exists"] = picojson::value(exists);
        fields["changed_time"] = entry.saved ? Number(entry.saved->ChangedTime) : picojson::value();
        fields["drift"] = picojson::value(HasDrift(entry));
        if (!IsStorable(entry.item)) {
            fields["storable"] = picojson::value(false);
        }
        objects.emplace_back(std::move(fields));
        std::wstring notes = HasDrift(entry) ? L"drift" : L"";
        if (target && !exists) {
            notes += notes.empty() ? L"target missing" : L", target missing";
        }
        if (!IsStorable(entry.item)) {
            notes += notes.empty() ? L"not storable" : L", not storable";
        }
        rows.push_back({entry.id, StateOf(entry), Dash(SavedText(entry)), Dash(changed), Dash(notes),
                        Dash(entry.item.Cmd)});
    }
    if (json) {
        PrintJson(objects);
    } else {
        PrintTable({L"ID", L"STATE", L"SAVED", L"CHANGED", L"NOTES", L"COMMAND"}, rows);
    }
}

void PrintPlan(std::int64_t timeLimit, bool json)
{
    picojson::array objects;
    std::vector<Row> rows;
    launcher::WalkDelayedItems(timeLimit, [&](const storage::StartupItem& item, const char* section,
                                              launcher::StartDecision decision) {
        const EntryKind kind = std::string(section) == storage::kDelayedSection ? EntryKind::RunValue
                                                                                : EntryKind::FolderFile;
        const bool start = decision == launcher::StartDecision::Start;
        const wchar_t* reason = start ? L"" : decision == launcher::StartDecision::AfterTimeLimit ? L"time" : L"check";
        picojson::object fields;
        fields["id"] = Text(IdOfSavedItem(kind, item));
        fields["name"] = Text(item.Name);
        fields["command"] = Text(item.Cmd);
        fields["saved"] = Text(SavedTextOf(item, section));
        fields["changed_time"] = Number(item.ChangedTime);
        fields["start"] = picojson::value(start);
        fields["reason"] = TextOrNull(reason);
        objects.emplace_back(std::move(fields));
        rows.push_back({IdOfSavedItem(kind, item), start ? L"yes" : L"no", Dash(reason),
                        std::to_wstring(item.ChangedTime), item.Cmd});
    });
    if (json) {
        PrintJson(objects);
    } else {
        PrintTable({L"ID", L"START", L"REASON", L"CHANGED", L"COMMAND"}, rows);
    }
}

} // namespace ctl
