#include "tests/common/Scenario.h"

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
constexpr wchar_t kRun32Path[] = L"Software\\WOW6432Node\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr wchar_t kApproved[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\";
// Wine does not merge the user's own classes into HKEY_CLASSES_ROOT, so a task the program must
// find there is made below the machine's classes.
constexpr wchar_t kTasks[] =
    L"Software\\Classes\\Local Settings\\Software\\Microsoft\\Windows\\CurrentVersion\\AppModel\\SystemAppData";
constexpr wchar_t kPackage[] = L"e2ePackage";

using Bytes = std::vector<std::uint8_t>;

// The programs under test, copied once under names that carry this generation, and the user's
// own store, kept aside while the rows run.
struct Programs {
    TempDir dir;
    std::wstring launcher, mgctl, store;
    std::optional<std::string> savedStore;

    Programs()
    {
        const std::wstring generation = IsWindows8OrLater() ? L"win10" : L"win7";
        launcher = dir / (L"Morrowgate_e2e_" + generation + L".exe");
        mgctl = dir / (L"mgctl_e2e_" + generation + L".exe");
        const std::wstring copies[][2] = {{L"Morrowgate.exe", launcher},     {L"mgctl.exe", mgctl},
                                          {L"Morrowgate.exe", dir / L"Morrowgate.exe"}, {L"qmtrace.dll", dir / L"qmtrace.dll"}};
        for (const auto& copy : copies) {
            CopyFileW(JoinPath(ProgramFolder(), copy[0]).c_str(), copy[1].c_str(), FALSE);
        }
        for (const auto* program : {&launcher, &mgctl}) {
            const std::wstring name = program->substr(program->rfind(L'\\') + 1);
            SetString(HKEY_CURRENT_USER, L"Software\\Wine\\AppDefaults\\" + name, L"Version", generation);
        }
        wchar_t appData[MAX_PATH];
        SHGetSpecialFolderPathW(nullptr, appData, CSIDL_APPDATA, FALSE);
        store = JoinPath(appData, L"Quillmark\\Dawnstep\\Storage.json");
        savedStore = ReadFileBytes(store);
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    }
    ~Programs()
    {
        RemoveTree(store);
        if (savedStore) {
            WriteFileBytes(store, *savedStore);
        }
    }
};

Programs& TheProgramsUnderTest()
{
    static Programs programs;
    return programs;
}

std::wstring ApprovedKey(RunKey key)
{
    return std::wstring(kApproved) + (key == Hklm32 ? L"Run32" : L"Run");
}

HKEY FolderRoot(Folder folder)
{
    return folder == UserStartup ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE;
}

std::optional<DWORD> ApprovedState(HKEY root, const std::wstring& key, const std::wstring& name)
{
    const auto value = ReadValue(root, key, name);
    if (!value || value->data.size() < 4) {
        return std::nullopt;
    }
    return static_cast<DWORD>(value->data[0] | value->data[1] << 8 | value->data[2] << 16 | value->data[3] << 24);
}

void ExpectApprovedOn(HKEY root, const std::wstring& key, const std::wstring& name)
{
    const auto state = ApprovedState(root, key, name);
    EXPECT_TRUE(!state || *state == 0 || *state == 2) << "approved state " << state.value_or(0);
}

void ExpectApprovedOff(HKEY root, const std::wstring& key, const std::wstring& name)
{
    const auto state = ApprovedState(root, key, name);
    EXPECT_TRUE(state && (*state == 1 || *state == 3)) << "approved state " << state.value_or(0);
}

