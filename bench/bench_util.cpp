#include "bench_util.hpp"

#include "kemo_sandbox.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

extern char **environ;

namespace kemo::bench {

// ------------------------------------------------------------ files

bool writeWhole(const std::string &path, const std::string &content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    return static_cast<bool>(out.flush());
}

std::string readWhole(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// ------------------------------------------------------------ processes

Argv::Argv(std::vector<std::string> args, std::string input) : args_(std::move(args)), input_(std::move(input))
{
    for (auto &a : args_)
        ptrs_.push_back(a.data());
    ptrs_.push_back(nullptr);
}

Argv &Argv::operator=(const Argv &o)
{
    if (this != &o) {
        Argv copy(o);
        args_.swap(copy.args_); // swapping vectors keeps every string where it is
        input_ = copy.input_;
        ptrs_.swap(copy.ptrs_);
    }
    return *this;
}

std::string Argv::text() const
{
    std::string s;
    for (const auto &a : args_)
        s += (s.empty() ? "" : " ") + (!a.empty() && a.find_first_of(" '") == std::string::npos ? a : "'" + a + "'");
    if (!input_.empty())
        s += " < " + input_;
    return s;
}

int waitFor(pid_t pid, double *cpuNs)
{
    int status;
    struct rusage usage {};
    while (::wait4(pid, &status, 0, &usage) < 0)
        if (errno != EINTR)
            return -1;
    if (cpuNs != nullptr)
        *cpuNs = (static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e6 +
                  static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec)) *
                 1e3;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

namespace {

// Spawns argv with standard input from its input file (or /dev/null) and
// standard output and error on `outFd` (-1: /dev/null).
int spawn(const Argv &argv, int outFd, pid_t *pid)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const char *input = argv.input().empty() ? "/dev/null" : argv.input().c_str();
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input, O_RDONLY, 0);
    if (outFd < 0)
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    else
        posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    const int rc = ::posix_spawnp(pid, argv.file(), &actions, nullptr, argv.get(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return rc;
}

} // namespace

int runQuiet(const Argv &argv, double *cpuNs)
{
    pid_t pid;
    return spawn(argv, -1, &pid) == 0 ? waitFor(pid, cpuNs) : -1;
}

int runCapture(const Argv &argv, std::string *out)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return -1;
    pid_t pid;
    const int rc = spawn(argv, fds[1], &pid);
    ::close(fds[1]);
    if (rc != 0) {
        ::close(fds[0]);
        *out = std::string("cannot start: ") + std::strerror(rc);
        return -1;
    }
    char buf[4096];
    ssize_t got;
    while ((got = ::read(fds[0], buf, sizeof buf)) > 0 || (got < 0 && errno == EINTR))
        if (got > 0)
            out->append(buf, static_cast<std::size_t>(got));
    ::close(fds[0]);
    return waitFor(pid);
}

namespace {

std::map<std::string, std::string> checked; // benchmark name -> failure ("" when fine)

} // namespace

void runProcCase(benchmark::State &state, const std::string &name, const ProcCase &c)
{
    if (c.reset)
        c.reset();
    auto known = checked.find(name);
    if (known == checked.end())
        known = checked.emplace(name, c.check ? c.check() : std::string()).first;
    if (c.reset)
        c.reset();
    if (!known->second.empty()) {
        state.SkipWithError(known->second.c_str());
        return;
    }
    std::size_t turn = 0;
    double cpuNs = 0;
    for (auto _ : state) {
        if (c.before) {
            state.PauseTiming();
            c.before();
            state.ResumeTiming();
        }
        const Argv &argv = c.commands[turn++ % c.commands.size()];
        double used = 0;
        const int rc = runQuiet(argv, &used);
        if (rc != c.status) {
            checked[name] = argv.text() + ": exit status " + std::to_string(rc);
            state.SkipWithError(checked[name].c_str());
            break;
        }
        cpuNs += used;
    }
    // The CPU time of the program itself: unlike the wall time it does not
    // count the time spent waiting for a CPU on a busy machine.
    state.counters["child_cpu_us"] = benchmark::Counter(cpuNs / 1e3, benchmark::Counter::kAvgIterations);
}

std::function<std::string()> outputHas(const Argv &argv, int status, std::string expected)
{
    return [argv, status, expected] {
        std::string out;
        const int rc = runCapture(argv, &out);
        if (rc != status)
            return argv.text() + ": exit status " + std::to_string(rc) + ": " + out;
        if (out.find(expected) == std::string::npos)
            return argv.text() + ": output lacks \"" + expected + "\": " + out;
        return std::string();
    };
}

std::function<std::string()> fileChanged(const Argv &argv, std::string path, std::string fresh,
                                         std::string stale)
{
    return [argv, path, fresh, stale] {
        std::string out;
        const int rc = runCapture(argv, &out);
        if (rc != 0)
            return argv.text() + ": exit status " + std::to_string(rc) + ": " + out;
        const std::string now = readWhole(path);
        if (now.find(fresh) == std::string::npos || now.find(stale) != std::string::npos)
            return argv.text() + ": the file did not get the new value";
        return std::string();
    };
}

std::string benchName(std::string_view op, std::string_view side, int n)
{
    return std::string(op) + "/" + std::string(side) + "/" + std::to_string(n);
}

void medianOf(benchmark::internal::Benchmark *b, double minTime, int repeats, benchmark::TimeUnit unit)
{
    b->MinTime(minTime)->Repetitions(repeats)->ReportAggregatesOnly(true)->UseRealTime()->Unit(unit);
}

void fixedRuns(benchmark::internal::Benchmark *b, int iterations, int repeats, benchmark::TimeUnit unit)
{
    b->Iterations(iterations)->UseRealTime()->Unit(unit);
    if (repeats > 1)
        b->Repetitions(repeats)->ReportAggregatesOnly(true);
}

void registerProc(const std::string &id, ProcCase c, int iterations, int repeats, double minTime)
{
    auto *b = benchmark::RegisterBenchmark(id.c_str(), [id, c](benchmark::State &state) { runProcCase(state, id, c); });
    if (iterations > 0)
        fixedRuns(b, iterations, repeats, benchmark::kMillisecond);
    else
        medianOf(b, minTime, repeats, benchmark::kMillisecond);
}

// ------------------------------------------------------------ sandbox

bool enterSandbox(const char *program)
{
    // The library and the programs compared with it touch /etc, /tmp/lock
    // and /var/log: only ever inside the throwaway sandbox.
    if (::geteuid() != 0) {
        std::fprintf(stderr, "%s: must run as root: it works inside the appliance sandbox "
                             "(a private mount namespace) so that this machine's files stay untouched\n",
                     program);
        return false;
    }
    std::string why;
    if (!kemo::sandbox::enter(&why)) {
        std::fprintf(stderr, "%s: cannot enter the appliance sandbox: %s\n", program, why.c_str());
        return false;
    }
    return true;
}

std::string describePlace(const std::string &what, const std::string &path)
{
    struct statfs fs;
    constexpr long kOverlay = 0x794c7630;
    std::string s = what + " inside the appliance sandbox, ";
    if (::statfs(path.c_str(), &fs) == 0 && static_cast<long>(fs.f_type) == kOverlay)
        s += "on its overlay root whose upper layer is tmpfs: no disk is involved and fsync is cheap; "
             "every side works on the same file system.";
    else
        s += "on a file system that is not the sandbox's overlay (unexpected).";
    return s;
}

void printBuildNote()
{
#ifdef NDEBUG
    std::printf("libkemo and this benchmark are an optimised build; Google Benchmark's warning about a DEBUG\n"
                "build, if any, is about the system's benchmark library.\n\n");
#endif
}

// ------------------------------------------------------------ report

RatioReporter::RatioReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}

