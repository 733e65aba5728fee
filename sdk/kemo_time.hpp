// Internal interface of the time settings: the zone (sdk/kemozone.cpp), the
// date and the board clock (sdk/kemodate.cpp), the time server and the
// scheduler table (sdk/kemontp.cpp).  Arguments are checked by the exported
// shims; every function sets the error code when it fails.
#pragma once

#include "kemo_internal.hpp"

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace kemo::timecfg {

inline constexpr char kSettings[] = "/etc/kemoinfo.conf";
inline constexpr char kZoneTable[] = KEMO_ZONE_DIR "tztable";
inline constexpr char kZoneList[] = KEMO_ZONE_DIR "tzlist";
inline constexpr char kClockFile[] = "/etc/sysconfig/clock";
inline constexpr char kCrontab[] = "/etc/crontab";
inline constexpr char kNtpCommand[] = "/usr/sbin/ntpdate";

// ---------------------------------------------------------------- zone
int zone_get(char *buffer, int size, int *needed);
// The "UTC" flag of the clock file: 0 with *flag set, or -1.
int hardware_clock_utc(int *flag);
int zone_desc(const char *zone, char *buffer, int size, int *needed);
int zone_enum(char **buffer, int size, int *needed);
// A name the zone setter accepts: not empty, relative, no "..", only
// letters, digits and "/_+-" (every zone of the table is written so; no
// quote, blank, line break or shell character can pass).
bool is_zone_name(std::string_view zone) noexcept;
int zone_set(const char *zone);

// ---------------------------------------------------------------- date
// The documented checks: years 2000-9999, months, month days (29 February
// only in leap years), hour < 24, minute and second < 60.
bool is_valid_date(const KEMODATE &date) noexcept;
int date_get(KEMODATE &date);
int date_set(const KEMODATE &date);
// The board clock record of a broken-down UTC time.  Years after 2099 keep
// their last two digits, as the board clock counts them.
KEMORTC pack_rtc(const struct tm &utc) noexcept;
int rtc_set(int64_t t);

// ---------------------------------------------------------------- time server
// A time server's name as the scheduler line may carry it: a DNS host name
// (labels of letters, digits and inner "-") or a dotted IPv4 address, at
// most 63 characters.  Nothing a shell or ntpdate could take otherwise.
bool is_server_name(std::string_view name) noexcept;
// The scheduler line of the time server, or nullopt (ERR_BAD_PARAMETERS)
// when it would exceed 127 characters.
std::optional<std::string> ntp_line(std::string_view period, std::string_view server,
                                    std::string_view backup);
int ntp_get(KEMONTP &ntp);
// ntp has been checked (texts terminated in their fields, names valid).
int ntp_set(const KEMONTP &ntp);
// True when the scheduler table line runs command (its command field, the
// seventh, or the third after an "@" schedule, is command).
bool runs_command(std::string_view line, std::string_view command) noexcept;
// Replaces (line) or removes (nullopt) the table's lines that run command
// and makes the scheduler reread the table: 0, or -1.
int update_crontab(std::string_view command, std::optional<std::string_view> line);

} // namespace kemo::timecfg