void DeleteValuesNamedE2e(HKEY root, const std::wstring& key)
{
    std::vector<std::wstring> names;
    HKEY opened = nullptr;
    if (RegOpenKeyExW(root, key.c_str(), 0, KEY_QUERY_VALUE, &opened) != ERROR_SUCCESS) {
        return;
    }
    wchar_t name[512];
    for (DWORD index = 0;; ++index) {
        DWORD chars = 512;
        if (RegEnumValueW(opened, index, name, &chars, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) {
            break;
        }
        if (wcsncmp(name, L"e2e", 3) == 0) {
            names.emplace_back(name, chars);
        }
    }
    RegCloseKey(opened);
    for (const auto& each : names) {
        DeleteValue(root, key, each);
    }
}

void DeleteFilesNamedE2e(const std::wstring& folder)
{
    WIN32_FIND_DATAW found;
    const HANDLE search = FindFirstFileW((folder + L"\\e2e*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) {
        return;
    }
    do {
        SetFileAttributesW(JoinPath(folder, found.cFileName).c_str(), FILE_ATTRIBUTE_NORMAL);
        DeleteFileW(JoinPath(folder, found.cFileName).c_str());
    } while (FindNextFileW(search, &found));
    FindClose(search);
}

// Everything a row may have made, so that each row starts from the same world.
void Clear(const std::wstring& store)
{
    for (RunKey key : {Hkcu, Hklm, Hklm32}) {
        DeleteValuesNamedE2e(RootOf(key), KeyOf(key));
        DeleteValuesNamedE2e(RootOf(key), ApprovedKey(key));
    }
    for (Folder folder : {UserStartup, CommonStartup}) {
        DeleteFilesNamedE2e(FolderOf(folder));
        DeleteFilesNamedE2e(JoinPath(FolderOf(folder), L"QmBkpFolder"));
        DeleteValuesNamedE2e(FolderRoot(folder), std::wstring(kApproved) + L"StartupFolder");
    }
    DeleteTree(HKEY_LOCAL_MACHINE, std::wstring(kTasks) + L"\\" + kPackage);
    DeleteValue(HKEY_CURRENT_USER, kRunPath, L"Morrowgate");
    RemoveTree(store);
}

picojson::value ParseStore(const Context& context)
{
    picojson::value document;
    picojson::parse(document, ReadFileBytes(context.store).value_or("null"));
    return document;
}

picojson::value ParseOutput(const Context& context)
{
    picojson::value document;
    const std::string error = picojson::parse(document, ReadFileBytes(context.out).value_or(""));
    EXPECT_TRUE(error.empty() && document.is<picojson::array>()) << "not a JSON array: " << error;
    return document;
}

// Every stored item, as "<scope>/<section>" and name.
std::vector<std::pair<std::string, std::string>> SavedItems(const Context& context)
{
    std::vector<std::pair<std::string, std::string>> items;
    const picojson::value document = ParseStore(context);
    if (!document.is<picojson::object>()) {
        return items;
    }
    for (const auto& [scope, sections] : document.get<picojson::object>()) {
        if (!sections.is<picojson::object>()) {
            continue;
        }
        for (const auto& [section, list] : sections.get<picojson::object>()) {
            if (!list.is<picojson::array>()) {
                continue;
            }
            for (const auto& item : list.get<picojson::array>()) {
                items.emplace_back(scope + "/" + section, item.get("Name").to_str());
            }
        }
    }
    return items;
}

void MakeShortcut(const std::wstring& path, const std::wstring& target, const std::wstring& arguments)
{
    IShellLinkW* link = nullptr;
    IPersistFile* file = nullptr;
    ASSERT_EQ(CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkW,
                               reinterpret_cast<void**>(&link)), S_OK);
    link->SetPath(target.c_str());
    link->SetArguments(arguments.c_str());
    link->QueryInterface(IID_IPersistFile, reinterpret_cast<void**>(&file));
    EXPECT_EQ(file->Save(path.c_str(), TRUE), S_OK);
    file->Release();
    link->Release();
}

} // namespace

std::wstring Context::Read(const std::wstring& path) const
{
    const std::string bytes = ReadFileBytes(path).value_or("");
    std::wstring text(static_cast<size_t>(MultiByteToWideChar(CP_UTF8, 0, bytes.data(), static_cast<int>(bytes.size()),
                                                              nullptr, 0)), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, bytes.data(), static_cast<int>(bytes.size()), text.data(),
                        static_cast<int>(text.size()));
    return text;
}

std::vector<std::string> Context::Started() const
{
    std::vector<std::string> started;
    std::istringstream in(ReadFileBytes(record).value_or(""));
    for (std::string line; std::getline(in, line);) {
        started.push_back(line);
    }
    std::sort(started.begin(), started.end());
    return started;
}

void Execute(const Scenario& row)
{
    Programs& programs = TheProgramsUnderTest();
    TempDir scratch;
    Context context;
    context.windows10 = IsWindows8OrLater();
    context.folder = programs.dir.Path();
    context.launcher = programs.launcher;
    context.mgctl = programs.mgctl;
    context.log = scratch / L"run.log";
    context.record = scratch / L"started.txt";
    context.out = scratch / L"out.txt";
    context.err = scratch / L"err.txt";
    context.store = programs.store;
    Clear(context.store);
    for (const Fact& fact : row.before) {
        fact(context);
    }
    for (size_t step = 0; step < row.runs.size(); ++step) {
        const Run& run = row.runs[step];
        SCOPED_TRACE(Utf8((run.launcher ? L"Morrowgate " : L"mgctl ") + run.arguments) + " (run " +
                     std::to_string(step + 1) + ")");
        DeleteFileW(context.record.c_str());
        ChildOptions options;
        options.environment = {L"QMTRACE_LOG=" + context.log, L"MG_START_RECORD=" + context.record};
        options.waitForDescendants = run.launcher;  // the programs it starts too
        options.outputFile = context.out;
        options.errorFile = context.err;
        const auto exitCode =
            RunChild(L"\"" + (run.launcher ? context.launcher : context.mgctl) + L"\" " + run.arguments, options);
        EXPECT_EQ(exitCode, std::optional<DWORD>(run.exitCode)) << "stderr: " << Utf8(context.Read(context.err));
        for (const Fact& fact : run.after) {
            fact(context);
        }
    }
    while (!context.cleanups.empty()) {
        context.cleanups.back()();
        context.cleanups.pop_back();
    }
    Clear(context.store);
}

