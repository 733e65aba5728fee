// kemoctl time: Time zone, date and time server.
#include "kemoctl.hpp"

namespace kemoctl {

int cmd_time(const Args &)
{
    return usage_error("not built yet");
}

} // namespace kemoctl
