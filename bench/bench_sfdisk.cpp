// The partitioning tool beside util-linux's sfdisk, on a 2 TiB sparse image:
//   - laying the appliance's three-partition layout: our tool run three
//     times exactly as the storage library runs it (-N1, -N2, -N3) against
//     util-linux sfdisk fed the same layout as a script once; every run
//     starts from a fresh blank image (made outside the timed part);
//   - our single -N3 (re-creating the data partition on a laid disk) and
//     our listing -l -uS -N3, each against util-linux sfdisk --dump of the
//     same disk.
// The images live in a private directory under /var/tmp; the machine's
// own files are not touched, so no sandbox is needed.
#include "bench_util.hpp"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace kemo::bench;

constexpr int kGiB = 2048; // the image size, the "size" column of the report
constexpr double kMinTime = 0.5;
constexpr int kRepeats = 5;
const std::string kOurs = KEMO_BENCH_SFDISK;
const std::string kPeer = "/usr/sbin/sfdisk";

std::string g_dir;

void fail_hard(const std::string &why)
{
    std::fprintf(stderr, "bench_sfdisk: %s\n", why.c_str());
    std::exit(1);
}

std::string path(const std::string &name) { return g_dir + "/" + name; }

// A blank sparse image of kGiB GiB.
void blank(const std::string &image)
{
    ::unlink(image.c_str());
    const int fd = ::open(image.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(kGiB) << 30) != 0) fail_hard("cannot make " + image);
    ::close(fd);
}

std::vector<Argv> ourLayout(const std::string &image)
{
    return {
        Argv({kOurs, "-N1", "-uS", "-q", "-f", "-j63", "-z1574307", "-tfd", "-F", image}),
        Argv({kOurs, "-N2", "-uS", "-q", "-f", "-j0", "-z787185", "-tfd", "-F", image}),
        Argv({kOurs, "-N3", "-uS", "-q", "-f", "-j273105", "-z-1", "-tfd", "-F", image}),
    };
}

std::vector<Argv> peerLayout(const std::string &image)
{
    return {Argv({kPeer, "-q", image}, path("layout.txt"))};
}

// Each iteration: a fresh blank image (not timed), then the commands.
void layout(benchmark::State &state, const std::string &image, const std::vector<Argv> &commands)
{
    double cpuNs = 0;
    for (auto _ : state) {
        state.PauseTiming();
        blank(image);
        state.ResumeTiming();
        for (const Argv &argv : commands) {
            double used = 0;
            const int rc = runQuiet(argv, &used);
            if (rc != 0) {
                state.SkipWithError((argv.text() + ": exit status " + std::to_string(rc)).c_str());
                return;
            }
            cpuNs += used;
        }
    }
    state.counters["child_cpu_us"] = benchmark::Counter(cpuNs / 1e3, benchmark::Counter::kAvgIterations);
}

// The partition lines of util-linux's dump, without the image's name.
std::string entries(const std::string &image)
{
    std::string out;
    runCapture(Argv({kPeer, "--dump", image}), &out);
    std::string lines;
    for (std::size_t at = 0; (at = out.find(image, at)) != std::string::npos;) {
        const std::size_t end = out.find('\n', at);
        lines += out.substr(at + image.size(), end - at - image.size()) + "\n";
        at = end;
    }
    return lines;
}

// Before any timing: both sides lay the same table.
void checkSameLayout()
{
    const std::string ours = path("check-ours.img"), theirs = path("check-peer.img");
    blank(ours);
    blank(theirs);
    for (const Argv &argv : ourLayout(ours))
        if (runQuiet(argv, nullptr) != 0) fail_hard(argv.text() + " failed");
    if (runQuiet(peerLayout(theirs).front(), nullptr) != 0) fail_hard("util-linux sfdisk refused the layout");
    const std::string a = entries(ours), b = entries(theirs);
    if (a != b || a.find("start=     2634660, size=  4292332636, type=fd") == std::string::npos)
        fail_hard("the layouts differ:\n" + a + "beside\n" + b);
    ::unlink(ours.c_str());
    ::unlink(theirs.c_str());
}

