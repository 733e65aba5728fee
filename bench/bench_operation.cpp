// The operations registry's costs:
//   - one uncontended KEMOOperationRegister ("restore", no wait) followed by
//     KEMOOperationUnregister, beside util-linux flock(1) taking and
//     releasing a lock file ("flock /tmp/bench.lock true"), the program a
//     script would use to keep two administrative jobs apart;
//   - the same pair while 15 other operations run (16 entries while ours
//     is registered): helper processes that registered "none", which
//     conflicts with nothing, and wait; every registration then signals
//     each owner to see whether it still lives;
//   - a check-only registration (KEMO_OP_CHECK_ONLY) among 16 living
//     entries.  A full table answers -1 with ERR_NOT_ENOUGH_SPACE even to a
//     check, after the same walk over the entries;
//   - "kemoctl op run restore -- true" beside "flock /tmp/bench.lock true":
//     both programs hold their guard while running a command.
// Everything runs inside the appliance sandbox (its own /tmp and its own
// IPC namespace, so the registry segment starts empty).
#include "bench_util.hpp"
#include "kemo.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using namespace kemo::bench;

constexpr int kOurs = 31;  // "restore"
constexpr int kOther = 0;  // "none": conflicts with no operation
constexpr double kMinTime = 0.3;
constexpr int kRepeats = 5;
const char kLockFile[] = "/tmp/bench.lock";

// Processes that each register one operation and hold it until stop().
class Crowd {
public:
    Crowd() = default;
    Crowd(const Crowd &) = delete;
    Crowd &operator=(const Crowd &) = delete;
    ~Crowd() { stop(); }

    // Starts n holders of operation id; empty, or why they did not all
    // register (those that did are stopped again).
    std::string start(int n, int id)
    {
        int go[2], ready[2];
        if (::pipe2(go, O_CLOEXEC) != 0)
            return "pipe failed";
        if (::pipe2(ready, O_CLOEXEC) != 0) {
            ::close(go[0]);
            ::close(go[1]);
            return "pipe failed";
        }
        for (int i = 0; i < n; ++i) {
            const pid_t pid = ::fork();
            if (pid == 0) {
                ::close(go[1]);
                ::close(ready[0]);
                int conflicts[KEMO_OP_MAX_ENTRIES];
                int count = KEMO_OP_MAX_ENTRIES;
                const bool held = KEMOOperationRegister(id, 0, conflicts, &count, 2000) == 0;
                const char answer = held ? 'y' : 'n';
                if (::write(ready[1], &answer, 1) != 1 || !held)
                    ::_exit(1);
                char c;
                while (::read(go[0], &c, 1) < 0 && errno == EINTR) {
                } // end of file: stop() closed the other end
                ::_exit(KEMOOperationUnregister(id) == 0 ? 0 : 1);
            }
            if (pid > 0)
                pids_.push_back(pid);
        }
        ::close(go[0]);
        ::close(ready[1]);
        release_ = go[1];
        int held = 0;
        std::string why;
        for (std::size_t got = 0; got < pids_.size() && why.empty(); ++got) {
            struct pollfd p {ready[0], POLLIN, 0};
            char answer;
            if (::poll(&p, 1, 10000) != 1 || ::read(ready[0], &answer, 1) != 1)
                why = "a holder did not answer";
            else
                held += answer == 'y';
        }
        ::close(ready[0]);
        if (why.empty() && held != n)
            why = std::to_string(n - held) + " of " + std::to_string(n) + " holders could not register";
        if (!why.empty())
            stop();
        return why;
    }

    void stop()
    {
        if (release_ >= 0)
            ::close(release_);
        release_ = -1;
        for (pid_t pid : pids_)
            waitFor(pid);
        pids_.clear();
    }

private:
    std::vector<pid_t> pids_;
    int release_ = -1;
};

bool pair(benchmark::State &state)
{
    int conflicts[KEMO_OP_MAX_ENTRIES];
    int count = KEMO_OP_MAX_ENTRIES;
    const int rc = KEMOOperationRegister(kOurs, 0, conflicts, &count, 0);
    if (rc != 0) {
        state.SkipWithError(("register answered " + std::to_string(rc) + ", error " +
                             std::to_string(KLIBErrGet()))
                                .c_str());
        return false;
    }
    if (KEMOOperationUnregister(kOurs) != 0) {
        state.SkipWithError("unregister failed");
        return false;
    }
    return true;
}

// others: the operations that run meanwhile.
void pairBench(benchmark::State &state, int others)
{
    Crowd crowd;
    if (const std::string why = crowd.start(others, kOther); !why.empty()) {
        state.SkipWithError(why.c_str());
        return;
    }
    for (auto _ : state)
        if (!pair(state))
            break;
}

void checkBench(benchmark::State &state, int others)
{
    Crowd crowd;
    if (const std::string why = crowd.start(others, kOther); !why.empty()) {
        state.SkipWithError(why.c_str());
        return;
    }
    for (auto _ : state) {
        int conflicts[KEMO_OP_MAX_ENTRIES];
        int count = KEMO_OP_MAX_ENTRIES;
        const int rc = KEMOOperationRegister(kOurs, KEMO_OP_CHECK_ONLY, conflicts, &count, 0);
        // A full table has no room for anyone, so that is the answer.
        const bool full = others >= KEMO_OP_MAX_ENTRIES;
        if (full ? rc != -1 || KLIBErrGet() != ERR_NOT_ENOUGH_SPACE : rc != 0) {
            state.SkipWithError(("check answered " + std::to_string(rc)).c_str());
            break;
        }
    }
}

