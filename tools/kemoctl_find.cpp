// kemoctl find: the appliances on the network segment.
//
//   kemoctl find          refresh (query, about 10 s of answers), then list
//   kemoctl find --list   list what the last refresh left, without a query
//
// One line per appliance, "name(address)", sorted.
#include "kemoctl.hpp"

#include <algorithm>

namespace kemoctl {

int cmd_find(const Args &args)
{
    const bool refresh = args.empty();
    if (!refresh && (args.size() != 1 || args[0] != "--list"))
        return usage_error("find takes no argument but --list");
    if (refresh && KEMOFHOSTDumpHost() != 0)
        return library_failure("refreshing the list of appliances");
    HashPtr hash(PshKLIBSzHashAlloc(0));
    if (!hash)
        return library_failure("allocating a hash");
    // No snapshot (nothing refreshed yet) is an empty list, not a failure.
    if (growing(hash, [](PKLIBSZHASH *h) { return KEMOFHOSTGet2Hash(h); }) < 0)
        return library_failure("reading the list of appliances");
    auto names = filled_list([&](PKLIBSZLIST *list) { return KLIBSzHashEnumKey(hash.get(), list); });
    if (!names)
        return library_failure("listing the appliances");
    std::sort(names->begin(), names->end());
    return print_lines(*names);
}

} // namespace kemoctl
