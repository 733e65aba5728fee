// The UPS: the live state from the real UPS daemons (the dummy driver and
// upsd, in a network namespace of the test's own), the readers of the
// client's report, the settings, and the shutdown timer with the restart.
#include <gmock/gmock.h>

#include <sched.h>

#include <chrono>
#include <thread>

#include "kemo_ups.hpp"
#include "sandbox_fixture.hpp"
#include "syslog_capture.hpp"

using ::testing::ElementsAre;
using ::testing::IsSupersetOf;
using ::testing::MatchesRegex;

namespace {

const std::string kSettings = "/etc/kemoinfo.conf", kTimer = "/usr/kemo/etc/upssched.conf",
                  kScript = "/usr/kemo/bin/ups.sh", kDevice = "/tmp/ups.dev", kRecord = "/tmp/ups-script.log";

class UpsTest : public SandboxTest {
protected:
    void SetUp() override
    {
        SandboxTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        // upsd listens on 127.0.0.1:3493: in a network of this test's own.
        ASSERT_EQ(::unshare(CLONE_NEWNET), 0) << std::strerror(errno);
        ASSERT_EQ(run({"ip", "link", "set", "lo", "up"}).status, 0);
    }
    void TearDown() override
    {
        if (pids_.empty())
            return;
        run({kScript, "stop"});
        for (const pid_t pid : pids_)
            if (pid > 1 && ::kill(pid, 0) == 0 && ::kill(pid, SIGKILL) == 0)
                ADD_FAILURE() << "ups.sh stop left process " << pid;
    }

