// What the benchmarks that compare the library with other programs share:
// entering the appliance sandbox, running peer programs with their CPU
// time, program benchmarks with a one-time check that the program does the
// job, and a console reporter that keeps the time per run of every
// benchmark for a summary of ratios (ours / peer) against targets.
//
// Benchmarks are named "<operation>/<side>/<size>" (Google Benchmark may
// append suffixes such as "/repeats:3"); the reporter looks them up by that
// prefix.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kemo::bench {

// ------------------------------------------------------------ files

bool writeWhole(const std::string &path, const std::string &content);
std::string readWhole(const std::string &path);

// ------------------------------------------------------------ processes

// An argument vector kept ready for posix_spawn, with the file that feeds
// the program's standard input (none: /dev/null).
class Argv {
public:
    explicit Argv(std::vector<std::string> args, std::string input = {});
    Argv(const Argv &o) : Argv(o.args_, o.input_) {}
    Argv &operator=(const Argv &o);
    char *const *get() const { return ptrs_.data(); }
    const char *file() const { return args_[0].c_str(); }
    const std::string &input() const { return input_; }
    // The command as a shell would read it.
    std::string text() const;

private:
    std::vector<std::string> args_;
    std::string input_;
    std::vector<char *> ptrs_;
};

// Waits for the child; its exit status (128 + signal when killed), or -1.
// *cpuNs gets the CPU time it used (user + system).
int waitFor(pid_t pid, double *cpuNs = nullptr);

// Runs a program (searched in PATH) with standard output and error on
// /dev/null.  Its exit status, or -1 when it could not be started; *cpuNs
// gets the CPU time it used.
int runQuiet(const Argv &argv, double *cpuNs);

// Same, with standard output and error collected into *out.
int runCapture(const Argv &argv, std::string *out);

// One program benchmark: the commands run in turn, one per iteration (a
// setter alternates two values so that every run changes the file; a
// series of account commands names a different account each time), after
// reset() has put the input files in place.  before(), when given, runs
// before every command outside the timed part.  check() runs once before
// the first timing and returns why the program does not do the job (empty
// when it does); the benchmark is then skipped with that reason.
struct ProcCase {
    std::vector<Argv> commands;
    int status = 0; // the exit status every run must have
    std::function<void()> reset;
    std::function<std::string()> check;
    std::function<void()> before{};
};

// The benchmark body of a ProcCase registered as `name`.  Reports the
// programs' own CPU time as the counter "child_cpu_us".
void runProcCase(benchmark::State &state, const std::string &name, const ProcCase &c);

// check() of a reader: its output holds `expected`.
std::function<std::string()> outputHas(const Argv &argv, int status, std::string expected);

// check() of a setter: after its first command the file holds the new
// value and no longer the old one.
std::function<std::string()> fileChanged(const Argv &argv, std::string path, std::string fresh,
                                         std::string stale);

// "<op>/<side>/<n>", the name the reporter looks up.
std::string benchName(std::string_view op, std::string_view side, int n);

// Repeated `repeats` times, each running for at least minTime seconds; the
// median is kept.
void medianOf(benchmark::internal::Benchmark *b, double minTime, int repeats, benchmark::TimeUnit unit);

// Exactly `iterations` per run, `repeats` runs (the median kept when more
// than one): for slow programs and for calls that use up their input.
void fixedRuns(benchmark::internal::Benchmark *b, int iterations, int repeats, benchmark::TimeUnit unit);

// Registers a ProcCase as `id` (times in milliseconds): fixedRuns() when
// iterations > 0, else medianOf() with minTime.
void registerProc(const std::string &id, ProcCase c, int iterations, int repeats, double minTime = 0);

// ------------------------------------------------------------ sandbox

// Moves this process into the appliance sandbox for good; on failure tells
// why on standard error (as `program`) and returns false.
bool enterSandbox(const char *program);

// "<what> inside the appliance sandbox, " and what kind of file system
// `path` is on.
std::string describePlace(const std::string &what, const std::string &path);

// A note for optimised builds about Google Benchmark's DEBUG warning.
void printBuildNote();

// ------------------------------------------------------------ report

// The console report, plus the time per run (the median of the repetitions
// where there are some) of every benchmark, for the summary.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter();

    void ReportRuns(const std::vector<Run> &runs) override;

    // One line of the comparison table.
    struct Comparison {
        const char *op, *what, *ours, *peer;
        double limit; // target: ours / peer <= limit; 0: no target
    };
    // The table of comparisons, one line per size sizesOf(op) gives: both
    // times, their ratio, the ratio of CPU times, target and whether it is
    // met.  Missed and unmeasured targets are kept for printOutcome().
    void printComparisons(const std::vector<Comparison> &rows,
                          const std::function<std::vector<int>(std::string_view)> &sizesOf,
                          int whatWidth = 42);

    // One line of a growth table: an operation's side.  limit > 0: target
    // for the time at the largest size / the time at the smallest.
    struct Growth {
        const char *op, *side;
        double limit = 0;
    };
    enum class GrowthStyle {
        Ratios,        // time at the first size, then each size's ratio to it
        CostsAndRatio, // time at every size, then last / first for the wall-clock and
                       // the CPU time, and the target (judged on the wall-clock ratio)
    };
    void printGrowth(const std::vector<Growth> &rows, const std::vector<int> &sizes, GrowthStyle style);

    // Skipped benchmarks, targets not met, targets not measured.
    void printOutcome() const;

    // Time per run (ns; CPU time with cpu) of "<op>/<side>/<n>", or -1.
    double lookup(std::string_view op, std::string_view side, int n, bool cpu = false) const;
    static std::string show(double ns);
    static std::string target(double limit);

private:
    std::map<std::string, double> perRun_;    // wall time, ns
    std::map<std::string, double> cpuPerRun_; // CPU time, ns
    std::set<std::string> medians_;
    std::map<std::string, std::string> errors_;
    std::vector<std::string> missed_, notRun_;
};

} // namespace kemo::bench
