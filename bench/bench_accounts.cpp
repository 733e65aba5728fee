// The user functions next to the tools an administrator would otherwise
// run, each pair on the same account files in the same run:
//   - a batch of 1 000 new users in one call: KEMOUserSet against newusers
//     (1 000 lines on standard input), and against chpasswd -c MD5 setting
//     the same 1 000 passwords on 1 000 existing users (the floor: the same
//     MD5-crypt hashing with one rewrite of the shadow file);
//   - 200 users created one call each: KEMOUserSet against useradd;
//   - enumerating the users: KEMOUserEnum (size query + fill) against
//     getent passwd, with an in-process getpwent loop for reference;
//   - 200 users deleted one call each: KEMOUserDelete against userdel;
//   - growth: one create, one delete and one enumeration with 100, 500 and
//     2 000 existing users.
// Everything runs inside the appliance sandbox.  The account files are put
// back to the state a benchmark starts from before every repetition (and,
// for the growth benchmarks, before every call), outside the timed part.
// After the usual console report a summary gives, for every comparison,
// both times, their ratio (ours / peer), the ratio of CPU times and whether
// the target is met, then the growth table.
#include "bench_util.hpp"
#include "kemo.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using namespace kemo::bench;

constexpr int kBatch = 1000;                   // users in the one-call batch
constexpr int kSeries = 200;                   // users created / deleted one call each
constexpr int kExisting[] = {100, 500, 2000};  // existing users of the growth benchmarks
constexpr int kFirstNewUid = 1026;             // the uid the library hands out first (after guest)
constexpr int kSeedUid = 3000;                 // existing users of the growth benchmarks: 3000 up
constexpr double kMinTime = 0.2;               // in-process calls and getent
constexpr int kRepeats = 5;                    // their median is reported
constexpr int kBatchRepeats = 3;               // a batch takes a good part of a second
constexpr int kSeriesRepeats = 3;              // our 200 creates or deletes
constexpr int kPeerSeriesRepeats = 1;          // 200 runs of useradd or userdel: seconds
constexpr int kGrowthCalls = 30;               // our single creates and deletes per repetition
constexpr int kPeerGrowthCalls = 10;           // useradd / userdel at each size
const std::string kDir = "/var/lib/kemo-bench";
const std::string kNewusersInput = kDir + "/newusers.txt";
const std::string kChpasswdInput = kDir + "/chpasswd.txt";
const char kNewcomer[] = "newcomer";           // the user the growth benchmarks create
const char kPamPassword[] = "/etc/pam.d/common-password";
const char kDefaults[] = "/etc.defaults/kemoinfo.conf";

// ------------------------------------------------------------ names

std::string numbered(const char *prefix, int i)
{
    char s[32];
    std::snprintf(s, sizeof s, "%s%04d", prefix, i);
    return s;
}

std::string batchName(int i) { return numbered("batch", i); } // 1 .. kBatch
std::string batchPassword(int i) { return numbered("Pass-", i); }
std::string seriesName(int i) { return numbered("user", i); } // 1 .. kSeries
std::string seedName(int i) { return numbered("seed", i); }   // 1 .. n existing
std::string middleSeed(int n) { return seedName(n / 2); }     // the one a growth delete removes

// ------------------------------------------------------------ account files

// Every file the library or a peer tool changes, as a benchmark must find
// it again; a file absent in a state is removed on restore.
const char *const kAccountFiles[] = {
    "/etc/passwd", "/etc/shadow", "/usr/kemo/etc/private/smbpasswd", "/etc/group", "/etc/gshadow",
    "/usr/kemo/etc/smb.conf", "/etc/mail", "/etc/curUID.conf", "/etc/.accounts.commit",
};

struct FileImage {
    std::string path;
    bool present = false;
    std::string content;
    struct stat st {};
};

// A state of the account files.
class AccountState {
public:
    static AccountState capture()
    {
        AccountState s;
        for (const char *path : kAccountFiles) {
            FileImage f;
            f.path = path;
            f.present = ::stat(path, &f.st) == 0;
            if (f.present)
                f.content = readWhole(path);
            s.files_.push_back(std::move(f));
        }
        return s;
    }

