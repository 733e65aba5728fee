// Reading the list of appliances found: KEMOFHOSTGet2Hash on a snapshot of
// 1 000 appliances (every tenth line one the parser must skip) beside the
// tool a user would otherwise pick for the same job, awk printing the
// same "name(address)=address" pairs.  The snapshot is written before
// every run, outside the timing, since the parser removes it.  Everything
// runs inside the appliance sandbox, in /tmp.
#include "bench_util.hpp"
#include "kemo.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

namespace {

using namespace kemo::bench;

constexpr int kHosts = 1000;
constexpr double kMinTime = 0.5;
constexpr int kRepeats = 5;
const char kAwkProgram[] = "$1!=0 && $2>=240 {print $3\"(\"$4\")=\"$4}";

std::string g_list;

std::string hostList(int n)
{
    std::string text;
    char line[128];
    for (int i = 0; i < n; ++i) {
        std::snprintf(line, sizeof line, "%d,%d,nas-%04d,10.%d.%d.%d,02:00:00:%02x:%02x:%02x\n", i % 10 == 9 ? 0 : 410,
                      262, i, i / 65536, i / 256 % 256, i % 256, i / 65536, i / 256 % 256, i % 256);
        text += line;
    }
    return text;
}

void putSnapshot()
{
    if (!writeWhole(FHOST_HOST_LIST_TMP, g_list))
        std::fprintf(stderr, "bench_fhost: cannot write %s\n", FHOST_HOST_LIST_TMP);
}

void parseKemo(benchmark::State &state)
{
    int found = 0;
    for (auto _ : state) {
        state.PauseTiming();
        putSnapshot();
        PKLIBSZHASH hash = PshKLIBSzHashAlloc(0);
        state.ResumeTiming();
        found = KEMOFHOSTGet2Hash(&hash);
        state.PauseTiming();
        KLIBSzHashFree(hash);
        state.ResumeTiming();
    }
    if (found != kHosts - kHosts / 10)
        state.SkipWithError(("KEMOFHOSTGet2Hash found " + std::to_string(found)).c_str());
}

void registerAll()
{
    benchmark::internal::Benchmark *b =
        benchmark::RegisterBenchmark(benchName("parse", "kemo", kHosts).c_str(), parseKemo);
    medianOf(b, kMinTime, kRepeats, benchmark::kMicrosecond);
    const Argv awk({"awk", "-F,", kAwkProgram, FHOST_HOST_LIST_TMP});
    ProcCase c{{awk}, 0, putSnapshot, outputHas(awk, 0, "nas-0000(10.0.0.0)=10.0.0.0\n"), putSnapshot};
    registerProc(benchName("parse", "awk", kHosts), std::move(c), 0, kRepeats, kMinTime);
}

} // namespace

int main(int argc, char **argv)
{
    if (!enterSandbox("bench_fhost"))
        return 1;
    g_list = hostList(kHosts);
    registerAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    const std::string where = describePlace("The snapshot in /tmp", "/tmp");
    std::printf("%s\nSnapshot: %d lines, %zu bytes.\n\n", where.c_str(), kHosts, g_list.size());
    printBuildNote();
    std::fflush(stdout);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\nSummary (median wall-clock times; ratio = ours / peer; cpu ratio = the same for the CPU\n"
                "time of the call or program).\n\n");
    reporter.printComparisons({{"parse", "list of 1 000: KEMOFHOSTGet2Hash / awk", "kemo", "awk", 0}},
                              [](std::string_view) { return std::vector<int>{kHosts}; });
    reporter.printOutcome();
    benchmark::Shutdown();
    return 0;
}
