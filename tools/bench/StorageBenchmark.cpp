// Times load, save and remove on a store of 10,000 items and compares each with picojson
// parsing the same bytes alone. Prints the figures; exits with 1 when a ratio is over its bound.
#include "storage/StartupItemsStorage.h"
#include "support/LogDLL.h"

#include <picojson.h>

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

using storage::CStartupItemsStorage;
using storage::SharedStartupItemList;
using storage::StartupItem;
using storage::StartupItemList;

namespace {

constexpr int kItems = 10000;
constexpr int kRemoved = 1000;
constexpr int kRuns = 15;

std::wstring ItemText(const wchar_t* stem, int index)
{
    return std::wstring(stem) + std::to_wstring(index);
}

// About 160 bytes of JSON per item, as a Run-key item of the user is stored.
StartupItem BenchItem(int index)
{
    StartupItem item;
    item.Name = ItemText(L"App ", index);
    item.Path = L"HKEY_CURRENT_USER\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";
    item.Cmd = ItemText(L"upd.exe /id:", index);
    item.IsUser = true;
    item.ChangedTime = 1700000000000 + index;
    return item;
}

std::string ReadBytes(const std::wstring& path)
{
    std::ifstream in(path.c_str(), std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

void WriteBytes(const std::wstring& path, const std::string& bytes)
{
    std::ofstream out(path.c_str(), std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

double NowMs()
{
    static const double ticksPerMs = [] {
        LARGE_INTEGER frequency;
        QueryPerformanceFrequency(&frequency);
        return static_cast<double>(frequency.QuadPart) / 1000.0;
    }();
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return static_cast<double>(now.QuadPart) / ticksPerMs;
}

double TimeMs(const std::function<void()>& step)
{
    const double start = NowMs();
    step();
    return NowMs() - start;
}

double Median(std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

bool Report(const char* what, double ms, double baseMs, double bound)
{
    const double ratio = ms / baseMs;
    const bool within = ratio < bound;
    std::printf("%-22s %8.2f ms  %5.2fx  (bound %.1fx) %s\n", what, ms, ratio, bound, within ? "ok" : "OVER");
    return within;
}

std::wstring ScratchFolder()
{
    wchar_t temp[MAX_PATH + 1];
    const DWORD length = GetTempPathW(MAX_PATH + 1, temp);
    std::wstring folder = std::wstring(temp, length) + L"mg-storage-bench-" + std::to_wstring(GetCurrentProcessId());
    CreateDirectoryW(folder.c_str(), nullptr);
    return folder;
}

} // namespace

int main()
{
    const std::wstring folder = ScratchFolder();
    const std::wstring file = folder + L"\\Storage.json";
    const std::wstring logFile = folder + L"\\bench.log";
    // Logging is held for the run, as the program holds it, with the lines going to a scratch file.
    SetEnvironmentVariableW(L"QMTRACE_LOG", logFile.c_str());
    auto hold = std::make_unique<logging::LogHold>();
    DeleteFileW(file.c_str());
    CStartupItemsStorage store;
    store.Init(file.c_str());

    SharedStartupItemList all;
    SharedStartupItemList removed;
    for (int index = 0; index < kItems; ++index) {
        all.push_back(std::make_shared<StartupItem>(BenchItem(index)));
        if (index % (kItems / kRemoved) == 0) {
            removed.push_back(all.back());
        }
    }
    if (store.SaveStartupItems(all, storage::kDelayedSection) != ERROR_SUCCESS) {
        std::printf("could not create the store\n");
        return 2;
    }
    const std::string original = ReadBytes(file);
    const auto restore = [&] { WriteBytes(file, original); };

    // One round times every step once, so that a busy moment of the machine weighs on the
    // bare parse as much as on the operations compared with it.
    std::vector<double> parseTimes, loadTimes, saveTimes, removeTimes;
    size_t loadedCount = 0;
    const StartupItem extra = BenchItem(kItems);
    for (int run = 0; run < kRuns; ++run) {
        parseTimes.push_back(TimeMs([&] {
            picojson::value document;
            picojson::parse(document, original);
        }));
        StartupItemList items;  // freed after the timing: that is the caller's cost
        loadTimes.push_back(TimeMs([&] { store.LoadStartupItems(storage::kDelayedSection, items); }));
        loadedCount = items.size();
        saveTimes.push_back(TimeMs([&] { store.SaveStartupItems(extra, storage::kDelayedSection); }));
        restore();
        removeTimes.push_back(TimeMs([&] { store.RemoveStartupItems(removed, storage::kDelayedSection); }));
        restore();
    }
    const double parseMs = Median(parseTimes);
    const double loadMs = Median(loadTimes);
    const double saveMs = Median(saveTimes);
    const double removeMs = Median(removeTimes);

    // The timed runs did their work: one more removal, and what it left.
    store.RemoveStartupItems(removed, storage::kDelayedSection);
    StartupItemList left;
    store.LoadStartupItems(storage::kDelayedSection, left);

    std::printf("store of %d items, %zu bytes; median of %d runs\n", kItems, original.size(), kRuns);
    std::printf("%-22s %8.2f ms\n", "picojson parse alone", parseMs);
    bool within = Report("load one section", loadMs, parseMs, 1.5);
    within = Report("save one item", saveMs, parseMs, 2.0) && within;
    within = Report("remove 1000 items", removeMs, parseMs, 2.5) && within;
    const bool counted = loadedCount == kItems && left.size() == kItems - kRemoved;
    if (!counted) {
        std::printf("unexpected item counts: loaded %zu, left after removal %zu\n", loadedCount, left.size());
    }

    hold.reset();
    DeleteFileW(file.c_str());
    DeleteFileW(logFile.c_str());
    RemoveDirectoryW(folder.c_str());
    return within && counted ? 0 : 1;
}