    const std::string &content(std::string_view path) const { return find(path).content; }

    // The same state with more lines at the end of a file.
    AccountState appended(std::string_view path, const std::string &lines) const
    {
        AccountState s = *this;
        FileImage &f = s.find(path);
        if (!f.content.empty() && f.content.back() != '\n')
            f.content += '\n';
        f.content += lines;
        return s;
    }

    // Puts every file back: content, mode and owner.  false when a file
    // could not be written.
    bool restore() const
    {
        bool good = true;
        for (const FileImage &f : files_) {
            ::unlink((f.path + ".tmp").c_str());
            if (!f.present) {
                good = (::unlink(f.path.c_str()) == 0 || errno == ENOENT) && good;
                continue;
            }
            const int fd = ::open(f.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            if (fd < 0) {
                good = false;
                continue;
            }
            std::size_t done = 0;
            while (done < f.content.size()) {
                const ssize_t n = ::write(fd, f.content.data() + done, f.content.size() - done);
                if (n < 0 && errno == EINTR)
                    continue;
                if (n <= 0)
                    break;
                done += static_cast<std::size_t>(n);
            }
            good = done == f.content.size() && ::fchmod(fd, f.st.st_mode & 07777) == 0 &&
                   ::fchown(fd, f.st.st_uid, f.st.st_gid) == 0 && good;
            good = ::close(fd) == 0 && good;
        }
        return good;
    }

private:
    const FileImage &find(std::string_view path) const
    {
        for (const FileImage &f : files_)
            if (f.path == path)
                return f;
        std::fprintf(stderr, "bench_accounts: %.*s is not an account file of the benchmark\n",
                     static_cast<int>(path.size()), path.data());
        std::abort();
    }
    FileImage &find(std::string_view path)
    {
        return const_cast<FileImage &>(std::as_const(*this).find(path));
    }

    std::vector<FileImage> files_;
};

// Where the line of account `name` begins in a ':'-separated file, or npos.
std::size_t lineOf(const std::string &content, const std::string &name)
{
    const std::string head = name + ":";
    if (content.starts_with(head))
        return 0;
    const std::size_t at = content.find("\n" + head);
    return at == std::string::npos ? at : at + 1;
}

bool hasUser(const std::string &content, const std::string &name)
{
    return lineOf(content, name) != std::string::npos;
}

// Field `field` (0 = the name) of the line of `name`; "" when none.
std::string fieldOf(const std::string &content, const std::string &name, int field)
{
    const std::size_t at = lineOf(content, name);
    if (at == std::string::npos)
        return {};
    const std::string line = content.substr(at, content.find('\n', at) - at);
    std::size_t begin = 0;
    for (int i = 0; i < field; ++i) {
        begin = line.find(':', begin);
        if (begin == std::string::npos)
            return {};
        ++begin;
    }
    return line.substr(begin, line.find(':', begin) - begin);
}

// The states the benchmarks start from: the factory accounts, plus users
// in the three account files as the library writes them (all with admin's
// hashes, which are valid).
struct States {
    AccountState factory;
    AccountState batchDone;            // + the kBatch batch users, uids from 1026
    AccountState seriesDone;           // + the kSeries series users, uids from 1026
    std::vector<AccountState> grown;   // + kExisting[i] seed users, uids from 3000
    std::string seedHash;              // the shadow hash of every added user

