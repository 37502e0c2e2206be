#include "support/ProductInfo.h"

#include "support/Handles.h"
#include "support/ProgramFolder.h"

#include <shlwapi.h>

#include <cwchar>
#include <string>
#include <vector>

namespace support {

namespace {

constexpr DWORD kStatusInvalidCRuntimeParameter = 0xC0000417;

ProductInfoConnection g_connection;

// The program's own folder and "qmsvccfg.dll" (the bare name when the folder is unknown).
std::wstring LibraryPathBesideProgram()
{
    return ProgramFolder() + L"qmsvccfg.dll";
}

HMODULE LoadServiceConfiguration()
{
    const std::wstring path = LibraryPathBesideProgram();
    HMODULE module = LoadLibraryW(path.c_str());
    if (module == nullptr && !PathIsRelativeW(path.c_str())) {
        // Lets the library's own dependencies resolve from its folder.
        module = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    }
    return module;
}

DWORD LastErrorOrUnavailable()
{
    const DWORD error = GetLastError();
    return error != 0 ? error : kProductInfoUnavailable;
}

// Opens into g_connection; on failure the caller closes whatever was recorded.
DWORD OpenRecorded()
{
    g_connection.module = LoadServiceConfiguration();
    if (g_connection.module == nullptr) {
        return LastErrorOrUnavailable();
    }
    g_connection.createObject = GetExport<QmCreateObjectFn>(g_connection.module, "QmCreateObject");
    if (g_connection.createObject == nullptr) {
        return LastErrorOrUnavailable();
    }
    g_connection.destroyObject = GetExport<QmDestroyObjectFn>(g_connection.module, "QmDestroyObject");
    if (g_connection.destroyObject == nullptr) {
        return LastErrorOrUnavailable();
    }
    const int created =
        g_connection.createObject(kProductInfoObjectName, &kProductInfoObjectId, &g_connection.object);
    if (created != 0) {
        return static_cast<DWORD>(created);
    }
    if (g_connection.object == nullptr) {
        return kProductInfoUnavailable;
    }
    auto* object = static_cast<IProductInfoObject*>(g_connection.object);
    g_connection.productInfo = object->GetInterface(kProductInfoUIId);
    if (g_connection.productInfo == nullptr) {
        return kProductInfoUnavailable;
    }
    if (const int result = g_connection.productInfo->Init(0); result != 0) {
        return static_cast<DWORD>(result);
    }
    return static_cast<DWORD>(g_connection.productInfo->Start());
}

// Closes the connection when the call-back leaves, by return or by exception.
class ConnectionCloser {
public:
    ConnectionCloser() = default;
    ~ConnectionCloser() { CloseProductInfoConnection(); }
    ConnectionCloser(const ConnectionCloser&) = delete;
    ConnectionCloser& operator=(const ConnectionCloser&) = delete;
};

} // namespace

DWORD OpenProductInfoConnection()
{
    const DWORD result = OpenRecorded();
    if (result != 0) {
        CloseProductInfoConnection();
    }
    return result;
}

void CloseProductInfoConnection()
{
    if (g_connection.productInfo != nullptr) {
        g_connection.productInfo->Uninit();
        g_connection.productInfo->Release();
    }
    if (g_connection.object != nullptr && g_connection.destroyObject != nullptr) {
        g_connection.destroyObject(kProductInfoObjectName, g_connection.object);
    }
    // Everything taken from the library is gone by now, so it can go too.
    if (g_connection.module != nullptr) {
        FreeLibrary(g_connection.module);
    }
    g_connection = ProductInfoConnection{};
}

bool WithProductInfo(std::function<void(IProductInfoUI*)> callback)
{
    if (OpenProductInfoConnection() != 0) {
        return false;
    }
    ConnectionCloser closer;
    callback(g_connection.productInfo);  // an empty call-back throws std::bad_function_call
    return true;
}

void CopyProductString(IProductInfoUI* productInfo, int item,
                       wchar_t (&buffer)[kProductStringChars])
{
    if (const wchar_t* answer = productInfo->GetString(item, kProductInfoContext)) {
        CopyBounded(buffer, kProductStringChars, answer);
    }
}

void CopyBounded(wchar_t* destination, std::size_t capacity, const wchar_t* source)
{
    const std::size_t length = wcsnlen(source, capacity);
    if (length >= capacity) {
        // No caller can go on with a truncated path: end here, as the checked copies do.
        TerminateProcess(GetCurrentProcess(), kStatusInvalidCRuntimeParameter);
        ExitProcess(kStatusInvalidCRuntimeParameter);  // not reached
    }
    wmemcpy(destination, source, length + 1);
}

} // namespace support
