// A folder of the test's own that plays the program's folder: the probe and Morrowgate.exe beside
// the doubles of the suite's libraries, a settings folder (item 400) and an install folder with
// the crash library that the product's key (item 202) points at. The doubles, the probe and the
// recording logging library append what they see to one record file, read back line by line.
#pragma once

#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace support_tests {

using Lines = std::vector<std::string>;

Lines Concat(std::initializer_list<Lines> parts);

// The double's calls when a connection is opened up to a started interface, and when it closes.
inline const Lines kOpenedCalls = {
    "qmsvccfg load", "qmsvccfg QmCreateObject productinfo {66551ab3-fca3-bc90-5f42-c5f792e24b51}",
    "qmsvccfg GetInterface {1623905a-2177-944e-c742-7a10b1e0f0a0}", "qmsvccfg Init 0", "qmsvccfg Start"};
inline const Lines kClosedCalls = {"qmsvccfg Uninit", "qmsvccfg Release",
                                   "qmsvccfg QmDestroyObject productinfo", "qmsvccfg unload"};
// What the crash handler's installation asks of the product information: items 400 and 202 in
// "Desktop", each over a connection of its own.
inline const Lines kProductQueries =
    Concat({kOpenedCalls, {"qmsvccfg GetString 400 Desktop"}, kClosedCalls, kOpenedCalls,
            {"qmsvccfg GetString 202 Desktop"}, kClosedCalls});
constexpr char kCrashHandlerEnabled[] = "qmcrash EnableCrashHandler 0 0 norestart";

class SuiteFolder : public ::testing::Test {
protected:
    void SetUp() override;
    // Copies a double from the doubles' folder to a path relative to the folder.
    void PlaceDouble(const wchar_t* built, const std::wstring& placedAs);
    // Runs a program of the folder with the record and m_environment; its exit code, or
    // 0xFFFFFFFF when it did not finish within 30 s.
    DWORD Run(const std::wstring& program, const std::wstring& arguments);
    DWORD RunProbe(const std::wstring& arguments) { return Run(L"supportprobe.exe", arguments); }
    DWORD RunLauncher(const std::wstring& extra = L"")
    {
        return Run(L"Morrowgate.exe", L"\"/checkuser:" + m_dir.Path() + L"\" " + extra);
    }

    Lines Record() const;
    // Lines of the record that contain text.
    size_t Count(const std::string& text) const;
    void ClearRecord() const { DeleteFileW(m_record.c_str()); }

    testing_support::TempDir m_dir;
    std::wstring m_record = m_dir / L"record.txt";
    std::wstring m_install = m_dir / L"install";
    std::wstring m_settings = m_dir / L"settings";
    testing_support::ScratchKey m_productKey{
        HKEY_LOCAL_MACHINE, L"Software\\" + testing_support::UniqueName(L"MorrowgateTests")};
    std::vector<std::wstring> m_environment;  // NAME=VALUE; items 400 and 202 after SetUp
};

} // namespace support_tests
