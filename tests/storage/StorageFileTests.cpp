// The saved-items store against real files: exact bytes written, what loads back, what a
// removal leaves, and how unreadable or unwritable files are handled.
#include "storage/StartupItemsStorage.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

using namespace testing_support;
using storage::CStartupItemsStorage;
using storage::SharedStartupItemList;
using storage::StartupItem;
using storage::StartupItemList;

namespace {

StartupItem MakeItem(const std::wstring& name, const std::wstring& path, bool isUser,
                     const std::wstring& cmd = L"c", const std::wstring& backup = L"",
                     std::int64_t changed = 0)
{
    StartupItem item;
    item.Name = name;
    item.Path = path;
    item.BkpPath = backup;
    item.Cmd = cmd;
    item.IsUser = isUser;
    item.ChangedTime = changed;
    return item;
}

SharedStartupItemList Shared(const std::vector<StartupItem>& items)
{
    SharedStartupItemList list;
    for (const StartupItem& item : items) {
        list.push_back(std::make_shared<StartupItem>(item));
    }
    return list;
}

class StorageFile : public ::testing::Test {
protected:
    void SetUp() override { m_store.Init(m_file.c_str()); }

    std::string Bytes() const { return ReadFileBytes(m_file).value_or("<missing>"); }
    void Write(const std::string& bytes) const { WriteFileBytes(m_file, bytes); }
    StartupItemList Load(const char* section, DWORD expected = ERROR_SUCCESS)
    {
        StartupItemList items;
        EXPECT_EQ(m_store.LoadStartupItems(section, items), expected);
        return items;
    }

