// Time settings: date checks and the board clock record, the zone table and
// switching zones, the time server's settings and scheduler line, and the
// real scheduler (Debian cron) reading the table the library wrote.
//
// This machine's clock must never move: KEMODateSet is called here only
// with invalid dates (valid ones are tried in the virtual appliance).
#include "kemo_time.hpp"
#include "sandbox_fixture.hpp"
#include "syslog_capture.hpp"

#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace tc = kemo::timecfg;

namespace {

class TimeTest : public SandboxTest {};

const std::string kZoneDir = KEMO_ZONE_DIR;

KEMONTP ntp_record(uint32_t enabled, const char *period, const char *server, const char *backup)
{
    KEMONTP r{enabled, {}, {}, {}};
    std::strncpy(r.szPeriod, period, sizeof r.szPeriod - 1);
    std::strncpy(r.szServer, server, sizeof r.szServer - 1);
    std::strncpy(r.szServerBackup, backup, sizeof r.szServerBackup - 1);
    return r;
}

long count_lines(const std::string &path, const std::string &line) { return std::ranges::count(lines_of(path), line); }

// A child that runs setup(), tells the parent it is ready, then waits up to
// seconds for SIGHUP: it exits 0 when the signal came, 1 when not.
template <class Setup>
pid_t spawn(Setup setup, int seconds)
{
    int ready[2];
    if (::pipe(ready) != 0)
        return -1;
    const pid_t pid = ::fork();
    if (pid == 0) {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGHUP);
        sigprocmask(SIG_BLOCK, &set, nullptr);
        const char ok = setup() ? 'y' : 'n';
        const timespec wait{seconds, 0};
        ::_exit(::write(ready[1], &ok, 1) == 1 && ok == 'y' && sigtimedwait(&set, nullptr, &wait) == SIGHUP ? 0 : 1);
    }
    char ok = 'n';
    EXPECT_TRUE(::read(ready[0], &ok, 1) == 1 && ok == 'y');
    ::close(ready[0]);
    ::close(ready[1]);
    return pid;
}

} // namespace

TEST(DateCheck, AcceptsOnlyRealDatesOfTheSupportedYears)
{
    const std::pair<KEMODATE, bool> cases[] = {
        {{2000, 2, 29, 0, 0, 0}, true},  {{2024, 2, 29, 23, 59, 59}, true}, {{9999, 12, 31, 23, 59, 59}, true},
        {{1900, 2, 29, 0, 0, 0}, false}, {{2100, 2, 29, 0, 0, 0}, false},   {{2023, 2, 29, 0, 0, 0}, false},
        {{1999, 12, 31, 0, 0, 0}, false}, {{10000, 1, 1, 0, 0, 0}, false},  {{2007, 4, 31, 0, 0, 0}, false},
        {{2007, 4, 30, 0, 0, 0}, true},  {{2007, 1, 0, 0, 0, 0}, false},    {{2007, 13, 1, 0, 0, 0}, false},
        {{2007, 0, 1, 0, 0, 0}, false},  {{2007, 1, 1, 24, 0, 0}, false},   {{2007, 1, 1, 0, 60, 0}, false},
        {{2007, 1, 1, 0, 0, 60}, false}, {{2007, 1, 1, -1, 0, 0}, false},
    };
    for (const auto &[d, ok] : cases) {
        SCOPED_TRACE(testing::Message() << d.year << "-" << d.month << "-" << d.day << " " << d.hour << ":"
                                        << d.minute << ":" << d.second);
        EXPECT_EQ(tc::is_valid_date(d), ok);
        // Invalid dates only: the clock is never touched.
        EXPECT_TRUE(ok || (KEMODateSet(&d) == -1 && KLIBErrGet() == ERR_BAD_PARAMETERS));
    }
    KEMODATE now{};
    ASSERT_EQ(KEMODateGet(&now), 0);
    EXPECT_GE(now.year, 2000);
}

