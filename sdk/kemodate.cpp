// The date: the local date and time, setting the system clock, and the
// board's battery-backed clock behind its driver.
#include "kemo_internal.hpp"
#include "kemo_io.hpp"
#include "kemo_time.hpp"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

namespace {

using kemo::fail;

constexpr uint8_t bcd(int value) noexcept
{
    return static_cast<uint8_t>(((value / 10) << 4) | (value % 10));
}

bool is_leap(int year) noexcept
{
    return year % 400 == 0 || (year % 4 == 0 && year % 100 != 0);
}

} // namespace

namespace kemo::timecfg {

bool is_valid_date(const KEMODATE &d) noexcept
{
    if (d.year < 2000 || d.year > 9999 || d.month < 1 || d.month > 12)
        return false;
    static constexpr int kDays[12] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (d.day < 1 || d.day > kDays[d.month - 1] || (d.month == 2 && d.day == 29 && !is_leap(d.year)))
        return false;
    return d.hour >= 0 && d.hour < 24 && d.minute >= 0 && d.minute < 60 && d.second >= 0 &&
           d.second < 60;
}

int date_get(KEMODATE &date)
{
    const time_t now = ::time(nullptr);
    struct tm local {};
    if (now == static_cast<time_t>(-1) || ::localtime_r(&now, &local) == nullptr)
        return fail(-1, ERR_SYS_UNKNOWN);
    date = KEMODATE{local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                    local.tm_hour, local.tm_min, local.tm_sec};
    return 0;
}

int date_set(const KEMODATE &date)
{
    struct tm local {};
    local.tm_year = date.year - 1900;
    local.tm_mon = date.month - 1;
    local.tm_mday = date.day;
    local.tm_hour = date.hour;
    local.tm_min = date.minute;
    local.tm_sec = date.second;
    local.tm_isdst = -1; // daylight saving as the zone's rules have it
    ::tzset();
    const time_t t = ::mktime(&local);
    if (t == static_cast<time_t>(-1)) {
        KEMO_LOG("mktime failed for %04d-%02d-%02d %02d:%02d:%02d", date.year, date.month, date.day,
                 date.hour, date.minute, date.second);
        return fail(-1, ERR_OP_FAILURE);
    }
    const struct timeval tv {t, 0};
    if (::settimeofday(&tv, nullptr) != 0) {
        KEMO_LOG("settimeofday failed: %s", std::strerror(errno));
        return fail(-1, ERR_OP_FAILURE);
    }
    rtc_set(static_cast<int64_t>(t));
    return 0;
}

KEMORTC pack_rtc(const struct tm &utc) noexcept
{
    KEMORTC rtc{};
    rtc.second = bcd(utc.tm_sec);
    rtc.minute = bcd(utc.tm_min);
    const int hour = utc.tm_hour;
    rtc.hour = hour == 0 ? 0x12 : hour < 12 ? bcd(hour) : hour == 12 ? 0x32 : bcd(hour + 8);
    rtc.weekday = bcd(utc.tm_wday);
    rtc.day = bcd(utc.tm_mday);
    rtc.month = bcd(utc.tm_mon + 1);
    const int year = utc.tm_year + 1900;
    rtc.year = year > 2000 ? bcd((year - 2000) % 100) : 0;
    return rtc;
}

int rtc_set(int64_t t)
{
    const time_t when = t == 0 ? ::time(nullptr) : static_cast<time_t>(t);
    struct tm utc {};
    // (A narrower time_t than t cannot hold it.)
    if ((t != 0 && static_cast<int64_t>(when) != t) || ::gmtime_r(&when, &utc) == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    KEMORTC rtc = pack_rtc(utc);
    // A board without the clock driver passes silently; anything but the
    // driver's character device is left alone.
    kemo::Fd fd(::open(KEMO_RTC_DEVICE, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISCHR(st.st_mode))
        return 0;
    if (::ioctl(fd.get(), KEMO_RTC_SET, &rtc) != 0)
        KEMO_LOG("board clock request failed: %s", std::strerror(errno));
    return 0;
}

} // namespace kemo::timecfg

extern "C" {

KEMO_API int KEMODateGet(KEMODATE *date)
{
    if (date == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::timecfg::date_get(*date); });
}

KEMO_API int KEMODateSet(const KEMODATE *date)
{
    if (date == nullptr || !kemo::timecfg::is_valid_date(*date))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::timecfg::date_set(*date); });
}

KEMO_API int KEMORTCSet(int64_t t)
{
    return kemo::edge(-1, [&] { return kemo::timecfg::rtc_set(t); });
}

} // extern "C"
