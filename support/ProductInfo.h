// Access to the product information published by the suite's qmsvccfg.dll, which must sit
// beside the program. A connection is opened for one call-back at a time and torn down again;
// nothing obtained from the library outlives it. Nothing here logs: it runs before logging.
#pragma once

#include "support/Handles.h"
#include "support/ProductInfoApi.h"

#include <cstddef>
#include <functional>

namespace support {

// Returned when the library answers without an interface, or fails without an error code.
constexpr DWORD kProductInfoUnavailable = 632;  // ERROR_INVALID_FIELD

// One connection to the product information, for the length of one use. The library module is
// declared first, so that it is freed last: after the interface and the object taken from it
// have been given back by the destructor.
class ProductInfoConnection {
public:
    ProductInfoConnection() = default;
    ~ProductInfoConnection() { ReleaseObject(); }
    ProductInfoConnection(const ProductInfoConnection&) = delete;
    ProductInfoConnection& operator=(const ProductInfoConnection&) = delete;

    // Loads the library, creates the object and starts its interface. Returns 0 when the
    // connection is open, else the error; a failed attempt leaves nothing loaded.
    DWORD Open();
    IProductInfoUI* Interface() const noexcept { return m_productInfo; }

private:
    DWORD Connect();
    // Uninit and Release the interface, then destroy the object.
    void ReleaseObject();

    UniqueModule m_module;
    QmCreateObjectFn m_createObject = nullptr;
    QmDestroyObjectFn m_destroyObject = nullptr;
    void* m_object = nullptr;
    IProductInfoUI* m_productInfo = nullptr;
};

// Runs the call-back with the interface of a fresh connection and closes it again, also when
// the call-back throws. Returns false, without calling the call-back, when no connection could
// be opened. An empty call-back throws std::bad_function_call once a connection is open.
bool WithProductInfo(std::function<void(IProductInfoUI*)> callback);

constexpr wchar_t kProductInfoContext[] = L"Desktop";
constexpr std::size_t kProductStringChars = 260;

// Asks for one item in the "Desktop" context and copies the answer into buffer. No answer
// leaves the buffer as it was; an answer that does not fit ends the process as an invalid
// parameter.
void CopyProductString(IProductInfoUI* productInfo, int item,
                       wchar_t (&buffer)[kProductStringChars]);

// Bounded copy: a source of capacity characters or more is an invalid parameter and ends the
// process with STATUS_INVALID_CRUNTIME_PARAMETER, like the C runtime's checked copies.
void CopyBounded(wchar_t* destination, std::size_t capacity, const wchar_t* source);

} // namespace support
