// kemoctl find: Finding appliances.
#include "kemoctl.hpp"

namespace kemoctl {

int cmd_find(const Args &)
{
    return usage_error("not built yet");
}

} // namespace kemoctl
