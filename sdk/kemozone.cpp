// The time zone: the zone setting, the zone table and list generated from
// the tz database, and switching the appliance to another zone.
#include "kemo_internal.hpp"
#include "kemo_io.hpp"
#include "kemo_time.hpp"
#include "kemo_accounts.hpp"
#include "kemofile.hpp"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

using kemo::fail;

constexpr char kLocaltime[] = "/etc/localtime";
constexpr char kTzFile[] = "/etc/TZ";
constexpr char kClockTmp[] = "/etc/sysconfig/clock.tmp";
constexpr char kQuotedPair[] = "%s=\"%s\"\n";
// Far above any zone file (the largest are a few kilobytes).
constexpr std::size_t kMaxZoneFile = 1 << 20;

// Copies text with its NUL into buffer, by the two-call rules of the getters:
// *needed set; 0 for a size query (no buffer); 1 (copied) or -1 with
// ERR_NOT_ENOUGH_MEMORY.
int answer(const std::string &text, char *buffer, int size, int *needed)
{
    if (text.size() >= static_cast<std::size_t>(INT_MAX))
        return fail(-1, ERR_NOT_ENOUGH_MEMORY);
    *needed = static_cast<int>(text.size() + 1);
    if (buffer == nullptr)
        return 0;
    if (*needed > size)
        return fail(-1, ERR_NOT_ENOUGH_MEMORY);
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return 1;
}

// The zone file's bytes, read from a regular file only (never through a
// last-component link, never from a FIFO or device).
bool read_zone_file(const std::string &path, std::string &data)
{
    kemo::Fd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
        static_cast<std::size_t>(st.st_size) > kMaxZoneFile)
        return false;
    data.resize(static_cast<std::size_t>(st.st_size));
    std::size_t got = 0;
    while (got < data.size()) {
        const ssize_t n = ::read(fd.get(), data.data() + got, data.size() - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        got += static_cast<std::size_t>(n);
    }
    return true;
}

// Replaces path with content through a twin; the documented messages for
// the clock file when fixed_twin is given.
bool replace_file(const char *path, const std::string &content, const char *fixed_twin = nullptr)
{
    kemo::Twin twin(path, fixed_twin ? fixed_twin : "");
    if (!twin.open()) {
        if (fixed_twin)
            KEMO_LOG("fopen SZF_CLOCK_TMP failed");
        else
            KEMO_LOG("cannot open a new copy of %s", path);
        return false;
    }
    twin.write(content);
    if (!twin.ok()) {
        KEMO_LOG("fflush failed");
        return false;
    }
    if (!twin.commit()) {
        KEMO_LOG("fsync failed");
        return false;
    }
    return true;
}

} // namespace

namespace kemo::timecfg {

int zone_get(char *buffer, int size, int *needed)
{
    ConfigLock lock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_SH | KLIB_LOCK_NB);
    if (!lock.held())
        return fail(-1, ERR_LOCK_FAILED);
    const auto zone = settings::get_value(kSettings, "timezone");
    if (!zone)
        return -1;
    if (!lock.release())
        return -1;
    const int result = answer(*zone, buffer, size, needed);
    return result < 0 ? -1 : 0;
}

int hardware_clock_utc(int *flag)
{
    const auto utc = settings::get_value(kClockFile, "UTC");
    if (!utc) {
        kemo::log("%s: fail to get UTC", "KEMOZoneIsDayLightSaving");
        return -1;
    }
    *flag = ::strcasecmp(utc->c_str(), "true") == 0 ? 1 : 0;
    return 0;
}

int zone_desc(const char *zone, char *buffer, int size, int *needed)
{
    const auto desc = settings::get_value(kZoneTable, zone);
    if (!desc)
        return -1;
    return answer(*desc, buffer, size, needed);
}

int zone_enum(char **buffer, int size, int *needed)
{
    std::vector<std::string> names;
    const int read = for_each_line(kZoneTable, [&](std::string_view line) {
        if (line.find('=') == std::string_view::npos)
            return 1;
        // The first token, "=" and blanks being its delimiters.
        constexpr std::string_view delimiters = "= \t\r\n";
        const auto start = line.find_first_not_of(delimiters);
        if (start == std::string_view::npos)
            return 1;
        line.remove_prefix(start);
        names.emplace_back(line.substr(0, line.find_first_of(delimiters)));
        return 1;
    });
    if (read < 0)
        return -1;
    return accounts::store_names(names, buffer, size, needed);
}

