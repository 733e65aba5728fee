// kemoctl ups: UPS settings and state.
#include "kemoctl.hpp"

namespace kemoctl {

int cmd_ups(const Args &)
{
    return usage_error("not built yet");
}

} // namespace kemoctl
