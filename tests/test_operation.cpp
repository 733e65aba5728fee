// The registry of running operations: the category rules, the segment's
// exact layout, refusals and waits as other processes see them, dead owners,
// the lock, unregister and transfer, and what an unprivileged user can do.
#include "kemo.h"
#include "as_nobody.hpp"
#include "sandbox_fixture.hpp"
#include "syslog_capture.hpp"

#include <endian.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/shm.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <numeric>

namespace {

using ::testing::AllOf;
using ::testing::Ge;
using ::testing::Lt;
using Entries = std::vector<std::pair<int, int>>; // (id, pid) in table order
constexpr const char *lock_path = KEMO_OP_LOCK_PATH;
constexpr int unset = -7; // conflict slots the library must not write

class Registry : public SandboxTest {};
class RegistryAttack : public SandboxTest {};

// "kind owner mode links" of the file at path.
std::string owners(const char *path)
{
    const struct stat st = stat_of(path);
    char text[64];
    std::snprintf(text, sizeof text, "%s %u %o %u", S_ISREG(st.st_mode) ? "file" : "other", unsigned(st.st_uid),
                  unsigned(st.st_mode & 07777), unsigned(st.st_nlink));
    return text;
}

long ms_since(std::chrono::steady_clock::time_point t0)
{
    return long(std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count());
}

// The registry segment as it stands, read under its lock: its id, "owner
// creator mode size", and its 33 words.  With `replace`, the table is first
// made to hold those entries (a state that other processes made).
struct Segment {
    int shmid = ::shmget(KEMO_OP_KEY, 0, 0);
    std::string owners;
    std::vector<uint32_t> words = std::vector<uint32_t>(33);
    Entries entries() const
    {
        Entries out;
        for (uint32_t i = 0; i < std::min<uint32_t>(words[0], 16); ++i)
            out.emplace_back(int(words[1 + 2 * i]), int(words[2 + 2 * i]));
        return out;
    }
};

Segment segment(const Entries *replace = nullptr)
{
    Segment s;
    struct shmid_ds ds {};
    const int lock = ::open(lock_path, O_RDWR | O_CLOEXEC);
    auto *mem = static_cast<uint32_t *>(::shmat(s.shmid, nullptr, 0));
    if (::shmctl(s.shmid, IPC_STAT, &ds) != 0 || mem == reinterpret_cast<uint32_t *>(-1) || ::flock(lock, LOCK_EX)) {
        ADD_FAILURE() << "no registry segment or lock: " << std::strerror(errno);
        return s;
    }
    char text[64];
    std::snprintf(text, sizeof text, "%u %u %o %zu", unsigned(ds.shm_perm.uid), unsigned(ds.shm_perm.cuid),
                  unsigned(ds.shm_perm.mode & 0777), size_t(ds.shm_segsz));
    s.owners = text;
    if (replace != nullptr) {
        std::fill(mem, mem + 33, 0);
        mem[0] = htobe32(uint32_t(replace->size()));
        for (std::size_t i = 0; i < replace->size(); ++i) {
            mem[1 + 2 * i] = htobe32(uint32_t((*replace)[i].first));
            mem[2 + 2 * i] = htobe32(uint32_t((*replace)[i].second));
        }
    }
    for (int i = 0; i < 33; ++i)
        s.words[i] = be32toh(mem[i]);
    ::shmdt(mem);
    ::close(lock);
    return s;
}

struct Outcome {
    int result = -9, count = -9, error = 0;
    int conflicts[16];
};

// "result count: ids copied" (sorted), to compare in one line.
std::string summary(const Outcome &o)
{
    std::vector<int> ids;
    std::remove_copy(std::begin(o.conflicts), std::end(o.conflicts), std::back_inserter(ids), unset);
    std::sort(ids.begin(), ids.end());
    std::string out = std::to_string(o.result) + " " + std::to_string(o.count) + ":";
    for (int id : ids)
        out += " " + std::to_string(id);
    return out;
}

Outcome reg(int id, int flags = 0, int timeout = 0, int capacity = 16)
{
    Outcome o;
    std::fill(std::begin(o.conflicts), std::end(o.conflicts), unset);
    o.count = capacity;
    o.result = KEMOOperationRegister(id, flags, o.conflicts, &o.count, timeout);
    o.error = KLIBErrGet();
    return o;
}

// Another process: runs body(), which the constructor waits for, then stays
// until released (or for hold_ms), runs after() and exits with 0 when that
// returned true.  Released by SIGUSR1, so no descriptor ties children
// together.
class Child {
public:
    explicit Child(const std::function<bool()> &body, int hold_ms = -1, const std::function<bool()> &after = {})
    {
        int up[2];
        if (::pipe(up) != 0)
            return;
        pid_ = ::fork();
        if (pid_ == 0) {
            sigset_t release;
            ::sigemptyset(&release), ::sigaddset(&release, SIGUSR1), ::sigprocmask(SIG_BLOCK, &release, nullptr);
            const char ok = body() ? 'y' : 'n';
            if (::write(up[1], &ok, 1) != 1)
                ::_exit(2);
            const timespec hold{hold_ms / 1000, hold_ms % 1000 * 1000000L};
            while ((hold_ms < 0 ? ::sigwaitinfo(&release, nullptr) : ::sigtimedwait(&release, nullptr, &hold)) < 0 &&
                   errno == EINTR) {
            }
            ::_exit(!after || after() ? 0 : 1);
        }
        char ok = 'n';
        ready_ = pid_ > 0 && ::read(up[0], &ok, 1) == 1 && ok == 'y';
        ::close(up[0]);
        ::close(up[1]);
    }
    Child(const Child &) = delete;
    ~Child() { join(); }
    bool ready() const { return ready_; }
    pid_t pid() const { return pid_; }
    // Releases it (or kills it: its entries then belong to nobody alive) and
    // reaps it; its exit code.
    int join(int signal = SIGUSR1)
    {
        int status = -1;
        if (pid_ > 0 && ::kill(pid_, signal) == 0)
            ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid_ = -1;
    bool ready_ = false;
};

// A child that has registered id and holds it.
Child running(int id, int flags = 0) { return Child([=] { return reg(id, flags).result == 0; }); }

// Registers each id (check only) in a process of its own, all at about the
// same time, a little apart and with time to wait for the lock.
std::vector<Outcome> check_each(const std::vector<int> &ids)
{
    auto *out = static_cast<Outcome *>(::mmap(nullptr, ids.size() * sizeof(Outcome), PROT_READ | PROT_WRITE,
                                              MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    std::vector<pid_t> pids;
    for (std::size_t i = 0; i < ids.size(); ++i)
        if ((pids.emplace_back(::fork())) == 0) {
            ::usleep(useconds_t(i) * 5000);
            out[i] = reg(ids[i], KEMO_OP_CHECK_ONLY, 400);
            ::_exit(0);
        }
    for (pid_t pid : pids)
        ::waitpid(pid, nullptr, 0);
    std::vector<Outcome> result(out, out + ids.size());
    ::munmap(out, ids.size() * sizeof(Outcome));
    return result;
}

TEST(OperationTables, HoldTheCategoryRules)
{
    std::istringstream names("none hostname network datetime language notify codepage account group quota home "
                             "share right nfs defopt windows syncpdc unix apple novell http ftp telnet volume snmp "
                             "s2s ups led diskcache snapshot backup restore tapebackup taperestore init default "
                             "patch update iron");
    const uint32_t categories[40] = {0, 1, 1, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 4, 5, 6, 7, 8,
                                     9, 9, 9, 10, 11, 12, 2, 2, 2, 13, 14, 15, 14, 15, 16, 17, 17, 17, 17, 0};
    const uint32_t rows[18][3] = {
        {0x0, 0x0, 0x0},         {0x2, 0xDBF2, 0x10000},  {0x4, 0xC004, 0x10000},      {0x8, 0xE478, 0x10000},
        {0x10, 0xE03A, 0x10000}, {0x20, 0xE47A, 0x10000}, {0x40, 0xC06A, 0x10000},     {0x80, 0xC082, 0x10000},
        {0x100, 0xC102, 0x10000}, {0x200, 0xC202, 0x10000}, {0x400, 0xE428, 0x10000},  {0x800, 0xC802, 0x10000},
        {0x1000, 0x1F002, 0x0},  {0x2000, 0x1F438, 0x0},  {0x4000, 0xE000, 0x7FFF1FFF}, {0x8000, 0x7FFEFFFF, 0x10000},
        {0x10000, 0x7FFFFFFF, 0x0}, {0x7FFFFFFF, 0x7FFFFFFF, 0x0}};
    std::string name;
    for (int id = 0; id < 40; ++id) {
        EXPECT_EQ(grgIDMap[id].category, categories[id]) << "id " << id;
        if (id < 39 && names >> name) {
            EXPECT_STREQ(grgIDMap[id].szName, name.c_str()) << "id " << id;
        }
    }
    EXPECT_EQ(grgIDMap[39].szName, nullptr);
    for (int c = 0; c < 18; ++c)
        EXPECT_THAT((std::vector<uint32_t>{grgBOPack[c].bit, grgBOPack[c].refuse, grgBOPack[c].wait}),
                    ::testing::ElementsAreArray(rows[c])) << "category " << c;
    EXPECT_STREQ(KEMOOperationGetName(31), "restore");
    EXPECT_EQ(KEMOOperationGetName(39), nullptr);
    EXPECT_STREQ(KEMOOperationGetName(40), "");
    EXPECT_STREQ(KEMOOperationGetName(-1), "");
}

TEST_F(Registry, FirstRegistrationMakesAPrivateSegmentAndLockFile)
{
    // Bad arguments come first and touch nothing.
    int ids[4], n = 4;
    const auto bad = [&](const std::function<int()> &call, const char *what) {
        n = 4;
        EXPECT_EQ(call(), -1) << what;
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS) << what;
        EXPECT_EQ(n, 0) << what;
    };
    bad([&] { return KEMOOperationRegister(40, 0, ids, &n, 0); }, "id 40");
    bad([&] { return KEMOOperationRegister(-1, 0, ids, &n, 0); }, "id -1");
    bad([&] { return KEMOOperationRegister(1, 0, nullptr, &n, 0); }, "no conflict array");
    bad([&] { return n = 0, KEMOOperationRegister(1, 0, ids, nullptr, 0); }, "no count");
    bad([&] { return KEMOOperationRegister(1, 0, ids, &n, -1); }, "negative time-out");
    bad([&] { return n = -1, KEMOOperationRegister(1, 0, ids, &n, 0); }, "negative capacity");
    EXPECT_LT(::shmget(KEMO_OP_KEY, 0, 0), 0);
    EXPECT_EQ(KEMOOperationEnum(nullptr, 0), 0) << "nothing ever registered";

    const mode_t old_mask = ::umask(0);
    ASSERT_EQ(summary(reg(2)), "0 0:");
    ::umask(old_mask);
    const Segment s = segment();
    EXPECT_EQ(s.owners, "0 0 600 132");
    std::vector<uint32_t> expected(33, 0);
    expected[0] = 1, expected[1] = 2, expected[2] = uint32_t(::getpid());
    EXPECT_EQ(s.words, expected) << "zero but for the count and the entry";

    EXPECT_EQ(owners(lock_path), "file 0 600 1");
    const int fd = ::open(lock_path, O_RDWR);
    EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0) << "the lock is given back after the call";
    ::close(fd);
}

TEST_F(Registry, RestoreRefusesAndInitRefusesEverything)
{
    {
        Child restore = running(31);
        ASSERT_TRUE(restore.ready());
        for (int flags : {0, KEMO_OP_IGNORE_WAIT})
            EXPECT_EQ(summary(reg(1, flags)), "1 1: 31") << "flags " << flags;
        EXPECT_EQ(segment().entries(), (Entries{{31, restore.pid()}}));
    }
    Child init = running(34);
    ASSERT_TRUE(init.ready());
    std::vector<int> ids(40);
    std::iota(ids.begin(), ids.end(), 0);
    const std::vector<Outcome> outcomes = check_each(ids);
    for (int id = 0; id < 40; ++id) // ids of category 0 (bit 0): nothing refuses them
        EXPECT_EQ(summary(outcomes[id]), id == 0 || id == 39 ? "0 0:" : "1 1: 34") << "id " << id;
    EXPECT_EQ(segment().entries(), (Entries{{34, init.pid()}})) << "checks add no entry";
}

TEST_F(Registry, WaitsForBackupAndInitWaitsForCategoriesOneToEleven)
{
    {
        Child backup = running(30);
        ASSERT_TRUE(backup.ready());
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(summary(reg(7, 0, 400)), "2 1: 30");
        EXPECT_THAT(ms_since(t0), AllOf(Ge(400), Lt(1200)));
        t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(reg(7, KEMO_OP_IGNORE_WAIT, 1000).result, 0);
        EXPECT_LT(ms_since(t0), 150) << "an ignored wait costs no time";
        EXPECT_EQ(segment().entries(), (Entries{{30, backup.pid()}, {7, ::getpid()}}));
        ASSERT_EQ(KEMOOperationUnregister(7), 0);
    }
    // The conflict ends during the wait: backup unregisters after 500 ms.
    Child backup([] { return reg(30).result == 0; }, 500, [] { return KEMOOperationUnregister(30) == 0; });
    ASSERT_TRUE(backup.ready());
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(summary(reg(7, 0, 3000)), "0 0:");
    EXPECT_THAT(ms_since(t0), AllOf(Ge(400), Lt(1500)));
    EXPECT_EQ(segment().entries(), (Entries{{7, ::getpid()}}));
    EXPECT_EQ(backup.join(), 0) << "backup's own unregister succeeded";

    // Every operation of categories 1 to 11 makes init wait.
    std::vector<int> waited_for;
    for (int id = 0; id < 40; ++id)
        if (grgIDMap[id].category >= 1 && grgIDMap[id].category <= 11)
            waited_for.push_back(id);
    ASSERT_EQ(waited_for.size(), 27u);
    for (std::size_t from = 0; from < waited_for.size(); from += 16) {
        Entries table;
        std::string expected = "2 " + std::to_string(std::min<std::size_t>(16, 27 - from)) + ":";
        for (std::size_t i = from; i < std::min<std::size_t>(from + 16, 27); ++i) {
            table.emplace_back(waited_for[i], ::getpid());
            expected += " " + std::to_string(waited_for[i]);
        }
        segment(&table);
        EXPECT_EQ(summary(reg(34, KEMO_OP_CHECK_ONLY)), expected);
    }
}

TEST_F(Registry, ConflictReportsCountAllAndCopyUpToTheCapacity)
{
    {
        // apple and novell run side by side; both refuse hostname.
        Child apple = running(18), novell = running(19);
        ASSERT_TRUE(apple.ready() && novell.ready());
        EXPECT_THAT(summary(reg(1, 0, 0, 1)), ::testing::AnyOf("1 2: 18", "1 2: 19"));
        EXPECT_EQ(summary(reg(1, 0, 0, 0)), "1 2:");
        EXPECT_EQ(summary(reg(1)), "1 2: 18 19");
    }
    // Refusals are reported alone: group refuses account, backup only makes
    // it wait.
    Child backup = running(30), group = running(8, KEMO_OP_IGNORE_WAIT);
    ASSERT_TRUE(backup.ready() && group.ready());
    EXPECT_EQ(summary(reg(7)), "1 1: 8");
}

TEST_F(Registry, SixteenEntriesFillTheTableAndChecksAddNone)
{
    for (int i = 0; i < 16; ++i)
        ASSERT_EQ(reg(0).result, 0) << "entry " << i;
    for (int flags : {0, KEMO_OP_CHECK_ONLY}) {
        const Outcome o = reg(39, flags);
        EXPECT_EQ(summary(o), "-1 0:") << "flags " << flags;
        EXPECT_EQ(o.error, ERR_NOT_ENOUGH_SPACE);
    }
    EXPECT_EQ(segment().words[0], 16u);
    ASSERT_EQ(KEMOOperationUnregister(0), 0);
    EXPECT_EQ(reg(39, KEMO_OP_CHECK_ONLY).result, 0);
    EXPECT_EQ(segment().words[0], 15u) << "a check adds no entry";
    EXPECT_EQ(reg(39).result, 0);
    EXPECT_EQ(segment().entries().back(), std::make_pair(39, int(::getpid())));
}

TEST_F(Registry, EntriesOfDeadOwnersAreRemovedAndTheTableStaysDense)
{
    Child restore = running(31);
    ASSERT_TRUE(restore.ready());
    restore.join(SIGKILL);
    EXPECT_EQ(reg(1).result, 0) << "a dead restore refuses nothing";
    EXPECT_EQ(segment().entries(), (Entries{{1, ::getpid()}}));
    ASSERT_EQ(KEMOOperationUnregister(1), 0);

    const int self = ::getpid();
    ASSERT_EQ(reg(18).result, 0);
    Child first = running(0);
    ASSERT_EQ(reg(19).result, 0);
    Child last = running(0);
    const Entries before{{18, self}, {0, first.pid()}, {19, self}, {0, last.pid()}};
    ASSERT_EQ(segment().entries(), before);
    first.join(SIGKILL);
    last.join(SIGKILL);
    KEMOOPENTRY listed[4] = {};
    EXPECT_EQ(KEMOOperationEnum(listed, 4), 4) << "listing removes nothing";
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(std::make_pair(int(listed[i].id), int(listed[i].pid)), before[i]) << "entry " << i;
    EXPECT_EQ(KEMOOperationEnum(listed, 1), 4) << "the count goes beyond the capacity";

    // The hole at 1 takes the last entry, dead too, whose place 19 fills.
    ASSERT_EQ(reg(20).result, 0);
    EXPECT_EQ(segment().entries(), (Entries{{18, self}, {19, self}, {20, self}}));
    ASSERT_EQ(KEMOOperationUnregister(18), 0);
    EXPECT_EQ(segment().entries(), (Entries{{20, self}, {19, self}})) << "unregister fills the hole too";
}

TEST_F(Registry, BusyLockExpiresAndIsWaitedFor)
{
    ASSERT_EQ(reg(0).result, 0);
    ASSERT_EQ(KEMOOperationUnregister(0), 0);
    Child holder([] { return ::flock(::open(lock_path, O_RDWR), LOCK_EX) == 0; }, 1500);
    ASSERT_TRUE(holder.ready());
    auto t0 = std::chrono::steady_clock::now();
    const Outcome o = reg(0, 0, 0, 4);
    EXPECT_EQ(summary(o), "-1 0:");
    EXPECT_EQ(o.error, ERR_TIMER_EXPIRED);
    EXPECT_THAT(ms_since(t0), AllOf(Ge(150), Lt(700)));
    t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(reg(0, 0, 5000).result, 0) << "the time-out covers the wait for the lock";
    EXPECT_THAT(ms_since(t0), AllOf(Ge(1000), Lt(3000)));
}

TEST_F(Registry, UnregisterAndTransferTouchOnlyOwnEntries)
{
    EXPECT_EQ(KEMOOperationUnregister(1), -1) << "no segment yet";
    EXPECT_EQ(KLIBErrGet(), ERR_OUT_OF_MEMORY);
    // The other process unregisters what it is handed, then its own.
    Child other([] { return reg(0).result == 0; }, -1,
                [] { return KEMOOperationUnregister(3) == 0 && KEMOOperationUnregister(0) == 0; });
    ASSERT_TRUE(other.ready());
    EXPECT_EQ(KEMOOperationUnregister(0), -2) << "another process's entry";
    EXPECT_EQ(KLIBErrGet(), ERR_OP_UNREGISTERED);
    EXPECT_EQ(KEMOOperationUnregister(5), -2);
    ASSERT_EQ(reg(1).result, 0);
    KLIBErrSet(ERR_SUCCESS);
    EXPECT_EQ(KEMOOperationUnregister(1), 0);
    EXPECT_EQ(KLIBErrGet(), ERR_OP_UNREGISTERED) << "set before the search, kept after success";
    EXPECT_EQ(KEMOOperationUnregister(1), -2);

    SyslogCapture log;
    ASSERT_EQ(reg(3).result, 0);
    for (int pid : {0, -1}) {
        KLIBErrSet(ERR_SUCCESS);
        EXPECT_EQ(KEMOOperationTransfer(3, pid), -1) << "pid " << pid;
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    }
    EXPECT_EQ(KEMOOperationTransfer(0, other.pid()), -2) << "not ours to hand on";
    const std::vector<std::string> lines = log.texts();
    EXPECT_EQ(lines.size(), 3u);
    for (const std::string &line : lines)
        EXPECT_THAT(line, ::testing::MatchesRegex("KEMOOperationTransfer\\([0-9]+\\) transfer error"));

    EXPECT_EQ(KEMOOperationTransfer(3, other.pid()), 0);
    EXPECT_TRUE(log.texts().empty());
    EXPECT_EQ(segment().entries(), (Entries{{0, other.pid()}, {3, other.pid()}}));
    EXPECT_EQ(KEMOOperationUnregister(3), -2) << "handed on";
    EXPECT_EQ(other.join(), 0);
    EXPECT_EQ(segment().entries(), Entries{});
}

TEST_F(RegistryAttack, AnotherUserCannotReadOrHoldTheRegistry)
{
    ASSERT_EQ(reg(1).result, 0);
    EXPECT_TRUE(as_nobody([] { return ::open(lock_path, O_RDONLY) < 0 && ::open(lock_path, O_RDWR) < 0; }));
    EXPECT_TRUE(as_nobody([] {
        const int id = ::shmget(KEMO_OP_KEY, 0, 0);
        struct shmid_ds ds {};
        return id < 0 || (::shmat(id, nullptr, SHM_RDONLY) == reinterpret_cast<void *>(-1) && errno == EACCES &&
                          ::shmctl(id, IPC_STAT, &ds) < 0 && errno == EACCES &&
                          ::shmctl(id, IPC_RMID, nullptr) < 0 && errno == EPERM);
    }));
    EXPECT_TRUE(as_nobody([] { return reg(0).result == -1 && KEMOOperationUnregister(1) == -1; }));
    EXPECT_EQ(segment().entries(), (Entries{{1, ::getpid()}}));
}

TEST_F(RegistryAttack, PlantedLockFilesNeitherBlockNorRedirect)
{
    ino_t planted = 0;
    {
        // A lock file of nobody's, open to all, that nobody holds.
        Child holder([] {
            const int fd = become_nobody() ? ::open(lock_path, O_RDWR | O_CREAT | O_EXCL, 0666) : -1;
            return fd >= 0 && ::fchmod(fd, 0666) == 0 && ::flock(fd, LOCK_EX) == 0;
        });
        ASSERT_TRUE(holder.ready());
        planted = stat_of(lock_path).st_ino;
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(reg(1).result, 0);
        EXPECT_LT(ms_since(t0), 150) << "no wait for the planted file";
    }
    EXPECT_NE(stat_of(lock_path).st_ino, planted);
    EXPECT_EQ(owners(lock_path), "file 0 600 1");
    ASSERT_EQ(KEMOOperationUnregister(1), 0);

    // A link to a system file.
    const std::string passwd = read_file("/etc/passwd");
    const std::string before = owners("/etc/passwd");
    ASSERT_EQ(::unlink(lock_path), 0);
    ASSERT_TRUE(as_nobody([] { return ::symlink("/etc/passwd", lock_path) == 0; }));
    EXPECT_EQ(reg(1).result, 0);
    EXPECT_EQ(owners(lock_path), "file 0 600 1");
    EXPECT_EQ(read_file("/etc/passwd"), passwd);
    EXPECT_EQ(owners("/etc/passwd"), before);
}

TEST_F(RegistryAttack, SegmentsMadeByAnotherUserAreNeverUsed)
{
    // Forged entries: init run by pid 1, which would refuse everything.
    for (bool disguised : {false, true}) {
        SCOPED_TRACE(disguised ? "passed off as root's" : "open to all");
        ASSERT_TRUE(as_nobody([&] {
            const int id = ::shmget(KEMO_OP_KEY, 132, IPC_CREAT | IPC_EXCL | 0666);
            auto *mem = static_cast<uint32_t *>(::shmat(id, nullptr, 0));
            if (id < 0 || mem == reinterpret_cast<uint32_t *>(-1))
                return false;
            const uint32_t words[] = {2, 34, 1, 31, 1};
            for (int i = 0; i < 5; ++i)
                mem[i] = htobe32(words[i]);
            struct shmid_ds ds {};
            if (!disguised)
                return true;
            ::shmctl(id, IPC_STAT, &ds);
            ds.shm_perm.uid = 0;
            ds.shm_perm.mode = 0600;
            return ::shmctl(id, IPC_SET, &ds) == 0;
        }));
        const int forged = ::shmget(KEMO_OP_KEY, 0, 0);
        ASSERT_GE(forged, 0);

        EXPECT_EQ(reg(1).result, 0);
        const Segment s = segment();
        EXPECT_NE(s.shmid, forged);
        EXPECT_EQ(s.owners, "0 0 600 132");
        EXPECT_EQ(s.entries(), (Entries{{1, ::getpid()}}));
        struct shmid_ds ds {};
        EXPECT_NE(::shmctl(forged, IPC_STAT, &ds), 0) << "the forged segment is removed";
        ASSERT_EQ(::shmctl(s.shmid, IPC_RMID, nullptr), 0);
    }
}

} // namespace
