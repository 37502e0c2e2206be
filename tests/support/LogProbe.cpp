// A small program that drives the logging facade through one scenario, so that a test can copy
// it beside a chosen qmtrace.dll (or none) and watch what the library is asked to do.
//
//   logprobe held | unheld | unheld-many | inactive | nested | stub
//
// The exit code is 0, except for "stub": there it is the HRESULT of one LogWrite call.
#include "support/LogDLL.h"
#include "support/ScopeTrace.h"

#include <cwchar>

int wmain(int argc, wchar_t** argv)
{
    const wchar_t* scenario = argc > 1 ? argv[1] : L"";
    if (wcscmp(scenario, L"held") == 0) {
        logging::LogHold hold;
        QM_LOG_INFO(L"Probe::Held", L"first %d", 1);
        QM_LOG_ERROR(L"Probe::Held", L"second %s", L"two");
    } else if (wcscmp(scenario, L"unheld") == 0) {
        logging::Write(logging::kDepthNone, logging::kClassInfo, L"Probe::Unheld", L"one");
        logging::Write(logging::kDepthNone, logging::kClassInfo, L"Probe::Unheld", L"two");
    } else if (wcscmp(scenario, L"unheld-many") == 0) {
        // Every line loads and unloads the library: nothing may pile up.
        for (int i = 0; i < 1500; ++i) {
            logging::ScopeTrace trace(L"Probe::Many");
        }
    } else if (wcscmp(scenario, L"inactive") == 0) {
        QM_LOG_INFO(L"Probe::Inactive", L"never written");
    } else if (wcscmp(scenario, L"nested") == 0) {
        logging::LogHold hold;
        logging::ScopeTrace outer(L"Probe::Outer");
        {
            logging::ScopeTrace inner(L"inner", L"Probe::Function");
            QM_LOG_INFO(inner.FunctionName(), L"inside");
        }
    } else if (wcscmp(scenario, L"stub") == 0) {
        logging::LogHolder holder;
        va_list none{};
        const HRESULT result =
            logging::Get(holder)->Write(logging::kDepthNone, logging::kClassInfo, L"Probe::Stub", L"x", none);
        logging::Release(holder);
        return static_cast<int>(result);
    }
    return 0;
}
