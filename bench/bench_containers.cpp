// The string list and string hash next to the standard containers that
// would otherwise do their jobs: std::vector<std::string> and
// std::unordered_map<std::string, std::string>.  Every operation runs at
// 1 000 and 100 000 items; after the usual console report a table gives
// the time per operation of each side and their ratio (ours / std).
#include "kemo.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <unistd.h>

namespace {

constexpr int kSizes[] = {1000, 100000};
constexpr int kLookups = 16; // linear finds per iteration
constexpr double kMinTime = 0.2;

// Keys shaped like the ones configuration files hold.
const std::vector<std::string> &keys(int n)
{
    static std::map<int, std::vector<std::string>> cache;
    auto &k = cache[n];
    if (k.empty())
        for (int i = 0; i < n; ++i)
            k.push_back("key-" + std::to_string(i));
    return k;
}

const std::vector<std::string> &values(int n)
{
    static std::map<int, std::vector<std::string>> cache;
    auto &v = cache[n];
    if (v.empty())
        for (int i = 0; i < n; ++i)
            v.push_back("value-" + std::to_string(i));
    return v;
}

// The keys the find benchmarks look up: spread evenly over the list.
std::vector<std::string> probes(int n)
{
    std::vector<std::string> p;
    for (int i = 0; i < kLookups; ++i)
        p.push_back(keys(n)[static_cast<size_t>((2 * i + 1) * n / (2 * kLookups))]);
    return p;
}

void setOps(benchmark::State &state, double opsPerIteration)
{
    state.counters["ops"] = opsPerIteration;
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * opsPerIteration));
}

PKLIBSZLIST buildList(int n)
{
    PKLIBSZLIST l = PslKLIBSzListAlloc(0);
    for (const auto &k : keys(n))
        KLIBSzListPush(&l, k.c_str());
    return l;
}

PKLIBSZHASH buildHash(int n)
{
    PKLIBSZHASH h = PshKLIBSzHashAlloc(0);
    for (size_t i = 0; i < static_cast<size_t>(n); ++i)
        KLIBSzHashSetValue(&h, keys(n)[i].c_str(), values(n)[i].c_str());
    return h;
}

std::unordered_map<std::string, std::string> buildMap(int n)
{
    std::unordered_map<std::string, std::string> m;
    for (size_t i = 0; i < static_cast<size_t>(n); ++i)
        m.insert_or_assign(keys(n)[i], values(n)[i]);
    return m;
}

// ------------------------------------------------------------ list

void listPushKemo(benchmark::State &state)
{
    const int n = static_cast<int>(state.range(0));
    const auto &k = keys(n);
    for (auto _ : state) {
        PKLIBSZLIST l = PslKLIBSzListAlloc(0);
        for (const auto &s : k)
            KLIBSzListPush(&l, s.c_str());
        benchmark::DoNotOptimize(l);
        KLIBSzListFree(l);
    }
    setOps(state, n);
}

void listPushStd(benchmark::State &state)
{
    const int n = static_cast<int>(state.range(0));
    const auto &k = keys(n);
    for (auto _ : state) {
        std::vector<std::string> v;
        for (const auto &s : k)
            v.push_back(s.c_str()); // from a C string, as the list gets it
        benchmark::DoNotOptimize(v.data());
    }
    setOps(state, n);
}

void listGetKemo(benchmark::State &state)
{
    const int n = static_cast<int>(state.range(0));
    PKLIBSZLIST l = buildList(n);
    for (auto _ : state)
        for (int i = 0; i < n; ++i)
            benchmark::DoNotOptimize(SzKLIBSzListGet(l, i));
    KLIBSzListFree(l);
    setOps(state, n);
}

void listGetStd(benchmark::State &state)
{
    const int n = static_cast<int>(state.range(0));
    std::vector<std::string> v(keys(n));
    for (auto _ : state)
        for (int i = 0; i < n; ++i)
            benchmark::DoNotOptimize(v[static_cast<size_t>(i)].c_str());
    setOps(state, n);
}

void listFindKemo(benchmark::State &state)
{
    const int n = static_cast<int>(state.range(0));
    PKLIBSZLIST l = buildList(n);
    const auto p = probes(n);
    for (auto _ : state)
        for (const auto &s : p)
            benchmark::DoNotOptimize(KLIBSzListFind(l, s.c_str()));
    KLIBSzListFree(l);
    setOps(state, kLookups);
}

void listFindStd(benchmark::State &state)
{
    const int n = static_cast<int>(state.range(0));
    std::vector<std::string> v(keys(n));
    const auto p = probes(n);
    for (auto _ : state)
        for (const auto &s : p)
            benchmark::DoNotOptimize(std::find(v.begin(), v.end(), s));
    setOps(state, kLookups);
}

// ------------------------------------------------------------ hash