void RatioReporter::ReportRuns(const std::vector<Run> &runs)
{
    ConsoleReporter::ReportRuns(runs);
    for (const Run &r : runs) {
        if (r.error_occurred) {
            errors_[r.run_name.str()] = r.error_message;
            continue;
        }
        if (r.run_type == Run::RT_Aggregate && r.aggregate_name != "median")
            continue;
        const double toNs = 1e9 / benchmark::GetTimeUnitMultiplier(r.time_unit);
        const double ns = r.GetAdjustedRealTime() * toNs;
        // A program's own CPU time, else the CPU time of this process.
        const auto child = r.counters.find("child_cpu_us");
        const double cpu = child != r.counters.end() ? child->second.value * 1e3 : r.GetAdjustedCPUTime() * toNs;
        // A median replaces the single runs it summarises.
        if (r.run_type == Run::RT_Aggregate || !medians_.count(r.run_name.str())) {
            perRun_[r.run_name.str()] = ns;
            cpuPerRun_[r.run_name.str()] = cpu;
        }
        if (r.run_type == Run::RT_Aggregate)
            medians_.insert(r.run_name.str());
    }
}

void RatioReporter::printComparisons(const std::vector<Comparison> &rows,
                                     const std::function<std::vector<int>(std::string_view)> &sizesOf,
                                     int whatWidth)
{
    const int w = whatWidth;
    std::printf("%-*s %5s %10s %10s %8s %9s %14s %8s\n", w, "comparison", "size", "ours", "peer", "ratio",
                "cpu ratio", "target", "");
    for (const Comparison &row : rows) {
        for (int n : sizesOf(row.op)) {
            const double ours = lookup(row.op, row.ours, n);
            const double peer = lookup(row.op, row.peer, n);
            if (ours < 0 || peer <= 0) {
                std::printf("%-*s %5d %10s %10s %8s %9s %14s %8s\n", w, row.what, n, show(ours).c_str(),
                            show(peer).c_str(), "n/a", "n/a", target(row.limit).c_str(),
                            row.limit > 0 ? "NOT run" : "");
                if (row.limit > 0)
                    notRun_.push_back(std::string(row.what) + " at " + std::to_string(n));
                continue;
            }
            const double ratio = ours / peer;
            const double cpuPeer = lookup(row.op, row.peer, n, true);
            const double cpuRatio = cpuPeer > 0 ? lookup(row.op, row.ours, n, true) / cpuPeer : -1;
            const bool met = ratio <= row.limit;
            char r[32], c[32];
            std::snprintf(r, sizeof r, "%.3fx", ratio);
            std::snprintf(c, sizeof c, "%.3fx", cpuRatio);
            std::printf("%-*s %5d %10s %10s %8s %9s %14s %8s\n", w, row.what, n, show(ours).c_str(),
                        show(peer).c_str(), r, cpuRatio < 0 ? "n/a" : c, target(row.limit).c_str(),
                        row.limit <= 0 ? "" : met ? "met" : "NOT met");
            if (row.limit > 0 && !met)
                missed_.push_back(std::string(row.what) + " at " + std::to_string(n));
        }
    }
}

