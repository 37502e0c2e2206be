// The calling contract of the suite's service-configuration library, qmsvccfg.dll: its two
// exports and the "productinfo" object they hand out. Shared by the code that loads the library
// and by the test double of it.
#pragma once

#include <windows.h>

namespace support {

// QmCreateObject(L"productinfo", kProductInfoObjectId, ...) creates the object.
// {66551ab3-fca3-bc90-5f42-c5f792e24b51}
constexpr GUID kProductInfoObjectId = {
    0x66551ab3, 0xfca3, 0xbc90, {0x5f, 0x42, 0xc5, 0xf7, 0x92, 0xe2, 0x4b, 0x51}};
// The object's first operation hands out IProductInfoUI for this identifier.
// {1623905a-2177-944e-c742-7a10b1e0f0a0}
constexpr GUID kProductInfoUIId = {
    0x1623905a, 0x2177, 0x944e, {0xc7, 0x42, 0x7a, 0x10, 0xb1, 0xe0, 0xf0, 0xa0}};

constexpr wchar_t kProductInfoObjectName[] = L"productinfo";

// The string interface of the product information. Only the slot order matters to the library;
// slots 0 and 5 are never called from here.
class IProductInfoUI {
public:
    virtual void Reserved0() = 0;
    virtual int Init(int flags) = 0;
    virtual void Release() = 0;
    virtual int Start() = 0;
    virtual void Uninit() = 0;
    virtual void Reserved5() = 0;
    // The answer belongs to the interface and stays valid only while the interface does.
    virtual const wchar_t* GetString(int item, const wchar_t* context) = 0;

protected:
    ~IProductInfoUI() = default;  // owned and destroyed by the library
};

// The object created by QmCreateObject; its first operation is the only one used.
class IProductInfoObject {
public:
    virtual IProductInfoUI* GetInterface(const GUID& interfaceId) = 0;

protected:
    ~IProductInfoObject() = default;  // destroyed through QmDestroyObject
};

using QmCreateObjectFn = int (*)(const wchar_t* name, const GUID* interfaceId, void** object);
using QmDestroyObjectFn = int (*)(const wchar_t* name, void* object);

} // namespace support
