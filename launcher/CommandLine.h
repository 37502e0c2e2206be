// The launcher's switches and where its store lives.
#pragma once

#include <cstdint>
#include <string>

namespace launcher {

struct LaunchSettings {
    bool restore = false;            // "/restore"
    std::int64_t timeLimit = 0;      // "/time:<n>"; 0 means no bound
    bool checkCurrentUser = false;   // "/checkcrtuser"
    bool checkUser = false;          // "/checkuser:<folder>"
    std::wstring userFolder;         // the text after "/checkuser:"
};

// Reads every argument, the first included. Each switch is a case-sensitive prefix test; an
// argument that matches none is ignored, and a later "/time:" or "/checkuser:" wins.
LaunchSettings ParseCommandLine(const wchar_t* commandLine);

// The full path of Storage.json: below the user folder when one was given, else below the
// roaming application data folder ("Quillmark\Dawnstep\" is added and created in both cases),
// else beside the program itself.
std::wstring BuildStoragePath(const std::wstring& userFolder);

// Creates a folder and its missing parents. Returns false when the folder could not be made.
bool CreateFolderTree(const std::wstring& folder);

} // namespace launcher
