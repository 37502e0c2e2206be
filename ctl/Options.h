// The command line of mgctl: one command with its operands, and options that may stand before
// or after it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ctl {

struct Options {
    std::wstring command;                 // list, delay, disable, enable, plan, install, uninstall
    std::vector<std::wstring> operands;   // what follows the command that is not an option
    bool json = false;                    // --json
    bool all = false;                     // --all
    bool help = false;                    // --help, -h, /?
    bool version = false;                 // --version
    std::optional<std::int64_t> time;     // --time <n>
    std::optional<std::wstring> store;    // --store <folder>
};

// Fills options from the arguments after the program name. Returns an empty text, or what is
// wrong with the command line.
std::wstring ParseOptions(const std::vector<std::wstring>& arguments, Options& options);

} // namespace ctl
