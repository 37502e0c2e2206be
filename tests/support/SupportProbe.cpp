// A small program that drives the support services through one scenario, so that a test can
// copy it beside chosen doubles of the suite's libraries and watch from outside what happens.
// What the probe itself sees is appended to the same record as the doubles' calls.
//
//   supportprobe open                 exit code: the result of opening the connection
//   supportprobe with ITEM | throwing runs WithProductInfo with a call-back that copies ITEM or
//                                     one that throws; exit code 1 when the call-back ran, 2
//                                     when not, 4 after the call-back's exception
//   supportprobe install              exit code: the HRESULT of InstallCrashHandler
//   supportprobe lock OPS             runs lock operations on a lock of its own: R/r LockRead/
//                                     UnlockRead, W/w LockWrite/UnlockWrite, each for this
//                                     thread or, followed by 'x', for an id no thread has; 0,
//                                     or ended by the lock on misuse
//   supportprobe lock early           0 when the process-wide lock was built before the other
//                                     globals: a write taken by one of them is still held
#include "support/CrashHandler.h"
#include "support/ProductInfo.h"
#include "support/SyncRWLock.h"
#include "tools/doubles/SuiteRecord.h"

#include <cwchar>
#include <stdexcept>
#include <string>

namespace {

using doubles::Record;

constexpr DWORD kAbsentThread = 0x5EED0;  // a thread id that no thread has

bool IsEarlyScenario()
{
    return std::wcsstr(GetCommandLineW(), L" lock early") != nullptr;
}

// A global that asks to be built as early as any global of the program may, second only to
// the process-wide lock: it must find the lock built, and the lock must outlive it.
struct EarlyLockUser {
    EarlyLockUser()
    {
        if (IsEarlyScenario()) {
            support::ProcessSyncRWLock().LockWrite(kAbsentThread);
        }
    }
    ~EarlyLockUser()
    {
        if (IsEarlyScenario()) {
            support::ProcessSyncRWLock().LockWrite(0);
            support::ProcessSyncRWLock().UnlockWrite(0);
        }
    }
};
EarlyLockUser g_earlyLockUser __attribute__((init_priority(102)));

int RunLockOperations(support::ISyncRWLock& lock, const wchar_t* ops)
{
    for (; *ops != L'\0'; ++ops) {
        const DWORD id = ops[1] == L'x' ? kAbsentThread : 0;
        switch (*ops) {
        case L'R': lock.LockRead(id); break;
        case L'r': lock.UnlockRead(id); break;
        case L'W': lock.LockWrite(id); break;
        case L'w': lock.UnlockWrite(id); break;
        default: return 2;
        }
        ops += id != 0 ? 1 : 0;
    }
    return 0;
}

int UseProductInfo(bool throwing, int item)
{
    wchar_t buffer[support::kProductStringChars] = L"untouched";
    try {
        const bool ran = support::WithProductInfo([&](support::IProductInfoUI* productInfo) {
            Record(L"probe call-back");
            if (throwing) {
                throw std::runtime_error("call-back failed");
            }
            support::CopyProductString(productInfo, item, buffer);
        });
        Record(std::wstring(L"probe buffer ") + buffer);
        return ran ? 1 : 2;
    } catch (const std::runtime_error&) {
        Record(L"probe caught runtime_error");
        return 4;
    }
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const std::wstring scenario = argc > 1 ? argv[1] : L"";
    const wchar_t* argument = argc > 2 ? argv[2] : L"";
    if (scenario == L"open") {
        support::ProductInfoConnection connection;  // an open one is closed after the record
        const DWORD result = connection.Open();
        Record(L"probe opened " + std::to_wstring(result));
        return static_cast<int>(result);
    }
    if (scenario == L"install") {
        return static_cast<int>(support::InstallCrashHandler());
    }
    if (scenario == L"lock" && std::wcscmp(argument, L"early") == 0) {
        // Had the lock been built after g_earlyLockUser, its construction would have wiped the
        // write taken there, and giving it back would be misuse.
        return RunLockOperations(support::ProcessSyncRWLock(), L"wx");
    }
    if (scenario == L"lock") {
        support::CSyncRWLock lock;
        return RunLockOperations(lock, argument);
    }
    return UseProductInfo(scenario == L"throwing", _wtoi(argument));
}