void RatioReporter::printGrowth(const std::vector<Growth> &rows, const std::vector<int> &sizes, GrowthStyle style)
{
    const int first = sizes.front(), last = sizes.back();
    const bool targets = std::any_of(rows.begin(), rows.end(), [](const Growth &g) { return g.limit > 0; });
    const std::string lastToFirst = std::to_string(last) + "/" + std::to_string(first);
    std::printf("%-10s %-14s", "operation", "side");
    if (style == GrowthStyle::Ratios) {
        std::printf(" %11s", ("at " + std::to_string(first)).c_str());
        for (std::size_t i = 1; i < sizes.size(); ++i)
            std::printf(" %9s", (std::to_string(sizes[i]) + "/" + std::to_string(first)).c_str());
    } else {
        for (int n : sizes)
            std::printf(" %11s", ("at " + std::to_string(n)).c_str());
        std::printf(" %9s %9s", lastToFirst.c_str(), "cpu ratio");
        if (targets)
            std::printf(" %14s %8s", "target", "");
    }
    std::printf("\n");

    for (const Growth &row : rows) {
        std::vector<double> t;
        for (int n : sizes)
            t.push_back(lookup(row.op, row.side, n));
        const bool missing = t.front() <= 0 || std::any_of(t.begin(), t.end(), [](double v) { return v < 0; });
        std::printf("%-10s %-14s", row.op, row.side);
        if (style == GrowthStyle::Ratios) {
            if (missing) {
                std::printf(" %11s\n", "n/a");
                continue;
            }
            std::printf(" %11s", show(t.front()).c_str());
            for (std::size_t i = 1; i < t.size(); ++i)
                std::printf(" %8.2fx", t[i] / t.front());
            std::printf("\n");
            continue;
        }
        for (double v : t)
            std::printf(" %11s", show(v).c_str());
        const std::string where = std::string(row.op) + " " + row.side + " " + lastToFirst;
        if (missing) {
            std::printf(" %9s %9s", "n/a", "n/a");
            if (row.limit > 0) {
                std::printf(" %14s %8s", target(row.limit).c_str(), "NOT run");
                notRun_.push_back(where);
            }
            std::printf("\n");
            continue;
        }
        const double ratio = t.back() / t.front();
        const double cpuFirst = lookup(row.op, row.side, first, true), cpuLast = lookup(row.op, row.side, last, true);
        std::printf(" %8.2fx", ratio);
        if (cpuFirst > 0 && cpuLast >= 0)
            std::printf(" %8.2fx", cpuLast / cpuFirst);
        else
            std::printf(" %9s", "n/a");
        if (row.limit > 0) {
            const bool met = ratio <= row.limit;
            std::printf(" %14s %8s", target(row.limit).c_str(), met ? "met" : "NOT met");
            if (!met)
                missed_.push_back(where);
        }
        std::printf("\n");
    }
}

