// A folder of the test's own that plays the program's folder: the probe or Morrowgate.exe with
// chosen doubles of the suite's libraries beside it. The doubles and the probe append what they
// see to one record file, read back line by line.
#pragma once

#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace support_tests {

constexpr char kObjectGuid[] = "{66551ab3-fca3-bc90-5f42-c5f792e24b51}";
constexpr char kInterfaceGuid[] = "{1623905a-2177-944e-c742-7a10b1e0f0a0}";

// Opening a connection as the double records it, up to a started interface.
std::vector<std::string> OpenedCalls();
// Closing an open connection.
std::vector<std::string> ClosedCalls();
// One whole use of the product information that asks for item in "Desktop".
std::vector<std::string> ItemSession(int item);
std::vector<std::string> Concat(std::initializer_list<std::vector<std::string>> parts);

class SuiteFolder : public ::testing::Test {
protected:
    // Copies a build output (from bin/ or doubles/) into the folder under the given name.
    void PlaceProgram(const wchar_t* name);
    void PlaceDouble(const wchar_t* built, const std::wstring& placedAs);
    void PlaceDouble(const wchar_t* built, const std::wstring& folder, const std::wstring& placedAs);

    // Runs a program of the folder with the record and the extra settings in its environment;
    // returns the exit code (0xFFFFFFFF when it did not finish in time).
    DWORD Run(const std::wstring& program, const std::wstring& arguments, DWORD timeoutMs = 30000);
    DWORD RunProbe(const std::wstring& arguments) { return Run(L"supportprobe.exe", arguments); }

    std::vector<std::string> Record() const;
    void ClearRecord() const { DeleteFileW(m_record.c_str()); }

    testing_support::TempDir m_dir;
    std::wstring m_record = m_dir / L"record.txt";
    std::vector<std::wstring> m_environment;  // NAME=VALUE
};

} // namespace support_tests
