#include "launcher/Modes.h"

namespace launcher {

bool StartApps(std::int64_t)
{
    return true;
}

bool StartApp(const std::wstring&)
{
    return false;
}

} // namespace launcher
