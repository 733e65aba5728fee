// The event log's costs:
//   - one KEMOLogSet1a append of a 100-byte record (with its fsync) beside
//     the machine's bare write of 100 bytes + fsync on a file in the same
//     directory.  The two run interleaved: every iteration of either
//     benchmark does one append and one bare write, and times only its own
//     side, so disk noise hits both alike.  Two states of the ring: with
//     room at the tail (the append writes the record, fsyncs, moves the
//     tail: one fsync), and full and wrapped (it first frees the oldest
//     record and makes the head durable: two fsyncs); the bare write
//     appends in the first case and overwrites in place in the second, as
//     the ring does.
//   - rendering a full, wrapped 128 KiB system log as text with KEMOLogGet1
//     (catalogue present, every event known).
// Everything runs inside the appliance sandbox, in /var/log.  The appends
// are measured a second time in a directory on the machine's own disk
// (reached through a descriptor taken before entering the sandbox), where
// an fsync really waits for the device.
#include "bench_util.hpp"
#include "kemo.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace kemo::bench;

constexpr int kRecord = 100;             // bytes of one appended record
constexpr int kRingLimit = 65536;        // the default size of a log
constexpr int kRoomReset = 60000;        // a ring with room starts afresh beyond this tail
constexpr int kRender = 128;             // KiB of the rendered log
constexpr double kMinTime = 0.5;
constexpr int kRepeats = 5;
const char kLog[] = "/var/log/kemosys.log";
const char kRendered[] = "/tmp/log-render.txt";
const char kScratch[] = "bench-log-scratch";

// The arguments of an appended record: with the program's name and the
// user ("admin") the record is exactly kRecord bytes long.
std::string g_argument;

void fail_hard(const std::string &why)
{
    std::fprintf(stderr, "bench_log: %s\n", why.c_str());
    std::exit(1);
}

// One place: a ring file and a bare file side by side.
struct Place {
    std::string ring, bare;
    int bareFd = -1;
    bool full = false;       // the ring is kept full and wrapped
    off_t bareAt = 0;        // next bare write
};

void putFile(const std::string &path, const std::string &content)
{
    if (!writeWhole(path, content))
        fail_hard("cannot write " + path);
}

std::string emptyRing()
{
    std::string h("KEMO\0\0\0\0\0\0\0\x10\0\0\0\x10", 16);
    return h;
}

void ringAppend(Place &p)
{
    if (KEMOLogSet1a(p.ring.c_str(), 1, 0x12200001, g_argument.c_str(), "10.0.0.1", "public", "") != 0)
        fail_hard("append to " + p.ring + " failed");
}

void bareWrite(Place &p)
{
    static const std::string bytes(kRecord, 'b');
    if (::pwrite(p.bareFd, bytes.data(), bytes.size(), p.bareAt) != kRecord || ::fsync(p.bareFd) != 0)
        fail_hard("bare write to " + p.bare + " failed");
    p.bareAt += kRecord;
    if (p.bareAt + kRecord > kRingLimit)
        p.bareAt = 0;
}

