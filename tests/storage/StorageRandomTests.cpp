// Damaged storage files, generated from a fixed seed: whatever the bytes, load, save and remove
// keep their promises about unreadable files and leave a document that still reads.
#include "storage/StartupItemsStorage.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>
#include <picojson.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

using namespace testing_support;
using storage::CStartupItemsStorage;
using storage::StartupItem;
using storage::StartupItemList;

namespace {

const char* const kSections[] = {"Delayed", "Disabled"};
const char* const kNames[] = {"a", "b", "\xE9t\xE9", "a\\\"q"};  // JSON text of the names

class DocumentGenerator {
public:
    explicit DocumentGenerator(unsigned seed) : m_random(seed) {}

    std::string Document()
    {
        std::string text = "{";
        if (Chance(2)) {
            text += R"("boot_time":12,)";
        }
        text += R"("system":)" + Scope() + R"(,"user":)" + Scope() + "}";
        return text;
    }

    // Up to three damages: truncation, a replaced byte, an inserted fragment, a cut range.
    std::string Damage(std::string text)
    {
        static const char* const fragments[] = {"{", "}", "[", "]", "\"", ",", ":", "null", "1e999", "-",
                                                R"("Delayed":5)", R"("user":[])", "\\u00e9", "\xE9", "\x01"};
        const int damages = Pick(4);
        for (int i = 0; i < damages && !text.empty(); ++i) {
            const size_t at = Pick(text.size());
            switch (Pick(4)) {
            case 0: text.resize(at); break;
            case 1: text[at] = static_cast<char>(Pick(256)); break;
            case 2: text.insert(at, fragments[Pick(std::size(fragments))]); break;
            default: text.erase(at, Pick(12)); break;
            }
        }
        return text;
    }

    StartupItem Item()
    {
        StartupItem item;
        const std::string name = kNames[Pick(std::size(kNames))];
        item.Name = name == "a" ? L"a" : name == "b" ? L"b" : name == "a\\\"q" ? L"a\"q"
                                                     : std::wstring{wchar_t(0xFFE9), L't', wchar_t(0xFFE9)};
        item.Path = Chance(2) ? L"p" : L"q";
        item.Cmd = L"run \u00ff";  // U+00FF is written as 0xFF and read back as U+FFFF
        item.BkpPath = Chance(2) ? L"" : L"bk";
        item.IsUser = Chance(2);
        item.ChangedTime = static_cast<std::int64_t>(m_random()) - (1 << 30);
        return item;
    }

    const char* Section() { return kSections[Pick(2)]; }
    int Pick(size_t bound) { return static_cast<int>(m_random() % bound); }
    bool Chance(int oneIn) { return Pick(static_cast<size_t>(oneIn)) == 0; }

private:
    std::string Scope()
    {
        switch (Pick(6)) {
        case 0: return "null";
        case 1: return "{}";
        default: break;
        }
        std::string text = R"({"Delayed":)" + SectionValue() + R"(,"Disabled":)" + SectionValue();
        return text + (Chance(3) ? R"(,"Other":{"x":[1,2]}})" : "}");
    }
    // Now and then a section of a type the store never writes.
    std::string SectionValue()
    {
        static const char* const odd[] = {"null", "5", "\"x\"", "{}", "true"};
        return Chance(8) ? odd[Pick(std::size(odd))] : Section(Pick(5));
    }
    std::string Section(int count)
    {
        std::string text = "[";
        for (int i = 0; i < count; ++i) {
            text += i ? "," : "";
            text += std::string(R"({"Cmd":"c","Name":")") + kNames[Pick(std::size(kNames))] + R"(","Path":")" +
                    (Chance(2) ? "p" : "q") + R"(","ChangedTime":)" + std::to_string(Pick(1000)) + ".5}";
        }
        return text + "]";
    }

    std::mt19937 m_random;
};

// Whether a section of the document can be used: the shape rules the store works to, applied
// to the plain picojson parse of the bytes.
bool IsReadable(const std::string& bytes, const std::string& section)
{
    picojson::value document;
    try {
        if (!picojson::parse(document, bytes).empty()) {
            return false;
        }
    } catch (const std::exception&) {  // picojson throws on numbers beyond a double
        return false;
    }
    if (!document.is<picojson::object>()) {
        return false;
    }
    for (const char* scope : {"user", "system"}) {
        const auto& top = document.get<picojson::object>();
        const auto member = top.find(scope);
        if (member == top.end() || member->second.is<picojson::null>()) {
            continue;
        }
        if (!member->second.is<picojson::object>()) {
            return false;
        }
        const auto& sections = member->second.get<picojson::object>();
        const auto list = sections.find(section);
        if (list != sections.end() && !list->second.is<picojson::null>() && !list->second.is<picojson::array>()) {
            return false;
        }
    }
    return true;
}

