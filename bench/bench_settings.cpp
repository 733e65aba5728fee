// The settings-file functions and programs next to what would otherwise do
// their jobs:
//   - reading one key of a "key=value" file (30, 300 and 3 000 keys, a key
//     near the end): KLIBFileGetKeyValue against a plain fgets scan, and
//     get_key_value against git config --get, crudini --get and augtool get;
//   - setting one key (a key in the middle): KLIBFileSetKeyValue against a
//     bare "write the whole file to a twin, fsync, rename, fsync the
//     directory" of the same file (and, for reference, the same job done
//     plainly: an fgets scan that replaces the line, then that rewrite), and
//     set_key_value against crudini --set, augtool set and git config;
//   - reading one section (near the end) of a 50-section smb.conf-like file:
//     KLIBFileGetSection against a hand-written reader into an
//     unordered_map, and kemoctl section against crudini, git config
//     --get-regexp and augtool print;
//   - the bare start-up of a process: an empty libc program, a program
//     linked against the library, git.
// Everything runs inside the appliance sandbox, in /var/lib/kemo-bench.
// After the usual console report a summary gives, for every comparison,
// both times, their ratio (ours / peer), the same ratio of CPU times (less
// disturbed by a busy machine) and whether the target is met, then how each
// cost grows with the size of the file.
#include "bench_util.hpp"
#include "kemo.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

using namespace kemo::bench;

constexpr int kSizes[] = {30, 300, 3000};
constexpr int kSections = 50;     // "global" and share01 .. share49
constexpr int kSectionSize = 50;  // the size column of the section rows
const std::string kDir = "/var/lib/kemo-bench";
const std::string kSection = "share47"; // second to last
constexpr double kMinTime = 0.2;        // in-process and fast programs
constexpr int kRepeats = 5;             // their median is reported
constexpr int kSlowIterations = 20;     // crudini and augtool: tens of ms each

// ------------------------------------------------------------ input files

std::string key(int i) { return "key" + std::to_string(i); }
std::string value(int i) { return "value-" + std::to_string(i); }
std::string readKey(int n) { return key(n - 2); } // near the end
std::string setKey(int n) { return key(n / 2); } // in the middle

std::string kvPath(int n) { return kDir + "/settings-" + std::to_string(n) + ".conf"; }
std::string gitKvPath(int n) { return kDir + "/settings-" + std::to_string(n) + ".gitconfig"; }
const std::string smbPath = kDir + "/smb.conf";          // tab-indented, as the appliance has it
const std::string smbFlatPath = kDir + "/smb-flat.conf"; // the same without indentation
const std::string smbGitPath = kDir + "/smb.gitconfig";  // the same in git's format

std::string kvContent(int n)
{
    std::string s = "# settings of the benchmark appliance\n";
    for (int i = 0; i < n; ++i)
        s += key(i) + "=" + value(i) + "\n";
    return s;
}

// The same keys under one section, as git wants them.
std::string gitKvContent(int n)
{
    std::string s = "# settings of the benchmark appliance\n[bench]\n";
    for (int i = 0; i < n; ++i)
        s.append("\t").append(key(i)).append(" = ").append(value(i)).append("\n");
    return s;
}

std::string sectionName(int i)
{
    char name[16];
    std::snprintf(name, sizeof name, "share%02d", i);
    return i == 0 ? "global" : name;
}

std::vector<std::pair<std::string, std::string>> sectionPairs(int i)
{
    if (i == 0)
        return {{"workgroup", "WORKGROUP"},  {"server string", "kemo appliance"},
                {"netbios name", "KEMO"},    {"security", "user"},
                {"map to guest", "Bad User"}, {"log level", "1"},
                {"max log size", "1000"},    {"load printers", "no"}};
    const std::string name = sectionName(i);
    return {{"comment", "Share number " + std::to_string(i)},
            {"path", "/share/" + name},
            {"browseable", "yes"},
            {"read only", i % 2 ? "no" : "yes"},
            {"guest ok", "no"},
            {"valid users", "@users admin"},
            {"create mask", "0664"},
            {"directory mask", "0775"}};
}