TEST_F(TimeTest, BoardClockRecordIsPackedDecimalWithTheTwelveHourByte)
{
    // y, mo, d, h, mi, s, then the record: second minute hour weekday day month year.
    const int cases[][13] = {
        {2007, 3, 15, 0, 30, 5, 0x05, 0x30, 0x12, 0x04, 0x15, 0x03, 0x07},
        {2007, 3, 15, 12, 30, 0, 0x00, 0x30, 0x32, 0x04, 0x15, 0x03, 0x07},
        {2007, 3, 15, 23, 30, 0, 0x00, 0x30, 0x31, 0x04, 0x15, 0x03, 0x07},
        {2023, 1, 1, 11, 59, 59, 0x59, 0x59, 0x11, 0x00, 0x01, 0x01, 0x23},
        {1999, 12, 31, 9, 0, 0, 0x00, 0x00, 0x09, 0x05, 0x31, 0x12, 0x00},
        {2099, 1, 1, 0, 0, 0, 0x00, 0x00, 0x12, 0x04, 0x01, 0x01, 0x99},
    };
    for (const auto &c : cases) {
        struct tm t {};
        t.tm_year = c[0] - 1900, t.tm_mon = c[1] - 1, t.tm_mday = c[2], t.tm_hour = c[3], t.tm_min = c[4];
        t.tm_sec = c[5];
        const time_t when = ::timegm(&t); // fills the weekday
        const KEMORTC got = tc::pack_rtc(*::gmtime_r(&when, &t));
        for (int i = 0; i < 7; ++i)
            EXPECT_EQ((&got.second)[i], c[6 + i]) << "byte " << i << " of " << std::asctime(&t);
    }
    // Without its driver the board clock passes silently.
    EXPECT_EQ(KEMORTCSet(0), 0);
    write_file(KEMO_RTC_DEVICE, "keep"); // a plain file there is not the driver
    EXPECT_EQ(KEMORTCSet(1173918600), 0);
    EXPECT_EQ(read_file(KEMO_RTC_DEVICE), "keep");
    EXPECT_EQ(KEMORTCSet(INT64_MAX), -1);
}

TEST_F(TimeTest, ZoneTableDescribesTheZonesOfTheDatabaseAndIsEnumerated)
{
    char buffer[128];
    int needed = 0;
    EXPECT_EQ(KEMOZoneDesc("Europe/Berlin", nullptr, 0, &needed), 0);
    EXPECT_EQ(KEMOZoneDesc("Europe/Berlin", buffer, needed, &needed), 1);
    EXPECT_STREQ(buffer, "Germany - most of Germany (UTC+01:00)");
    EXPECT_EQ(KEMOZoneDesc("Nowhere/City", buffer, sizeof buffer, &needed), -1);

    // Every zone listed has its zone file and, in the zone list, the POSIX
    // string of that file.
    std::vector<char *> list(4096);
    const int count = KEMOZoneEnum(list.data(), static_cast<int>(list.size() * sizeof(char *)), &needed);
    ASSERT_GT(count, 300);
    const std::vector<std::string> names(list.begin(), list.begin() + count);
    for (const char *known : {"Greenwich", "UTC", "Europe/Berlin", "America/New_York"})
        EXPECT_NE(std::find(names.begin(), names.end(), known), names.end()) << known;
    for (const std::string &zone : names) {
        const std::string data = read_file(kZoneDir + zone);
        ASSERT_EQ(data.compare(0, 4, "TZif"), 0) << zone;
        char tz[128] = "";
        KLIBFileGetKeyValue((kZoneDir + "tzlist").c_str(), zone.c_str(), tz, sizeof tz, 0);
        const std::size_t footer = data.rfind('\n', data.size() - 2); // read independently of the generator
        EXPECT_EQ(tz, data.substr(footer + 1, data.size() - footer - 2)) << zone;
    }

    // The two-call rules: the names with one NUL each, a pointer for each
    // and the end (4 bytes each where pointers take 4).
    write_file(kZoneDir + "tztable", "Europe/Paris=France (UTC+01:00)\n# none here\nUTC=UTC\nAsia/Tokyo = Japan\n");
    EXPECT_EQ(KEMOZoneEnum(nullptr, 0, &needed), 0);
    const int pointer = sizeof(char *);
    EXPECT_EQ(needed, (12 + 3 + 10) + 3 + 3 * pointer + pointer);
    EXPECT_EQ(KEMOZoneEnum(list.data(), needed - 1, &needed), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_NOT_ENOUGH_MEMORY);
    ASSERT_EQ(KEMOZoneEnum(list.data(), needed, &needed), 3);
    EXPECT_EQ(std::vector<std::string>(list.begin(), list.begin() + 3),
              (std::vector<std::string>{"Europe/Paris", "UTC", "Asia/Tokyo"}));
    EXPECT_EQ(list[3], nullptr);
    ASSERT_EQ(::unlink((kZoneDir + "tztable").c_str()), 0);
    EXPECT_EQ(KEMOZoneEnum(nullptr, 0, &needed), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_OPEN_FAILED);
}