    TempDir m_dir;
    std::wstring m_file = m_dir / L"Storage.json";
    CStartupItemsStorage m_store;
};

TEST_F(StorageFile, SaveIntoMissingFileCreatesOnlyTheItemsScope)
{
    ASSERT_EQ(m_store.SaveStartupItems(MakeItem(L"n", L"p", false, L"c", L"b", 7), "Disabled"),
              ERROR_SUCCESS);
    EXPECT_EQ(Bytes(),
              R"({"system":{"Disabled":[{"BkpPath":"b","ChangedTime":7,"Cmd":"c","Name":"n","Path":"p"}]}})");
}

TEST_F(StorageFile, SaveAppendsInListOrderAndKeepsOtherKeysInByteOrder)
{
    // Raw bytes 0xC3 0xA9 sort after every ASCII key; "Z" sorts before "a".
    Write("{\"\xC3\xA9\":1,\"a\":[true],\"Z\":{\"k\":null},"
          R"("user":{"Delayed":[{"x":1}],"Other":"o"},"boot_time":2})");
    const auto items = Shared({MakeItem(L"u1", L"p", true), MakeItem(L"s1", L"p", false),
                               MakeItem(L"u2", L"p", true)});
    ASSERT_EQ(m_store.SaveStartupItems(items, "Delayed"), ERROR_SUCCESS);
    EXPECT_EQ(Bytes(),
              R"({"Z":{"k":null},"a":[true],"boot_time":2,)"
              R"("system":{"Delayed":[{"BkpPath":"","ChangedTime":0,"Cmd":"c","Name":"s1","Path":"p"}]},)"
              R"("user":{"Delayed":[{"x":1},)"
              R"({"BkpPath":"","ChangedTime":0,"Cmd":"c","Name":"u1","Path":"p"},)"
              R"({"BkpPath":"","ChangedTime":0,"Cmd":"c","Name":"u2","Path":"p"}],"Other":"o"},)"
              "\"\xC3\xA9\":1}");
}

TEST_F(StorageFile, SavingTheSameItemTwiceStoresItTwice)
{
    const StartupItem item = MakeItem(L"n", L"p", true);
    ASSERT_EQ(m_store.SaveStartupItems(item, "Delayed"), ERROR_SUCCESS);
    ASSERT_EQ(m_store.SaveStartupItems(item, "Delayed"), ERROR_SUCCESS);
    EXPECT_EQ(Load("Delayed").size(), 2u);
}

TEST_F(StorageFile, EmptyListsLeaveAMissingFileMissing)
{
    EXPECT_EQ(m_store.SaveStartupItems(SharedStartupItemList{}, "Delayed"), ERROR_SUCCESS);
    EXPECT_EQ(m_store.RemoveStartupItems(SharedStartupItemList{}, "Delayed"), ERROR_SUCCESS);
    EXPECT_EQ(m_store.RemoveStartupItems(Shared({MakeItem(L"n", L"p", true)}), "Delayed"),
              ERROR_SUCCESS);
    EXPECT_FALSE(FileExists(m_file));
    Load("Delayed", ERROR_GEN_FAILURE);
}

TEST_F(StorageFile, LoadAppendsUserItemsThenSystemItemsAndMarksOnlyThose)
{
    Write(R"({"system":{"StartupDelayed":[{"BkpPath":"sb","ChangedTime":3,"Cmd":"sc","Name":"s","Path":"sp"}]},)"
          R"("user":{"StartupDelayed":[{"Cmd":"c1","Name":"u1","Path":"p1"},)"
          R"({"Cmd":"c2","Name":"u2","Path":"p2","ChangedTime":-9}],"Delayed":[{"Cmd":"x","Name":"x","Path":"x"}]}})");
    StartupItemList items;
    items.push_back(MakeItem(L"old-system", L"", false));
    items.push_back(MakeItem(L"old-user", L"", true));
    ASSERT_EQ(m_store.LoadStartupItems("StartupDelayed", items), ERROR_SUCCESS);

    struct Expected {
        const wchar_t* name;
        bool isUser;
        const wchar_t* cmd;
        std::int64_t changed;
    };
    const std::vector<Expected> expected = {{L"old-system", false, L"c", 0}, {L"old-user", true, L"c", 0},
                                            {L"u1", true, L"c1", 0},         {L"u2", true, L"c2", -9},
                                            {L"s", false, L"sc", 3}};
    ASSERT_EQ(items.size(), expected.size());
    auto item = items.begin();
    for (const Expected& want : expected) {
        SCOPED_TRACE(Utf8(want.name));
        EXPECT_EQ(item->Name, want.name);
        EXPECT_EQ(item->IsUser, want.isUser);
        EXPECT_EQ(item->Cmd, want.cmd);
        EXPECT_EQ(item->ChangedTime, want.changed);
        ++item;
    }
    EXPECT_EQ(items.back().Path, L"sp");
    EXPECT_EQ(items.back().BkpPath, L"sb");
}

TEST_F(StorageFile, LoadSkipsElementsThatAreNotItemsAndDefaultsOptionalFields)
{
    Write(R"({"user":{"Delayed":[5,"s",null,{"Name":"no-cmd","Path":"p"},{"Cmd":"c","Name":7,"Path":"p"},)"
          R"({"Cmd":"c","Name":"n","Path":null},)"
          R"({"Cmd":"c","Name":"kept","Path":"p","BkpPath":3,"ChangedTime":"12"}]}})");
    const auto items = Load("Delayed");
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items.front().Name, L"kept");
    EXPECT_EQ(items.front().BkpPath, L"");
    EXPECT_EQ(items.front().ChangedTime, 0);
}

TEST_F(StorageFile, ChangedTimeIsTruncatedTowardZero)
{
    struct Case {
        const char* stored;
        std::int64_t loaded;
    };
    const std::vector<Case> cases = {
        {"1.5", 1},
        {"-1.5", -1},
        {"0.999", 0},
        {"1e3", 1000},
        {"9007199254740993", 9007199254740992},  // the double nearest 2^53 + 1
        {"1e300", std::numeric_limits<std::int64_t>::max()},
        {"-1e300", std::numeric_limits<std::int64_t>::min()},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.stored);
        Write(std::string(R"({"user":{"Delayed":[{"Cmd":"","Name":"","Path":"","ChangedTime":)") + c.stored +
              "}]}}");
        const auto items = Load("Delayed");
        ASSERT_EQ(items.size(), 1u);
        EXPECT_EQ(items.front().ChangedTime, c.loaded);
    }
}

