// A folder of the test's own that plays the program's folder: a copy of this test program as
// probe.exe and Morrowgate.exe beside the double of the suite's libraries as qmsvccfg.dll, an
// install folder with the double as qmcrash.dll (the folder that the product key's AppPath
// points at) and a settings folder. Items 400 and 202 of the product information name those.
#pragma once

#include "support/SyncRWLock.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Lines = std::vector<std::string>;

template <typename T>
std::vector<T> operator+(std::vector<T> first, const std::vector<T>& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// Lock operations, in the notation of the lock's tests: R/r LockRead/UnlockRead, W/w
// LockWrite/UnlockWrite, each for the calling thread or, followed by a digit N or x, for the
// thread ids[N] or a thread id that no thread has.
void ApplyLockOps(support::ISyncRWLock& lock, const std::string& ops, const DWORD* ids);

class SupportFolder : public ::testing::Test {
protected:
    void SetUp() override;
    // Copies a double from the doubles' folder (nullptr: removes the file).
    void Place(const wchar_t* built, const std::wstring& placedAs);
    // Runs the probe with a scenario, or Morrowgate.exe with a private store and arguments, with
    // m_environment and a fresh record; the exit code, or 0xFFFFFFFF after 20 s.
    DWORD Probe(const std::wstring& scenario) { return Run(L"probe.exe", L"", L"SUPPORT_PROBE=" + scenario); }
    DWORD Launch(const std::wstring& arguments)
    {
        return Run(L"Morrowgate.exe", L"\"/checkuser:" + m_dir.Path() + L"\" " + arguments, L"SUPPORT_PROBE=");
    }
    // What the doubles recorded in the last run.
    Lines Record() const;

    testing_support::TempDir m_dir;
    std::wstring m_install = m_dir / L"install";
    std::wstring m_settings = m_dir / L"settings";
    testing_support::ScratchKey m_productKey{
        HKEY_LOCAL_MACHINE, L"Software\\" + testing_support::UniqueName(L"MorrowgateTests")};
    std::vector<std::wstring> m_environment;

private:
    DWORD Run(const std::wstring& program, const std::wstring& arguments, const std::wstring& probe);
};