TEST_F(TimeTest, ZoneGetAndTheHardwareClockFlag)
{
    char zone[10];
    int needed = 0;
    EXPECT_EQ(KEMOZoneGet(nullptr, 0, &needed), 0);
    EXPECT_EQ(KEMOZoneGet(zone, needed - 1, &needed), -1);
    ASSERT_EQ(KEMOZoneGet(zone, needed, &needed), 0);
    EXPECT_STREQ(zone, "Greenwich");
    EXPECT_EQ(KEMOZoneGet(nullptr, 4, &needed), -1);

    int flag = -1;
    for (const auto &[text, want] : {std::pair{"UTC=TRUE\n", 1}, {"UTC=false\n", 0}, {"UTC=\"True\"\n", 1}}) {
        write_file("/etc/sysconfig/clock", std::string("ZONE=Timezone/UTC\n") + text);
        ASSERT_EQ(KEMOZoneIsDayLightSaving(&flag), 0) << text;
        EXPECT_EQ(flag, want) << text;
    }
    ASSERT_EQ(::unlink("/etc/sysconfig/clock"), 0);
    EXPECT_EQ(KEMOZoneIsDayLightSaving(&flag), -1);
}

TEST_F(TimeTest, ZoneSetWritesEveryFileOfTheZone)
{
    // /etc/localtime may be a link into the zone database: it is replaced,
    // never written through.
    const std::string utc = read_file("/usr/share/zoneinfo/Etc/UTC");
    ::unlink("/etc/localtime");
    ASSERT_EQ(::symlink("/usr/share/zoneinfo/Etc/UTC", "/etc/localtime"), 0);
    write_file("/etc/sysconfig/clock", "ZONE=Timezone/Greenwich\nUTC=false\nARC=false\n");

    ASSERT_EQ(KEMOZoneSet("Europe/Berlin"), 0);
    EXPECT_TRUE(S_ISREG(stat_of("/etc/localtime").st_mode));
    EXPECT_EQ(read_file("/etc/localtime"), read_file(kZoneDir + "Europe/Berlin"));
    EXPECT_EQ(read_file("/usr/share/zoneinfo/Etc/UTC"), utc);
    EXPECT_EQ(count_lines("/etc/kemoinfo.conf", "timezone=\"Europe/Berlin\""), 1);
    EXPECT_EQ(read_file("/etc/TZ"), "CET-1CEST,M3.5.0,M10.5.0/3\n");
    // The hardware clock's setting is the board's and is kept.
    EXPECT_EQ(read_file("/etc/sysconfig/clock"), "ZONE=Timezone/Europe/Berlin\nUTC=false\nARC=false\n");
    EXPECT_FALSE(exists("/etc/sysconfig/clock.tmp"));
    // This process follows the new zone at once.
    const time_t winter = 1704110400;
    struct tm local {};
    EXPECT_EQ(::localtime_r(&winter, &local)->tm_gmtoff, 3600);
}