std::vector<Scenario> ForThisGeneration(const std::vector<Scenario>& rows)
{
    const Generation generation = IsWindows8OrLater() ? Win10 : Win7;
    std::vector<Scenario> chosen;
    std::copy_if(rows.begin(), rows.end(), std::back_inserter(chosen),
                 [generation](const Scenario& row) { return (row.generation & generation) != 0; });
    return chosen;
}

HKEY RootOf(RunKey key)
{
    return key == Hkcu ? HKEY_CURRENT_USER : HKEY_LOCAL_MACHINE;
}

const wchar_t* KeyOf(RunKey key)
{
    return key == Hklm32 ? kRun32Path : kRunPath;
}

std::wstring FolderOf(Folder folder)
{
    wchar_t path[MAX_PATH] = {};
    SHGetSpecialFolderPathW(nullptr, path, folder == UserStartup ? CSIDL_STARTUP : CSIDL_COMMON_STARTUP, TRUE);
    return path;
}

std::wstring Recorder(const std::wstring& tag)
{
    return L"\"" + JoinPath(ProgramFolder(), L"startrecorder.exe") + L"\" " + tag;
}

Fact RunValue(RunKey key, std::wstring name, std::wstring command, DWORD type)
{
    return [=](Context&) { SetString(RootOf(key), KeyOf(key), name, command, type); };
}

Fact Shortcut(Folder folder, std::wstring name, std::wstring tag)
{
    return [=](Context&) {
        MakeShortcut(JoinPath(FolderOf(folder), name), JoinPath(ProgramFolder(), L"startrecorder.exe"), tag);
    };
}

Fact File(Folder folder, std::wstring name, std::string bytes)
{
    return [=](Context&) { WriteFileBytes(JoinPath(FolderOf(folder), name), bytes); };
}

Fact StoreBytes(std::string bytes)
{
    return [=](Context& context) {
        std::wstring folder = context.store.substr(0, context.store.rfind(L'\\'));
        SHCreateDirectoryExW(nullptr, folder.c_str(), nullptr);
        WriteFileBytes(context.store, bytes);
    };
}

Fact StoreIsAFolder()
{
    return [](Context& context) { SHCreateDirectoryExW(nullptr, context.store.c_str(), nullptr); };
}

Fact Task(std::wstring task, DWORD state)
{
    return [=](Context&) { SetDword(HKEY_LOCAL_MACHINE, std::wstring(kTasks) + L"\\" + kPackage + L"\\" + task, L"State", state); };
}

Fact DenyWrites(HKEY root, std::wstring key)
{
    return [=](Context& context) {
        HKEY opened = nullptr;
        ASSERT_EQ(RegOpenKeyExW(root, key.c_str(), 0, READ_CONTROL | WRITE_DAC, &opened), ERROR_SUCCESS);
        auto original = std::make_shared<std::vector<BYTE>>(4096);
        DWORD size = static_cast<DWORD>(original->size());
        ASSERT_EQ(RegGetKeySecurity(opened, DACL_SECURITY_INFORMATION, original->data(), &size), ERROR_SUCCESS);
        PSECURITY_DESCRIPTOR denied = nullptr;
        // Everyone may read, nobody may set a value or create a subkey.
        ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:(D;;0x6;;;WD)(A;;KA;;;WD)", SDDL_REVISION_1, &denied,
                                                             nullptr);
        EXPECT_EQ(RegSetKeySecurity(opened, DACL_SECURITY_INFORMATION, denied), ERROR_SUCCESS);
        LocalFree(denied);
        context.cleanups.push_back([opened, original] {
            RegSetKeySecurity(opened, DACL_SECURITY_INFORMATION, original->data());
            RegCloseKey(opened);
        });
    };
}

