#include "support/CrashHandler.h"

#include "support/Handles.h"
#include "support/ProductInfo.h"

#include <shlwapi.h>

#include <cwchar>
#include <string>

namespace support {

namespace {

constexpr int kItemSettingsFolder = 400;  // folder of the crash handler's settings file
constexpr int kItemProductKey = 202;      // the product's key below HKEY_LOCAL_MACHINE

constexpr wchar_t kCrashSwitchKey[] = L"Software\\Quillmark\\InternalCrashEnabled";
constexpr wchar_t kCrashTag[] = L"#crash#";
constexpr size_t kCrashTagChars = sizeof kCrashTag / sizeof kCrashTag[0] - 1;
constexpr long long kLongestCrashDelay = 86400000;  // a day; checked before each digit

constexpr DWORD kAppPathBytes = 520;

bool IsBlank(wchar_t c)
{
    return c == L' ' || c == L'\t';
}

// The settings file "<item 400>\qmcrash.xml", or empty when there is no such file.
void FindSettingsFile(wchar_t (&settingsPath)[kProductStringChars])
{
    WithProductInfo([&settingsPath](IProductInfoUI* productInfo) {
        CopyProductString(productInfo, kItemSettingsFolder, settingsPath);
    });
    if (!PathAppendW(settingsPath, L"qmcrash.xml") || !PathFileExistsW(settingsPath)) {
        settingsPath[0] = L'\0';
    }
}

// "AppPath" of the product's key without its last component. False when the value is missing,
// empty, not REG_SZ, longer than its buffer or holds no backslash.
bool ReadInstallFolder(HKEY productKey, std::wstring& folder)
{
    wchar_t appPath[kAppPathBytes / sizeof(wchar_t) + 1] = {};  // one more for a terminator
    DWORD type = REG_NONE;
    DWORD size = kAppPathBytes;
    const LSTATUS status = RegQueryValueExW(productKey, L"AppPath", nullptr, // reserved
                                            &type, reinterpret_cast<BYTE*>(appPath), &size);
    if (status != ERROR_SUCCESS || size == 0 || appPath[0] == L'\0' || type != REG_SZ) {
        return false;
    }
    wchar_t* lastSlash = std::wcsrchr(appPath, L'\\');
    if (lastSlash == nullptr) {
        return false;
    }
    *lastSlash = L'\0';
    folder = appPath;
    return true;
}

HRESULT LoadAndEnable(const std::wstring& folder, const wchar_t* settingsPath)
{
    const std::wstring libraryPath = folder + L"\\qmcrash.dll";
    UniqueModule module(LoadLibraryW(libraryPath.c_str()));
    if (!module) {
        return HRESULT_FROM_WIN32(GetLastError());
    }
    const auto enable = GetExport<EnableCrashHandlerFn>(module.get(), "EnableCrashHandler");
    if (enable == nullptr) {
        return HRESULT_FROM_WIN32(GetLastError());  // read before the library is freed
    }
    if (settingsPath[0] != L'\0') {
        if (const auto setSettings = GetExport<SetSettingsFileFn>(module.get(), "SetSettingsFile")) {
            setSettings(settingsPath);
        }
    }
    const HRESULT result = enable(0, 0, L"norestart");
    // The handler must stay in place for the rest of the process: the library is never freed.
    module.release();
    return result;
}

DWORD WINAPI CrashThread(void* delay)
{
    if (delay != nullptr) {
        Sleep(*static_cast<const DWORD*>(delay));
    }
    // Both volatile: the compiler must neither see the null pointer nor drop the write, or it
    // would turn the access violation into a trap instruction.
    volatile char* volatile zero = nullptr;
    *zero = static_cast<char>(*zero + 1);  // increments the byte at address zero
    return 0;
}

} // namespace

HRESULT InstallCrashHandler()
{
    wchar_t settingsPath[kProductStringChars] = {};
    FindSettingsFile(settingsPath);

    wchar_t productKeyPath[kProductStringChars] = {};
    WithProductInfo([&productKeyPath](IProductInfoUI* productInfo) {
        CopyProductString(productInfo, kItemProductKey, productKeyPath);
    });

    UniqueHKey productKey;
    if (const LSTATUS status = OpenKey(HKEY_LOCAL_MACHINE, productKeyPath, KEY_READ, productKey);
        status != ERROR_SUCCESS) {
        return HRESULT_FROM_WIN32(status);
    }
    std::wstring installFolder;
    if (!ReadInstallFolder(productKey.get(), installFolder)) {
        return E_FAIL;
    }
    return LoadAndEnable(installFolder, settingsPath);
}

long long ParseCrashArgument(const wchar_t* commandLine)
{
    if (commandLine == nullptr) {
        return -1;
    }
    const wchar_t* tag = std::wcsstr(commandLine, kCrashTag);
    if (tag == nullptr || (tag != commandLine && !IsBlank(tag[-1]))) {
        return -1;  // only the first occurrence is ever considered
    }
    const wchar_t* const digits = tag + kCrashTagChars;
    const wchar_t* next = digits;
    long long delay = 0;
    for (; *next >= L'0' && *next <= L'9'; ++next) {
        if (delay > kLongestCrashDelay) {
            return -1;
        }
        delay = delay * 10 + (*next - L'0');
    }
    if (next == digits || *next != L'#' || (next[1] != L'\0' && !IsBlank(next[1]))) {
        return -1;
    }
    return delay;
}

void ArmTestCrash()
{
    const long long delay = ParseCrashArgument(GetCommandLineW());

    if (UniqueHKey crashSwitch; OpenKey(HKEY_LOCAL_MACHINE, kCrashSwitchKey, KEY_READ, crashSwitch) != ERROR_SUCCESS) {
        return;  // only the key's presence counts; it is closed again at once
    }
    if (delay < 0) {
        return;
    }

    // Set once for the process; the thread reads it after this function has returned.
    static const DWORD s_crashDelay = static_cast<DWORD>(delay);
    void* parameter = s_crashDelay > 0 ? const_cast<DWORD*>(&s_crashDelay) : nullptr;
    // The handle is closed at once; the thread runs on until it crashes the process.
    const UniqueHandle thread(CreateThread(nullptr, // default security
                                           0,       // default stack size
                                           &CrashThread, parameter, 0,
                                           nullptr)); // thread id not needed
}

} // namespace support