TEST_F(TimeTest, ZoneSetRefusesNamesOutsideTheZoneTableAndChangesNothing)
{
    ASSERT_EQ(KEMOZoneSet("Asia/Tokyo"), 0);
    // A zone file without a list entry, and a link planted among the zones.
    write_file(kZoneDir + "Test/Unlisted", read_file(kZoneDir + "Europe/Berlin"));
    ASSERT_EQ(::symlink("/etc/shadow", (kZoneDir + "Evil").c_str()), 0);
    const char *files[] = {"/etc/localtime", "/etc/kemoinfo.conf", "/etc/TZ", "/etc/sysconfig/clock"};
    const auto contents = [&] {
        std::string all;
        for (const char *f : files)
            all += read_file(f) + '\0';
        return all;
    };
    const std::string before = contents();
    SyslogCapture log;
    std::string texts;
    for (const char *zone : {"../etc/passwd", "/etc/passwd", "", "Europe", "Europe/Berlin\n", "Europe/\"Berlin",
                             "Europe/$(touch /run/pwned)", "Europe/Berlin;touch /run/pwned", "Nowhere/City",
                             "Test/Unlisted", "Evil", static_cast<const char *>(nullptr)}) {
        KLIBErrSet(ERR_SUCCESS);
        EXPECT_EQ(KEMOZoneSet(zone), -1) << (zone ? zone : "(null)");
        EXPECT_NE(KLIBErrGet(), ERR_SUCCESS) << (zone ? zone : "(null)");
        for (const std::string &t : log.texts()) // drained as they come: the socket queue is short
            texts += t + "\n";
    }
    EXPECT_EQ(contents(), before);
    EXPECT_FALSE(exists("/run/pwned"));
    EXPECT_NE(texts.find("): szZone input null"), texts.npos) << texts;
    EXPECT_NE(texts.find("): stat [" KEMO_ZONE_DIR "Nowhere/City] failed"), texts.npos) << texts;
    EXPECT_NE(texts.find(") Failed to get the short zone [Test/Unlisted] from [" KEMO_ZONE_DIR "tzlist]"),
              texts.npos) << texts;
}

TEST_F(TimeTest, NtpSettingsTheirSchedulerLineAndTheirRefusals)
{
    const auto header = read_file("/etc/crontab");
    // Each setting replaces the one line; unknown periods run daily.
    for (const auto &[period, fields] : {std::pair{"weekly", "0\t0\t*\t*\t0"}, {"monthly", "0\t0\t1\t*\t*"},
                                         {"daily", "0\t0\t*\t*\t*"}, {"hourly", "0\t0\t*\t*\t*"}}) {
        KEMONTP set = ntp_record(1, period, "pool.ntp.org", "10.0.0.1");
        ASSERT_EQ(KEMONtpSet(&set), 1);
        EXPECT_EQ(read_file("/etc/crontab"),
                  header + fields + "\troot\t/usr/sbin/ntpdate -b pool.ntp.org 10.0.0.1\n") << period;
        KEMONTP got{};
        ASSERT_EQ(KEMONtpGet(&got), 1);
        EXPECT_EQ(std::memcmp(&got, &set, sizeof got), 0) << period;
    }
    EXPECT_EQ(count_lines("/etc/kemoinfo.conf", "run_ntpdate=\"yes\""), 1);

    // Nothing that could break the line or reach a shell is taken.
    const auto crontab = read_file("/etc/crontab"), settings = read_file("/etc/kemoinfo.conf");
    const std::string label(60, 'a');
    KEMONTP bad[] = {
        ntp_record(1, "daily", "pool.ntp.org; reboot", ""), ntp_record(1, "daily", "-q", ""),
        ntp_record(1, "daily", "a\nb", ""),                 ntp_record(1, "daily", "", ""),
        ntp_record(0, "daily", "x y", ""),                  ntp_record(1, "da\"ily", "pool.ntp.org", ""),
        ntp_record(1, "daily", "pool.ntp.org", "`id`"),     ntp_record(1, "daily", "1.2.3.256", ""),
        ntp_record(1, "daily", "a..b", "x-.org"),           ntp_record(1, "", "pool.ntp.org", ""),
        ntp_record(1, "daily", (label + ".org").c_str(), (label + ".net").c_str()), // line over 127
    };
    std::memset(bad[9].szPeriod, 'a', sizeof bad[9].szPeriod); // not terminated in its field
    for (const KEMONTP &r : bad) {
        EXPECT_EQ(KEMONtpSet(&r), -1) << r.szServer;
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS) << r.szServer;
    }
    EXPECT_EQ(read_file("/etc/crontab"), crontab);
    EXPECT_EQ(read_file("/etc/kemoinfo.conf"), settings);

    // Off: the line goes, the choices stay.
    KEMONTP off = ntp_record(0, "daily", "ntp1", ""), got{};
    ASSERT_EQ(KEMONtpSet(&off), 1);
    EXPECT_EQ(read_file("/etc/crontab"), header);
    ASSERT_EQ(KEMONtpGet(&got), 1);
    EXPECT_EQ(std::memcmp(&got, &off, sizeof got), 0);
    EXPECT_EQ(count_lines("/etc/kemoinfo.conf", "run_ntpdate=\"no\""), 1);
    EXPECT_EQ(count_lines("/etc/kemoinfo.conf", "ntpdate_server_backup=\"\""), 1);
    // A null record switches off with empty choices.
    ASSERT_EQ(KEMONtpSet(nullptr), 1);
    ASSERT_EQ(KEMONtpGet(&got), 1);
    EXPECT_STREQ(got.szServer, "");
}

