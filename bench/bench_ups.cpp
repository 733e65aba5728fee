// Reading the UPS: one KEMOUPSInfoGet (two settings and a run of the UPS
// client through the shell) beside running "upsc ups@localhost" itself.
// Both ask the same daemons: the dummy driver and upsd, started through the
// appliance's control script inside the appliance sandbox, in a network
// namespace of this benchmark's own.
#include "bench_util.hpp"
#include "kemo.h"

#include <benchmark/benchmark.h>

#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace kemo::bench;

constexpr double kMinTime = 0.5;
constexpr int kRepeats = 5;
const char kScript[] = "/usr/kemo/bin/ups.sh";

// CPU time of this process and of its waited-for children, in ns.
double cpuWithChildren()
{
    double ns = 0;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        ::getrusage(who, &usage);
        for (const timeval &t : {usage.ru_utime, usage.ru_stime})
            ns += static_cast<double>(t.tv_sec) * 1e9 + static_cast<double>(t.tv_usec) * 1e3;
    }
    return ns;
}

void getBench(benchmark::State &state)
{
    const double before = cpuWithChildren();
    for (auto _ : state) {
        KEMOUPS ups{};
        if (KEMOUPSInfoGet(&ups) != 0 || ups.status != KEMO_UPS_ONLINE) {
            state.SkipWithError("KEMOUPSInfoGet did not report the UPS on line");
            break;
        }
    }
    // The call's whole cost, with the shell and client it runs, under the
    // counter the reporter takes as a run's CPU time.
    state.counters["child_cpu_us"] =
        benchmark::Counter((cpuWithChildren() - before) / 1e3, benchmark::Counter::kAvgIterations);
}

// The pid a pid file of the daemons names, 0 without one.
pid_t pidIn(const char *file)
{
    return static_cast<pid_t>(std::atoi(readWhole(file).c_str()));
}

// Starts the daemons serving a UPS on line; their pids, or an empty list
// with the reason on standard error.
std::vector<pid_t> startDaemons()
{
    double cpu = 0;
    if (::unshare(CLONE_NEWNET) != 0 || runQuiet(Argv({"ip", "link", "set", "lo", "up"}), &cpu) != 0) {
        std::fprintf(stderr, "bench_ups: no network namespace of our own: %s\n", std::strerror(errno));
        return {};
    }
    if (!writeWhole("/usr/kemo/etc/ups.conf", "[ups]\n\tdriver = dummy-ups\n\tport = /tmp/ups.dev\n") ||
        !writeWhole("/tmp/ups.dev", "ups.mfr: Acme Power\nups.model: Guard 650\nups.status: OL CHRG\n"
                                    "ups.load: 23.0\nbattery.runtime: 1200\nbattery.charge: 87\n") ||
        KLIBFileSetKeyValue("/etc/kemoinfo.conf", "ups_enabled", "yes", "%s=\"%s\"\n") != 1 ||
        runQuiet(Argv({kScript, "start"}), &cpu) != 0) {
        std::fprintf(stderr, "bench_ups: cannot start the UPS daemons\n");
        return {};
    }
    std::vector<pid_t> pids{pidIn("/run/ups/upsd.pid"), pidIn("/run/ups/dummy-ups-ups.pid")};
    for (int i = 0; i < 100; ++i) {
        KEMOUPS ups{};
        if (KEMOUPSInfoGet(&ups) == 0 && ups.status == KEMO_UPS_ONLINE)
            return pids;
        ::usleep(100 * 1000);
    }
    std::fprintf(stderr, "bench_ups: the UPS never came up\n");
    return pids;
}

void stopDaemons(const std::vector<pid_t> &pids)
{
    double cpu = 0;
    runQuiet(Argv({kScript, "stop"}), &cpu);
    for (const pid_t pid : pids)
        if (pid > 1 && ::kill(pid, 0) == 0)
            ::kill(pid, SIGKILL);
}

} // namespace

int main(int argc, char **argv)
{
    if (!enterSandbox("bench_ups"))
        return 1;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    const std::vector<pid_t> pids = startDaemons();
    if (pids.empty())
        return 1;

    medianOf(benchmark::RegisterBenchmark(benchName("get", "kemo", 1).c_str(), getBench), kMinTime, kRepeats,
             benchmark::kMillisecond);
    const Argv upsc({"upsc", "ups@localhost"});
    registerProc(benchName("get", "upsc", 1), ProcCase{{upsc}, 0, nullptr, outputHas(upsc, 0, "ups.status: OL")}, 0,
                 kRepeats, kMinTime);

    std::printf("The UPS daemons (dummy driver, upsd on 127.0.0.1) inside the appliance sandbox, in a network\n"
                "namespace of their own.  KEMOUPSInfoGet reads two settings and runs the client through the\n"
                "shell and its wrapper script; upsc is the client run directly.\n\n");
    printBuildNote();
    std::fflush(stdout);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\nSummary (median time of one run over %d repetitions; ratio = ours / peer; cpu ratio = the\n"
                "same for CPU time, with that of the shell and client the call runs).\n\n",
                kRepeats);
    reporter.printComparisons({{"get", "KEMOUPSInfoGet / upsc ups@localhost", "kemo", "upsc", 2.0}},
                              [](std::string_view) { return std::vector<int>{1}; }, 40);
    reporter.printOutcome();
    benchmark::Shutdown();
    stopDaemons(pids);
    return 0;
}