TEST_F(StorageFile, ChangedTimeIsWrittenAsADouble)
{
    struct Case {
        std::int64_t saved;
        const char* written;
        std::int64_t loaded;
    };
    const std::int64_t beyond = (std::int64_t{1} << 53) + 1;
    const std::int64_t maximum = std::numeric_limits<std::int64_t>::max();
    const std::vector<Case> cases = {
        {-42, "-42", -42},
        {1700000000123, "1700000000123", 1700000000123},
        {beyond, "9007199254740992", beyond - 1},
        {maximum, "9.2233720368547758e+18", maximum},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.written);
        DeleteFileW(m_file.c_str());
        ASSERT_EQ(m_store.SaveStartupItems(MakeItem(L"n", L"p", true, L"c", L"", c.saved), "Delayed"),
                  ERROR_SUCCESS);
        EXPECT_EQ(Bytes(), std::string(R"({"user":{"Delayed":[{"BkpPath":"","ChangedTime":)") + c.written +
                               R"(,"Cmd":"c","Name":"n","Path":"p"}]}})");
        const auto items = Load("Delayed");
        ASSERT_EQ(items.size(), 1u);
        EXPECT_EQ(items.front().ChangedTime, c.loaded);
    }
}

TEST_F(StorageFile, StringsKeepOneBytePerCodeUnit)
{
    struct Case {
        std::wstring saved;
        std::string written;  // between the quotes
        std::wstring loaded;
    };
    const std::vector<Case> cases = {
        {L"caf\u00e9", "caf\xE9", std::wstring(L"caf") + wchar_t(0xFFE9)},
        {L"\u0141x", "Ax", L"Ax"},                                  // U+0141 loses its high byte
        {std::wstring(1, wchar_t(0xFF80)), "\x80", std::wstring(1, wchar_t(0xFF80))},
        {L"a\u010Ab\"\\/", "a\\nb\\\"\\\\\\/", L"a\nb\"\\/"},           // U+010A becomes a line feed
        {std::wstring(1, wchar_t(0x011F)), "\\u001f", std::wstring(1, wchar_t(0x1F))},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.written);
        DeleteFileW(m_file.c_str());
        ASSERT_EQ(m_store.SaveStartupItems(MakeItem(c.saved, L"p", true, L"c"), "Delayed"), ERROR_SUCCESS);
        EXPECT_EQ(Bytes(), R"({"user":{"Delayed":[{"BkpPath":"","ChangedTime":0,"Cmd":"c","Name":")" +
                               c.written + R"(","Path":"p"}]}})");
        const auto items = Load("Delayed");
        ASSERT_EQ(items.size(), 1u);
        EXPECT_EQ(items.front().Name, c.loaded);
    }
}

TEST_F(StorageFile, LongStringsSurviveSaveLoadAndRemove)
{
    const std::wstring longName(3'000'000, L'x');
    const std::wstring longPath = std::wstring(1'000'000, L'\\') + L"Run";
    ASSERT_EQ(m_store.SaveStartupItems(Shared({MakeItem(longName, longPath, false), MakeItem(L"n", L"p", false)}),
                                       "Disabled"),
              ERROR_SUCCESS);
    const std::string expected = R"({"system":{"Disabled":[{"BkpPath":"","ChangedTime":0,"Cmd":"c","Name":")" +
                                 std::string(3'000'000, 'x') + R"(","Path":")" + std::string(2'000'000, '\\') +
                                 R"(Run"},{"BkpPath":"","ChangedTime":0,"Cmd":"c","Name":"n","Path":"p"}]}})";
    EXPECT_TRUE(Bytes() == expected) << "the file differs; it holds " << Bytes().size() << " bytes";
    auto items = Load("Disabled");
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items.front().Name, longName);
    EXPECT_EQ(items.front().Path, longPath);

    ASSERT_EQ(m_store.RemoveStartupItems(Shared({MakeItem(longName, longPath, false)}), "Disabled"), ERROR_SUCCESS);
    items = Load("Disabled");
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items.front().Name, L"n");
}

