// A small program that drives the support services through one scenario, so that a test can
// copy it beside chosen doubles of the suite's libraries and watch from outside what happens.
// What the probe itself sees is appended to the same record as the doubles' calls.
//
//   supportprobe open                 exit code: the result of opening the connection
//   supportprobe with ITEM            1 when the call-back ran, 2 when it did not
//   supportprobe empty | throwing     3 after std::bad_function_call, 4 after the call-back's own
//                                     exception, 1 or 2 as above otherwise
//   supportprobe install              exit code: the HRESULT of InstallCrashHandler
//   supportprobe arm WAIT_MS          arms the test crash, then exits 0 after WAIT_MS
//   supportprobe lock CASE            0, or ended by the lock on misuse
//   supportprobe lock early           0 when the process-wide lock was built before the other
//                                     globals (a write taken by one of them is still held)
#include "support/CrashHandler.h"
#include "support/ProductInfo.h"
#include "support/SyncRWLock.h"
#include "tools/doubles/SuiteRecord.h"

#include <cwchar>
#include <functional>
#include <stdexcept>
#include <string>

namespace {

using doubles::Record;

constexpr DWORD kEarlyWriter = 0x5EED0;  // a thread id that no thread has

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
            support::ProcessSyncRWLock().LockWrite(kEarlyWriter);
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

DWORD WINAPI ReadProcessLock(void*)
{
    support::ProcessSyncRWLock().LockRead(0);
    support::ProcessSyncRWLock().UnlockRead(0);
    return 0;
}

// Had the lock been built after g_earlyLockUser, its construction would have wiped the write
// taken there, and a reader would get in at once.
int EarlyWriteIsStillHeld()
{
    HANDLE reader = CreateThread(nullptr, 0, &ReadProcessLock, nullptr, 0, nullptr);
    if (reader == nullptr) {
        return 10;
    }
    const bool heldBack = WaitForSingleObject(reader, 300) == WAIT_TIMEOUT;
    support::ProcessSyncRWLock().UnlockWrite(kEarlyWriter);
    const bool letIn = WaitForSingleObject(reader, 10000) == WAIT_OBJECT_0;
    CloseHandle(reader);
    return heldBack ? (letIn ? 0 : 12) : 11;
}

int WithItem(int item)
{
    wchar_t buffer[support::kProductStringChars] = L"untouched";
    const bool ran = support::WithProductInfo([&](support::IProductInfoUI* productInfo) {
        Record(L"probe call-back");
        support::CopyProductString(productInfo, item, buffer);
    });
    Record(std::wstring(L"probe buffer ") + buffer);
    return ran ? 1 : 2;
}

int WithCallback(std::function<void(support::IProductInfoUI*)> callback)
{
    try {
        return support::WithProductInfo(std::move(callback)) ? 1 : 2;
    } catch (const std::bad_function_call&) {
        Record(L"probe caught bad_function_call");
        return 3;
    } catch (const std::runtime_error&) {
        Record(L"probe caught runtime_error");
        return 4;
    }
}

int LockCase(const wchar_t* name)
{
    support::CSyncRWLock lock;
    const DWORD other = GetCurrentThreadId() + 4;  // an id that is not this thread's
    if (wcscmp(name, L"early") == 0) {
        return EarlyWriteIsStillHeld();
    }
    if (wcscmp(name, L"unlock-read-unheld") == 0) {
        lock.UnlockRead(0);
    } else if (wcscmp(name, L"unlock-read-of-other-reader") == 0) {
        lock.LockRead(other);
        lock.UnlockRead(0);
    } else if (wcscmp(name, L"unlock-write-unheld") == 0) {
        lock.UnlockWrite(0);
    } else if (wcscmp(name, L"unlock-write-of-other-writer") == 0) {
        lock.LockWrite(0);
        lock.UnlockWrite(other);
    } else if (wcscmp(name, L"upgrade") == 0) {
        lock.LockRead(0);
        lock.LockWrite(0);
    } else if (wcscmp(name, L"writer-unlocks-read-twice") == 0) {
        lock.LockWrite(0);
        lock.LockRead(0);
        lock.UnlockRead(0);
        lock.UnlockRead(0);
    } else if (wcscmp(name, L"balanced") == 0) {
        // Correct use of both the local lock and the process-wide one ends normally.
        lock.LockWrite(0);
        lock.LockRead(0);
        lock.UnlockRead(0);
        lock.UnlockWrite(0);
        support::ProcessSyncRWLock().LockRead(0);
        support::ProcessSyncRWLock().UnlockRead(0);
        return 0;
    } else {
        return 2;
    }
    return 1;  // the misuse went unnoticed
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const std::wstring scenario = argc > 1 ? argv[1] : L"";
    const wchar_t* argument = argc > 2 ? argv[2] : L"";
    if (scenario == L"open") {
        const DWORD result = support::OpenProductInfoConnection();
        Record(L"probe opened " + std::to_wstring(result));
        support::CloseProductInfoConnection();
        support::CloseProductInfoConnection();  // nothing left to close: no calls
        return static_cast<int>(result);
    }
    if (scenario == L"with") {
        return WithItem(_wtoi(argument));
    }
    if (scenario == L"empty") {
        return WithCallback(nullptr);
    }
    if (scenario == L"throwing") {
        return WithCallback([](support::IProductInfoUI*) {
            Record(L"probe call-back");
            throw std::runtime_error("call-back failed");
        });
    }
    if (scenario == L"install") {
        return static_cast<int>(support::InstallCrashHandler());
    }
    if (scenario == L"arm") {
        support::ArmTestCrash();
        Sleep(static_cast<DWORD>(_wtoi(argument)));
        return 0;
    }
    if (scenario == L"lock") {
        return LockCase(argument);
    }
    return 2;
}