void RatioReporter::printOutcome() const
{
    if (!errors_.empty()) {
        std::printf("\nSkipped:\n");
        for (const auto &[name, why] : errors_)
            std::printf("  %s: %s\n", name.c_str(), why.c_str());
    }
    std::printf("\nTargets not met: %zu\n", missed_.size());
    for (const auto &m : missed_)
        std::printf("  %s\n", m.c_str());
    if (!notRun_.empty()) {
        std::printf("Targets not measured (skipped or filtered out): %zu\n", notRun_.size());
        for (const auto &m : notRun_)
            std::printf("  %s\n", m.c_str());
    }
}

std::string RatioReporter::show(double ns)
{
    char s[32];
    if (ns < 0)
        return "-";
    if (ns < 1e6)
        std::snprintf(s, sizeof s, "%.1f us", ns / 1e3);
    else
        std::snprintf(s, sizeof s, "%.2f ms", ns / 1e6);
    return s;
}

std::string RatioReporter::target(double limit)
{
    char s[32];
    if (limit <= 0)
        return "-";
    if (limit >= 1)
        std::snprintf(s, sizeof s, "<= %.2fx", limit);
    else
        std::snprintf(s, sizeof s, ">= %.0fx faster", 1 / limit);
    return s;
}

double RatioReporter::lookup(std::string_view op, std::string_view side, int n, bool cpu) const
{
    // The registered name may carry suffixes such as "/repeats:3".
    const std::string prefix = benchName(op, side, n);
    for (const auto &[name, ns] : cpu ? cpuPerRun_ : perRun_)
        if (name == prefix || name.starts_with(prefix + "/"))
            return ns;
    return -1;
}

} // namespace kemo::bench