TEST_F(StorageFile, UnicodeEscapesLoadAsSignExtendedUtf8Bytes)
{
    Write(R"({"system":{"Disabled":[{"Cmd":"\u00e9","Name":"\u20ac","Path":"\u0041"}]}})");
    const auto items = Load("Disabled");
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items.front().Cmd, std::wstring({wchar_t(0xFFC3), wchar_t(0xFFA9)}));
    EXPECT_EQ(items.front().Name, std::wstring({wchar_t(0xFFE2), wchar_t(0xFF82), wchar_t(0xFFAC)}));
    EXPECT_EQ(items.front().Path, L"A");
}

TEST_F(StorageFile, RemoveMatchesNameAndPathOnlyWithinTheItemsScope)
{
    Write(R"({"system":{"Delayed":[{"Cmd":"c","Name":"a","Path":"p"}]},"user":{"Delayed":[)"
          R"({"Cmd":"c1","Name":"a","Path":"p"},{"Cmd":"c2","Name":"a","Path":"p","ChangedTime":4},)"
          R"({"Cmd":"c","Name":"a","Path":"P"},{"Name":"a","Path":"p"},)"
          R"({"Cmd":"c","Name":"b","Path":"q"},{"Cmd":"c","Name":"A","Path":"p"}],"Other":1}})");
    const auto items = Shared({MakeItem(L"b", L"q", true, L"different"), MakeItem(L"a", L"p", true)});
    ASSERT_EQ(m_store.RemoveStartupItems(items, "Delayed"), ERROR_SUCCESS);
    EXPECT_EQ(Bytes(), R"({"system":{"Delayed":[{"Cmd":"c","Name":"a","Path":"p"}]},"user":{"Delayed":[)"
                       R"({"Cmd":"c","Name":"a","Path":"P"},{"Name":"a","Path":"p"},)"
                       R"({"Cmd":"c","Name":"A","Path":"p"}],"Other":1}})");
}

TEST_F(StorageFile, RemoveComparesAfterTheLossyReadingOfStoredStrings)
{
    Write("{\"user\":{\"Delayed\":[{\"Cmd\":\"\",\"Name\":\"caf\xE9\",\"Path\":\"p\"},"
          "{\"Cmd\":\"\",\"Name\":\"x\",\"Path\":\"\xE9\"}]}}");
    // U+00E9 is stored as 0xE9 but reads back as U+FFE9, so only the second item matches.
    const auto items = Shared({MakeItem(L"caf\u00e9", L"p", true),
                               MakeItem(L"x", std::wstring(1, wchar_t(0xFFE9)), true)});
    ASSERT_EQ(m_store.RemoveStartupItems(items, "Delayed"), ERROR_SUCCESS);
    EXPECT_EQ(Bytes(), "{\"user\":{\"Delayed\":[{\"Cmd\":\"\",\"Name\":\"caf\xE9\",\"Path\":\"p\"}]}}");
}

TEST_F(StorageFile, RemoveWritesAMissingSectionBackAsNull)
{
    struct Case {
        const char* before;
        const char* after;
    };
    const std::vector<Case> cases = {
        {R"({"user":{"Disabled":[]}})", R"({"user":{"Delayed":null,"Disabled":[]}})"},
        {R"({"system":{"Delayed":[]}})", R"({"system":{"Delayed":[]},"user":{"Delayed":null}})"},
        {R"({"user":null})", R"({"user":{"Delayed":null}})"},
        {R"({"user":{"Delayed":null}} trailing text)", R"({"user":{"Delayed":null}})"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.before);
        Write(c.before);
        ASSERT_EQ(m_store.RemoveStartupItems(Shared({MakeItem(L"n", L"p", true)}), "Delayed"), ERROR_SUCCESS);
        EXPECT_EQ(Bytes(), c.after);
    }
}