size_t CountScope(const StartupItemList& items, bool isUser)
{
    return static_cast<size_t>(
        std::count_if(items.begin(), items.end(), [isUser](const StartupItem& item) { return item.IsUser == isUser; }));
}

TEST(StorageRandomFiles, EveryOperationKeepsItsRules)
{
    // Held for the whole run, as the program holds it: loading and freeing the logging library
    // around every line thousands of times exhausts the process's thread-local storage slots.
    LogCapture capture;
    TempDir dir;
    const std::wstring file = dir / L"Storage.json";
    CStartupItemsStorage store;
    store.Init(file.c_str());
    DocumentGenerator generator(20240611);

    int unreadable = 0;
    for (int round = 0; round < 3000; ++round) {
        const std::string before = generator.Damage(generator.Document());
        const std::string section = generator.Section();
        const StartupItem item = generator.Item();
        const bool readable = IsReadable(before, section);
        unreadable += readable ? 0 : 1;
        SCOPED_TRACE("round " + std::to_string(round) + ", section " + section + ", file: " + before);
        WriteFileBytes(file, before);

        StartupItemList loaded;
        loaded.push_back(StartupItem{});
        ASSERT_EQ(store.LoadStartupItems(section.c_str(), loaded), readable ? ERROR_SUCCESS : ERROR_GEN_FAILURE);
        loaded.pop_front();
        if (!readable) {
            ASSERT_TRUE(loaded.empty());
        }

        const int operation = generator.Pick(2);
        if (operation == 0) {
            ASSERT_EQ(store.RemoveStartupItems({std::make_shared<StartupItem>(item)}, section.c_str()), ERROR_SUCCESS);
            if (!readable) {
                ASSERT_EQ(ReadFileBytes(file), before) << "an unreadable file was rewritten";
                continue;
            }
        } else {
            ASSERT_EQ(store.SaveStartupItems(item, section.c_str()), ERROR_SUCCESS);
        }

        const std::string after = ReadFileBytes(file).value_or("");
        picojson::value reparsed;
        ASSERT_EQ(picojson::parse(reparsed, after), "") << after;
        StartupItemList reloaded;
        ASSERT_EQ(store.LoadStartupItems(section.c_str(), reloaded), ERROR_SUCCESS) << after;
        if (readable) {
            const size_t added = operation == 0 ? 0 : 1;
            EXPECT_EQ(CountScope(reloaded, !item.IsUser), CountScope(loaded, !item.IsUser));
            if (operation == 0) {
                EXPECT_LE(CountScope(reloaded, item.IsUser), CountScope(loaded, item.IsUser));
            } else {
                EXPECT_EQ(CountScope(reloaded, item.IsUser), CountScope(loaded, item.IsUser) + added);
            }
        }
        const auto sameEntry = [&item](const StartupItem& stored) {
            return stored.IsUser == item.IsUser && stored.Name == item.Name && stored.Path == item.Path;
        };
        if (operation == 0) {
            EXPECT_EQ(std::count_if(reloaded.begin(), reloaded.end(), sameEntry), 0) << after;
            continue;
        }
        // The saved item is the last of its scope, and every field comes back.
        const auto last = std::find_if(reloaded.rbegin(), reloaded.rend(),
                                       [&item](const StartupItem& stored) { return stored.IsUser == item.IsUser; });
        ASSERT_NE(last, reloaded.rend()) << after;
        EXPECT_TRUE(sameEntry(*last)) << after;
        EXPECT_EQ(last->Cmd, std::wstring(L"run ") + wchar_t(0xFFFF));
        EXPECT_EQ(last->BkpPath, item.BkpPath);
        EXPECT_EQ(last->ChangedTime, item.ChangedTime);
    }
    // The damage must reach both sides of the rules for the test to mean anything.
    EXPECT_GT(unreadable, 300);
    EXPECT_LT(unreadable, 2700);
    // Every save or removal that met an unreadable file said so, and no write failed.
    const auto lines = capture.Lines();
    EXPECT_EQ(CountMessages(lines, "Failed load file"), static_cast<size_t>(unreadable));
    EXPECT_EQ(CountMessages(lines, "Save failed"), 0u);
}

} // namespace
