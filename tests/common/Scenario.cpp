#include "tests/common/Scenario.h"

#include "support/Handles.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>
#include <picojson.h>

#include <shlobj.h>
#include <shobjidl.h>
#include <sddl.h>

#include <algorithm>
#include <sstream>

using namespace testing_support;

namespace scenario {

namespace {

constexpr wchar_t kRunPath[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr wchar_t kApproved[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\";
// Wine does not merge the user's own classes into HKEY_CLASSES_ROOT, so a task the program must
// find there is made below the machine's classes.
constexpr wchar_t kTasks[] = L"Software\\Classes\\Local Settings\\Software\\Microsoft\\Windows\\CurrentVersion\\"
                             L"AppModel\\SystemAppData\\e2ePackage";

bool IsFolder(Location where) { return where == UserStartup || where == CommonStartup; }
HKEY RootOf(Location where) { return where == Hkcu || where == UserStartup ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE; }
std::wstring RunKeyOf(Location key)
{
    return key == Hklm32 ? L"Software\\WOW6432Node\\Microsoft\\Windows\\CurrentVersion\\Run" : kRunPath;
}
std::wstring ApprovedKey(Location where)
{
    return kApproved + std::wstring(IsFolder(where) ? L"StartupFolder" : where == Hklm32 ? L"Run32" : L"Run");
}

// Whether the approved value, if any, says off (state 1 or 3).
bool ApprovedOff(Location where, const std::wstring& name)
{
    const auto value = ReadValue(RootOf(where), ApprovedKey(where), name);
    return value && !value->data.empty() && (value->data[0] == 1 || value->data[0] == 3);
}

// The value in its Run key, or the file in its folder.
bool InPlace(Location where, const std::wstring& name)
{
    return IsFolder(where) ? FileExists(JoinPath(FolderOf(where), name))
                           : ReadValue(RootOf(where), RunKeyOf(where), name).has_value();
}
bool InBackup(Location folder, const std::wstring& name)
{
    return FileExists(JoinPath(FolderOf(folder), L"QmBkpFolder\\" + name));
}

// The message of each line of the development log: "<time> <class> <ids> |<indent><function>: <message>".
std::vector<std::string> LogMessages(const Context& context)
{
    std::vector<std::string> messages;
    std::istringstream in(ReadFileBytes(context.log).value_or(""));
    for (std::string line; std::getline(in, line);) {
        if (const size_t colon = line.find(": ", line.find(" |")); colon != std::string::npos) {
            messages.push_back(line.substr(colon + 2));
        }
    }
    return messages;
}

void DeleteValuesNamedE2e(HKEY root, const std::wstring& key)
{
    support::UniqueHKey opened;
    if (support::OpenKey(root, key.c_str(), KEY_QUERY_VALUE | KEY_SET_VALUE, opened) != ERROR_SUCCESS) {
        return;
    }
    wchar_t name[512];
    DWORD index = 0;
    DWORD chars = 512;
    while (RegEnumValueW(opened.get(), index, name, &chars, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS) {
        chars = 512;
        if (wcsncmp(name, L"e2e", 3) != 0 || RegDeleteValueW(opened.get(), name) != ERROR_SUCCESS) {
            ++index;  // kept: the next value moves up only when this one is deleted
        }
    }
}

void RemoveFilesNamedE2e(const std::wstring& folder)
{
    WIN32_FIND_DATAW found;
    const HANDLE search = FindFirstFileW(JoinPath(folder, L"e2e*").c_str(), &found);
    for (bool more = search != INVALID_HANDLE_VALUE; more; more = FindNextFileW(search, &found)) {
        RemoveTree(JoinPath(folder, found.cFileName));
    }
    FindClose(search);
}

// Everything a row may have made, so that each row starts from the same world.
void Clear(const std::wstring& store)
{
    for (Location where : {Hkcu, Hklm, Hklm32, UserStartup, CommonStartup}) {
        if (!IsFolder(where)) {
            DeleteValuesNamedE2e(RootOf(where), RunKeyOf(where));
        }
        DeleteValuesNamedE2e(RootOf(where), ApprovedKey(where));
    }
    for (Location folder : {UserStartup, CommonStartup}) {
        RemoveFilesNamedE2e(FolderOf(folder));
        RemoveFilesNamedE2e(JoinPath(FolderOf(folder), L"QmBkpFolder"));
    }
    RemoveFilesNamedE2e(L"C:\\");
    DeleteTree(HKEY_LOCAL_MACHINE, kTasks);
    RegDeleteKeyValueW(HKEY_CURRENT_USER, kRunPath, L"Morrowgate");
    RemoveTree(store);
}

picojson::value Parse(const std::wstring& path)
{
    picojson::value document;
    picojson::parse(document, ReadFileBytes(path).value_or("null"));
    return document;
}

// Every stored item, as "<scope>/<section>" and name.
std::vector<std::pair<std::string, std::string>> SavedItems(const Context& context)
{
    std::vector<std::pair<std::string, std::string>> items;
    const auto members = [](const picojson::value& value) {
        return value.is<picojson::object>() ? value.get<picojson::object>() : picojson::object{};
    };
    for (const auto& [scope, sections] : members(Parse(context.store))) {
        for (const auto& [section, list] : members(sections)) {
            for (const auto& item : list.is<picojson::array>() ? list.get<picojson::array>() : picojson::array{}) {
                items.emplace_back(scope + "/" + section, item.get("Name").to_str());
            }
        }
    }
    return items;
}

// The entries of the output's JSON array whose id holds "\e2e", in order.
std::vector<picojson::value> JsonEntries(const Context& context)
{
    const picojson::value output = Parse(context.out);
    EXPECT_TRUE(output.is<picojson::array>()) << ReadFileBytes(context.out).value_or("(no output)");
    std::vector<picojson::value> entries;
    for (const auto& entry : output.is<picojson::array>() ? output.get<picojson::array>() : picojson::array{}) {
        if (entry.get("id").to_str().find("\\e2e") != std::string::npos) {
            entries.push_back(entry);
        }
    }
    return entries;
}

// What a program wrote is UTF-8, so the text is looked for in that form.
Fact Contains(std::wstring Context::*file, std::wstring text)
{
    return [=](Context& context) {
        const std::string written = ReadFileBytes(context.*file).value_or("");
        EXPECT_NE(written.find(Utf8(text)), std::string::npos) << written;
    };
}

} // namespace

void Execute(const Scenario& row)
{
    // Once: the programs under test see this process's generation, and shortcuts can be made.
    static const std::wstring store = [] {
        for (const wchar_t* program : {L"Morrowgate.exe", L"mgctl.exe"}) {
            SetString(HKEY_CURRENT_USER, std::wstring(L"Software\\Wine\\AppDefaults\\") + program, L"Version",
                      IsWindows8OrGreater() ? L"win10" : L"win7");
        }
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        wchar_t appData[MAX_PATH] = {};
        SHGetSpecialFolderPathW(nullptr, appData, CSIDL_APPDATA, FALSE);
        return JoinPath(appData, L"Quillmark\\Dawnstep\\Storage.json");
    }();
    TempDir scratch;
    const std::wstring bin = ProgramFolder();
    Context context{IsWindows8OrGreater(), JoinPath(bin, L"Morrowgate.exe"), JoinPath(bin, L"mgctl.exe"),
                    scratch / L"run.log", scratch / L"started.txt", scratch / L"out.txt", scratch / L"err.txt",
                    store, {}, {}};
    Clear(context.store);
    for (const Fact& fact : row.before) {
        fact(context);
    }
    for (size_t step = 0; step < row.runs.size(); ++step) {
        const Run& run = row.runs[step];
        SCOPED_TRACE(Utf8((run.launcher ? L"Morrowgate " : L"mgctl ") + run.arguments) + " (run " +
                     std::to_string(step + 1) + ")");
        DeleteFileW(context.record.c_str());
        DeleteFileW(context.log.c_str());
        // The launcher's run ends when the programs it started have ended too.
        const ChildOptions options{{L"QMTRACE_LOG=" + context.log, L"MG_START_RECORD=" + context.record}, run.launcher,
                                   context.out, context.err};
        const auto exitCode =
            RunChild(L"\"" + (run.launcher ? context.launcher : context.mgctl) + L"\" " + run.arguments, options);
        EXPECT_EQ(exitCode, std::optional<DWORD>(run.exitCode)) << ReadFileBytes(context.err).value_or("");
        for (const Fact& fact : run.after) {
            fact(context);
        }
    }
    std::for_each(context.cleanups.rbegin(), context.cleanups.rend(), [](const auto& cleanup) { cleanup(); });
    Clear(context.store);
}

std::vector<Scenario> ForThisGeneration(const std::vector<Scenario>& rows)
{
    std::vector<Scenario> chosen;
    std::copy_if(rows.begin(), rows.end(), std::back_inserter(chosen),
                 [](const Scenario& row) { return (row.generation & (IsWindows8OrGreater() ? Win10 : Win7)) != 0; });
    return chosen;
}

std::wstring FolderOf(Location folder)
{
    wchar_t path[MAX_PATH] = {};
    SHGetSpecialFolderPathW(nullptr, path, folder == UserStartup ? CSIDL_STARTUP : CSIDL_COMMON_STARTUP, TRUE);
    return path;
}

std::wstring Recorder(const std::wstring& tag)
{
    return L"\"" + JoinPath(ProgramFolder(), L"startrecorder.exe") + L"\" " + tag;
}

Fact RunValue(Location key, std::wstring name, std::wstring command, DWORD type)
{
    return [=](Context&) { SetString(RootOf(key), RunKeyOf(key), name, command, type); };
}

Fact Shortcut(Location folder, std::wstring name, std::wstring tag)
{
    return [=](Context&) {
        IShellLinkW* link = nullptr;
        IPersistFile* file = nullptr;
        ASSERT_EQ(CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkW,
                                   reinterpret_cast<void**>(&link)), S_OK);
        link->SetPath(JoinPath(ProgramFolder(), L"startrecorder.exe").c_str());
        link->SetArguments(tag.c_str());
        link->QueryInterface(IID_IPersistFile, reinterpret_cast<void**>(&file));
        EXPECT_EQ(file->Save(JoinPath(FolderOf(folder), name).c_str(), TRUE), S_OK);
        file->Release();
        link->Release();
    };
}

Fact File(Location folder, std::wstring name, std::string bytes)
{
    return [=](Context&) {
        const std::wstring path = JoinPath(FolderOf(folder), name);
        SHCreateDirectoryExW(nullptr, path.substr(0, path.rfind(L'\\')).c_str(), nullptr);
        WriteFileBytes(path, bytes);
    };
}

Fact Store(std::vector<StoredItem> items)
{
    picojson::object document;
    for (const StoredItem& item : items) {
        const size_t slash = item.where.find('/');
        picojson::value& scope = document.emplace(item.where.substr(0, slash), picojson::object()).first->second;
        picojson::object& sections = scope.get<picojson::object>();
        picojson::value& list = sections.emplace(item.where.substr(slash + 1), picojson::array()).first->second;
        list.get<picojson::array>().emplace_back(picojson::object{
            {"Name", picojson::value(item.name)}, {"Cmd", picojson::value(item.command)}, {"Path", picojson::value(item.path)},
            {"BkpPath", picojson::value(item.backup)}, {"ChangedTime", picojson::value(item.changedTime)}});
    }
    return StoreBytes(picojson::value(document).serialize());
}

Fact StoreBytes(std::string bytes)
{
    return [=](Context& context) {
        SHCreateDirectoryExW(nullptr, context.store.substr(0, context.store.rfind(L'\\')).c_str(), nullptr);
        WriteFileBytes(context.store, bytes);
        context.storeWritten = bytes;
    };
}

Fact Approved(Location where, std::wstring name, std::vector<std::uint8_t> bytes)
{
    return [=](Context&) { SetValue(RootOf(where), ApprovedKey(where), name, REG_BINARY, bytes); };
}

Fact StoreIsAFolder()
{
    return [](Context& context) { SHCreateDirectoryExW(nullptr, context.store.c_str(), nullptr); };
}
Fact Task(std::wstring task, std::uint8_t state)
{
    return [=](Context&) {
        SetValue(HKEY_LOCAL_MACHINE, std::wstring(kTasks) + L"\\" + task, L"State", REG_DWORD, {state, 0, 0, 0});
    };
}

Fact DenyWrites(HKEY root, std::wstring key)
{
    return [=](Context& context) {
        support::UniqueHKey opened;
        ASSERT_EQ(support::OpenKey(root, key.c_str(), READ_CONTROL | WRITE_DAC, opened), ERROR_SUCCESS);
        auto original = std::make_shared<std::vector<BYTE>>(4096);
        DWORD size = static_cast<DWORD>(original->size());
        ASSERT_EQ(RegGetKeySecurity(opened.get(), DACL_SECURITY_INFORMATION, original->data(), &size), ERROR_SUCCESS);
        PSECURITY_DESCRIPTOR denied = nullptr;
        // Everyone may read; nobody may set a value or create a subkey.
        ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:(D;;0x6;;;WD)(A;;KA;;;WD)", SDDL_REVISION_1, &denied,
                                                             nullptr);
        EXPECT_EQ(RegSetKeySecurity(opened.get(), DACL_SECURITY_INFORMATION, denied), ERROR_SUCCESS);
        LocalFree(denied);
        context.cleanups.push_back([root, key, original] {
            support::UniqueHKey again;  // the owner may always change the key's security
            if (support::OpenKey(root, key.c_str(), WRITE_DAC, again) == ERROR_SUCCESS) {
                RegSetKeySecurity(again.get(), DACL_SECURITY_INFORMATION, original->data());
            }
        });
    };
}

Fact SwitchedBackOn(Location key, std::wstring name, std::wstring command)
{
    return [=](Context& context) {
        if (context.windows10) {
            SetValue(RootOf(key), ApprovedKey(key), name, REG_BINARY, {2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
        } else {
            SetString(RootOf(key), RunKeyOf(key), name, command);
        }
    };
}

Fact On(Location where, std::wstring name, std::wstring command, DWORD type)
{
    return [=](Context&) {
        ASSERT_TRUE(InPlace(where, name)) << Utf8(name) << " is not in its place";
        if (IsFolder(where)) {
            EXPECT_FALSE(InBackup(where, name)) << Utf8(name);
        } else {
            EXPECT_EQ(ReadValue(RootOf(where), RunKeyOf(where), name)->type, type);
            EXPECT_EQ(ReadString(RootOf(where), RunKeyOf(where), name), command);
        }
        EXPECT_FALSE(ApprovedOff(where, name)) << Utf8(name);
    };
}

Fact Off(Location where, std::wstring name)
{
    return [=](Context& context) {
        EXPECT_EQ(InPlace(where, name), context.windows10) << Utf8(name);
        EXPECT_TRUE(!IsFolder(where) || InBackup(where, name) != context.windows10) << Utf8(name);
        EXPECT_EQ(ApprovedOff(where, name), context.windows10) << Utf8(name);
    };
}

Fact Saved(std::string where, std::wstring name, size_t count)
{
    return [=](Context& context) {
        const auto items = SavedItems(context);
        EXPECT_EQ(static_cast<size_t>(std::count(items.begin(), items.end(), std::pair{where, Utf8(name)})), count)
            << Utf8(name) << " in " << where << "; the store: " << ReadFileBytes(context.store).value_or("(none)");
    };
}

Fact NotSaved(std::wstring name)
{
    return [=](Context& context) {
        for (const auto& [where, saved] : SavedItems(context)) {
            EXPECT_NE(saved, Utf8(name)) << "still saved in " << where;
        }
    };
}

Fact TaskState(std::wstring task, DWORD state)
{
    return [=](Context&) {
        const auto value = ReadValue(HKEY_LOCAL_MACHINE, std::wstring(kTasks) + L"\\" + task, L"State");
        ASSERT_TRUE(value && value->data.size() == 4);
        EXPECT_EQ(value->data[0], state) << Utf8(task);
    };
}

Fact StoreIs(std::string bytes)
{
    return [=](Context& context) { EXPECT_EQ(ReadFileBytes(context.store).value_or(""), bytes); };
}

Fact ApprovedIs(Location where, std::wstring name, std::vector<std::uint8_t> bytes)
{
    return [=](Context&) {
        EXPECT_EQ(ReadValue(RootOf(where), ApprovedKey(where), name).value_or(RegValue{}).data, bytes) << Utf8(name);
    };
}

Fact StoreUnchanged()
{
    return [](Context& context) { EXPECT_EQ(ReadFileBytes(context.store).value_or(""), context.storeWritten); };
}

Fact Exists(std::wstring path, bool exists)
{
    return [=](Context&) { EXPECT_EQ(FileExists(path), exists) << Utf8(path); };
}

Fact LoggedInOrder(std::vector<std::string> texts)
{
    return [=](Context& context) {
        std::vector<std::string> seen;
        for (const std::string& message : LogMessages(context)) {
            const auto match = std::find_if(texts.begin(), texts.end(), [&message](const std::string& text) {
                return message.find(text) != std::string::npos;
            });
            if (match != texts.end()) {
                seen.push_back(*match);
            }
        }
        EXPECT_EQ(seen, texts);
    };
}

Fact Logged(std::string text, size_t count)
{
    return LoggedInOrder(std::vector<std::string>(count, text));
}

// The programs start at once and finish in any order, so the tags are compared sorted.
Fact Started(std::vector<std::string> tags)
{
    std::sort(tags.begin(), tags.end());
    return [=](Context& context) {
        std::vector<std::string> started;
        std::istringstream in(ReadFileBytes(context.record).value_or(""));
        for (std::string line; std::getline(in, line);) {
            started.push_back(line);
        }
        std::sort(started.begin(), started.end());
        EXPECT_EQ(started, tags);
    };
}

Fact Out(std::wstring text) { return Contains(&Context::out, std::move(text)); }
Fact Err(std::wstring text) { return Contains(&Context::err, std::move(text)); }

Fact LauncherRegistered(bool registered)
{
    return [=](Context& context) {
        const std::wstring launcher = L"\"" + context.launcher + L"\"";
        EXPECT_EQ(ReadString(HKEY_CURRENT_USER, kRunPath, L"Morrowgate"),
                  registered ? std::optional(launcher) : std::nullopt);
    };
}

Fact Json(std::wstring id, std::vector<std::pair<std::string, std::string>> fields)
{
    return [=](Context& context) {
        for (const auto& entry : JsonEntries(context)) {
            if (entry.get("id").to_str() == Utf8(id)) {
                for (const auto& [field, json] : fields) {
                    picojson::value expected;
                    picojson::parse(expected, json);  // picojson writes "/" as "\/"
                    EXPECT_EQ(entry.get(field).serialize(), expected.serialize()) << Utf8(id) << " " << field;
                }
                return;
            }
        }
        ADD_FAILURE() << "no " << Utf8(id) << " in " << ReadFileBytes(context.out).value_or("");
    };
}

Fact JsonIds(std::vector<std::wstring> ids)
{
    return [=](Context& context) {
        std::vector<std::string> expected, seen;
        std::transform(ids.begin(), ids.end(), std::back_inserter(expected), Utf8);
        for (const auto& entry : JsonEntries(context)) {
            seen.push_back(entry.get("id").to_str());
        }
        EXPECT_EQ(seen, expected);
    };
}

} // namespace scenario
