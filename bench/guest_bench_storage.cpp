// Array status, the mounted-volume list and one user's quota, in the
// virtual appliance (run by "./build.sh bench" through tests/guest/kemo-guest)
// beside the tools an administrator would otherwise run:
//   raidstatus: KEMORaidVolStatus of a 4-disk RAID 5   / mdadm --detail
//   mountlist:  KEMOMountVolInfoGet + KEMOMountVolInfoFree / findmnt with sizes
//   quotaget:   KEMOQuotaGet                          / quota -v -u NAME
//   quotaset:   KEMOQuotaSet                          / setquota -u NAME ...
// Target: each of ours at least 5 times faster (ratio <= 0.2).
#include "bench_util.hpp"
#include "guest_only.hpp"
#include "kemo.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

using namespace kemo::bench;

constexpr const char *kUser = "benchuser";
constexpr double kMinTime = 0.5;
constexpr int kRepeats = 3;

[[noreturn]] void fail_hard(const std::string &why)
{
    std::fprintf(stderr, "guest_bench_storage: %s\n", why.c_str());
    std::exit(1);
}

void sh(const std::string &command)
{
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0)
        fail_hard("set-up step failed: " + command);
}

// Four disks laid out by the library, a RAID 5 over their data partitions
// (no resync: the bench is not about it), ext3 with quotas at /volume1, and
// one local user with a limit.
void setup()
{
    for (int disk = 0; disk < 4; ++disk)
        if (KEMORaidDiskInit(disk, KEMO_RAID_DISK_INIT_ALL) != 0)
            fail_hard("cannot lay out disk " + std::to_string(disk));
    sh("mdadm --create /dev/md2 --run --assume-clean -l5 -n4 /dev/sda3 /dev/sdb3 /dev/sdc3 /dev/sdd3");
    sh("/usr/sbin/mkfs.ext3 -q /dev/md2");
    sh("mkdir -p /volume1");
    sh("mount -o usrquota,grpquota /dev/md2 /volume1");
    sh("quotacheck -c -g -u -F vfsv0 /volume1");
    sh("quotaon -F vfsv0 /volume1");
    std::ofstream passwd("/etc/passwd", std::ios::app);
    passwd << kUser << ":x:1100:100:bench:/home:/bin/false\n";
    passwd.close();
    sh(std::string("setquota -u ") + kUser + " 1536 1536 0 0 /volume1");
}

void BM_status(benchmark::State &state)
{
    for (auto _ : state) {
        KEMORAIDVOL record {};
        if (KEMORaidVolStatus(2, &record) != 0 || record.level != 5 || record.activeDisks != 4) {
            state.SkipWithError("array status failed");
            break;
        }
        benchmark::DoNotOptimize(record.volStatus);
    }
}

void BM_mounts(benchmark::State &state)
{
    for (auto _ : state) {
        PKEMOVOLINFOLIST list = KEMOMountVolInfoGet(0);
        if (list == nullptr || list->svi_id != 1 || list->svi_total_bytes == 0) {
            state.SkipWithError("mounted-volume list failed");
            KEMOMountVolInfoFree(list);
            break;
        }
        KEMOMountVolInfoFree(list);
    }
}

void BM_quota_get(benchmark::State &state)
{
    for (auto _ : state) {
        KEMOQUOTA q {};
        if (KEMOQuotaGet(kUser, "/dev/md2", &q) != 0 || q.limitMB <= 0) {
            state.SkipWithError("quota get failed");
            break;
        }
        benchmark::DoNotOptimize(q.usedMB);
    }
}

void BM_quota_set(benchmark::State &state)
{
    // Alternates two limits so that every call changes the quota file.
    const float limits[2] = {1.5f, 3.0f};
    int i = 0;
    for (auto _ : state) {
        if (KEMOQuotaSet(kUser, "/dev/md2", &limits[i ^= 1]) != 0) {
            state.SkipWithError("quota set failed");
            break;
        }
    }
}

void registerAll()
{
    medianOf(benchmark::RegisterBenchmark(benchName("raidstatus", "ours", 4).c_str(), BM_status), kMinTime,
             kRepeats, benchmark::kMicrosecond);
    const Argv detail({"mdadm", "--detail", "/dev/md2"});
    registerProc(benchName("raidstatus", "mdadm", 4), {{detail}, 0, {}, outputHas(detail, 0, "raid5")}, 0,
                 kRepeats, kMinTime);

    medianOf(benchmark::RegisterBenchmark(benchName("mountlist", "ours", 1).c_str(), BM_mounts), kMinTime,
             kRepeats, benchmark::kMicrosecond);
    const Argv findmnt({"findmnt", "-rn", "-o", "SOURCE,TARGET,OPTIONS,SIZE,AVAIL"});
    registerProc(benchName("mountlist", "findmnt", 1), {{findmnt}, 0, {}, outputHas(findmnt, 0, "/volume1")}, 0,
                 kRepeats, kMinTime);

    medianOf(benchmark::RegisterBenchmark(benchName("quotaget", "ours", 1).c_str(), BM_quota_get), kMinTime,
             kRepeats, benchmark::kMicrosecond);
    const Argv quota({"quota", "-v", "-u", kUser});
    registerProc(benchName("quotaget", "quota", 1), {{quota}, 0, {}, outputHas(quota, 0, "/dev/md2")}, 0,
                 kRepeats, kMinTime);

    medianOf(benchmark::RegisterBenchmark(benchName("quotaset", "ours", 1).c_str(), BM_quota_set), kMinTime,
             kRepeats, benchmark::kMicrosecond);
    const Argv set1({"setquota", "-u", kUser, "1536", "1536", "0", "0", "/volume1"});
    const Argv set2({"setquota", "-u", kUser, "3072", "3072", "0", "0", "/volume1"});
    registerProc(benchName("quotaset", "setquota", 1), {{set1, set2}, 0, {}, {}}, 0, kRepeats, kMinTime);
}

} // namespace

int main(int argc, char **argv)
{
    kemo_guest_only(argc, argv);
    setup();
    registerAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    std::printf("In the virtual appliance: a 4-disk RAID 5 (/dev/md2), ext3 with user quotas at /volume1.\n\n");
    printBuildNote();
    std::fflush(stdout);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\nSummary (median wall-clock times; ratio = ours / tool; cpu ratio = the same for CPU time).\n\n");
    reporter.printComparisons(
        {
            {"raidstatus", "array status / mdadm --detail", "ours", "mdadm", 0.2},
            {"mountlist", "mounted volumes / findmnt with sizes", "ours", "findmnt", 0.2},
            {"quotaget", "one user's quota / quota -v -u", "ours", "quota", 0.2},
            {"quotaset", "one user's limit / setquota -u", "ours", "setquota", 0.2},
        },
        [](std::string_view op) { return std::vector<int>{op == "raidstatus" ? 4 : 1}; });
    reporter.printOutcome();
    benchmark::Shutdown();
    return 0;
}