TEST_F(StorageFile, OperationsLogTheirScopeAndMessages)
{
    Write(R"({"system":null,"user":{"Delayed":[]}})");
    LogCapture capture;
    Load("Delayed");
    Load("Nowhere");
    WriteFileBytes(m_file, "not json");
    Load("Delayed", ERROR_GEN_FAILURE);
    ASSERT_EQ(m_store.SaveStartupItems(MakeItem(L"n", L"p", true), "Delayed"), ERROR_SUCCESS);

    const auto lines = capture.Lines();
    std::vector<std::string> messages;
    for (const LogLine& line : lines) {
        if (line.level != "trace") {
            messages.push_back(line.level + " " + line.function + " " + line.message);
        }
    }
    const std::vector<std::string> expected = {
        "info CStartupItemsStorage::LoadStartupItems strSection: Delayed",
        "info CStartupItemsStorage::LoadStartupItems strSection: Nowhere",
        "info CStartupItemsStorage::SaveStartupItems Failed load file",
    };
    EXPECT_EQ(messages, expected);
    EXPECT_EQ(CountMessages(lines, "-> CStartupItemsStorage::LoadStartupItems()"), 3u);
    EXPECT_EQ(CountMessages(lines, "-> CStartupItemsStorage::SaveStartupItems()"), 1u);
    EXPECT_EQ(CountMessages(lines, "<- CStartupItemsStorage::SaveStartupItems() [", true), 1u);
}

// Files the store must not read. Load fails and leaves the list alone, remove leaves the file
// as it was, and save replaces what it cannot use.
struct UnreadableCase {
    const char* name;
    std::string contents;
    std::string afterSave;  // the file after saving one user item into "Delayed"
};

void PrintTo(const UnreadableCase& unreadable, std::ostream* out)
{
    *out << unreadable.name;
}

const std::string kSavedItem = R"({"BkpPath":"","ChangedTime":0,"Cmd":"c","Name":"n","Path":"p"})";
const std::string kFreshDocument = R"({"user":{"Delayed":[)" + kSavedItem + "]}}";

// Valid JSON, but nested far deeper than any stored document: {"a":{"a":...1...}}
std::string NestedObjects(size_t depth)
{
    std::string text;
    for (size_t level = 0; level < depth; ++level) {
        text += R"({"a":)";
    }
    return text + "1" + std::string(depth, '}');
}

std::vector<UnreadableCase> UnreadableCases()
{
    return {
        {"empty", "", kFreshDocument},
        {"whitespace", " \r\n\t", kFreshDocument},
        {"truncated", R"({"user":{"Delayed":[{"Cmd":"c","Na)", kFreshDocument},
        {"not json", "Storage", kFreshDocument},
        {"null", "null", kFreshDocument},
        {"raw control byte in a string", "{\"user\":{\"Delayed\":[{\"Cmd\":\"\x01\"}]}}", kFreshDocument},
        {"number too large", R"({"user":{"Delayed":[{"ChangedTime":1e400}]}})", kFreshDocument},
        {"deep arrays", R"({"x":)" + std::string(150, '[') + std::string(150, ']') + "}", kFreshDocument},
        {"deep objects", NestedObjects(20000), kFreshDocument},
        {"top-level array", R"([{"user":{}}])", kFreshDocument},
        {"top-level string", R"("user")", kFreshDocument},
        {"user scope a string", R"({"k":1,"user":"x"})", R"({"k":1,"user":{"Delayed":[)" + kSavedItem + "]}}"},
        {"system scope an array", R"({"system":[1],"user":{}})",
         R"({"system":{},"user":{"Delayed":[)" + kSavedItem + "]}}"},
        {"section an object", R"({"user":{"Delayed":{"a":1},"Other":2}})",
         R"({"user":{"Delayed":[)" + kSavedItem + R"(],"Other":2}})"},
        {"other scope's section a number", R"({"system":{"Delayed":5,"Keep":6}})",
         R"({"system":{"Delayed":[],"Keep":6},"user":{"Delayed":[)" + kSavedItem + "]}}"},
    };
}