Fact SwitchedBackOn(RunKey key, std::wstring name, std::wstring command)
{
    return [=](Context& context) {
        if (context.windows10) {
            SetBinary(RootOf(key), ApprovedKey(key), name, Bytes{2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
        } else {
            SetString(RootOf(key), KeyOf(key), name, command);
        }
    };
}

Fact HasValue(RunKey key, std::wstring name, std::wstring command, DWORD type)
{
    return [=](Context&) {
        const auto value = ReadValue(RootOf(key), KeyOf(key), name);
        ASSERT_TRUE(value.has_value()) << Utf8(name) << " is not in its Run key";
        EXPECT_EQ(value->type, type);
        EXPECT_EQ(ReadString(RootOf(key), KeyOf(key), name), command);
    };
}

Fact NoValue(RunKey key, std::wstring name)
{
    return [=](Context&) { EXPECT_FALSE(ReadValue(RootOf(key), KeyOf(key), name).has_value()) << Utf8(name); };
}

Fact LaunchedAtLogon(RunKey key, std::wstring name, std::wstring command)
{
    return [=](Context& context) {
        HasValue(key, name, command)(context);
        ExpectApprovedOn(RootOf(key), ApprovedKey(key), name);
    };
}

Fact OffAtLogon(RunKey key, std::wstring name)
{
    return [=](Context& context) {
        if (context.windows10) {
            EXPECT_TRUE(ReadValue(RootOf(key), KeyOf(key), name).has_value()) << Utf8(name);
            ExpectApprovedOff(RootOf(key), ApprovedKey(key), name);
        } else {
            NoValue(key, name)(context);
        }
    };
}

Fact HasFile(Folder folder, std::wstring name)
{
    return [=](Context&) { EXPECT_TRUE(FileExists(JoinPath(FolderOf(folder), name))) << Utf8(name); };
}

Fact OffAtLogon(Folder folder, std::wstring name)
{
    return [=](Context& context) {
        const bool inBackup = FileExists(JoinPath(FolderOf(folder), L"QmBkpFolder\\" + name));
        EXPECT_EQ(FileExists(JoinPath(FolderOf(folder), name)), context.windows10) << Utf8(name);
        EXPECT_EQ(inBackup, !context.windows10) << Utf8(name);
        if (context.windows10) {
            ExpectApprovedOff(FolderRoot(folder), std::wstring(kApproved) + L"StartupFolder", name);
        }
    };
}

Fact OnAtLogon(Folder folder, std::wstring name)
{
    return [=](Context&) {
        EXPECT_TRUE(FileExists(JoinPath(FolderOf(folder), name))) << Utf8(name);
        EXPECT_FALSE(FileExists(JoinPath(FolderOf(folder), L"QmBkpFolder\\" + name))) << Utf8(name);
        ExpectApprovedOn(FolderRoot(folder), std::wstring(kApproved) + L"StartupFolder", name);
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
        const auto value = ReadValue(HKEY_LOCAL_MACHINE, std::wstring(kTasks) + L"\\" + kPackage + L"\\" + task, L"State");
        ASSERT_TRUE(value && value->data.size() == 4);
        EXPECT_EQ(value->data[0], state) << Utf8(task);
    };
}

Fact Started(std::vector<std::string> tags)
{
    std::sort(tags.begin(), tags.end());
    return [=](Context& context) { EXPECT_EQ(context.Started(), tags); };
}

Fact Out(std::wstring text)
{
    return [=](Context& context) {
        EXPECT_NE(context.Read(context.out).find(text), std::wstring::npos) << Utf8(context.Read(context.out));
    };
}

Fact Err(std::wstring text)
{
    return [=](Context& context) {
        EXPECT_NE(context.Read(context.err).find(text), std::wstring::npos) << Utf8(context.Read(context.err));
    };
}

Fact LauncherValue()
{
    return [](Context& context) {
        EXPECT_EQ(ReadString(HKEY_CURRENT_USER, kRunPath, L"Morrowgate"),
                  L"\"" + JoinPath(context.folder, L"Morrowgate.exe") + L"\"");
    };
}

Fact Json(std::wstring id, std::string field, std::string json)
{
    return [=](Context& context) {
        const picojson::value output = ParseOutput(context);
        for (const auto& entry : output.get<picojson::array>()) {
            if (entry.get("id").to_str() == Utf8(id)) {
                EXPECT_EQ(entry.get(field).serialize(), json) << Utf8(id) << " " << field;
                return;
            }
        }
        ADD_FAILURE() << "no " << Utf8(id) << " in " << output.serialize();
    };
}

Fact JsonIds(std::vector<std::wstring> ids)
{
    return [=](Context& context) {
        std::vector<std::string> expected, seen;
        std::transform(ids.begin(), ids.end(), std::back_inserter(expected), Utf8);
        const picojson::value output = ParseOutput(context);
        for (const auto& entry : output.get<picojson::array>()) {
            const std::string id = entry.get("id").to_str();
            if (id.find("\\e2e") != std::string::npos) {
                seen.push_back(id);
            }
        }
        EXPECT_EQ(seen, expected);
    };
}

} // namespace scenario
