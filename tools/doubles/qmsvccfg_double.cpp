// Test double of the service-configuration library. Its "productinfo" object answers
// GetString(item, context) with the environment variable QMSVCCFG_ITEM_<item> (no variable: no
// string), and QMSVCCFG_FAIL makes one step fail: "create" (QmCreateObject returns
// 0x80040154), "interface" (no IProductInfoUI), "init" (Init returns 5), "start" (Start
// returns 21). Every call is recorded (see SuiteRecord.h). Built once more without
// QmCreateObject (DOUBLE_NO_CREATE) and without QmDestroyObject (DOUBLE_NO_DESTROY).
#include "support/ProductInfoApi.h"
#include "tools/doubles/SuiteRecord.h"

#include <string>

namespace {

using doubles::Record;

constexpr int kCreateFailure = static_cast<int>(0x80040154);
constexpr int kInitFailure = 5;
constexpr int kStartFailure = 21;

bool FailsAt(const wchar_t* step)
{
    std::wstring value;
    return doubles::ReadSetting(L"QMSVCCFG_FAIL", value) && value == step;
}

void RecordCall(const std::wstring& text)
{
    Record(L"qmsvccfg " + text);
}

class ProductInfoUI final : public support::IProductInfoUI {
public:
    void Reserved0() override { RecordCall(L"slot 0"); }
    int Init(int flags) override
    {
        RecordCall(L"Init " + std::to_wstring(flags));
        return FailsAt(L"init") ? kInitFailure : 0;
    }
    void Release() override { RecordCall(L"Release"); }
    int Start() override
    {
        RecordCall(L"Start");
        return FailsAt(L"start") ? kStartFailure : 0;
    }
    void Uninit() override { RecordCall(L"Uninit"); }
    void Reserved5() override { RecordCall(L"slot 5"); }
    const wchar_t* GetString(int item, const wchar_t* context) override
    {
        RecordCall(L"GetString " + std::to_wstring(item) + L" " + (context ? context : L"(null)"));
        if (!doubles::ReadSetting((L"QMSVCCFG_ITEM_" + std::to_wstring(item)).c_str(), m_answer)) {
            return nullptr;
        }
        return m_answer.c_str();
    }

private:
    std::wstring m_answer;  // owned by the interface, as the real one does
};

class ProductInfoObject final : public support::IProductInfoObject {
public:
    support::IProductInfoUI* GetInterface(const GUID& interfaceId) override
    {
        RecordCall(L"GetInterface " + doubles::FormatGuid(interfaceId));
        if (FailsAt(L"interface") || !IsEqualGUID(interfaceId, support::kProductInfoUIId)) {
            return nullptr;
        }
        return &m_ui;
    }

private:
    ProductInfoUI m_ui;
};

[[maybe_unused]] ProductInfoObject* g_created = nullptr;

} // namespace

extern "C" {

#ifndef DOUBLE_NO_CREATE
__declspec(dllexport) int QmCreateObject(const wchar_t* name, const GUID* interfaceId, void** object)
{
    RecordCall(L"QmCreateObject " + std::wstring(name ? name : L"(null)") + L" " +
               (interfaceId ? doubles::FormatGuid(*interfaceId) : L"(null)"));
    if (FailsAt(L"create") || object == nullptr) {
        return kCreateFailure;
    }
    g_created = new ProductInfoObject;
    *object = g_created;
    return 0;
}
#endif

#ifndef DOUBLE_NO_DESTROY
__declspec(dllexport) int QmDestroyObject(const wchar_t* name, void* object)
{
    const bool known = object != nullptr && object == g_created;
    RecordCall(L"QmDestroyObject " + std::wstring(name ? name : L"(null)") +
               (known ? L"" : L" unknown-object"));
    if (known) {
        delete g_created;
        g_created = nullptr;
    }
    return 0;
}
#endif

} // extern "C"

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved)
{
    doubles::RecordAttachDetach(L"qmsvccfg", reason, reserved);
    return TRUE;
}