// Puts both files in the state a benchmark starts from.
void prepare(Place &p)
{
    putFile(p.ring, emptyRing());
    ::close(p.bareFd);
    p.bareFd = ::open(p.bare.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (p.bareFd < 0)
        fail_hard("cannot open " + p.bare);
    p.bareAt = 0;
    if (!p.full)
        return;
    // Full: the ring wrapped once, the bare file at its full length.
    for (int i = 0; i < 2 * kRingLimit / kRecord; ++i)
        ringAppend(p);
    const std::string block(kRingLimit, 'b');
    if (::pwrite(p.bareFd, block.data(), block.size(), 0) != kRingLimit || ::fsync(p.bareFd) != 0)
        fail_hard("cannot fill " + p.bare);
}

// Keeps a ring with room from filling up: both files start afresh.
void keepRoom(Place &p)
{
    if (p.full || p.bareAt + kRecord < kRoomReset)
        return;
    putFile(p.ring, emptyRing());
    if (::ftruncate(p.bareFd, 0) != 0 || ::fsync(p.bareFd) != 0)
        fail_hard("cannot truncate " + p.bare);
    p.bareAt = 0;
}

void appendBench(benchmark::State &state, Place *p, bool ours)
{
    prepare(*p);
    using Clock = std::chrono::steady_clock;
    for (auto _ : state) {
        state.PauseTiming();
        keepRoom(*p);
        if (ours)
            bareWrite(*p);
        else
            ringAppend(*p);
        state.ResumeTiming();
        const auto start = Clock::now();
        if (ours)
            ringAppend(*p);
        else
            bareWrite(*p);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
}

void registerAppend(const std::string &op, Place *p)
{
    for (const char *side : {"kemo", "bare"}) {
        const bool ours = std::strcmp(side, "kemo") == 0;
        benchmark::RegisterBenchmark(benchName(op, side, kRecord).c_str(),
                                     [p, ours](benchmark::State &s) { appendBench(s, p, ours); })
            ->MinTime(kMinTime)
            ->Repetitions(kRepeats)
            ->ReportAggregatesOnly(true)
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond);
    }
}

// ------------------------------------------------------------ rendering

// A catalogue of 120 events in six sections, with placeholders.
void writeCatalogue()
{
    std::string text = "[11000000]\n11000000=Unknown\n11000001=Information\n11000002=Warning\n11000003=Error\n";
    for (int s = 0; s < 6; ++s) {
        char line[160];
        std::snprintf(line, sizeof line, "\n[12%X00000]\n", 2 + s);
        text += line;
        for (int e = 1; e <= 20; ++e) {
            std::snprintf(line, sizeof line, "12%X%05X=Event %d of group %d: user @1 at @2 on @3 (@4).\n", 2 + s, e,
                          e, s);
            text += line;
        }
    }
    putFile("/usr/kemo/kemosdk/texts/enu/events", text);
}

// Fills the system log with realistic records until it has wrapped and is
// full.  The number of records it holds.
int fillSystemLog()
{
    putFile("/etc/kemolog.conf", "syslogfile=\"/var/log/kemosys.log\"\nsyslogfilesize_MAX=\"131072\"\n");
    ::unlink(kLog);
    // The first append through the class takes the size from the file; the
    // rest go straight to the ring under that size.
    if (KEMOLogSet1(1, 1, 0x12200001, "admin", "10.0.0.1", "public", "") != 0)
        fail_hard("cannot write the system log");
    const char *users[] = {"admin", "alice", "bob", "carol", "dave", "guest"};
    const char *shares[] = {"public", "photo", "video", "music", "backup", "home"};
    for (int i = 1; i < 3 * kRender * 1024 / 100; ++i) {
        const std::string address = "192.168." + std::to_string(i % 7) + "." + std::to_string(10 + i % 200);
        const uint32_t id = 0x12000000u + (static_cast<uint32_t>(2 + i % 6) << 20) + static_cast<uint32_t>(1 + i % 20);
        if (KEMOLogSet1a(kLog, static_cast<uint32_t>(1 + i % 3), id, users[i % 6], address.c_str(), shares[i % 6],
                         i % 4 == 0 ? "read only" : "") != 0)
            fail_hard("cannot fill the system log");
    }
    if (KEMOLogGet1(1, kRendered, "enu") != 0)
        fail_hard("cannot render the system log");
    const std::string out = readWhole(kRendered);
    int lines = 0;
    for (char c : out)
        lines += c == '\n';
    return lines;
}

void renderBench(benchmark::State &state)
{
    for (auto _ : state)
        if (KEMOLogGet1(1, kRendered, "enu") != 0)
            state.SkipWithError("KEMOLogGet1 failed");
}

// ------------------------------------------------------------ places

// A scratch directory on the machine's disk, made and opened before the
// sandbox is entered: "bench-log-scratch" in $KEMO_BENCH_DISK_DIR or beside
// this program.  *parent is kept open to remove it at the end.
int openDiskDir(std::string *shown, int *parent)
{
    std::string dir;
    if (const char *env = std::getenv("KEMO_BENCH_DISK_DIR")) {
        dir = env;
    } else {
        char exe[4096];
        const ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
        if (n <= 0)
            return -1;
        dir.assign(exe, static_cast<std::size_t>(n));
        dir = dir.substr(0, dir.rfind('/'));
    }
    *parent = ::open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (*parent < 0 || (::mkdirat(*parent, kScratch, 0700) != 0 && errno != EEXIST))
        return -1;
    *shown = dir + "/" + kScratch;
    return ::openat(*parent, kScratch, O_PATH | O_DIRECTORY | O_CLOEXEC);
}

std::string describeDisk(int fd, const std::string &dir)
{
    struct statfs fs;
    std::string kind = "an unknown file system";
    if (::fstatfs(fd, &fs) == 0) {
        switch (fs.f_type) {
        case EXT4_SUPER_MAGIC: kind = "ext4 (or ext2/ext3)"; break;
        case TMPFS_MAGIC: kind = "tmpfs (no disk: choose another KEMO_BENCH_DISK_DIR)"; break;
        case OVERLAYFS_SUPER_MAGIC: kind = "an overlay"; break;
        case BTRFS_SUPER_MAGIC: kind = "btrfs"; break;
        case XFS_SUPER_MAGIC: kind = "xfs"; break;
        default: break;
        }
    }
    return "Disk appends in " + dir + " on the machine's own file system, " + kind +
           ", outside the sandbox's overlay: there fsync waits for the device.";
}

Place g_varLog, g_varLogFull, g_disk, g_diskFull;

Place place(const std::string &dir, const char *name, bool full)
{
    Place p;
    p.ring = dir + "/" + name + ".log";
    p.bare = dir + "/" + name + ".bare";
    p.full = full;
    return p;
}

void cleanup(Place &p)
{
    ::close(p.bareFd);
    ::unlink(p.ring.c_str());
    ::unlink(p.bare.c_str());
}

void printSummary(RatioReporter &reporter, const std::string &where, const std::string &disk, int records)
{
    std::printf("\nSummary (median time of one call over %d repetitions; ratio = ours / bare; cpu ratio = the\n"
                "same for the CPU time of this process in the timed part).\n%s\n%s\n\n",
                kRepeats, where.c_str(), disk.empty() ? "No directory on the machine's disk: disk appends not run." : disk.c_str());
    reporter.printComparisons(
        {
            {"append", "/var/log, room: KEMOLogSet1a / write+fsync", "kemo", "bare", 0}, // tmpfs: fsync costs nothing here
            {"append_full", "/var/log, full (2 fsyncs) / write+fsync", "kemo", "bare", 0},
            {"disk_append", "disk, room: KEMOLogSet1a / write+fsync", "kemo", "bare", 1.25},
            {"disk_append_full", "disk, full (2 fsyncs) / write+fsync", "kemo", "bare", 0},
        },
        [](std::string_view) { return std::vector<int>{kRecord}; }, 46);
    std::printf("\nRendering the full %d KiB system log (wrapped, %d records, every event in the catalogue)\n"
                "as text with KEMOLogGet1: %s per call (%s CPU).\n",
                kRender, records, RatioReporter::show(reporter.lookup("render", "kemo", kRender)).c_str(),
                RatioReporter::show(reporter.lookup("render", "kemo", kRender, true)).c_str());
    reporter.printOutcome();
}

} // namespace

