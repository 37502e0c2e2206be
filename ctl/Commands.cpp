#include "ctl/Commands.h"

#include "actions/StartupAppsActionExec.h"
#include "ctl/Console.h"
#include "ctl/EntryChanges.h"
#include "ctl/Install.h"
#include "ctl/Options.h"
#include "ctl/Reports.h"
#include "launcher/CommandLine.h"
#include "storage/StartupItemsStorage.h"
#include "support/ScopeTrace.h"
#include "support/Version.h"

namespace ctl {

namespace {

constexpr int kUsageError = 2;

struct Command {
    const wchar_t* name;
    const wchar_t* synopsis;
    const wchar_t* help;
    int (*run)(const Options& options);
    bool takesEntry;
};

std::vector<Entry> LoadEntries()
{
    return CollectEntries(actions::IsWindows8OrGreater());
}

int List(const Options& options)
{
    PrintEntries(LoadEntries(), options.json);
    return 0;
}

int Plan(const Options& options)
{
    PrintPlan(options.time.value_or(0), options.json);
    return 0;
}

template <int (*Change)(const Entry&)> int ChangeEntry(const Options& options)
{
    const std::vector<Entry> entries = LoadEntries();
    std::wstring problem;
    const Entry* entry = FindEntry(entries, options.operands.front(), problem);
    if (entry == nullptr) {
        Err(L"mgctl: " + problem + L"\r\n");
        return kUsageError;
    }
    return Change(*entry);
}

int Enable(const Options& options)
{
    return options.all ? EnableAllSaved() : ChangeEntry<&EnableEntry>(options);
}

int RunInstall(const Options&)
{
    return Install();
}

int RunUninstall(const Options&)
{
    return Uninstall();
}

const Command kCommands[] = {
    {L"list", L"mgctl list [--json]",
     L"Shows every startup entry of the Run keys, the Startup folders and (Windows 8 and later) the Store app\r\n"
     L"startup tasks, and every item saved in the store, with its state: enabled, disabled or delayed.\r\n",
     &List, false},
    {L"delay", L"mgctl delay <entry>",
     L"Takes the entry out of its location and saves it as delayed: Morrowgate.exe starts it at the next logon.\r\n",
     &ChangeEntry<&DelayEntry>, true},
    {L"disable", L"mgctl disable <entry>", L"Takes the entry out of its location and saves it as disabled.\r\n",
     &ChangeEntry<&DisableEntry>, true},
    {L"enable", L"mgctl enable <entry> | --all",
     L"Puts the entry (or, with --all, every saved item) back into its location, and then removes from the\r\n"
     L"store what is back. An item that cannot be put back stays saved and is named.\r\n",
     &Enable, true},
    {L"plan", L"mgctl plan [--time <n>] [--json]",
     L"Shows the saved delayed items in the order of the next logon run, and whether each would be started:\r\n"
     L"reason \"time\" when its change time is after --time, \"check\" when its program is missing. Starts nothing.\r\n"
     L"Change times are seconds since 1970 (UTC), so --time and Morrowgate.exe /time: take Unix times.\r\n",
     &Plan, false},
    {L"install", L"mgctl install",
     L"Registers the Morrowgate.exe beside mgctl.exe to run at logon (HKCU\\...\\Run, value Morrowgate).\r\n",
     &RunInstall, false},
    {L"uninstall", L"mgctl uninstall",
     L"Puts every saved item back (enable --all), then deletes the logon registration; it stays when an item\r\n"
     L"could not be put back.\r\n",
     &RunUninstall, false},
};

constexpr wchar_t kCommonHelp[] =
    L"\r\n<entry> is an id from mgctl list (HKCU\\Run\\<value>, HKLM\\Run\\<value>, HKLM\\Run32\\<value>,\r\n"
    L"Startup\\<file>, CommonStartup\\<file>, StoreApp\\<package>\\<task>), in any case, or a name only one entry has.\r\n"
    L"Options: --store <folder> uses the store below <folder>, as Morrowgate.exe /checkuser:<folder> does;\r\n"
    L"--version; --help. Items saved by mgctl carry their change time in seconds since 1970 (UTC).\r\n"
    L"Exit codes: 0 success, 1 an action failed, 2 wrong usage or unknown entry.\r\n";

const Command* FindCommand(const std::wstring& name)
{
    for (const auto& command : kCommands) {
        if (name == command.name) {
            return &command;
        }
    }
    return nullptr;
}

void PrintHelp(const Command* command)
{
    std::wstring text;
    if (command != nullptr) {
        text = L"usage: " + std::wstring(command->synopsis) + L"\r\n\r\n" + command->help;
    } else {
        text = L"mgctl: lists, delays, disables and enables startup programs for Morrowgate.\r\n\r\nusage:\r\n";
        for (const auto& each : kCommands) {
            text += L"  " + std::wstring(each.synopsis) + L"\r\n";
        }
    }
    Out(text + kCommonHelp);
}

int Usage(const std::wstring& problem)
{
    Err(L"mgctl: " + problem + L"\r\nmgctl --help shows the usage\r\n");
    return kUsageError;
}

// What the command does not accept, or empty.
std::wstring Misuse(const Command& command, const Options& options)
{
    const std::wstring name = command.name;
    if (options.json && name != L"list" && name != L"plan") {
        return L"--json goes with list and plan only";
    }
    if (options.time && name != L"plan") {
        return L"--time goes with plan only";
    }
    if (options.all && name != L"enable") {
        return L"--all goes with enable only";
    }
    const size_t wanted = command.takesEntry && !options.all ? 1 : 0;
    if (options.operands.size() != wanted) {
        return wanted == 1 ? name + L" needs exactly one entry" : name + L" takes no entry";
    }
    return {};
}

} // namespace

int RunCommand(const std::vector<std::wstring>& arguments)
{
    Options options;
    if (const std::wstring problem = ParseOptions(arguments, options); !problem.empty()) {
        return Usage(problem);
    }
    if (options.version) {
        Out(L"mgctl " MORROWGATE_WIDE(MORROWGATE_VERSION_STRING) L"\r\n");
        return 0;
    }
    const Command* command = FindCommand(options.command);
    if (options.help || options.command.empty()) {
        PrintHelp(command);
        return options.help ? 0 : kUsageError;
    }
    if (command == nullptr) {
        return Usage(L"unknown command " + options.command);
    }
    if (const std::wstring problem = Misuse(*command, options); !problem.empty()) {
        return Usage(problem);
    }
    logging::ScopeTrace trace(command->name, L"mgctl");
    const std::wstring storePath = launcher::BuildStoragePath(options.store.value_or(L""));
    storage::CStartupItemsStorage::Instance().Init(storePath.c_str());
    return command->run(options);
}

} // namespace ctl