    static void setting(const std::string &key, const std::string &value)
    {
        ASSERT_EQ(KLIBFileSetKeyValue(kSettings.c_str(), key.c_str(), value.c_str(), "%s=\"%s\"\n"), 1);
    }
    // Starts the dummy driver and upsd through the control script, serving
    // the variables of `device`, and waits until the UPS reports a status.
    void start_peer(const std::string &device)
    {
        write_file("/usr/kemo/etc/ups.conf", "[ups]\n\tdriver = dummy-ups\n\tport = " + kDevice + "\n");
        write_file(kDevice, device);
        setting("ups_enabled", "yes");
        ASSERT_EQ(run({kScript, "start"}).status, 0);
        KEMOUPS ups{};
        ASSERT_TRUE(poll([&] { return KEMOUPSInfoGet(&ups) == 0 && ups.status != 0; })) << "the UPS never came up";
        for (const char *file : {"/run/ups/upsd.pid", "/run/ups/dummy-ups-ups.pid"})
            pids_.push_back(std::atoi(read_file(file).c_str()));
    }
    // True once until() is, within 10 seconds.
    template <class Until>
    static bool poll(Until until)
    {
        for (int i = 0; i < 100 && !until(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return until();
    }
    // A control script that records its argument and exits with status.
    static void stub_script(int status)
    {
        write_file(kScript, "#!/bin/sh\necho \"$1\" >> " + kRecord + "\nexit " + std::to_string(status) + "\n", 0755);
    }
    static auto recorded() { return exists(kRecord) ? lines_of(kRecord) : std::vector<std::string>{}; }

    std::vector<pid_t> pids_;
};

TEST_F(UpsTest, ReportsAndFollowsTheDummyUps)
{
    start_peer("ups.mfr: Acme Power\nups.model: Guard 650\nups.status: OL\nups.load: 23.0\n"
               "battery.runtime: 1200\nbattery.charge: 87\n");
    KEMOUPS ups{};
    ASSERT_EQ(KEMOUPSInfoGet(&ups), 0);
    EXPECT_EQ(std::string(ups.szMfr) + "|" + ups.szModel, "Acme Power|Guard 650");
    EXPECT_EQ(std::tuple(ups.enabled, ups.waitTime, ups.status, ups.load, ups.runtime, ups.charge),
              std::tuple(1u, 5u, uint8_t{KEMO_UPS_ONLINE}, 23, 1200, 87));
    // The driver rereads its file when it changes; the load tells each
    // version apart, as the online state repeats.
    const std::pair<const char *, int> states[] = {
        {"OL CHRG", KEMO_UPS_ONLINE}, {"OB DISCHRG", KEMO_UPS_ON_BATTERY}, {"OB LB", KEMO_UPS_BATTERY_LOW}};
    int load = 30;
    for (const auto &[flags, status] : states) {
        write_file(kDevice, std::string("ups.mfr: Acme Power\nups.model: Guard 650\nups.status: ") + flags +
                                "\nups.load: " + std::to_string(++load) + ".7\nbattery.runtime: 600\n"
                                "battery.charge: 40\n");
        EXPECT_TRUE(poll([&] { return KEMOUPSInfoGet(&ups) == 0 && ups.load == load; })) << flags;
        EXPECT_EQ(ups.status, status) << flags;
        EXPECT_EQ(ups.runtime, 600);
    }
    // Stopped daemons leave the live fields as they were.
    ASSERT_EQ(run({kScript, "stop"}).status, 0);
    setting("ups_wait_time", "9");
    ASSERT_EQ(KEMOUPSInfoGet(&ups), 0);
    EXPECT_EQ(ups.waitTime, 9u);
    EXPECT_EQ(ups.status, KEMO_UPS_BATTERY_LOW);
    EXPECT_EQ(ups.load, load);
    EXPECT_STREQ(ups.szModel, "Guard 650");
}

TEST_F(UpsTest, SettingsAreReadAsStored)
{
    KEMOUPS ups{};
    std::strcpy(ups.szMfr, "kept");
    ups.status = 7;
    ups.load = ups.runtime = ups.charge = -3;
    const std::tuple<const char *, const char *, uint32_t> settings[] = {
        {"ups_enabled", "yes", 1}, {"ups_enabled", "Yes", 0}, {"ups_enabled", "no", 0},
        {"ups_wait_time", "12", 12}, {"ups_wait_time", "12min", 0}, {"ups_wait_time", "-3", 0}};
    for (const auto &[key, text, value] : settings) {
        setting(key, text);
        ASSERT_EQ(KEMOUPSInfoGet(&ups), 0) << text;
        EXPECT_EQ(std::string(key) == "ups_enabled" ? ups.enabled : ups.waitTime, value) << key << "=" << text;
    }
    // No daemons: the live fields were never touched.
    EXPECT_STREQ(ups.szMfr, "kept");
    EXPECT_EQ(ups.status, 7);
    EXPECT_EQ(ups.load + ups.runtime + ups.charge, -9);

    SyslogCapture log;
    ASSERT_EQ(KLIBFileRemoveKey(kSettings.c_str(), "ups_wait_time"), 1);
    EXPECT_EQ(KEMOUPSInfoGet(&ups), -1);
    EXPECT_THAT(log.texts(), ElementsAre(MatchesRegex("sdk/kemoups.cpp \\([0-9]+\\) There is an error here\\.")));
    EXPECT_EQ(KEMOUPSInfoGet(nullptr), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
}

TEST(UpsReport, StatusNumbersAndLines)
{
    const std::pair<const char *, int> flags[] = {
        {"OL", KEMO_UPS_ONLINE}, {"CHRG OL", KEMO_UPS_ONLINE}, {"OB DISCHRG", KEMO_UPS_ON_BATTERY},
        {"OB LB", KEMO_UPS_BATTERY_LOW}, {"  LB  OB", KEMO_UPS_BATTERY_LOW}, {"", 0}, {"WAIT", 0}, {"OLX", 0},
        {"ol", 0}};
    for (const auto &[text, status] : flags)
        EXPECT_EQ(kemo::ups::status_of(text).value_or(0), status) << text;
    const std::pair<const char *, int32_t> numbers[] = {
        {"23.0", 23}, {"87", 87}, {"2147483647", 2147483647}, {"2147483648", 0}, {"-5", 0}, {"+5", 0},
        {" 5", 0}, {"5.", 0}, {".5", 0}, {"1.2.3", 0}, {"12abc", 0}, {"", 0}};
    for (const auto &[text, value] : numbers)
        EXPECT_EQ(kemo::ups::number_of(text), value) << text;

    // A long line counts only up to its 127th character, and its rest is
    // never read as a line of its own.
    KEMOUPS ups{};
    const std::string model(200, 'm');
    kemo::ups::take_report("ups.model: " + model + "\r\nups.mfr: " + std::string(130, 'x') + "ups.status: OB\n" +
                               "ups.load 12\nbattery.charge:55\r\nups.status: OL\r\nbattery.runtime: 9\n",
                           ups);
    EXPECT_EQ(std::string(ups.szModel), model.substr(0, kemo::ups::kMaxLine - 11));
    EXPECT_EQ(std::string(ups.szMfr), std::string(kemo::ups::kMaxLine - 9, 'x'));
    EXPECT_EQ(std::tuple(ups.status, ups.load, ups.charge, ups.runtime), std::tuple(uint8_t{KEMO_UPS_ONLINE}, 0, 0, 9));
}

// Refusals change nothing; a set rewrites only the timer line (owner and
// mode kept) and restarts the daemons, whose failing restart is only logged.
TEST_F(UpsTest, SetRefusesOrRewritesOnlyTheTimerAndRestarts)
{
    stub_script(0);
    const std::string settings = read_file(kSettings);
    EXPECT_THAT(read_file(kTimer), ::testing::HasSubstr("\nAT ONBATT * START-TIMER on-batt 300\n")); // the factory's
    KEMOUPS ups{};
    ups.enabled = 1;
    for (const uint32_t wait : {0u, KEMO_UPS_WAIT_MAX + 1u}) {
        ups.waitTime = wait;
        EXPECT_EQ(KEMOUPSInfoSet(&ups), -1) << wait;
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS) << wait;
    }
    EXPECT_EQ(KEMOUPSInfoSet(nullptr), -1);
    // A missing timer file fails before a setting changes.
    ASSERT_EQ(::unlink(kTimer.c_str()), 0);
    ups.waitTime = 10;
    EXPECT_EQ(KEMOUPSInfoSet(&ups), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_OPEN_FAILED);
    EXPECT_EQ(read_file(kSettings), settings);
    EXPECT_TRUE(recorded().empty());

    const std::string head = "# timers\nCMDSCRIPT /usr/kemo/bin/upssched-cmd\n\n",
                      tail = "AT ONLINE * CANCEL-TIMER on-batt\n  AT ONBATT indented stays\nno newline";
    write_file(kTimer, head + "AT ONBATT * START-TIMER on-batt 120\n" + tail, 0640);
    ASSERT_EQ(::chown(kTimer.c_str(), 1234, 5678), 0);
    ups.waitTime = 5;
    ASSERT_EQ(KEMOUPSInfoSet(&ups), 0);
    EXPECT_EQ(read_file(kTimer), head + "AT ONBATT * START-TIMER on-batt 300\n" + tail);
    const struct stat st = stat_of(kTimer);
    EXPECT_EQ(std::tuple(st.st_mode & 07777, st.st_uid, st.st_gid), std::tuple(0640u, 1234u, 5678u));
    EXPECT_THAT(lines_of(kSettings), IsSupersetOf({"ups_enabled=\"yes\"", "ups_wait_time=\"5\""}));
    EXPECT_THAT(recorded(), ElementsAre("restart"));

    // Without a timer line the file keeps its bytes (and its inode).
    write_file(kTimer, head + tail);
    const ino_t inode = stat_of(kTimer).st_ino;
    stub_script(3);
    SyslogCapture log;
    ups.enabled = 0;
    ups.waitTime = KEMO_UPS_WAIT_MAX;
    ASSERT_EQ(KEMOUPSInfoSet(&ups), 0);
    EXPECT_EQ(read_file(kTimer), head + tail);
    EXPECT_EQ(stat_of(kTimer).st_ino, inode);
    EXPECT_THAT(lines_of(kSettings), IsSupersetOf({"ups_enabled=\"no\"", "ups_wait_time=\"1440\""}));
    EXPECT_THAT(recorded(), ElementsAre("restart", "restart"));
    EXPECT_THAT(log.texts(), ElementsAre(MatchesRegex("sdk/kemoups.cpp:[0-9]+ failed to restart ups")));
}

} // namespace