int main(int argc, char **argv)
{
    std::string diskDir;
    int diskParent = -1;
    const int diskFd = openDiskDir(&diskDir, &diskParent);
    if (!enterSandbox("bench_log"))
        return 1;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    ::unsetenv("USERNAME"); // records name the effective user: root, shown as "admin"

    // "bench_log" and "admin" with the four arguments make kRecord bytes.
    g_argument.assign(static_cast<std::size_t>(kRecord) - 24 - std::strlen(program_invocation_short_name) -
                          std::strlen("admin") - std::strlen("10.0.0.1") - std::strlen("public"),
                      'u');
    g_varLog = place("/var/log", "bench-room", false);
    g_varLogFull = place("/var/log", "bench-full", true);
    registerAppend("append", &g_varLog);
    registerAppend("append_full", &g_varLogFull);
    std::string disk;
    if (diskFd >= 0) {
        const std::string through = "/proc/self/fd/" + std::to_string(diskFd);
        g_disk = place(through, "bench-room", false);
        g_diskFull = place(through, "bench-full", true);
        registerAppend("disk_append", &g_disk);
        registerAppend("disk_append_full", &g_diskFull);
        disk = describeDisk(diskFd, diskDir);
    }
    writeCatalogue();
    const int records = fillSystemLog();
    benchmark::RegisterBenchmark(benchName("render", "kemo", kRender).c_str(), renderBench)
        ->MinTime(kMinTime)
        ->Repetitions(kRepeats)
        ->ReportAggregatesOnly(true)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);

    const std::string where = describePlace("Logs in /var/log", "/var/log");
    std::printf("%s\n%s\n\n", where.c_str(), disk.c_str());
    printBuildNote();
    std::fflush(stdout);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printSummary(reporter, where, disk, records);
    benchmark::Shutdown();
    for (Place *p : {&g_varLog, &g_varLogFull, &g_disk, &g_diskFull})
        cleanup(*p);
    if (diskFd >= 0)
        ::close(diskFd);
    if (diskParent >= 0) {
        ::unlinkat(diskParent, kScratch, AT_REMOVEDIR);
        ::close(diskParent);
    }
    return 0;
}
