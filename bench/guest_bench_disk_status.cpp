// The status of four disks in the virtual appliance (run by "./build.sh
// bench" through tests/guest/kemo-guest): two disks in a system mirror and
// a data mirror, two blank.  Side by side:
//   - diskstatus/ours: KEMORaidDiskStatus of the four slots as the library
//     does it (the slot count read in the process);
//   - diskstatus/pipe: the same plus one KEMOMaxDiskGet per slot: the
//     "/bin/get_key_value" pipe a status would start if it asked the
//     exported function for its count of arrays.
// The counter "processes" is what each iteration started (from the
// kernel's count of forks in /proc/stat).
#include "guest_only.hpp"
#include "kemo.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

long long forks()
{
    std::ifstream in("/proc/stat");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("processes ", 0) == 0)
            return std::stoll(line.substr(10));
    return 0;
}

void four_statuses(benchmark::State &state, bool pipe)
{
    long long started = 0;
    for (auto _ : state) {
        const long long before = forks();
        for (int disk = 0; disk < 4; ++disk) {
            KEMORAIDDISK record {};
            if (KEMORaidDiskStatus(disk, &record) != 0)
                state.SkipWithError("disk status failed");
            if (pipe)
                benchmark::DoNotOptimize(KEMOMaxDiskGet());
            benchmark::DoNotOptimize(record.status);
        }
        started += forks() - before;
    }
    state.counters["processes"] =
        benchmark::Counter(static_cast<double>(started), benchmark::Counter::kAvgIterations);
}

void BM_ours(benchmark::State &state) { four_statuses(state, false); }
void BM_pipe(benchmark::State &state) { four_statuses(state, true); }
BENCHMARK(BM_ours)->Name("diskstatus/ours/4")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_pipe)->Name("diskstatus/pipe/4")->Unit(benchmark::kMillisecond);

bool setup()
{
    for (int disk = 0; disk < 2; ++disk)
        if (KEMORaidDiskInit(disk, KEMO_RAID_DISK_INIT_ALL) != 0)
            return false;
    for (const char *c : {"mdadm --create /dev/md0 --run --assume-clean -l1 -n2 /dev/sda1 /dev/sdb1",
                          "mdadm --create /dev/md1 --run --assume-clean -l1 -n2 /dev/sda2 /dev/sdb2",
                          "mdadm --create /dev/md2 --run --assume-clean -l1 -n2 /dev/sda3 /dev/sdb3"}) {
        if (std::system((std::string(c) + " >/dev/null 2>&1").c_str()) != 0)
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    kemo_guest_only(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (!setup()) {
        std::fprintf(stderr, "guest_bench_disk_status: cannot lay out the disks\n");
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