void registerAll()
{
    const std::string ours = path("ours.img"), theirs = path("peer.img"), laid = path("laid.img");
    const std::vector<Argv> oursLayout = ourLayout(ours), theirsLayout = peerLayout(theirs);
    medianOf(benchmark::RegisterBenchmark(benchName("layout", "kemo", kGiB).c_str(),
                                          [=](benchmark::State &s) { layout(s, ours, oursLayout); }),
             kMinTime, kRepeats, benchmark::kMillisecond);
    medianOf(benchmark::RegisterBenchmark(benchName("layout", "util_linux", kGiB).c_str(),
                                          [=](benchmark::State &s) { layout(s, theirs, theirsLayout); }),
             kMinTime, kRepeats, benchmark::kMillisecond);

    // The readers and the single -N3 work on one laid disk.
    auto reset = [laid] {
        if (!std::filesystem::exists(laid)) {
            blank(laid);
            for (const Argv &argv : ourLayout(laid))
                if (runQuiet(argv, nullptr) != 0) fail_hard(argv.text() + " failed");
        }
    };
    const Argv n3({kOurs, "-N3", "-uS", "-q", "-f", "-j273105", "-z-1", "-tfd", "-F", laid});
    const Argv list({kOurs, "-l", "-uS", "-N3", laid});
    const Argv dump({kPeer, "--dump", laid});
    registerProc(benchName("read", "kemo_n3", kGiB), {{n3}, 0, reset, {}}, 0, kRepeats, kMinTime);
    registerProc(benchName("read", "kemo_list", kGiB), {{list}, 0, reset, outputHas(list, 0, "3 2634660 4292332636 fd\n")},
                 0, kRepeats, kMinTime);
    registerProc(benchName("read", "util_linux", kGiB),
                 {{dump}, 0, reset, outputHas(dump, 0, "start=     2634660, size=  4292332636, type=fd")}, 0,
                 kRepeats, kMinTime);
}

} // namespace

int main(int argc, char **argv)
{
    if (::access(kPeer.c_str(), X_OK) != 0) fail_hard("no util-linux sfdisk at " + kPeer);
    char dir[] = "/var/tmp/bench-sfdisk-XXXXXX";
    if (!::mkdtemp(dir)) fail_hard("cannot make a directory under /var/tmp");
    g_dir = dir;
    if (!writeWhole(path("layout.txt"), "label: dos\nunit: sectors\nstart=63, size=1574307, type=fd\n"
                                        "start=1574370, size=787185, type=fd\nstart=2634660, type=fd\n"))
        fail_hard("cannot write the layout script");
    checkSameLayout();

    registerAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    std::printf("%s\nImages: %d GiB sparse files; our tool %s, util-linux %s.\n\n",
                describePlace("Images in " + g_dir, g_dir).c_str(), kGiB, kOurs.c_str(), kPeer.c_str());
    printBuildNote();
    std::fflush(stdout);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    std::printf("\nSummary (median wall-clock times; ratio = ours / peer; cpu ratio = the same for the\n"
                "CPU time of the programs; size: GiB of the image).\n\n");
    reporter.printComparisons(
        {
            {"layout", "layout: 3 runs (-N1, -N2, -N3) / script", "kemo", "util_linux", 1.0},
            {"read", "-N3 on a laid disk / --dump", "kemo_n3", "util_linux", 0},
            {"read", "-l -uS -N3 / --dump", "kemo_list", "util_linux", 0},
        },
        [](std::string_view) { return std::vector<int>{kGiB}; });
    reporter.printOutcome();
    benchmark::Shutdown();
    std::filesystem::remove_all(g_dir);
    return 0;
}
