#include "launcher/Modes.h"

namespace launcher {

bool RestoreApps()
{
    return true;
}

bool CheckCrtUserApps()
{
    return true;
}

} // namespace launcher
