// Access to the product information published by the suite's qmsvccfg.dll, which must sit
// beside the program. A connection is opened for one call-back at a time and torn down again;
// nothing obtained from the library outlives it. Nothing here logs: it runs before logging.
#pragma once

#include "support/ProductInfoApi.h"

#include <cstddef>
#include <functional>

namespace support {

// The connection is process-wide: at most one is recorded at any time.
struct ProductInfoConnection {
    HMODULE module = nullptr;
    QmCreateObjectFn createObject = nullptr;
    QmDestroyObjectFn destroyObject = nullptr;
    void* object = nullptr;
    IProductInfoUI* productInfo = nullptr;
};

// Returned when the library answers without an interface, or fails without an error code.
constexpr DWORD kProductInfoUnavailable = 632;  // ERROR_INVALID_FIELD

// Loads the library, creates the object and starts its interface. Returns 0 when the
// connection is open, else the error; a failed attempt leaves nothing loaded.
DWORD OpenProductInfoConnection();
// Uninit and Release the interface, destroy the object, unload the library. Does nothing when
// no connection is recorded; the entry point calls it once more in its teardown.
void CloseProductInfoConnection();

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