enum class SmbStyle { Tabbed, Flat, Git };

std::string smbContent(SmbStyle style)
{
    std::string s = "# file shares of the benchmark appliance\n";
    for (int i = 0; i < kSections; ++i) {
        s.append("[").append(sectionName(i)).append("]\n");
        for (auto [k, v] : sectionPairs(i)) {
            if (style == SmbStyle::Git) // git names have no blanks
                for (char &c : k)
                    if (c == ' ')
                        c = '-';
            s.append(style == SmbStyle::Flat ? "" : "\t").append(k).append(" = ").append(v).append("\n");
        }
    }
    return s;
}

// ------------------------------------------------------------ processes

Argv augtool(const std::string &lens, const std::string &path, std::vector<std::string> command,
             bool save = false)
{
    std::vector<std::string> a = {"augtool", "-L", "-r", "/", "--noautoload", "-t", lens + " incl " + path};
    if (save)
        a.push_back("--autosave");
    a.insert(a.end(), command.begin(), command.end());
    return Argv(std::move(a));
}

// ------------------------------------------------------------ in-process peers

// The plain way to read one value: fgets each line, split at "=", compare
// the key, stop at the first match.
int fgetsValue(const char *path, const char *wanted, char *out, std::size_t size)
{
    FILE *f = std::fopen(path, "r");
    if (f == nullptr)
        return -1;
    char line[4096];
    int found = 0;
    while (std::fgets(line, sizeof line, f) != nullptr) {
        if (line[0] == '#')
            continue;
        char *eq = std::strchr(line, '=');
        if (eq == nullptr)
            continue;
        *eq = '\0';
        if (std::strcmp(line, wanted) != 0)
            continue;
        char *v = eq + 1;
        v[std::strcspn(v, "\n")] = '\0';
        std::snprintf(out, size, "%s", v);
        found = 1;
        break;
    }
    std::fclose(f);
    return found;
}

std::string_view trimBlanks(std::string_view s)
{
    const auto b = s.find_first_not_of(" \t\r\n");
    if (b == std::string_view::npos)
        return {};
    return s.substr(b, s.find_last_not_of(" \t\r\n") - b + 1);
}

// A hand-written section reader: fgets each line, find "[name]", collect
// "key = value" pairs until the next header.
int readSection(const char *path, const std::string &name,
                std::unordered_map<std::string, std::string> &pairs)
{
    FILE *f = std::fopen(path, "r");
    if (f == nullptr)
        return -1;
    const std::string header = "[" + name + "]";
    char line[4096];
    bool inside = false;
    while (std::fgets(line, sizeof line, f) != nullptr) {
        if (line[0] == '[') {
            if (inside)
                break;
            inside = std::strncmp(line, header.c_str(), header.size()) == 0 &&
                     (line[header.size()] == '\n' || line[header.size()] == '\0');
            continue;
        }
        if (!inside || line[0] == '#' || line[0] == ';')
            continue;
        const std::string_view text(line);
        const auto eq = text.find('=');
        if (eq == std::string_view::npos)
            continue;
        pairs.insert_or_assign(std::string(trimBlanks(text.substr(0, eq))),
                               std::string(trimBlanks(text.substr(eq + 1))));
    }
    std::fclose(f);
    return static_cast<int>(pairs.size());
}

