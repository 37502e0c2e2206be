// The saved-items store against real files: the exact bytes each operation leaves, what loads
// back, what a removal leaves, and unreadable, damaged and unwritable files.
#include "storage/StartupItemsStorage.h"
#include "support/Handles.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace storage;
using namespace testing_support;

namespace {

StartupItem Item(const std::wstring& name, const std::wstring& path, bool isUser, std::int64_t changed = 0,
                 const std::wstring& backup = L"")
{
    return StartupItem{name, path, backup, L"c", isUser, changed};
}

// The tables write JSON with ' for " to stay short.
std::optional<std::string> Quoted(std::optional<std::string> text)
{
    if (text) std::replace(text->begin(), text->end(), '\'', '"');
    return text;
}

// One item as the store writes it.
std::string Json(const std::string& name, const std::string& path = "p", const std::string& time = "0",
                 const std::string& backup = "")
{
    return "{'BkpPath':'" + backup + "','ChangedTime':" + time + ",'Cmd':'c','Name':'" + name + "','Path':'" + path + "'}";
}

enum class Op { Load, Save, Remove };
const std::string kFolder = "<folder>";
const std::wstring kKept = L"kept|||c|s|0";  // in the caller's list before every operation

// before: nullopt for no file, kFolder for a folder in its place; items: saved into or removed from
// "Delayed"; loaded: the caller's list afterwards; heldForReading: open elsewhere, shared for reading.
struct Change {
    std::string name;
    std::optional<std::string> before;
    Op op;
    std::vector<StartupItem> items;
    DWORD code;
    std::optional<std::string> after;
    std::vector<std::wstring> loaded = {kKept};
    const wchar_t* file = L"Storage.json";
    bool heldForReading = false;
};

std::vector<Change> Changes()
{
    using enum Op;
    const StartupItem n = Item(L"n", L"p", true);
    const std::string stored =
        "{'system':{'Delayed':[{'BkpPath':'sb','ChangedTime':-1.5,'Cmd':'sc','Name':'s','Path':'sp'}]},'user':{"
        "'Disabled':[{'Cmd':'x','Name':'x','Path':'x'}],'Delayed':[5,null,{'Name':'no-cmd','Path':'p'},"
        "{'Cmd':'c','Name':7,'Path':'p'},{'Cmd':'c','Name':'a','Path':'p','ChangedTime':1.5},"
        "{'Cmd':'c','Name':'b','Path':'p','BkpPath':3,'ChangedTime':'12'},{'Cmd':'c','Name':'c','Path':'p',"
        "'ChangedTime':9007199254740993},{'Cmd':'c','Name':'d','Path':'p','ChangedTime':1e300},"
        "{'Cmd':'\\u00e9','Name':'caf\xE9','Path':'\\u0041'}]}}";
    const std::string user = "'user':{'Delayed':[" + Json("n") + "]", fresh = "{" + user + "}}";
    std::vector<Change> changes = {
        // 0xE9 reads back as U+FFE9; the escape \u00e9 as its UTF-8 bytes C3 A9, sign-extended.
        {"load appends user then system items", stored, Load, {}, ERROR_SUCCESS, stored,
         {kKept, L"a|p||c|u|1", L"b|p||c|u|0", L"c|p||c|u|9007199254740992", L"d|p||c|u|9223372036854775807",
          L"caf\xFFE9|A||\xFFC3\xFFA9|u|0", L"s|sp|sb|sc|s|-1"}},
        {"save into a missing file", std::nullopt, Save, {Item(L"n", L"p", false, 7, L"b")}, ERROR_SUCCESS,
         "{'system':{'Delayed':[" + Json("n", "p", "7", "b") + "]}}"},
        {"save appends in list order", "{'Z':1,'boot_time':2,'user':{'Delayed':[{'x':1}," + Json("u1") + "]}}", Save,
         {Item(L"u1", L"p", true), Item(L"s1", L"p", false), Item(L"u2", L"p", true)}, ERROR_SUCCESS,
         "{'Z':1,'boot_time':2,'system':{'Delayed':[" + Json("s1") + "]},'user':{'Delayed':[{'x':1}," + Json("u1") +
             "," + Json("u1") + "," + Json("u2") + "]}}"},
        {"save keeps a code unit's low byte, the time as a double", std::nullopt, Save,
         {Item(L"caf\u00e9", L"\u0141x", true, (std::int64_t{1} << 53) + 1)}, ERROR_SUCCESS,
         "{'user':{'Delayed':[" + Json("caf\xE9", "Ax", "9007199254740992") + "]}}"},
        {"save of an empty list", std::nullopt, Save, {}, ERROR_SUCCESS, std::nullopt},
        {"remove of an empty list", std::nullopt, Remove, {}, ERROR_SUCCESS, std::nullopt},
        // U+00E9 cannot match the stored 0xE9, which reads back as U+FFE9.
        {"remove matches the stored name and path in the item's scope",
         "{'system':{'Delayed':[{'Cmd':'c','Name':'a','Path':'p'}],'Disabled':7},'user':{'Delayed':["
         "{'Cmd':'c1','Name':'a','Path':'p'},{'ChangedTime':4,'Cmd':'c2','Name':'a','Path':'p'},{'Cmd':'c','Name':'a',"
         "'Path':'P'},{'Name':'a','Path':'p'},{'Cmd':'z','Name':'b','Path':'q'},{'Cmd':'c','Name':'A','Path':'p'},"
         "{'Cmd':'','Name':'caf\xE9','Path':'p'},{'Cmd':'','Name':'x','Path':'\xE9'}],'Other':1}}", Remove,
         {Item(L"b", L"q", true), Item(L"a", L"p", true), Item(L"caf\u00e9", L"p", true), Item(L"x", L"\xFFE9", true)},
         ERROR_SUCCESS, "{'system':{'Delayed':[{'Cmd':'c','Name':'a','Path':'p'}],'Disabled':7},'user':{'Delayed':["
         "{'Cmd':'c','Name':'a','Path':'P'},{'Name':'a','Path':'p'},{'Cmd':'c','Name':'A','Path':'p'},"
         "{'Cmd':'','Name':'caf\xE9','Path':'p'}],'Other':1}}"},
        {"remove writes a missing section as null", "{'system':{'Delayed':[]}}", Remove, {n}, ERROR_SUCCESS,
         "{'system':{'Delayed':[]},'user':{'Delayed':null}}"},
        {"remove fills a null scope, drops trailing text", "{'user':null} x", Remove, {n}, ERROR_SUCCESS,
         "{'user':{'Delayed':null}}"},
        {"remove of a long item", "{'system':{'Delayed':[" + Json(std::string(3'000'000, 'x')) + "," + Json("n") + "]}}",
         Remove, {Item(std::wstring(3'000'000, L'x'), L"p", false)}, ERROR_SUCCESS, "{'system':{'Delayed':[" + Json("n") + "]}}"},
        {"save with a folder in the file's place", kFolder, Save, {n}, ERROR_GEN_FAILURE, std::nullopt},
        {"save into a missing folder", std::nullopt, Save, {n}, ERROR_GEN_FAILURE, std::nullopt, {kKept}, L"x\\Storage.json"},
        {"remove from a file it cannot rewrite", fresh, Remove, {n}, ERROR_GEN_FAILURE, fresh, {kKept}, L"Storage.json", true},
    };
    // Files the store must not read: load fails and leaves the list alone, remove writes
    // nothing, and save replaces what it cannot use.
    std::string deepObjects;
    for (int level = 0; level < 20000; ++level) deepObjects += "{'a':";
    const std::vector<std::tuple<const char*, std::optional<std::string>, std::string>> unreadable = {
        {"missing", std::nullopt, fresh}, {"empty", "", fresh}, {"not JSON", "Storage", fresh}, {"null", "null", fresh},
        {"truncated", "{'user':{'Delayed':[{'Cmd':'c','Na", fresh}, {"a top-level array", "[{'user':{}}]", fresh},
        {"a number beyond a double", "{'user':{'Delayed':[{'ChangedTime':1e400}]}}", fresh},
        {"deep arrays", "{'x':" + std::string(150, '[') + std::string(150, ']') + "}", fresh},
        {"deep objects", deepObjects + "1" + std::string(20000, '}'), fresh},
        {"the user scope a string", "{'k':1,'user':'x'}", "{'k':1," + user + "}}"},
        {"the system scope an array", "{'system':[1],'user':{}}", "{'system':{}," + user + "}}"},
        {"the section an object", "{'user':{'Delayed':{'a':1},'Other':2}}", "{" + user + ",'Other':2}}"},
        {"the other scope's section a number", "{'system':{'Delayed':5,'K':6}}", "{'system':{'Delayed':[],'K':6}," + user + "}}"},
    };
    for (const auto& [name, before, afterSave] : unreadable) {
        changes.push_back({std::string("load, ") + name, before, Load, {}, ERROR_GEN_FAILURE, before});
        changes.push_back({std::string("remove, ") + name, before, Remove, {n, Item(L"n", L"p", false)}, ERROR_SUCCESS, before});
        changes.push_back({std::string("save, ") + name, before, Save, {n}, ERROR_SUCCESS, afterSave});
    }
    return changes;
}

TEST(StorageFile, EachOperationLeavesExactlyTheseBytes)
{
    for (const Change& change : Changes()) {
        SCOPED_TRACE(change.name);
        const TempDir dir;
        const std::wstring file = dir / change.file;
        if (change.before == kFolder) ASSERT_TRUE(CreateDirectoryW(file.c_str(), nullptr));
        else if (change.before) WriteFileBytes(file, *Quoted(change.before));
        CStartupItemsStorage store;
        store.Init(file.c_str());
        support::UniqueHandle reader(change.heldForReading ? CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ,
                                                                         nullptr, OPEN_EXISTING, 0, nullptr)
                                                           : nullptr);
        StartupItemList loaded{Item(L"kept", L"", false)};
        SharedStartupItemList items;
        for (const StartupItem& item : change.items) items.push_back(std::make_shared<StartupItem>(item));
        EXPECT_EQ(change.op == Op::Load   ? store.LoadStartupItems("Delayed", loaded)
                  : change.op == Op::Save ? store.SaveStartupItems(items, "Delayed")
                                          : store.RemoveStartupItems(items, "Delayed"),
                  change.code);
        reader.reset();
        std::vector<std::wstring> rows;  // Name|Path|BkpPath|Cmd|scope|ChangedTime
        for (const StartupItem& item : loaded)
            rows.push_back(item.Name + L"|" + item.Path + L"|" + item.BkpPath + L"|" + item.Cmd + (item.IsUser ? L"|u|" : L"|s|") +
                           std::to_wstring(item.ChangedTime));
        EXPECT_EQ(rows, change.loaded);
        // Compared without printing both sides: some of the files are megabytes long.
        const std::optional<std::string> after = ReadFileBytes(file);
        EXPECT_TRUE(after == Quoted(change.after)) << "the file holds " << after.value_or("<missing>").substr(0, 400);
    }
}

} // namespace