TEST_F(TimeTest, NtpSetAnswersMinusFourWhileAnotherProcessHoldsTheLock)
{
    const pid_t holder = spawn([] { return ErrKLIBFileLock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_EX, 5) == 0; }, 30);
    const auto crontab = read_file("/etc/crontab");
    KEMONTP set = ntp_record(1, "daily", "pool.ntp.org", "");
    EXPECT_EQ(KEMONtpSet(&set), -4);
    EXPECT_EQ(KLIBErrGet(), ERR_LOCK_FAILED);
    EXPECT_EQ(read_file("/etc/crontab"), crontab);
    ::kill(holder, SIGKILL);
    ::waitpid(holder, nullptr, 0);
}

TEST_F(TimeTest, CrontabUpdateTouchesOnlyTheCommandsLinesAndSignalsOnlyCron)
{
    const std::string others = "SHELL=/bin/sh\n# 0 0 * * * root /usr/sbin/ntpdate -b old\n"
                               "5 4 * * * root /bin/echo /usr/sbin/ntpdate\n"
                               "1 2 * * * root /usr/sbin/ntpdate-debian\n";
    write_file("/etc/crontab", others + "0 1 * * * root /usr/sbin/ntpdate -b a b\n" +
                                   "@reboot root /usr/sbin/ntpdate -b c\n7 7 * * * root /bin/true", 0600);
    ASSERT_EQ(::chown("/etc/crontab", 0, 4), 0);
    ASSERT_EQ(KEMOUpdateCrontab("/usr/sbin/ntpdate", "0 0 * * * root /usr/sbin/ntpdate -b new\n"), 0);
    EXPECT_EQ(read_file("/etc/crontab"), others + "0 0 * * * root /usr/sbin/ntpdate -b new\n7 7 * * * root /bin/true");
    EXPECT_EQ(mode_of("/etc/crontab"), 0600u);
    EXPECT_EQ(stat_of("/etc/crontab").st_gid, 4u);
    ASSERT_EQ(KEMOUpdateCrontab("/usr/sbin/ntpdate", nullptr), 0);
    ASSERT_EQ(KEMOUpdateCrontab("/bin/true", nullptr), 0);
    EXPECT_EQ(read_file("/etc/crontab"), others);
    // A missing table is made when there is a line to put in.
    ASSERT_EQ(::unlink("/etc/crontab"), 0);
    ASSERT_EQ(KEMOUpdateCrontab("/bin/none", nullptr), 0);
    EXPECT_FALSE(exists("/etc/crontab"));
    ASSERT_EQ(KEMOUpdateCrontab("/bin/true", "* * * * * root /bin/true"), 0);
    EXPECT_EQ(read_file("/etc/crontab"), "* * * * * root /bin/true\n");
    // Caller lines never add lines of their own.
    EXPECT_EQ(KEMOUpdateCrontab("/bin/true", "* * * * * root /bin/true\n* * * * * root /bin/evil"), -1);
    EXPECT_EQ(KEMOUpdateCrontab("/bin/x y", nullptr), -1);
    EXPECT_EQ(read_file("/etc/crontab"), "* * * * * root /bin/true\n");

    // A live process of another name is never signalled; cron is.  Both
    // calls change the table: replaced first, removed then.
    for (const char *name : {"sleeper", "cron"}) {
        const pid_t pid = spawn([name] { return ::prctl(PR_SET_NAME, name) == 0; }, 2);
        write_file("/var/run/crond.pid", std::to_string(pid) + "\n");
        ASSERT_EQ(KEMOUpdateCrontab("/bin/true", *name == 's' ? "* * * * * root /bin/true" : nullptr), 0);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_EQ(WIFEXITED(status) && WEXITSTATUS(status) == 0, *name == 'c') << name;
    }
}