// The least a safe rewrite of a file does: the whole content to a twin,
// fsync, rename over the file, fsync the directory.
bool bareRewrite(const std::string &path, const std::string &content)
{
    const std::string twin = path + ".tmp";
    const int fd = ::open(twin.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            ::close(fd);
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    bool good = ::fsync(fd) == 0;
    good = ::close(fd) == 0 && good;
    good = good && ::rename(twin.c_str(), path.c_str()) == 0;
    const int dir = ::open(kDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    good = dir >= 0 && ::fsync(dir) == 0 && good;
    if (dir >= 0)
        ::close(dir);
    return good;
}

// The same job done plainly: fgets every line, replace the key's line, then
// the bare rewrite of the result.
bool scanRewrite(const std::string &path, const char *wanted, const char *newValue)
{
    FILE *f = std::fopen(path.c_str(), "r");
    if (f == nullptr)
        return false;
    const std::size_t length = std::strlen(wanted);
    std::string out;
    char line[4096];
    while (std::fgets(line, sizeof line, f) != nullptr) {
        if (line[0] != '#' && std::strncmp(line, wanted, length) == 0 && line[length] == '=')
            out.append(wanted).append("=").append(newValue).append("\n");
        else
            out.append(line);
    }
    std::fclose(f);
    return bareRewrite(path, out);
}

// ------------------------------------------------------------ in-process benchmarks

void getKemo(benchmark::State &state, int n)
{
    const std::string path = kvPath(n), k = readKey(n), expected = value(n - 2);
    writeWhole(path, kvContent(n));
    char buf[256];
    if (KLIBFileGetKeyValue(path.c_str(), k.c_str(), buf, sizeof buf, 0) <= 0 || buf != expected) {
        state.SkipWithError("KLIBFileGetKeyValue does not find the key");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(KLIBFileGetKeyValue(path.c_str(), k.c_str(), buf, sizeof buf, 0));
}

void getFgets(benchmark::State &state, int n)
{
    const std::string path = kvPath(n), k = readKey(n), expected = value(n - 2);
    writeWhole(path, kvContent(n));
    char buf[256];
    if (fgetsValue(path.c_str(), k.c_str(), buf, sizeof buf) != 1 || buf != expected) {
        state.SkipWithError("the fgets scan does not find the key");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(fgetsValue(path.c_str(), k.c_str(), buf, sizeof buf));
}

void setKemo(benchmark::State &state, int n)
{
    const std::string path = kvPath(n), k = setKey(n);
    writeWhole(path, kvContent(n));
    const char *values[] = {"new-value-a", "new-value-b"};
    char buf[64];
    if (KLIBFileSetKeyValue(path.c_str(), k.c_str(), values[0], nullptr) != 1 ||
        KLIBFileGetKeyValue(path.c_str(), k.c_str(), buf, sizeof buf, 0) <= 0 ||
        std::strcmp(buf, values[0]) != 0) {
        state.SkipWithError("KLIBFileSetKeyValue does not set the key");
        return;
    }
    std::size_t turn = 0;
    for (auto _ : state)
        if (KLIBFileSetKeyValue(path.c_str(), k.c_str(), values[turn++ & 1], nullptr) != 1) {
            state.SkipWithError("KLIBFileSetKeyValue failed");
            break;
        }
}

void setBare(benchmark::State &state, int n)
{
    const std::string path = kvPath(n), content = kvContent(n);
    writeWhole(path, content);
    for (auto _ : state)
        if (!bareRewrite(path, content)) {
            state.SkipWithError("the bare rewrite failed");
            break;
        }
}

void setScan(benchmark::State &state, int n)
{
    const std::string path = kvPath(n), k = setKey(n);
    writeWhole(path, kvContent(n));
    const char *values[] = {"new-value-a", "new-value-b"};
    char buf[64];
    if (!scanRewrite(path, k.c_str(), values[0]) || fgetsValue(path.c_str(), k.c_str(), buf, sizeof buf) != 1 ||
        std::strcmp(buf, values[0]) != 0) {
        state.SkipWithError("the scan and rewrite does not set the key");
        return;
    }
    std::size_t turn = 0;
    for (auto _ : state)
        if (!scanRewrite(path, k.c_str(), values[turn++ & 1])) {
            state.SkipWithError("the scan and rewrite failed");
            break;
        }
}

void sectionKemo(benchmark::State &state)
{
    PKLIBSZHASH hash = PshKLIBSzHashAlloc(0);
    const int expected = static_cast<int>(sectionPairs(1).size());
    if (KLIBFileGetSection(smbPath.c_str(), kSection.c_str(), &hash) != expected) {
        state.SkipWithError("KLIBFileGetSection does not read the section");
    } else {
        for (auto _ : state) {
            PslSzHashRemoveAll(hash);
            benchmark::DoNotOptimize(KLIBFileGetSection(smbPath.c_str(), kSection.c_str(), &hash));
        }
    }
    KLIBSzHashFree(hash);
}

void sectionMap(benchmark::State &state)
{
    std::unordered_map<std::string, std::string> pairs;
    const int expected = static_cast<int>(sectionPairs(1).size());
    if (readSection(smbPath.c_str(), kSection, pairs) != expected) {
        state.SkipWithError("the hand-written reader does not read the section");
        return;
    }
    for (auto _ : state) {
        pairs.clear();
        benchmark::DoNotOptimize(readSection(smbPath.c_str(), kSection, pairs));
    }
}


// ------------------------------------------------------------ report

std::vector<int> sizesOf(std::string_view op)
{
    if (op.starts_with("section"))
        return {kSectionSize};
    if (op == "startup")
        return {0};
    return {std::begin(kSizes), std::end(kSizes)};
}

void printSummary(RatioReporter &reporter, const std::string &where)
{
    std::printf("\nSummary (median wall-clock times; ratio = ours / peer; cpu ratio = the same for\n"
                "the CPU time of the program or call, which waiting for a CPU on a busy machine does\n"
                "not distort; targets are judged on the wall-clock ratio; size: keys in the file, or\n"
                "sections of the smb.conf-like file).\n%s\n\n",
                where.c_str());
    reporter.printComparisons(
        {
            {"get", "get: KLIBFileGetKeyValue / fgets scan", "kemo", "fgets", 1.0},
            {"get_proc", "get: get_key_value / git config --get", "get_key_value", "git", 1.0},
            {"get_proc", "get: get_key_value / crudini --get", "get_key_value", "crudini", 1 / 20.0},
            {"get_proc", "get: get_key_value / augtool get", "get_key_value", "augtool", 1 / 20.0},
            {"set", "set: KLIBFileSetKeyValue / bare rewrite", "kemo", "write", 1.25},
            {"set", "set: KLIBFileSetKeyValue / fgets+rewrite", "kemo", "scan_write", 0},
            {"set_proc", "set: set_key_value / crudini --set", "set_key_value", "crudini", 1 / 10.0},
            {"set_proc", "set: set_key_value / augtool set", "set_key_value", "augtool", 1 / 10.0},
            {"set_proc", "set: set_key_value / git config", "set_key_value", "git", 0},
            {"section", "section: KLIBFileGetSection / fgets+map", "kemo", "map", 0},
            {"section_proc", "section: kemoctl / crudini --get", "kemoctl", "crudini", 0},
            {"section_proc", "section: kemoctl / git --get-regexp", "kemoctl", "git", 0},
            {"section_proc", "section: kemoctl / augtool print", "kemoctl", "augtool", 0},
            {"startup", "start-up: libkemo program / empty C", "kemo_usage", "empty", 0},
            {"startup", "start-up: libkemo program / git", "kemo_usage", "git_version", 0},
        },
        sizesOf);

    std::printf("\nGrowth with the file size (time at 300 and 3 000 keys / time at 30 keys)\n\n");
    reporter.printGrowth(
        {
            {"get", "kemo"},
            {"get", "fgets"},
            {"get_proc", "get_key_value"},
            {"get_proc", "git"},
            {"get_proc", "crudini"},
            {"get_proc", "augtool"},
            {"set", "kemo"},
            {"set", "write"},
            {"set", "scan_write"},
            {"set_proc", "set_key_value"},
            {"set_proc", "git"},
            {"set_proc", "crudini"},
            {"set_proc", "augtool"},
        },
        {std::begin(kSizes), std::end(kSizes)}, RatioReporter::GrowthStyle::Ratios);
    reporter.printOutcome();
}

// ------------------------------------------------------------ registration

// In-process benchmarks and quick programs: repeated, median kept.
void quick(benchmark::internal::Benchmark *b, benchmark::TimeUnit unit)
{
    medianOf(b, kMinTime, kRepeats, unit);
}

// crudini and augtool: a fixed small number of runs.
bool slowProgram(const ProcCase &c)
{
    const std::string first = c.commands.front().file();
    return first == "crudini" || first == "augtool";
}

void registerProc(const std::string &id, ProcCase c)
{
    if (slowProgram(c))
        kemo::bench::registerProc(id, std::move(c), kSlowIterations, 1);
    else
        kemo::bench::registerProc(id, std::move(c), 0, kRepeats, kMinTime);
}

void registerAll()
{
    for (int n : kSizes) {
        const std::string kv = kvPath(n), git = gitKvPath(n), k = readKey(n), v = value(n - 2);
        auto resetKv = [kv, n] { writeWhole(kv, kvContent(n)); };
        auto resetGit = [git, n] { writeWhole(git, gitKvContent(n)); };
        quick(benchmark::RegisterBenchmark(benchName("get", "kemo", n).c_str(), getKemo, n), benchmark::kMicrosecond);
        quick(benchmark::RegisterBenchmark(benchName("get", "fgets", n).c_str(), getFgets, n), benchmark::kMicrosecond);

        const Argv ours({KEMO_BENCH_GET_KEY_VALUE, kv, k});
        registerProc(benchName("get_proc", "get_key_value", n), {{ours}, 0, resetKv, outputHas(ours, 0, v + "\n")});
        const Argv gitGet({"git", "config", "--file", git, "--get", "bench." + k});
        registerProc(benchName("get_proc", "git", n), {{gitGet}, 0, resetGit, outputHas(gitGet, 0, v + "\n")});
        // A file without a section header: crudini takes its keys under
        // the empty section name.
        const Argv crudiniGet({"crudini", "--get", kv, "", k});
        registerProc(benchName("get_proc", "crudini", n),
                     {{crudiniGet}, 0, resetKv, outputHas(crudiniGet, 0, v + "\n")});
        const Argv augGet = augtool("Simplevars", kv, {"get", "/files" + kv + "/" + k});
        registerProc(benchName("get_proc", "augtool", n), {{augGet}, 0, resetKv, outputHas(augGet, 0, "= " + v + "\n")});
    }

    for (int n : kSizes) {
        const std::string kv = kvPath(n), git = gitKvPath(n), k = setKey(n);
        const std::string stale = value(n / 2) + "\n";
        auto resetKv = [kv, n] { writeWhole(kv, kvContent(n)); };
        auto resetGit = [git, n] { writeWhole(git, gitKvContent(n)); };
        quick(benchmark::RegisterBenchmark(benchName("set", "kemo", n).c_str(), setKemo, n), benchmark::kMicrosecond);
        quick(benchmark::RegisterBenchmark(benchName("set", "write", n).c_str(), setBare, n), benchmark::kMicrosecond);
        quick(benchmark::RegisterBenchmark(benchName("set", "scan_write", n).c_str(), setScan, n),
              benchmark::kMicrosecond);

        auto pair = [](const std::function<Argv(const char *)> &make) {
            return std::vector<Argv>{make("new-value-a"), make("new-value-b")};
        };
        const auto ours = pair([&](const char *val) { return Argv({KEMO_BENCH_SET_KEY_VALUE, kv, k, val}); });
        registerProc(benchName("set_proc", "set_key_value", n),
                     {ours, 0, resetKv, fileChanged(ours[0], kv, "new-value-a", stale)});
        const auto crudiniSet = pair([&](const char *val) { return Argv({"crudini", "--set", kv, "", k, val}); });
        registerProc(benchName("set_proc", "crudini", n),
                     {crudiniSet, 0, resetKv, fileChanged(crudiniSet[0], kv, "new-value-a", stale)});
        const auto augSet = pair([&](const char *val) {
            return augtool("Simplevars", kv, {"set", "/files" + kv + "/" + k, val}, true);
        });
        registerProc(benchName("set_proc", "augtool", n),
                     {augSet, 0, resetKv, fileChanged(augSet[0], kv, "new-value-a", stale)});
        const auto gitSet = pair([&](const char *val) { return Argv({"git", "config", "--file", git, "bench." + k, val}); });
        registerProc(benchName("set_proc", "git", n),
                     {gitSet, 0, resetGit, fileChanged(gitSet[0], git, "new-value-a", stale)});
    }

    const std::string path = "/share/" + kSection;
    quick(benchmark::RegisterBenchmark(benchName("section", "kemo", kSectionSize).c_str(), sectionKemo),
          benchmark::kMicrosecond);
    quick(benchmark::RegisterBenchmark(benchName("section", "map", kSectionSize).c_str(), sectionMap),
          benchmark::kMicrosecond);
    const Argv kemoctl({KEMO_BENCH_KEMOCTL, "section", smbPath, kSection});
    registerProc(benchName("section_proc", "kemoctl", kSectionSize), {{kemoctl}, 0, {}, outputHas(kemoctl, 0, path)});
    // crudini takes an indented line for the continuation of the one before
    // it, so it reads the same file without the indentation; it lists the
    // keys of a section.
    const Argv crudiniSection({"crudini", "--get", smbFlatPath, kSection});
    registerProc(benchName("section_proc", "crudini", kSectionSize),
                 {{crudiniSection}, 0, {}, outputHas(crudiniSection, 0, "valid users\n")});
    const Argv gitSection({"git", "config", "--file", smbGitPath, "--get-regexp", "^" + kSection + "\\."});
    registerProc(benchName("section_proc", "git", kSectionSize), {{gitSection}, 0, {}, outputHas(gitSection, 0, path)});
    const Argv augSection =
        augtool("Samba", smbPath, {"print", "/files" + smbPath + "/target[. = '" + kSection + "']"});
    registerProc(benchName("section_proc", "augtool", kSectionSize),
                 {{augSection}, 0, {}, outputHas(augSection, 0, "/path = \"" + path + "\"")});

    // Bare start-up: the libkemo program with no arguments loads the
    // library (and what it needs), prints its usage and exits 2.
    const Argv kemoUsage({KEMO_BENCH_GET_KEY_VALUE});
    registerProc(benchName("startup", "kemo_usage", 0), {{kemoUsage}, 2, {}, outputHas(kemoUsage, 2, "usage")});
    const Argv empty({"true"});
    registerProc(benchName("startup", "empty", 0), {{empty}, 0, {}, {}});
    const Argv gitVersion({"git", "--version"});
    registerProc(benchName("startup", "git_version", 0), {{gitVersion}, 0, {}, outputHas(gitVersion, 0, "git version")});
}

bool prepare(std::string *why)
{
    if (::mkdir(kDir.c_str(), 0755) != 0 && errno != EEXIST) {
        *why = "cannot create " + kDir + ": " + std::strerror(errno);
        return false;
    }
    if (::chdir(kDir.c_str()) != 0) {
        *why = "cannot enter " + kDir + ": " + std::strerror(errno);
        return false;
    }
    bool ok = writeWhole(smbPath, smbContent(SmbStyle::Tabbed)) &&
              writeWhole(smbFlatPath, smbContent(SmbStyle::Flat)) &&
              writeWhole(smbGitPath, smbContent(SmbStyle::Git));
    for (int n : kSizes)
        ok = ok && writeWhole(kvPath(n), kvContent(n)) && writeWhole(gitKvPath(n), gitKvContent(n));
    if (!ok)
        *why = "cannot write the input files in " + kDir;
    return ok;
}

} // namespace

int main(int argc, char **argv)
{
    if (!enterSandbox("bench_settings"))
        return 1;
    std::string why;
    if (!prepare(&why)) {
        std::fprintf(stderr, "bench_settings: %s\n", why.c_str());
        return 1;
    }

    registerAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    const std::string where = describePlace("Files in " + kDir, kDir);
    std::printf("%s\nFile sizes: %zu, %zu and %zu bytes (30, 300, 3 000 keys); smb.conf-like file %zu bytes "
                "(%d sections of 8 keys).\n\n",
                where.c_str(), kvContent(30).size(), kvContent(300).size(), kvContent(3000).size(),
                smbContent(SmbStyle::Tabbed).size(), kSections);
    printBuildNote();
    std::fflush(stdout);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printSummary(reporter, where);
    benchmark::Shutdown();
    return 0;
}
