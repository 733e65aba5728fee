// Setting the date, in the virtual appliance, whose clock is its own: the
// system clock moves to the local time asked for (daylight saving as the
// zone's rules have it), invalid dates leave it alone, and a board without
// the clock driver passes silently.
#include "guest_only.hpp"
#include "guest_util.hpp"
#include "kemo.h"

#include <ctime>
#include <string>

namespace {

class DateSet : public ::testing::Test {
protected:
    // Local time is Berlin's (one hour east in winter, two in summer), so
    // that local and UTC differ and the conversion is seen.
    static void SetUpTestSuite()
    {
        ASSERT_EQ(kemo_guest::sh("cp /usr/share/zoneinfo/Europe/Berlin /etc/localtime"), 0);
        ::unsetenv("TZ");
        ::tzset();
    }
    static void TearDownTestSuite()
    {
        const KEMODATE sane{2026, 1, 1, 12, 0, 0};
        KEMODateSet(&sane);
    }
};

// The clock now as seconds since the epoch, and as KEMODateGet converts it
// back (through the zone) to seconds.
std::pair<time_t, time_t> clock_now()
{
    KEMODATE d{};
    const time_t now = ::time(nullptr);
    EXPECT_EQ(KEMODateGet(&d), 0);
    struct tm local {};
    local.tm_year = d.year - 1900, local.tm_mon = d.month - 1, local.tm_mday = d.day;
    local.tm_hour = d.hour, local.tm_min = d.minute, local.tm_sec = d.second, local.tm_isdst = -1;
    return {now, ::mktime(&local)};
}

TEST_F(DateSet, ClockMovesToTheLocalTimeGiven)
{
    struct Case {
        KEMODATE date;
        time_t utc; // the same instant, worked out by hand
    } cases[] = {
        {{2000, 2, 29, 12, 0, 0}, 951822000},          // 11:00 UTC
        {{2024, 7, 1, 12, 0, 0}, 1719828000},          // summer: 10:00 UTC
        {{2038, 1, 19, 4, 14, 8}, 2147483648LL},       // 03:14:08 UTC, past the 32-bit limit
        {{2099, 12, 31, 23, 59, 59}, 4102441199LL},    // 22:59:59 UTC
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.date.year) + "-" + std::to_string(c.date.month) + "-" +
                     std::to_string(c.date.day));
        ASSERT_EQ(KEMODateSet(&c.date), 0);
        const auto [now, reported] = clock_now();
        EXPECT_GE(now, c.utc);
        EXPECT_LE(now, c.utc + 2);
        EXPECT_GE(reported, c.utc);
        EXPECT_LE(reported, c.utc + 2);
    }
}

TEST_F(DateSet, InvalidAndUnkeepableDatesLeaveTheClockAlone)
{
    const KEMODATE start{2012, 3, 4, 5, 6, 7};
    ASSERT_EQ(KEMODateSet(&start), 0);
    const time_t before = ::time(nullptr);
    for (const KEMODATE bad : {KEMODATE{2023, 2, 29, 0, 0, 0}, KEMODATE{2100, 2, 29, 0, 0, 0},
                               KEMODATE{1999, 12, 31, 0, 0, 0}, KEMODATE{2020, 4, 31, 0, 0, 0},
                               KEMODATE{2020, 1, 1, 24, 0, 0}}) {
        EXPECT_EQ(KEMODateSet(&bad), -1);
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    }
    // Valid, but Linux keeps the clock only up to the year 2262: refused as
    // an operation, the clock left where it was.
    const KEMODATE last{9999, 12, 31, 23, 59, 59};
    EXPECT_EQ(KEMODateSet(&last), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_OP_FAILURE);
    const time_t after = ::time(nullptr);
    EXPECT_GE(after, before);
    EXPECT_LE(after - before, 2);
    EXPECT_EQ(KEMORTCSet(0), 0) << "no board clock driver in the guest: passes silently";
}

} // namespace

KEMO_GUEST_ONLY_MAIN()
