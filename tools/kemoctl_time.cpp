// kemoctl time: the time zone, the date and the time server.
//
//   kemoctl time show
//   kemoctl time set-date YYYY-MM-DD HH:MM:SS
//   kemoctl time zones
//   kemoctl time zone [NAME]
//   kemoctl time ntp [on|off] [--period daily|weekly|monthly] [--server S] [--backup S]
#include "kemoctl.hpp"

#include <cstdio>
#include <cstring>

namespace kemoctl {
namespace {

constexpr const char *kUsage = "time show | set-date YYYY-MM-DD HH:MM:SS | zones | zone [NAME] | "
                               "ntp [on|off] [--period P] [--server S] [--backup S]";

// A text by the two-call convention of the zone getters (size query, then
// the text); nullopt when either call fails.
template <class Call>
std::optional<std::string> two_call(Call call)
{
    int needed = 0;
    if (call(nullptr, 0, &needed) < 0 || needed <= 0)
        return std::nullopt;
    std::string text(static_cast<std::size_t>(needed), '\0');
    if (call(text.data(), needed, &needed) < 0)
        return std::nullopt;
    text.resize(std::strlen(text.c_str()));
    return text;
}

std::optional<std::string> zone_desc(const std::string &zone)
{
    return two_call([&](char *b, int s, int *n) { return KEMOZoneDesc(zone.c_str(), b, s, n); });
}

void show_ntp(const KEMONTP &ntp)
{
    field("time server sync", ntp.enabled == 1 ? "on" : "off");
    field("sync period", ntp.szPeriod);
    field("time server", ntp.szServer);
    field("backup server", ntp.szServerBackup);
}

int show()
{
    KEMODATE d{};
    if (KEMODateGet(&d) != 0)
        return library_failure("reading the date");
    char date[64];
    std::snprintf(date, sizeof date, "%04d-%02d-%02d %02d:%02d:%02d", d.year, d.month, d.day, d.hour, d.minute,
                  d.second);
    field("date", date);
    // A zone that was never set (or was removed) is shown as such: the
    // rest of the settings are still worth seeing.
    const auto zone = two_call(KEMOZoneGet);
    if (zone) {
        field("zone", *zone);
        field("zone description", zone_desc(*zone).value_or("(not in the zone table)"));
    } else if (KLIBErrGet() == ERR_KEY_NOT_FOUND) {
        field("zone", "(not set)");
    } else {
        return library_failure("reading the time zone");
    }
    int utc = 0;
    if (KEMOZoneIsDayLightSaving(&utc) != 0)
        return library_failure("reading the clock settings");
    field("hardware clock", utc ? "UTC" : "local time");
    KEMONTP ntp{};
    if (KEMONtpGet(&ntp) != 1)
        return library_failure("reading the time server settings");
    show_ntp(ntp);
    return 0;
}

// "YYYY-MM-DD" "HH:MM:SS" with every field a plain number.
std::optional<KEMODATE> parse_date(std::string_view day, std::string_view time)
{
    auto numbers = [](std::string_view text, char sep, int *out, const int (&widths)[3]) {
        for (int i = 0; i < 3; ++i) {
            if (text.size() < static_cast<std::size_t>(widths[i]))
                return false;
            int value = 0;
            for (int k = 0; k < widths[i]; ++k) {
                if (text[k] < '0' || text[k] > '9')
                    return false;
                value = value * 10 + (text[k] - '0');
            }
            out[i] = value;
            text.remove_prefix(widths[i]);
            if (i < 2) {
                if (text.empty() || text[0] != sep)
                    return false;
                text.remove_prefix(1);
            }
        }
        return text.empty();
    };
    int ymd[3], hms[3];
    if (!numbers(day, '-', ymd, {4, 2, 2}) || !numbers(time, ':', hms, {2, 2, 2}))
        return std::nullopt;
    return KEMODATE{ymd[0], ymd[1], ymd[2], hms[0], hms[1], hms[2]};
}

int set_date(const Args &args)
{
    if (args.size() != 2)
        return usage_error("time set-date needs YYYY-MM-DD HH:MM:SS");
    const auto date = parse_date(args[0], args[1]);
    if (!date)
        return usage_error("time set-date needs YYYY-MM-DD HH:MM:SS");
    if (KEMODateSet(&*date) != 0)
        return library_failure("setting the date");
    return 0;
}

int zones()
{
    int needed = 0;
    if (KEMOZoneEnum(nullptr, 0, &needed) < 0)
        return library_failure("listing the zones");
    std::vector<char *> buffer(static_cast<std::size_t>(needed) / sizeof(char *) + 1);
    const int count = KEMOZoneEnum(buffer.data(), static_cast<int>(buffer.size() * sizeof(char *)), &needed);
    if (count < 0)
        return library_failure("listing the zones");
    for (int i = 0; i < count; ++i)
        std::printf("%s\n", buffer[static_cast<std::size_t>(i)]);
    return 0;
}

int zone(const Args &args)
{
    if (args.size() > 1)
        return usage_error("time zone takes at most one NAME");
    if (args.size() == 1) {
        const std::string name(args[0]);
        if (KEMOZoneSet(name.c_str()) != 0)
            return library_failure("setting the time zone to " + name);
        return 0;
    }
    const auto name = two_call(KEMOZoneGet);
    if (!name)
        return library_failure("reading the time zone");
    field("zone", *name);
    field("zone description", zone_desc(*name).value_or("(not in the zone table)"));
    return 0;
}

// Copies a value into a record field; false when it does not fit.
template <std::size_t N>
bool set_text(char (&out)[N], std::string_view value)
{
    if (value.size() >= N || has_line_break(value))
        return false;
    std::memset(out, 0, N);
    std::memcpy(out, value.data(), value.size());
    return true;
}

int ntp(const Args &args)
{
    const Parsed parsed = parse_args(args, {{"--period", 1}, {"--server", 1}, {"--backup", 1}});
    if (!parsed.error.empty())
        return usage_error(parsed.error);
    if (parsed.words.size() > 1 ||
        (parsed.words.size() == 1 && parsed.words[0] != "on" && parsed.words[0] != "off"))
        return usage_error("time ntp takes on or off");
    KEMONTP record{};
    if (KEMONtpGet(&record) != 1)
        return library_failure("reading the time server settings");
    if (args.empty()) {
        show_ntp(record);
        return 0;
    }
    if (parsed.words.size() == 1)
        record.enabled = parsed.words[0] == "on" ? 1 : 0;
    for (const auto &[name, values] : parsed.options) {
        const bool fits = name == "--period"   ? set_text(record.szPeriod, values[0])
                          : name == "--server" ? set_text(record.szServer, values[0])
                                               : set_text(record.szServerBackup, values[0]);
        if (!fits)
            return usage_error(std::string(name) + " value is too long for its field");
    }
    switch (KEMONtpSet(&record)) {
    case 1:
        return 0;
    case -4:
        return library_failure("taking the settings lock");
    case -3:
        return library_failure("removing the time server from the scheduler");
    default:
        return library_failure("storing the time server settings");
    }
}

} // namespace

int cmd_time(const Args &args)
{
    if (args.empty())
        return usage_error(kUsage);
    const std::string_view sub = args[0];
    const Args rest(args.begin() + 1, args.end());
    if (sub == "show" && rest.empty())
        return show();
    if (sub == "set-date")
        return set_date(rest);
    if (sub == "zones" && rest.empty())
        return zones();
    if (sub == "zone")
        return zone(rest);
    if (sub == "ntp")
        return ntp(rest);
    return usage_error(kUsage);
}

} // namespace kemoctl