bool is_zone_name(std::string_view zone) noexcept
{
    if (zone.empty() || zone.front() == '/' || zone.find("..") != std::string_view::npos)
        return false;
    for (const char ch : zone) {
        const bool plain = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') ||
                           (ch >= '0' && ch <= '9') || ch == '/' || ch == '_' || ch == '+' || ch == '-';
        if (!plain)
            return false;
    }
    return true;
}

// Everything is read and checked before anything is written, so a zone
// that lacks a file or a list entry changes nothing.  The files are then
// written in the order the system reads them: the local-time file, the
// setting, /etc/TZ, the clock file.
int zone_set(const char *zone)
{
    ConfigLock lock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_EX | KLIB_LOCK_NB);
    if (!lock.held()) {
        KEMO_LOG("lock file failed");
        return fail(-1, ERR_LOCK_FAILED);
    }
    const std::string path = std::string(KEMO_ZONE_DIR) + zone;
    std::string data;
    if (!read_zone_file(path, data)) {
        KEMO_LOG("stat [%s] failed", path.c_str());
        return fail(-1, ERR_BAD_PARAMETERS);
    }
    const auto tz = settings::get_value(kZoneList, zone);
    if (!tz || !fits_on_line(*tz)) {
        KEMO_LOG_SP("Failed to get the short zone [%s] from [%s]", zone, kZoneList);
        return fail(-1, ERR_KEY_NOT_FOUND);
    }
    // Kept: whether the hardware clock keeps UTC is the board's matter, not
    // the zone's (a missing or unreadable clock file means UTC).
    bool utc = true;
    if (const auto kept = settings::get_value(kClockFile, "UTC"))
        utc = ::strcasecmp(kept->c_str(), "true") == 0;

    // A new file renamed into place: never written through a link that
    // /etc/localtime may be, and never seen half-written.
    if (!replace_file(kLocaltime, data)) {
        KEMO_LOG("call system[copy %s to %s] failed", path.c_str(), kLocaltime);
        return -1;
    }
    if (settings::set_value(kSettings, "timezone", zone, kQuotedPair) < 0) {
        KEMO_LOG("set key value failed for timezone [%s]", zone);
        return -1;
    }
    if (!replace_file(kTzFile, *tz + "\n"))
        return -1;
    ::mkdir("/etc/sysconfig", 0755);
    const std::string clock = std::string("ZONE=Timezone/") + zone + (utc ? "\nUTC=true" : "\nUTC=false") +
                              "\nARC=false\n";
    if (!replace_file(kClockFile, clock, kClockTmp))
        return -1;
    ::tzset(); // this process follows the new zone at once
    return 0;
}

} // namespace kemo::timecfg

extern "C" {

KEMO_API int KEMOZoneGet(char *buffer, int size, int *needed)
{
    if (needed == nullptr || size < 0 || (size != 0 && buffer == nullptr))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::timecfg::zone_get(buffer, size, needed); });
}

KEMO_API int KEMOZoneIsDayLightSaving(int *flag)
{
    if (flag == nullptr) {
        kemo::log("%s: parameter error", __func__);
        return fail(-1, ERR_BAD_PARAMETERS);
    }
    return kemo::edge(-1, [&] { return kemo::timecfg::hardware_clock_utc(flag); });
}

KEMO_API int KEMOZoneDesc(const char *zone, char *buffer, int size, int *needed)
{
    if (zone == nullptr || needed == nullptr || size < 0 || (size != 0 && buffer == nullptr))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::timecfg::zone_desc(zone, buffer, size, needed); });
}

KEMO_API int KEMOZoneEnum(char **buffer, int size, int *needed)
{
    if (!kemo::accounts::enum_arguments_ok(buffer, size, needed))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::timecfg::zone_enum(buffer, size, needed); });
}

KEMO_API int KEMOZoneSet(const char *zone)
{
    if (zone == nullptr) {
        KEMO_LOG("szZone input null");
        return fail(-1, ERR_BAD_PARAMETERS);
    }
    if (!kemo::timecfg::is_zone_name(zone)) {
        KEMO_LOG("refused zone name");
        return fail(-1, ERR_BAD_PARAMETERS);
    }
    return kemo::edge(-1, [&] { return kemo::timecfg::zone_set(zone); });
}

} // extern "C"