void hashSetKemo(benchmark::State &state)
{
    const int n = static_cast<int>(state.range(0));
    for (auto _ : state) {
        PKLIBSZHASH h = buildHash(n);
        benchmark::DoNotOptimize(h);
        KLIBSzHashFree(h);
    }
    setOps(state, n);
}

void hashSetStd(benchmark::State &state)
{
    const int n = static_cast<int>(state.range(0));
    for (auto _ : state) {
        auto m = buildMap(n);
        benchmark::DoNotOptimize(m);
    }
    setOps(state, n);
}

void hashGetKemo(benchmark::State &state)
{
    const int n = static_cast<int>(state.range(0));
    PKLIBSZHASH h = buildHash(n);
    const auto &k = keys(n);
    for (auto _ : state)
        for (const auto &s : k)
            benchmark::DoNotOptimize(SzKLIBSzHashGetValue(h, s.c_str()));
    KLIBSzHashFree(h);
    setOps(state, n);
}

void hashGetStd(benchmark::State &state)
{
    const int n = static_cast<int>(state.range(0));
    auto m = buildMap(n);
    const auto &k = keys(n);
    for (auto _ : state)
        for (const auto &s : k)
            benchmark::DoNotOptimize(m.find(s));
    setOps(state, n);
}

void hashRemoveKemo(benchmark::State &state)
{
    const int n = static_cast<int>(state.range(0));
    const auto &k = keys(n);
    for (auto _ : state) {
        state.PauseTiming();
        PKLIBSZHASH h = buildHash(n);
        state.ResumeTiming();
        for (const auto &s : k)
            benchmark::DoNotOptimize(SzKLIBSzHashRemoveKey(h, s.c_str()));
        state.PauseTiming();
        KLIBSzHashFree(h);
        state.ResumeTiming();
    }
    setOps(state, n);
}

void hashRemoveStd(benchmark::State &state)
{
    const int n = static_cast<int>(state.range(0));
    const auto &k = keys(n);
    for (auto _ : state) {
        state.PauseTiming();
        auto m = buildMap(n);
        state.ResumeTiming();
        for (const auto &s : k)
            benchmark::DoNotOptimize(m.erase(s));
        state.PauseTiming();
        m = {};
        state.ResumeTiming();
    }
    setOps(state, n);
}

// ------------------------------------------------------------ report

// The console report, plus the time per operation of every run kept for
// the ratio table.  Runs are named "<operation>/<kemo|std>/<items>".
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}

    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &r : runs) {
            if (r.error_occurred || r.run_type != Run::RT_Iteration)
                continue;
            const auto ops = r.counters.find("ops");
            const double perRun = ops == r.counters.end() ? 1.0 : ops->second.value;
            const double ns = r.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(r.time_unit) * 1e9;
            perOp_[r.benchmark_name()] = ns / perRun;
        }
    }

    void printRatios() const
    {
        std::printf("\n%-12s %8s %14s %14s %8s\n", "operation", "items", "kemo ns/op", "std ns/op",
                    "ratio");
        for (const char *op : {"list_push", "list_get", "list_find", "hash_set", "hash_get",
                               "hash_remove"}) {
            for (int n : kSizes) {
                const double ours = lookup(op, "kemo", n);
                const double theirs = lookup(op, "std", n);
                if (ours < 0 || theirs <= 0)
                    continue;
                std::printf("%-12s %8d %14.2f %14.2f %7.2fx\n", op, n, ours, theirs,
                            ours / theirs);
            }
        }
    }

private:
    double lookup(std::string_view op, std::string_view side, int n) const
    {
        // The registered name may carry suffixes such as "/min_time:0.200".
        const std::string prefix =
            std::string(op) + "/" + std::string(side) + "/" + std::to_string(n);
        for (const auto &[name, ns] : perOp_)
            if (name == prefix || name.starts_with(prefix + "/"))
                return ns;
        return -1;
    }

    std::map<std::string, double> perOp_;
};

void registerPair(const char *op, void (*ours)(benchmark::State &),
                  void (*theirs)(benchmark::State &))
{
    for (auto [side, fn] : {std::pair{"kemo", ours}, std::pair{"std", theirs}}) {
        auto *b = benchmark::RegisterBenchmark((std::string(op) + "/" + side).c_str(), fn);
        for (int n : kSizes)
            b->Arg(n);
        b->MinTime(kMinTime)->Unit(benchmark::kMicrosecond);
    }
}

} // namespace

int main(int argc, char **argv)
{
    registerPair("list_push", listPushKemo, listPushStd);
    registerPair("list_get", listGetKemo, listGetStd);
    registerPair("list_find", listFindKemo, listFindStd);
    registerPair("hash_set", hashSetKemo, hashSetStd);
    registerPair("hash_get", hashGetKemo, hashGetStd);
    registerPair("hash_remove", hashRemoveKemo, hashRemoveStd);

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios();
    benchmark::Shutdown();
    return 0;
}