    const AccountState &existing(int n) const
    {
        for (std::size_t i = 0; i < std::size(kExisting); ++i)
            if (kExisting[i] == n)
                return grown[i];
        return factory;
    }
};

States *states = nullptr;

AccountState addUsers(const AccountState &base, int count, std::string (*name)(int), int firstUid)
{
    const std::string shadowHash = fieldOf(base.content("/etc/shadow"), "admin", 1);
    const std::string smbHashes = fieldOf(base.content("/usr/kemo/etc/private/smbpasswd"), "admin", 2) + ":" +
                                  fieldOf(base.content("/usr/kemo/etc/private/smbpasswd"), "admin", 3);
    const std::string lastChange = std::to_string(std::time(nullptr) / 86400);
    std::string passwd, shadow, smbpasswd;
    for (int i = 1; i <= count; ++i) {
        const std::string n = name(i), uid = std::to_string(firstUid + i - 1);
        passwd += n + ":x:" + uid + ":100::/:/bin/csh\n";
        shadow += n + ":" + shadowHash + ":" + lastChange + ":0:99999:7:::\n";
        smbpasswd += n + ":" + uid + ":" + smbHashes + ":[U          ]:LCT-4B3D3B00:\n";
    }
    return base.appended("/etc/passwd", passwd)
        .appended("/etc/shadow", shadow)
        .appended("/usr/kemo/etc/private/smbpasswd", smbpasswd);
}

// Restores a state, or stops the benchmark with the reason.
bool restore(benchmark::State &state, const AccountState &accounts)
{
    if (accounts.restore())
        return true;
    state.SkipWithError("cannot restore the account files");
    return false;
}

void restoreOrDie(const AccountState &accounts)
{
    if (!accounts.restore()) {
        std::fprintf(stderr, "bench_accounts: cannot restore the account files\n");
        std::exit(1);
    }
}

// ------------------------------------------------------------ our side

// Requests for KEMOUserSet with the texts they point to.
class Requests {
public:
    void add(std::string name, std::string password)
    {
        names_.push_back(std::move(name));
        passwords_.push_back(std::move(password));
    }
    // Valid until the next add().
    std::vector<KEMOUSERSET> build() const
    {
        std::vector<KEMOUSERSET> out;
        for (std::size_t i = 0; i < names_.size(); ++i)
            out.push_back(KEMOUSERSET{KEMO_ACCOUNT_LOCAL, nullptr, names_[i].c_str(), passwords_[i].c_str(), "",
                                      0, nullptr});
        return out;
    }

private:
    std::vector<std::string> names_, passwords_;
};

std::string failure(const char *what, int rc)
{
    char s[160];
    std::snprintf(s, sizeof s, "%s returned %d (error 0x%X)", what, rc, static_cast<unsigned>(KLIBErrGet()));
    return s;
}

void batchKemo(benchmark::State &state)
{
    Requests r;
    for (int i = 1; i <= kBatch; ++i)
        r.add(batchName(i), batchPassword(i));
    const std::vector<KEMOUSERSET> users = r.build();
    if (!restore(state, states->factory))
        return;
    for (auto _ : state) {
        const int rc = KEMOUserSet(KEMO_ACCOUNT_LOCAL, users.data(), kBatch);
        if (rc != 0) {
            state.SkipWithError(failure("KEMOUserSet", rc).c_str());
            return;
        }
    }
    if (!hasUser(readWhole("/etc/passwd"), batchName(kBatch)))
        state.SkipWithError("KEMOUserSet did not create the batch");
}

void createKemo(benchmark::State &state)
{
    Requests r;
    for (int i = 1; i <= kSeries; ++i)
        r.add(seriesName(i), batchPassword(i));
    const std::vector<KEMOUSERSET> users = r.build();
    if (!restore(state, states->factory))
        return;
    std::size_t turn = 0;
    for (auto _ : state) {
        const int rc = KEMOUserSet(KEMO_ACCOUNT_LOCAL, &users[turn++ % users.size()], 1);
        if (rc != 0) {
            state.SkipWithError(failure("KEMOUserSet", rc).c_str());
            return;
        }
    }
    if (!hasUser(readWhole("/etc/passwd"), seriesName(static_cast<int>(turn))))
        state.SkipWithError("KEMOUserSet did not create the users");
}

void deleteKemo(benchmark::State &state)
{
    std::vector<std::string> names;
    for (int i = 1; i <= kSeries; ++i)
        names.push_back(seriesName(i));
    if (!restore(state, states->seriesDone))
        return;
    std::size_t turn = 0;
    for (auto _ : state) {
        const char *name = names[turn++ % names.size()].c_str();
        const int rc = KEMOUserDelete(&name, 1);
        if (rc != 1) {
            state.SkipWithError(failure("KEMOUserDelete", rc).c_str());
            return;
        }
    }
    if (hasUser(readWhole("/etc/passwd"), seriesName(1)))
        state.SkipWithError("KEMOUserDelete did not delete the users");
}

// One create with n existing users; the files are put back before every
// call.
void createAtKemo(benchmark::State &state, int n)
{
    const AccountState &start = states->existing(n);
    const KEMOUSERSET user{KEMO_ACCOUNT_LOCAL, nullptr, kNewcomer, "Pass-new", "", 0, nullptr};
    for (auto _ : state) {
        state.PauseTiming();
        const bool restored = restore(state, start);
        state.ResumeTiming();
        if (!restored)
            return;
        const int rc = KEMOUserSet(KEMO_ACCOUNT_LOCAL, &user, 1);
        if (rc != 0) {
            state.SkipWithError(failure("KEMOUserSet", rc).c_str());
            return;
        }
    }
}

void deleteAtKemo(benchmark::State &state, int n)
{
    const AccountState &start = states->existing(n);
    const std::string victim = middleSeed(n);
    const char *name = victim.c_str();
    for (auto _ : state) {
        state.PauseTiming();
        const bool restored = restore(state, start);
        state.ResumeTiming();
        if (!restored)
            return;
        const int rc = KEMOUserDelete(&name, 1);
        if (rc != 1) {
            state.SkipWithError(failure("KEMOUserDelete", rc).c_str());
            return;
        }
    }
}

// The two calls a caller makes: the size, then the names.
void enumKemo(benchmark::State &state, int n)
{
    if (!restore(state, states->existing(n)))
        return;
    std::vector<char *> buffer;
    auto enumerate = [&buffer] {
        int needed = 0;
        if (KEMOUserEnum(0, nullptr, 0, &needed) != 0)
            return -1;
        buffer.resize((static_cast<std::size_t>(needed) + sizeof(char *) - 1) / sizeof(char *));
        return KEMOUserEnum(0, buffer.data(), needed, &needed);
    };
    const int found = enumerate();
    if (found < n) {
        state.SkipWithError(failure("KEMOUserEnum", found).c_str());
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(enumerate());
}

// For reference: the C library's own walk over the account database, each
// name copied out as an enumeration would.
void enumGetpwent(benchmark::State &state, int n)
{
    if (!restore(state, states->existing(n)))
        return;
    std::vector<std::string> names;
    auto walk = [&names] {
        names.clear();
        setpwent();
        while (const passwd *pw = getpwent())
            names.emplace_back(pw->pw_name);
        endpwent();
        return names.size();
    };
    if (walk() < static_cast<std::size_t>(n)) {
        state.SkipWithError("getpwent does not see the users");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(walk());
}

// ------------------------------------------------------------ peer checks

// check() of a program that changes the account files: after its first
// command `ok` accepts the files.
std::function<std::string()> accountsAfter(const Argv &argv,
                                           std::function<std::string(const std::string &, const std::string &)> ok)
{
    return [argv, ok] {
        std::string out;
        const int rc = runCapture(argv, &out);
        if (rc != 0)
            return argv.text() + ": exit status " + std::to_string(rc) + ": " + out;
        const std::string why = ok(readWhole("/etc/passwd"), readWhole("/etc/shadow"));
        return why.empty() ? why : argv.text() + ": " + why;
    };
}

// ------------------------------------------------------------ registration

void registerAll()
{
    const States &s = *states;

    // A batch of kBatch new users.
    fixedRuns(benchmark::RegisterBenchmark(benchName("batch", "kemo", kBatch).c_str(), batchKemo), 1,
              kBatchRepeats, benchmark::kMillisecond);
    const std::string lastBatch = batchName(kBatch);
    const std::string lastUid = std::to_string(kFirstNewUid + kBatch - 1);
    registerProc(benchName("batch", "newusers", kBatch),
                 {{Argv({"newusers"}, kNewusersInput)},
                  0,
                  [&s] { restoreOrDie(s.factory); },
                  accountsAfter(Argv({"newusers"}, kNewusersInput),
                                [lastBatch, lastUid](const std::string &passwd, const std::string &shadow) {
                                    if (fieldOf(passwd, lastBatch, 2) != lastUid)
                                        return lastBatch + " did not get uid " + lastUid;
                                    if (!fieldOf(shadow, lastBatch, 1).starts_with("$1$"))
                                        return "the password of " + lastBatch + " is not an MD5-crypt hash";
                                    return std::string();
                                }),
                  {}},
                 1, kBatchRepeats);
    const Argv chpasswd({"chpasswd", "-c", "MD5"}, kChpasswdInput);
    const std::string seedHash = s.seedHash;
    registerProc(benchName("batch", "chpasswd", kBatch),
                 {{chpasswd},
                  0,
                  [&s] { restoreOrDie(s.batchDone); },
                  accountsAfter(chpasswd,
                                [lastBatch, seedHash](const std::string &, const std::string &shadow) {
                                    const std::string hash = fieldOf(shadow, lastBatch, 1);
                                    if (!hash.starts_with("$1$") || hash == seedHash)
                                        return "the password of " + lastBatch + " did not change to MD5-crypt";
                                    return std::string();
                                }),
                  {}},
                 1, kBatchRepeats);

    // kSeries users created one call each.
    fixedRuns(benchmark::RegisterBenchmark(benchName("create", "kemo", kSeries).c_str(), createKemo), kSeries,
              kSeriesRepeats, benchmark::kMicrosecond);
    std::vector<Argv> useradds;
    for (int i = 1; i <= kSeries; ++i)
        useradds.push_back(Argv({"useradd", "-M", "-N", "-g", "users", seriesName(i)}));
    const std::string first = seriesName(1);
    registerProc(benchName("create", "useradd", kSeries),
                 {useradds, 0, [&s] { restoreOrDie(s.factory); },
                  accountsAfter(useradds.front(),
                                [first](const std::string &passwd, const std::string &) {
                                    return hasUser(passwd, first) ? std::string() : first + " was not created";
                                }),
                  {}},
                 kSeries, kPeerSeriesRepeats);

    // Enumeration (and its growth).
    for (int n : kExisting) {
        medianOf(benchmark::RegisterBenchmark(benchName("enum", "kemo", n).c_str(), enumKemo, n), kMinTime, kRepeats,
                 benchmark::kMicrosecond);
        const Argv getent({"getent", "passwd"});
        registerProc(benchName("enum", "getent", n),
                     {{getent}, 0, [&s, n] { restoreOrDie(s.existing(n)); },
                      outputHas(getent, 0, "\n" + seedName(n) + ":"), {}},
                     0, kRepeats, kMinTime);
        medianOf(benchmark::RegisterBenchmark(benchName("enum", "getpwent", n).c_str(), enumGetpwent, n), kMinTime,
                 kRepeats, benchmark::kMicrosecond);
    }

    // kSeries users deleted one call each.
    fixedRuns(benchmark::RegisterBenchmark(benchName("delete", "kemo", kSeries).c_str(), deleteKemo), kSeries,
              kSeriesRepeats, benchmark::kMicrosecond);
    std::vector<Argv> userdels;
    for (int i = 1; i <= kSeries; ++i)
        userdels.push_back(Argv({"userdel", seriesName(i)}));
    registerProc(benchName("delete", "userdel", kSeries),
                 {userdels, 0, [&s] { restoreOrDie(s.seriesDone); },
                  accountsAfter(userdels.front(),
                                [first](const std::string &passwd, const std::string &) {
                                    return hasUser(passwd, first) ? first + " was not deleted" : std::string();
                                }),
                  {}},
                 kSeries, kPeerSeriesRepeats);

    // One create and one delete among n existing users.
    for (int n : kExisting) {
        const AccountState *start = &s.existing(n);
        fixedRuns(benchmark::RegisterBenchmark(benchName("create_at", "kemo", n).c_str(), createAtKemo, n),
                  kGrowthCalls, kSeriesRepeats, benchmark::kMicrosecond);
        const Argv useradd({"useradd", "-M", "-N", "-g", "users", kNewcomer});
        registerProc(benchName("create_at", "useradd", n),
                     {{useradd}, 0, [start] { restoreOrDie(*start); },
                      accountsAfter(useradd,
                                    [](const std::string &passwd, const std::string &) {
                                        return hasUser(passwd, kNewcomer) ? std::string()
                                                                          : std::string(kNewcomer) + " was not created";
                                    }),
                      [start] { restoreOrDie(*start); }},
                     kPeerGrowthCalls, 1);

        fixedRuns(benchmark::RegisterBenchmark(benchName("delete_at", "kemo", n).c_str(), deleteAtKemo, n),
                  kGrowthCalls, kSeriesRepeats, benchmark::kMicrosecond);
        const std::string victim = middleSeed(n);
        const Argv userdel({"userdel", victim});
        registerProc(benchName("delete_at", "userdel", n),
                     {{userdel}, 0, [start] { restoreOrDie(*start); },
                      accountsAfter(userdel,
                                    [victim](const std::string &passwd, const std::string &) {
                                        return hasUser(passwd, victim) ? victim + " was not deleted" : std::string();
                                    }),
                      [start] { restoreOrDie(*start); }},
                     kPeerGrowthCalls, 1);
    }
}

// ------------------------------------------------------------ report

std::vector<int> sizesOf(std::string_view op)
{
    if (op == "batch")
        return {kBatch};
    if (op == "create" || op == "delete")
        return {kSeries};
    return {std::begin(kExisting), std::end(kExisting)};
}

void printSummary(RatioReporter &reporter, const std::string &where)
{
    std::printf("\nSummary (median wall-clock times per call; ratio = ours / peer; cpu ratio = the same\n"
                "for the CPU time of the program or call, which waiting for a CPU on a busy machine does\n"
                "not distort; targets are judged on the wall-clock ratio; size: users in the batch, users\n"
                "created or deleted one call each, else users that exist).\n%s\n\n",
                where.c_str());
    reporter.printComparisons(
        {
            {"batch", "batch: KEMOUserSet / newusers", "kemo", "newusers", 1 / 10.0},
            {"batch", "batch: KEMOUserSet / chpasswd -c MD5", "kemo", "chpasswd", 2.0},
            {"create", "create one: KEMOUserSet / useradd", "kemo", "useradd", 1 / 5.0},
            {"enum", "enumerate: KEMOUserEnum / getent passwd", "kemo", "getent", 0},
            {"enum", "enumerate: KEMOUserEnum / getpwent loop", "kemo", "getpwent", 0},
            {"delete", "delete one: KEMOUserDelete / userdel", "kemo", "userdel", 1 / 5.0},
            {"create_at", "create among n users: KEMOUserSet / useradd", "kemo", "useradd", 0},
            {"delete_at", "delete among n users: KEMOUserDelete / userdel", "kemo", "userdel", 0},
        },
        sizesOf, 46);

    std::printf("\nGrowth with the number of existing users (time of one call; create_at and delete_at put\n"
                "the files back before every call; the target: one create stays flat)\n\n");
    reporter.printGrowth(
        {
            {"create_at", "kemo", 1.5},
            {"create_at", "useradd"},
            {"delete_at", "kemo"},
            {"delete_at", "userdel"},
            {"enum", "kemo"},
            {"enum", "getent"},
            {"enum", "getpwent"},
        },
        {std::begin(kExisting), std::end(kExisting)}, RatioReporter::GrowthStyle::CostsAndRatio);
    reporter.printOutcome();
}

// ------------------------------------------------------------ preparation

// Rewrites a text file line by line; false when it cannot be read or
// written.
bool editLines(const std::string &path, const std::function<std::string(const std::string &)> &edit)
{
    struct stat st;
    if (::stat(path.c_str(), &st) != 0)
        return false;
    const std::string old = readWhole(path);
    std::string fresh;
    std::size_t begin = 0;
    while (begin < old.size()) {
        std::size_t end = old.find('\n', begin);
        end = end == std::string::npos ? old.size() : end + 1;
        const std::string line = old.substr(begin, end - begin);
        fresh += edit(line);
        begin = end;
    }
    return writeWhole(path, fresh);
}

// newusers sets passwords through PAM: its pam_unix line gets "md5" in
// place of the stronger default hash, so that it computes the hash the
// library computes.
bool pamToMd5(std::string *why)
{
    bool found = false;
    const bool written = editLines(kPamPassword, [&found](const std::string &line) {
        if (line.find("pam_unix.so") == std::string::npos || line.starts_with("#"))
            return line;
        found = true;
        std::string out;
        std::size_t begin = 0;
        bool hashed = false;
        while (begin < line.size()) {
            const std::size_t space = line.find_first_of(" \t\n", begin);
            const std::size_t end = space == std::string::npos ? line.size() : space;
            const std::string word = line.substr(begin, end - begin);
            const bool hash = word == "yescrypt" || word == "gost_yescrypt" || word == "sha512" ||
                              word == "sha256" || word == "blowfish" || word == "bcrypt" || word == "md5";
            if (hash && !hashed)
                out += "md5";
            else if (!hash)
                out += word;
            hashed = hashed || hash;
            if (end < line.size())
                out += line[end];
            begin = end + 1;
        }
        if (!hashed)
            out.insert(out.find_last_not_of('\n') + 1, " md5");
        return out;
    });
    if (!written || !found)
        *why = std::string(written ? "no pam_unix line in " : "cannot rewrite ") + kPamPassword;
    return written && found;
}

bool prepare(std::string *why)
{
    if (::mkdir(kDir.c_str(), 0755) != 0 && errno != EEXIST) {
        *why = "cannot create " + kDir + ": " + std::strerror(errno);
        return false;
    }
    // The library hands out no subordinate ids: newusers and useradd
    // should not either.
    ::unlink("/etc/subuid");
    ::unlink("/etc/subgid");
    if (!pamToMd5(why))
        return false;
    // Room for 2 000 existing users and more (a larger model).
    if (!editLines(kDefaults, [](const std::string &line) {
            return line.starts_with("maxaccounts=") ? std::string("maxaccounts=\"8192\"\n") : line;
        })) {
        *why = std::string("cannot rewrite ") + kDefaults;
        return false;
    }

    static States s;
    s.factory = AccountState::capture();
    s.seedHash = fieldOf(s.factory.content("/etc/shadow"), "admin", 1);
    if (!s.seedHash.starts_with("$1$")) {
        *why = "the factory shadow file has no MD5-crypt hash for admin";
        return false;
    }
    s.batchDone = addUsers(s.factory, kBatch, batchName, kFirstNewUid);
    s.seriesDone = addUsers(s.factory, kSeries, seriesName, kFirstNewUid);
    for (int n : kExisting)
        s.grown.push_back(addUsers(s.factory, n, seedName, kSeedUid));
    states = &s;

    // The same users with the same passwords, uids and home as the
    // library gives them: "/" exists, so newusers creates no home.
    std::string newusers, chpasswd;
    for (int i = 1; i <= kBatch; ++i) {
        newusers += batchName(i) + ":" + batchPassword(i) + ":" + std::to_string(kFirstNewUid + i - 1) +
                    ":100::/:/bin/csh\n";
        chpasswd += batchName(i) + ":" + batchPassword(i) + "\n";
    }
    if (!writeWhole(kNewusersInput, newusers) || !writeWhole(kChpasswdInput, chpasswd)) {
        *why = "cannot write the input files in " + kDir;
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    if (!enterSandbox("bench_accounts"))
        return 1;
    std::string why;
    if (!prepare(&why)) {
        std::fprintf(stderr, "bench_accounts: %s\n", why.c_str());
        return 1;
    }

    registerAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    const std::string where = describePlace("Account files in /etc and /usr/kemo/etc", "/etc");
    std::printf("%s\nPeers: the system's shadow tools; newusers hashes through PAM, whose pam_unix is set to\n"
                "MD5-crypt in the sandbox (the library's hash); no subordinate ids; homes exist (\"/\") or\n"
                "are not made (-M).  Existing users of the growth benchmarks have uids from %d up.\n\n",
                where.c_str(), kSeedUid);
    printBuildNote();
    std::fflush(stdout);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printSummary(reporter, where);
    benchmark::Shutdown();
    return 0;
}
