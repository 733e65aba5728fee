// Event logs: the ring file byte for byte through appends, wrap-around and
// compaction; the text form in two languages; log classes and the
// configuration file; damaged files; several writers at once; current
// connections from fake sources, and names planted where they are worked on.
#include "kemo.h"
#include "as_nobody.hpp"
#include "sandbox_fixture.hpp"
#include "syslog_capture.hpp"

#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/prctl.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>
#include <vector>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;

namespace {

constexpr char kRing[] = "/var/log/ring.log";
constexpr char kOut[] = "/tmp/log.txt";
constexpr char kConf[] = "/etc/kemolog.conf";
constexpr uint32_t kT0 = 1136196000; // 2006/01/02 10:00:00 UTC

// The file's encoding, written out independently of the library.
std::string be16(uint32_t v) { return {static_cast<char>(v >> 8), static_cast<char>(v)}; }
std::string be32(uint32_t v) { return be16(v >> 16) + be16(v & 0xFFFF); }
uint32_t get32(const std::string &s, std::size_t at)
{
    uint32_t v = 0;
    for (std::size_t i = 0; i < 4; ++i)
        v = v << 8 | static_cast<unsigned char>(s.at(at + i));
    return v;
}
std::string header(uint32_t head, uint32_t tail) { return std::string("KEMO") + std::string(4, '\0') + be32(head) + be32(tail); }
std::string record(uint16_t type, uint32_t when, const std::string &source, const std::string &user, uint32_t id,
                   const std::array<std::string, 4> &args)
{
    std::string body = be16(type) + be32(when) + be16(source.size()) + be16(user.size()) + be32(id);
    for (const auto &a : args)
        body += be16(a.size());
    body += source + user + args[0] + args[1] + args[2] + args[3];
    return be16(body.size() + 2) + body;
}

const char kEnglish[] = "[11000000]\n11000001=Information\n11000002=Warning\n11000003=Error\n11000000=Other\n\n"
                        "[12200000]\n12200001=User @1 logged in from @2.\n12200002=Share @1 removed@3.\n12200003=Third.\n"
                        "12200004=Fourth.\n12200005=Fifth.\n12200006=Sixth.\n";
const char kGerman[] = "[11000000]\n11000001=Info\n\n[12200000]\n12200001=Benutzer @1 angemeldet von @2.\n";

class Log : public SandboxTest {
protected:
    void SetUp() override
    {
        SandboxTest::SetUp();
        setenv("TZ", "UTC", 1);
        tzset();
        setenv("USERNAME", "tester", 1);
        write_file("/usr/kemo/kemosdk/texts/enu/events", kEnglish);
        write_file("/usr/kemo/kemosdk/texts/ger/events", kGerman);
    }
    // The record this process appends with KEMOLogSet1 (time filled in later).
    static std::string ours(uint32_t id, uint32_t when)
    {
        return record(1, when, program_invocation_short_name, "tester", id, {"a", " ", "", "bcd"});
    }
    static int add(uint32_t id) { return KEMOLogSet1(3, 1, id, "a", "", nullptr, "bcd"); }
    static void use_ring(int size)
    {
        write_file(kConf, "connlogfile=\"/var/log/ring.log\"\nconnlogfilesize_MAX=\"" + std::to_string(size) + "\"\n");
    }
    static std::vector<std::string> text(const char *language = "enu")
    {
        EXPECT_EQ(KEMOLogGet1a(kRing, kOut, language), 0);
        return lines_of(kOut);
    }
};

// Expected file bytes, each record's time taken from the file where it must
// lie in [lo, hi].
std::string with_times(const std::string &file, std::string expected, std::initializer_list<std::size_t> records,
                       uint32_t lo, uint32_t hi)
{
    for (std::size_t at : records) {
        const uint32_t when = get32(file, at + 4);
        EXPECT_TRUE(when >= lo && when <= hi) << "time at " << at;
        expected.replace(at + 4, 4, be32(when));
    }
    return expected;
}

TEST_F(Log, RingFileByteForByteThroughExactFitWrapAndCompaction)
{
    const std::size_t L = ours(0, 0).size();
    const int limit = static_cast<int>(16 + 3 * L + 2); // the third record fits exactly
    use_ring(limit);
    const uint32_t lo = static_cast<uint32_t>(time(nullptr));
    for (uint32_t id = 1; id <= 3; ++id)
        ASSERT_EQ(add(0x12200000 + id), 0);
    std::string file = read_file(kRing);
    const uint32_t l = static_cast<uint32_t>(L);
    auto hi = [] { return static_cast<uint32_t>(time(nullptr)); };
    EXPECT_EQ(file, with_times(file, header(16, 16 + 3 * l) + ours(0x12200001, 0) + ours(0x12200002, 0) + ours(0x12200003, 0),
                               {16, 16 + L, 16 + 2 * L}, lo, hi()));

    // No room for a fourth: end marker at the tail, the two oldest freed
    // (the gap must exceed the record), the record at 16.
    ASSERT_EQ(add(0x12200004), 0);
    file = read_file(kRing);
    EXPECT_EQ(file, with_times(file, header(16 + 2 * l, 16 + l) + ours(0x12200004, 0) + ours(0x12200002, 0) + ours(0x12200003, 0) + be16(0),
                               {16, 16 + L, 16 + 2 * L}, lo, hi()));
    EXPECT_THAT(text(), ElementsAre(EndsWith("\tThird."), EndsWith("\tFourth.")));

    // Wrapped: the fifth frees one more, the sixth wraps the head to 16 and
    // fits exactly at the end again.
    ASSERT_EQ(add(0x12200005), 0);
    ASSERT_EQ(add(0x12200006), 0);
    file = read_file(kRing);
    EXPECT_EQ(file, with_times(file, header(16 + l, 16 + 3 * l) + ours(0x12200004, 0) + ours(0x12200005, 0) + ours(0x12200006, 0) + be16(0),
                               {16, 16 + L, 16 + 2 * L}, lo, hi()));
    EXPECT_THAT(text(), ElementsAre(EndsWith("\tFifth."), EndsWith("\tSixth.")));

    // Compaction keeps the newest record byte for byte, with owner and mode.
    ASSERT_EQ(chown(kRing, 1234, 4321), 0);
    ASSERT_EQ(chmod(kRing, 0640), 0);
    const std::string newest = file.substr(16 + 2 * L, L);
    ASSERT_EQ(KEMOLogChangeSize_a(1, kRing), 0);
    EXPECT_EQ(read_file(kRing), header(16, 16 + l) + newest);
    EXPECT_EQ(stat_of(kRing).st_uid, 1234u);
    EXPECT_EQ(stat_of(kRing).st_gid, 4321u);
    EXPECT_EQ(mode_of(kRing), 0640u);

    // One byte less: the third record no longer fits and wraps.
    ASSERT_EQ(unlink(kRing), 0);
    use_ring(limit - 1);
    for (uint32_t id = 1; id <= 3; ++id)
        ASSERT_EQ(add(0x12200000 + id), 0);
    file = read_file(kRing);
    EXPECT_EQ(file.size(), 16 + 2 * L + 2);
    EXPECT_EQ(file.substr(8, 8), be32(16 + 2 * l) + be32(16 + l));
    EXPECT_EQ(get32(file, 16 + 12), 0x12200003u);
    EXPECT_EQ(mode_of(kRing), 0600u);
}

TEST_F(Log, HeaderResetAndRefusals)
{
    use_ring(4096);
    write_file(kRing, "JUNK" + std::string(40, 'x'));
    ASSERT_EQ(add(0x12200001), 0);
    const std::string file = read_file(kRing);
    EXPECT_EQ(file.substr(0, 4), "KEMO");
    EXPECT_EQ(file.substr(4, 4), "xxxx"); // the reserved bytes are left alone
    EXPECT_EQ(file.substr(8, 8), be32(16) + be32(16 + ours(0, 0).size()));
    // A record that could never fit leaves the log untouched.
    EXPECT_EQ(KEMOLogSet1a(kRing, 1, 1, std::string(5000, 'x').c_str(), nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(read_file(kRing), file);
    EXPECT_EQ(KEMOLogSet1a(nullptr, 1, 1, "a", "b", "c", "d"), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
}

TEST_F(Log, TextLinesInTwoLanguagesAndTheEventCache)
{
    const std::string r1 = record(1, kT0, "webman", "admin", 0x12200001, {"bob", "10.0.0.1", "", ""});
    const std::string r2 = record(3, kT0 + 61, "smbd", "guest", 0x12200002, {"docs", "", "", ""});
    const std::string r3 = record(9, kT0 + 3600, "x", "y", 0x12200001, {"@2", "z", "", ""});
    const std::string unknown = record(1, kT0, "s", "u", 0x12299999, {}) + record(1, kT0, "s", "u", 0x13300001, {});
    const std::string body = r1 + unknown + r2 + r3;
    write_file(kRing, header(16, 16 + body.size()) + body);
    const std::vector<std::string> english = {
        "1\tInformation\t2006/01/02 10:00:00\twebman\tadmin\tUser bob logged in from 10.0.0.1.",
        "3\tError\t2006/01/02 10:01:01\tsmbd\tguest\tShare docs removed@3.",
        "9\tOther\t2006/01/02 11:00:00\tx\ty\tUser @2 logged in from z.",
    };
    EXPECT_EQ(text(), english);

    // An id once unknown stays so, and the cache is not keyed by language
    // (the type names are).
    write_file("/usr/kemo/kemosdk/texts/enu/events", std::string(kEnglish) + "12299999=Now known.\n");
    EXPECT_EQ(text(), english);
    const std::string mixed = "1\tInfo\t2006/01/02 10:00:00\twebman\tadmin\tUser bob logged in from 10.0.0.1.";
    EXPECT_THAT(text("ger"), ElementsAre(mixed,
                                         "3\tUnknown\t2006/01/02 10:01:01\tsmbd\tguest\tShare docs removed@3.",
                                         "9\tUnknown\t2006/01/02 11:00:00\tx\ty\tUser @2 logged in from z."));
    // KEMOLogGet1 frees the cache when done: the next call reads afresh.
    write_file(kConf, "syslogfile=\"/var/log/ring.log\"\n");
    ASSERT_EQ(KEMOLogGet1(1, kOut, "ger"), 0);
    EXPECT_EQ(lines_of(kOut).at(0), mixed);
    ASSERT_EQ(KEMOLogGet1(1, kOut, "ger"), 0);
    EXPECT_THAT(lines_of(kOut), ElementsAre("1\tInfo\t2006/01/02 10:00:00\twebman\tadmin\tBenutzer bob angemeldet von 10.0.0.1.",
                                            "9\tUnknown\t2006/01/02 11:00:00\tx\ty\tBenutzer @2 angemeldet von z."));
    ASSERT_EQ(KEMOLogGet1(1, kOut, nullptr), 0);
    EXPECT_THAT(lines_of(kOut), Contains("1\tInformation\t2006/01/02 10:00:00\ts\tu\tNow known."));

    EXPECT_STREQ(KEMOLogConvertType(2, "enu"), "Warning");
    EXPECT_STREQ(KEMOLogConvertType(3, "none"), "Unknown");
    char *sentence = KEMOLogConvertEventKey(0x12200001, "enu", "ann", nullptr, "", "");
    EXPECT_STREQ(sentence, "User ann logged in from @2.");
    free(sentence);
    EXPECT_EQ(KEMOLogGet1a(kRing, kOut, "../enu"), -1);
}

TEST_F(Log, ClassesConfigurationAndUsers)
{
    unsetenv("USERNAME");
    EXPECT_STREQ(KEMOLogObtainUser(), "admin"); // we run as root
    setenv("USERNAME", "carol", 1);
    EXPECT_STREQ(KEMOLogObtainUser(), "carol");

    // A system log larger than the file's 65536 survives the first write
    // (131072 without a configuration) and is shrunk by the second.
    std::string big;
    for (uint32_t i = 0; big.size() < 100000; ++i)
        big += record(1, kT0, "s", "u", i, {"0123456789", "", "", ""});
    write_file("/var/log/kemosys.log", header(16, 16 + big.size()) + big, 0600);
    ASSERT_EQ(KEMOLogSet1(2, 2, 0x12200001, nullptr, "", "x", nullptr), 0);
    EXPECT_THAT(lines_of(kConf), ElementsAre("syslogfile\t=\t\"/var/log/kemosys.log\"", "syslogfilesize_MAX\t=\t\"65536\"",
                                             "manlogfile\t=\t\"/var/log/kemoman1.log\"", "manlogfilesize_MAX\t=\t\"65536\"",
                                             "connlogfile\t=\t\"/var/log/kemoconn.log\"", "connlogfilesize_MAX\t=\t\"65536\"",
                                             "bkplogfile\t=\t\"/var/log/kemobackup.log\"", "bkplogfilesize_MAX\t=\t\"65536\"",
                                             "copylogfile\t=\t\"/var/log/kemocopy.log\"", "copylogfilesize_MAX\t=\t\"65536\"",
                                             "netbkplogfile\t=\t\"/var/log/kemonetbkp.log\"", "netbkplogfilesize_MAX\t=\t\"65536\""));
    std::string file = read_file("/var/log/kemosys.log");
    EXPECT_GT(file.size(), 100000u);
    EXPECT_FALSE(exists("/var/log/kemoman1.log"));
    // Null stored empty, empty stored as one blank.
    const std::string tail_end = be16(0) + be16(1) + be16(1) + be16(0) + program_invocation_short_name + "carol" + " x";
    EXPECT_EQ(file.substr(get32(file, 12) - tail_end.size(), tail_end.size()), tail_end);
    ASSERT_EQ(KEMOLogSet1(1, 1, 0x12200001, "a", "b", "c", "d"), 0);
    EXPECT_LE(read_file("/var/log/kemosys.log").size(), 65536u);

    SyslogCapture log;
    for (uint32_t bad : {0u, 4u, 8u})
        EXPECT_EQ(KEMOLogSet1(bad, 1, 1, "a", "b", "c", "d"), -1) << bad;
    EXPECT_THAT(log.texts(), ElementsAre(HasSubstr("logclass error!"), HasSubstr("logclass error!")));
    EXPECT_EQ(KEMOLogGet1(4, kOut, nullptr), -1);
    EXPECT_EQ(KEMOLogSetSize(1000, 7), -1);
    EXPECT_EQ(KEMOLogSetSize(1000, 4), -1);

    // Class 7 cannot be sized through KEMOLogSetSize but is shrunk by writes.
    write_file("/var/log/kemonetbkp.log", header(16, 16 + big.size()) + big, 0600);
    ASSERT_EQ(KLIBFileSetKeyValue(kConf, "netbkplogfilesize_MAX", "2000", "%s=\t\"%s\"\n"), 1);
    ASSERT_EQ(KEMOLogSet1(7, 1, 0x12200001, "a", "b", "c", "d"), 0);
    EXPECT_LE(read_file("/var/log/kemonetbkp.log").size(), 2000u);

    ASSERT_EQ(KEMOLogSetSize(3000, 1), 0);
    char value[11];
    EXPECT_EQ(KLIBFileGetKeyValue(kConf, "syslogfilesize_MAX", value, sizeof value, 0), 5);
    EXPECT_STREQ(value, "3000");
    file = read_file("/var/log/kemosys.log");
    EXPECT_LE(file.size(), 3000u);
    EXPECT_EQ(file.substr(8, 4), be32(16));
    EXPECT_EQ(get32(file, 12), file.size());
    EXPECT_EQ(file.substr(file.size() - 4), "abcd"); // the newest record kept
    log.texts();
    EXPECT_EQ(KEMOLogGet1(2, kOut, nullptr), -1);
    EXPECT_THAT(log.texts(), ElementsAre(HasSubstr("Kemora log file /var/log/kemoman1.log not exist")));
}

TEST_F(Log, AnUnknownUserIsRecordedEmptyAndLeavesTheErrorCodeAlone)
{
    unsetenv("USERNAME");
    write_file("/etc/passwd", "daemon:x:1:1::/:/bin/false\n");
    use_ring(4096);
    KLIBErrSet(0);
    ASSERT_EQ(add(0x12200001), 0);
    EXPECT_EQ(KLIBErrGet(), 0); // a successful write reports nothing
    const std::string file = read_file(kRing);
    EXPECT_EQ(file.substr(16), with_times(file.substr(16), record(1, 0, program_invocation_short_name, "", 0x12200001,
                                                                    {"a", " ", "", "bcd"}),
                                          {0}, kT0, 0xFFFFFFFF));
    // Asked directly, the lookup still names its failure.
    EXPECT_STREQ(KEMOLogObtainUser(), "");
    EXPECT_EQ(KLIBErrGet(), ERR_KEY_NOT_FOUND);
}

// Records of the damage tests.
std::string old_records()
{
    std::string old;
    for (uint32_t i = 0; i < 4; ++i)
        old += record(1 + i % 3, kT0 + i, "src", "usr", 0x12200001, {"n" + std::to_string(i), "h", "", ""});
    return old;
}

// A small wrapped log: three new records at 16, then stale bytes, then the
// four old ones up to the end marker.
std::string wrapped_log()
{
    const std::string old = old_records();
    std::string fresh;
    for (uint32_t i = 4; i < 7; ++i)
        fresh += record(2, kT0 + i, "src", "usr", 0x12200002, {"s" + std::to_string(i), "", "", ""});
    const std::string stale(40, 'q');
    return header(16 + fresh.size() + stale.size(), 16 + fresh.size()) + fresh + stale + old + be16(0);
}

TEST_F(Log, DamagedLogsAreReadRepairedAndWritable)
{
    const std::string good = wrapped_log();
    write_file(kRing, good);
    EXPECT_EQ(text().size(), 7u);
    use_ring(static_cast<int>(good.size()) + 60);
    // A tail past the last record, or inside it, is moved back to its end.
    const std::string plain = header(16, 16 + old_records().size()) + old_records();
    for (uint32_t tail : {get32(plain, 12) + 500, get32(plain, 12) - 1}) {
        write_file(kRing, plain.substr(0, 12) + be32(tail) + plain.substr(16));
        EXPECT_EQ(text().size(), tail > plain.size() ? 4u : 3u);
        EXPECT_EQ(get32(read_file(kRing), 12), tail > plain.size() ? plain.size() : plain.size() - old_records().size() / 4);
    }

    for (std::size_t cut = 0; cut <= good.size(); ++cut) {
        SCOPED_TRACE("cut at " + std::to_string(cut));
        write_file(kRing, good.substr(0, cut));
        const int read = KEMOLogGet1a(kRing, kOut, nullptr);
        EXPECT_EQ(read, cut < 16 ? -1 : 0);
        const std::string after = read_file(kRing);
        if (cut >= 16) {
            EXPECT_LE(get32(after, 12), after.size());
        }
        ASSERT_EQ(add(0x12200002), 0);
        const auto lines = text();
        ASSERT_FALSE(lines.empty());
        EXPECT_THAT(lines.back(), HasSubstr("\tShare a removed@3."));
    }

    std::mt19937 random(20240611);
    for (int round = 0; round < 300; ++round) {
        std::string bad = good;
        for (int n = 0; n < 1 + round % 6; ++n)
            bad[random() % bad.size()] = static_cast<char>(random());
        write_file(kRing, bad);
        KEMOLogGet1a(kRing, kOut, nullptr);
        KEMOLogSet1a(kRing, 1, 0x12200002, "x", "", "", "");
        EXPECT_EQ(KEMOLogGet1a(kRing, kOut, nullptr), 0) << "round " << round;
        const std::string after = read_file(kRing);
        EXPECT_LE(after.size(), good.size() + 60) << "round " << round;
    }
}

TEST_F(Log, ConcurrentWritersAndCompactionLoseNothing)
{
    use_ring(65536);
    ASSERT_EQ(add(0x12200002), 0); // sets the limit of this process and its children
    constexpr int kWriters = 4, kEach = 150;
    // The children start together when the parent closes the pipe.
    int start[2];
    ASSERT_EQ(pipe(start), 0);
    const auto wait_for_start = [&] {
        char byte;
        close(start[1]);
        (void)!read(start[0], &byte, 1);
    };
    std::vector<pid_t> children;
    for (int w = 0; w < kWriters; ++w) {
        const pid_t pid = fork();
        if (pid == 0) {
            wait_for_start();
            for (int i = 0; i < kEach; ++i)
                if (KEMOLogSet1a(kRing, 1, 0x12200002, ("w" + std::to_string(w) + "-" + std::to_string(i)).c_str(), "", "", "") != 0)
                    _exit(1);
            _exit(0);
        }
        children.push_back(pid);
    }
    const pid_t compactor = fork();
    if (compactor == 0) {
        wait_for_start();
        for (int i = 0; i < 20; ++i)
            if (KEMOLogChangeSize_a(0, kRing) != 0)
                _exit(1);
        _exit(0);
    }
    children.push_back(compactor);
    close(start[0]);
    close(start[1]);
    for (pid_t pid : children) {
        int status = -1;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    const auto lines = text();
    EXPECT_EQ(lines.size(), 1u + kWriters * kEach);
    for (int w = 0; w < kWriters; ++w)
        for (int i = 0; i < kEach; ++i)
            EXPECT_THAT(lines, Contains(HasSubstr("Share w" + std::to_string(w) + "-" + std::to_string(i) + " removed")));
}

TEST_F(Log, CurrentConnectionsFromTheThreeSources)
{
    write_file("/usr/kemo/bin/smbstatus",
               "#!/bin/sh\n[ \"$1\" = -S ] || exit 1\ncat <<'EOF'\n\n"
               "Service      pid     Machine       Connected at                     Encryption   Signing\n"
               "---------------------------------------------------------------------------------------\n"
               "IPC$         4711    10.0.0.5      Mon Jan  2 10:00:05 AM 2006 UTC  -            -\n"
               "My Docs      4711    10.0.0.5      Mon Jan  2 10:00:01 AM 2006 UTC  -            -\n"
               "public       815     pc2           Tue Jan  3 01:02:03 PM 2006      -            -\n"
               "EOF\n",
               0755);
    // Stand-ins for the servers: children named afpd and ftpd.
    auto server = [](const char *name) {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        const pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_NAME, name);
            (void)!write(ready[1], "x", 1);
            pause();
            _exit(0);
        }
        char byte;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        close(ready[1]);
        return pid;
    };
    const pid_t afpd = server("afpd"), ftpd = server("ftpd");
    const std::string t = std::to_string(kT0);
    const std::string live_afp = std::to_string(afpd) + "\tann\t10.0.0.7\t" + t;
    write_file("/tmp/apple/AT_LOG", live_afp + "\n" + std::to_string(getpid()) + "\told\t1.2.3.4\t" + t + "\ngarbage\n");
    write_file("/var/tmp/ftp_cur_con.log", std::to_string(ftpd) + "\tbob\t10.0.0.8\t" + std::to_string(kT0 + 60) + "\n");

    PKLIBSZLIST list = PslKLIBSzListAlloc(0);
    ASSERT_EQ(KEMOLogGet(2, 1, &list, nullptr), 4);
    std::vector<std::string> entries(list->pszItem, list->pszItem + list->nItem);
    EXPECT_THAT(entries, ElementsAre("10.0.0.5\t10.0.0.5\t2006/01/02 10:00:01\tSamba\t4711",
                                     "pc2\tpc2\t2006/01/03 13:02:03\tSamba\t815",
                                     "ann\t10.0.0.7\t2006/01/02 10:00:00\tApple login\t" + std::to_string(afpd),
                                     "bob\t10.0.0.8\t2006/01/02 10:01:00\t@FTP Service\t" + std::to_string(ftpd)));
    EXPECT_EQ(read_file("/tmp/apple/AT_LOG"), live_afp + "\n");
    EXPECT_FALSE(exists("/tmp/apple/AT_LOG_TMP"));
    EXPECT_FALSE(exists("/tmp/smbstatus.tmp"));
    kill(afpd, SIGKILL);
    kill(ftpd, SIGKILL);
    waitpid(afpd, nullptr, 0);
    waitpid(ftpd, nullptr, 0);
    KLIBSzListRemoveAll(list);
    EXPECT_EQ(KEMOLogGet(2, 1, &list, nullptr), 2); // the servers are gone
    EXPECT_EQ(read_file("/tmp/apple/AT_LOG"), "");
    EXPECT_EQ(KEMOLogGet(1, 1, &list, nullptr), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    KLIBSzListFree(list);
}

TEST_F(Log, CurrentConnectionsNeverWriteThroughPlantedNames)
{
    write_file("/usr/kemo/bin/smbstatus",
               "#!/bin/sh\ncat <<'EOF'\nService      pid     Machine       Connected at\n"
               "-------------------------------------------------------\n"
               "public       815     pc2           Tue Jan  3 01:02:03 PM 2006\nEOF\n",
               0755);
    // Connections of servers that are gone (pid 1 is neither), in
    // directories every user may write to.
    const std::string gone = "1\tgone\t1.2.3.4\t" + std::to_string(kT0) + "\n";
    write_file("/tmp/apple/AT_LOG", gone);
    write_file("/var/tmp/ftp_cur_con.log", gone);
    ASSERT_EQ(chmod("/tmp/apple", 01777), 0);
    ASSERT_EQ(chmod("/var/tmp", 01777), 0);
    const std::string passwd = read_file("/etc/passwd"), shadow = read_file("/etc/shadow");
    ASSERT_TRUE(as_nobody([] {
        const int fd = open("/tmp/apple/AT_LOG_TMP", O_WRONLY | O_CREAT | O_EXCL, 0666);
        return fd >= 0 && write(fd, "planted\n", 8) == 8 && fchmod(fd, 0666) == 0 && close(fd) == 0 &&
               symlink("/etc/passwd", "/tmp/smbstatus.tmp") == 0 &&
               symlink("/etc/shadow", "/var/tmp/ftp_cur_con.log.tmp") == 0;
    }));
    const ino_t planted = stat_of("/tmp/apple/AT_LOG_TMP").st_ino;

    PKLIBSZLIST list = PslKLIBSzListAlloc(0);
    ASSERT_EQ(KEMOLogGet(2, 1, &list, nullptr), 1);
    EXPECT_STREQ(list->pszItem[0], "pc2\tpc2\t2006/01/03 13:02:03\tSamba\t815");
    KLIBSzListFree(list);
    EXPECT_EQ(read_file("/etc/passwd"), passwd);
    EXPECT_EQ(read_file("/etc/shadow"), shadow);
    // The files were pruned into new files of root's; the planted names
    // were neither followed nor reused.
    EXPECT_EQ(read_file("/tmp/apple/AT_LOG"), "");
    EXPECT_NE(stat_of("/tmp/apple/AT_LOG").st_ino, planted);
    EXPECT_EQ(stat_of("/tmp/apple/AT_LOG").st_uid, 0u);
    EXPECT_EQ(read_file("/tmp/apple/AT_LOG_TMP"), "planted\n");
    EXPECT_EQ(read_file("/var/tmp/ftp_cur_con.log"), "");
    EXPECT_TRUE(S_ISLNK(stat_of("/var/tmp/ftp_cur_con.log.tmp").st_mode));
    EXPECT_TRUE(S_ISLNK(stat_of("/tmp/smbstatus.tmp").st_mode));
}

// The text listing goes where the caller says, but never through a name
// another user planted there.
TEST_F(Log, ListingNeverWritesThroughAPlantedName)
{
    write_file(kConf, "syslogfile=\"/var/log/ring.log\"\n");
    write_file("/var/log/ring.log", header(16, 16), 0600);
    const std::string shadow = read_file("/etc/shadow");
    ASSERT_TRUE(as_nobody([] { return symlink("/etc/shadow", kOut) == 0; }));
    EXPECT_EQ(KEMOLogGet1(1, kOut, nullptr), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_OPEN_FAILED);
    EXPECT_EQ(read_file("/etc/shadow"), shadow);
    ASSERT_EQ(unlink(kOut), 0);
    ASSERT_TRUE(as_nobody([] {
        const int fd = open(kOut, O_WRONLY | O_CREAT | O_EXCL, 0666);
        return fd >= 0 && fchmod(fd, 0666) == 0 && close(fd) == 0;
    }));
    EXPECT_EQ(KEMOLogGet1(1, kOut, nullptr), -1) << "a file of another user's is not reused";
    ASSERT_EQ(unlink(kOut), 0);
    EXPECT_EQ(KEMOLogGet1(1, kOut, nullptr), 0);
    EXPECT_EQ(stat_of(kOut).st_uid, 0u);
}

} // namespace
