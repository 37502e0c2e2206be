// The one source of the program's version: read by CMake and by the resource script.
#pragma once

#define MORROWGATE_VERSION_MAJOR 1
#define MORROWGATE_VERSION_MINOR 0
#define MORROWGATE_VERSION_PATCH 0
#define MORROWGATE_VERSION_BUILD 0

#define MORROWGATE_STRINGIZE2(x) #x
#define MORROWGATE_STRINGIZE(x) MORROWGATE_STRINGIZE2(x)
#define MORROWGATE_VERSION_STRING                                                        \
    MORROWGATE_STRINGIZE(MORROWGATE_VERSION_MAJOR) "." MORROWGATE_STRINGIZE(              \
        MORROWGATE_VERSION_MINOR) "." MORROWGATE_STRINGIZE(MORROWGATE_VERSION_PATCH) "." \
        MORROWGATE_STRINGIZE(MORROWGATE_VERSION_BUILD)

// A narrow string literal made wide, for the programs' own texts.
#define MORROWGATE_WIDE2(x) L##x
#define MORROWGATE_WIDE(x) MORROWGATE_WIDE2(x)

#define MORROWGATE_COMPANY "Quillmark"
#define MORROWGATE_PRODUCT "Dawnstep"
