// kemoctl ups: UPS settings and state.
//   kemoctl ups show
//   kemoctl ups set on|off [--wait MINUTES]
#include "kemoctl.hpp"

#include <cstdio>
#include <string>

namespace kemoctl {
namespace {

const char kUsage[] = "ups show | ups set on|off [--wait MINUTES]";

const char *status_text(uint8_t status)
{
    switch (status) {
    case KEMO_UPS_ONLINE: return "on line";
    case KEMO_UPS_ON_BATTERY: return "on battery";
    case KEMO_UPS_BATTERY_LOW: return "battery low";
    default: return "unknown (the UPS cannot be reached or is starting up)";
    }
}

int show(const Args &args)
{
    if (!args.empty())
        return usage_error("ups show takes no arguments");
    KEMOUPS ups{};
    if (KEMOUPSInfoGet(&ups) != 0)
        return library_failure("reading the UPS settings");
    field("support", ups.enabled ? "on" : "off");
    field("wait time", std::to_string(ups.waitTime) + " minutes on battery before shutting down");
    field("manufacturer", ups.szMfr);
    field("model", ups.szModel);
    field("status", status_text(ups.status));
    field("load", std::to_string(ups.load) + " %");
    field("runtime", std::to_string(ups.runtime) + " s");
    field("charge", std::to_string(ups.charge) + " %");
    return 0;
}

int set(const Args &args)
{
    const Parsed p = parse_args(args, {{"--wait", 1}});
    if (!p.error.empty())
        return usage_error(p.error);
    if (p.words.size() != 1 || (p.words[0] != "on" && p.words[0] != "off"))
        return usage_error("ups set needs on or off");
    KEMOUPS ups{};
    if (KEMOUPSInfoGet(&ups) != 0)
        return library_failure("reading the UPS settings");
    ups.enabled = p.words[0] == "on" ? 1 : 0;
    for (const auto &[name, values] : p.options) {
        const auto minutes = parse_u32(values[0], false);
        if (!minutes || *minutes < KEMO_UPS_WAIT_MIN || *minutes > KEMO_UPS_WAIT_MAX)
            return usage_error("--wait takes " + std::to_string(KEMO_UPS_WAIT_MIN) + " to " +
                               std::to_string(KEMO_UPS_WAIT_MAX) + " minutes");
        ups.waitTime = *minutes;
    }
    if (KEMOUPSInfoSet(&ups) != 0)
        return library_failure("storing the UPS settings");
    return 0;
}

} // namespace

int cmd_ups(const Args &args)
{
    if (args.empty()) {
        std::printf("usage: kemoctl %s\n", kUsage);
        return 0;
    }
    const Args rest(args.begin() + 1, args.end());
    if (args[0] == "show")
        return show(rest);
    if (args[0] == "set")
        return set(rest);
    return usage_error("unknown ups command '" + std::string(args[0]) + "' (" + kUsage + ")");
}

} // namespace kemoctl