class UnreadableFile : public StorageFile, public ::testing::WithParamInterface<UnreadableCase> {};

TEST_P(UnreadableFile, IsNeverUsedAsItStands)
{
    const std::string& contents = GetParam().contents;
    Write(contents);
    StartupItemList items;
    items.push_back(MakeItem(L"sentinel", L"", true));
    EXPECT_EQ(m_store.LoadStartupItems("Delayed", items), ERROR_GEN_FAILURE);
    EXPECT_EQ(items.size(), 1u);

    {
        LogCapture capture;
        EXPECT_EQ(m_store.RemoveStartupItems(Shared({MakeItem(L"n", L"p", true), MakeItem(L"n", L"p", false)}),
                                             "Delayed"),
                  ERROR_SUCCESS);
        EXPECT_EQ(CountMessages(capture.Lines(), "Failed load file"), 1u);
    }
    EXPECT_EQ(Bytes(), contents);

    ASSERT_EQ(m_store.SaveStartupItems(MakeItem(L"n", L"p", true), "Delayed"), ERROR_SUCCESS);
    EXPECT_EQ(Bytes(), GetParam().afterSave);
}

INSTANTIATE_TEST_SUITE_P(Storage, UnreadableFile, ::testing::ValuesIn(UnreadableCases()),
                         [](const auto& info) {
                             std::string name;
                             for (const char ch : std::string(info.param.name)) {
                                 name += std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
                             }
                             return name;
                         });

TEST_F(StorageFile, OtherSectionsOfUnexpectedTypeDoNotMatter)
{
    Write(R"({"system":{"Delayed":null,"Disabled":"x"},"user":{"Disabled":7,"Delayed":[{"Cmd":"","Name":"n","Path":""}]}})");
    EXPECT_EQ(Load("Delayed").size(), 1u);
    ASSERT_EQ(m_store.RemoveStartupItems(Shared({MakeItem(L"n", L"", true)}), "Delayed"), ERROR_SUCCESS);
    EXPECT_EQ(Bytes(), R"({"system":{"Delayed":null,"Disabled":"x"},"user":{"Delayed":[],"Disabled":7}})");
}

TEST_F(StorageFile, WriteFailuresReportGeneralFailure)
{
    struct Case {
        const char* name;
        std::wstring target;
    };
    const std::wstring folderAsFile = m_dir / L"Folder.json";
    ASSERT_TRUE(CreateDirectoryW(folderAsFile.c_str(), nullptr));
    const std::vector<Case> cases = {
        {"missing folder", m_dir / L"missing\\Storage.json"},
        {"folder in the file's place", folderAsFile},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CStartupItemsStorage store;
        store.Init(c.target.c_str());
        LogCapture capture;
        EXPECT_EQ(store.SaveStartupItems(MakeItem(L"n", L"p", false), "Disabled"), ERROR_GEN_FAILURE);
        const auto lines = capture.Lines();
        ASSERT_EQ(CountMessages(lines, "Save failed"), 1u);
        for (const LogLine& line : lines) {
            if (line.message == "Save failed") {
                EXPECT_EQ(line.level, "error");
                EXPECT_EQ(line.function, "CStartupItemsStorage::SaveStartupItems");
            }
        }
    }
}

TEST_F(StorageFile, RemoveReportsAFileItCannotRewrite)
{
    const std::string contents = R"({"user":{"Delayed":[{"Cmd":"","Name":"n","Path":"p"}]}})";
    Write(contents);
    // Another reader that shares the file for reading only: the store can read it but not
    // open it for writing.
    HANDLE reader = CreateFileW(m_file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(reader, INVALID_HANDLE_VALUE);
    LogCapture capture;
    EXPECT_EQ(m_store.RemoveStartupItems(Shared({MakeItem(L"n", L"p", true)}), "Delayed"), ERROR_GEN_FAILURE);
    CloseHandle(reader);
    EXPECT_EQ(CountMessages(capture.Lines(), "Save failed"), 1u);
    EXPECT_EQ(Bytes(), contents);
}

} // namespace