// The real scheduler: Debian cron refuses a table with a broken line (so
// this test would notice a malformed line), takes the table KEMONtpSet
// wrote, and picks up a job added by KEMOUpdateCrontab while it runs.
TEST_F(TimeTest, DebianCronLoadsTheTableTheLibraryWrites)
{
    if (!exists("/usr/sbin/cron"))
        GTEST_SKIP() << "/usr/sbin/cron is not installed";
    SyslogCapture log;
    // cron's complaints about its table over the next tenths of a second.
    const auto table_errors = [&](int tenths) {
        std::string errors;
        for (int i = 0; i <= tenths; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(100)))
            for (const std::string &t : log.texts())
                errors += t.find("ERROR") != t.npos || t.find("Error") != t.npos ? t + "\n" : "";
        return errors;
    };
    pid_t cron = -1;
    const auto start_cron = [&] {
        if ((cron = ::fork()) == 0) {
            ::execl("/usr/sbin/cron", "cron", "-f", "-L", "15", static_cast<char *>(nullptr));
            ::_exit(127);
        }
    };
    const auto stop_cron = [&] {
        ::kill(cron, SIGTERM);
        ::waitpid(cron, nullptr, 0);
    };
    const std::string header = read_file("/etc/crontab");
    write_file("/etc/crontab", header + "61\t0\t*\t*\t*\troot\t/usr/sbin/ntpdate -b pool.ntp.org\n");
    start_cron();
    const std::string broken = table_errors(20);
    stop_cron();
    ASSERT_NE(broken, "") << "cron said nothing about a broken line: the check below would prove nothing";

    write_file("/etc/crontab", header);
    KEMONTP set = ntp_record(1, "weekly", "pool.ntp.org", "time.nist.gov");
    ASSERT_EQ(KEMONtpSet(&set), 1);
    start_cron();
    EXPECT_EQ(table_errors(20), "");
    ASSERT_EQ(KEMOUpdateCrontab("/bin/sh", "*\t*\t*\t*\t*\troot\t/bin/sh -c 'echo ran > /run/cron-ran'"), 0);
    for (int i = 0; i < 75 && !exists("/run/cron-ran"); ++i)
        std::this_thread::sleep_for(std::chrono::seconds(1));
    stop_cron();
    EXPECT_TRUE(exists("/run/cron-ran")) << "cron did not run the job added to its table";
    EXPECT_EQ(table_errors(0), "");
}
