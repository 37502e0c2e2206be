#include "support/ProductInfo.h"

#include "support/Handles.h"
#include "support/ProgramFolder.h"

#include <shlwapi.h>

#include <cwchar>
#include <string>

namespace support {

namespace {

constexpr DWORD kStatusInvalidCRuntimeParameter = 0xC0000417;

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

} // namespace

DWORD ProductInfoConnection::Open()
{
    const DWORD result = Connect();
    if (result != 0) {
        ReleaseObject();
        m_module.reset();
    }
    return result;
}

// On failure the caller releases whatever was taken.
DWORD ProductInfoConnection::Connect()
{
    m_module.reset(LoadServiceConfiguration());
    if (!m_module) {
        return LastErrorOrUnavailable();
    }
    m_createObject = GetExport<QmCreateObjectFn>(m_module.get(), "QmCreateObject");
    if (m_createObject == nullptr) {
        return LastErrorOrUnavailable();
    }
    m_destroyObject = GetExport<QmDestroyObjectFn>(m_module.get(), "QmDestroyObject");
    if (m_destroyObject == nullptr) {
        return LastErrorOrUnavailable();
    }
    if (const int created = m_createObject(kProductInfoObjectName, &kProductInfoObjectId, &m_object); created != 0) {
        return static_cast<DWORD>(created);
    }
    if (m_object == nullptr) {
        return kProductInfoUnavailable;
    }
    m_productInfo = static_cast<IProductInfoObject*>(m_object)->GetInterface(kProductInfoUIId);
    if (m_productInfo == nullptr) {
        return kProductInfoUnavailable;
    }
    if (const int result = m_productInfo->Init(0); result != 0) {
        return static_cast<DWORD>(result);
    }
    return static_cast<DWORD>(m_productInfo->Start());
}

void ProductInfoConnection::ReleaseObject()
{
    if (m_productInfo != nullptr) {
        m_productInfo->Uninit();
        m_productInfo->Release();
        m_productInfo = nullptr;
    }
    if (m_object != nullptr && m_destroyObject != nullptr) {
        m_destroyObject(kProductInfoObjectName, m_object);
    }
    m_object = nullptr;
}

bool WithProductInfo(std::function<void(IProductInfoUI*)> callback)
{
    ProductInfoConnection connection;  // closed when this returns, also by an exception
    if (connection.Open() != 0) {
        return false;
    }
    callback(connection.Interface());  // an empty call-back throws std::bad_function_call
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