void registerCall(const std::string &name, void (*body)(benchmark::State &, int), int others)
{
    auto *b = benchmark::RegisterBenchmark(name.c_str(), [body, others](benchmark::State &s) { body(s, others); });
    medianOf(b, kMinTime, kRepeats, benchmark::kMicrosecond);
}

// check() of a program: it exits 0.
std::function<std::string()> succeeds(const Argv &argv)
{
    return [argv] {
        std::string out;
        const int rc = runCapture(argv, &out);
        return rc == 0 ? std::string() : argv.text() + ": exit status " + std::to_string(rc) + ": " + out;
    };
}

// check() of kemoctl op run: it exits 0 and leaves the registry empty.
std::function<std::string()> leavesNoEntry(const Argv &argv)
{
    return [argv] {
        std::string out;
        const int rc = runCapture(argv, &out);
        if (rc != 0)
            return argv.text() + ": exit status " + std::to_string(rc) + ": " + out;
        KEMOOPENTRY entries[KEMO_OP_MAX_ENTRIES];
        const int n = KEMOOperationEnum(entries, KEMO_OP_MAX_ENTRIES);
        if (n != 0)
            return argv.text() + ": " + std::to_string(n) + " entries left in the registry";
        return std::string();
    };
}

void printSummary(RatioReporter &reporter)
{
    std::printf("\nSummary (median time of one run over %d repetitions; ratio = ours / peer; cpu ratio = the\n"
                "same for CPU time: this process's for calls, the program's own for programs).\n"
                "The registry's lock file and flock(1)'s are both in the sandbox's /tmp (tmpfs).\n\n",
                kRepeats);
    reporter.printComparisons(
        {
            {"guard", "register+unregister restore / flock(1)", "kemo", "flock", 1.0},
            {"guard", "kemoctl op run restore -- true / flock(1)", "kemoctl", "flock", 0},
        },
        [](std::string_view) { return std::vector<int>{1}; }, 44);

    const double alone = reporter.lookup("guard", "kemo", 1);
    const double aloneCpu = reporter.lookup("guard", "kemo", 1, true);
    std::printf("\nWith %d living entries (ratio to the uncontended pair, %s):\n", KEMO_OP_MAX_ENTRIES,
                RatioReporter::show(alone).c_str());
    std::printf("%-52s %10s %8s %9s\n", "call", "time", "ratio", "cpu ratio");
    const struct {
        const char *op, *what;
    } rows[] = {
        {"crowded", "register+unregister restore among 15 others"},
        {"check", "check-only restore among 16 (answer: table full)"},
    };
    for (const auto &row : rows) {
        const double t = reporter.lookup(row.op, "kemo", KEMO_OP_MAX_ENTRIES);
        const double cpu = reporter.lookup(row.op, "kemo", KEMO_OP_MAX_ENTRIES, true);
        if (t < 0 || alone <= 0) {
            std::printf("%-52s %10s %8s %9s\n", row.what, RatioReporter::show(t).c_str(), "n/a", "n/a");
            continue;
        }
        std::printf("%-52s %10s %7.2fx %8.2fx\n", row.what, RatioReporter::show(t).c_str(), t / alone,
                    aloneCpu > 0 ? cpu / aloneCpu : 0.0);
    }
    reporter.printOutcome();
}

} // namespace

int main(int argc, char **argv)
{
    if (!enterSandbox("bench_operation"))
        return 1;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;

    registerCall(benchName("guard", "kemo", 1), pairBench, 0);
    const Argv flock({"flock", kLockFile, "true"});
    registerProc(benchName("guard", "flock", 1), ProcCase{{flock}, 0, nullptr, succeeds(flock)}, 0, kRepeats,
                 kMinTime);
    const Argv run({KEMO_BENCH_KEMOCTL, "op", "run", "restore", "--", "true"});
    registerProc(benchName("guard", "kemoctl", 1), ProcCase{{run}, 0, nullptr, leavesNoEntry(run)}, 0, kRepeats,
                 kMinTime);
    registerCall(benchName("crowded", "kemo", KEMO_OP_MAX_ENTRIES), pairBench, KEMO_OP_MAX_ENTRIES - 1);
    registerCall(benchName("check", "kemo", KEMO_OP_MAX_ENTRIES), checkBench, KEMO_OP_MAX_ENTRIES);

    std::printf("Registering operations inside the appliance sandbox: the registry segment in its own IPC\n"
                "namespace, lock files in its /tmp.  In the crowded cases helper processes hold the other\n"
                "entries: %d beside the pair, %d around the check.\n\n",
                KEMO_OP_MAX_ENTRIES - 1, KEMO_OP_MAX_ENTRIES);
    printBuildNote();
    std::fflush(stdout);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printSummary(reporter);
    benchmark::Shutdown();
    return 0;
}
