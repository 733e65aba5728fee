// The registry of running operations: the category rules, the segment's
// exact layout, refusals and waits as other processes see them, dead owners,
// the lock, unregister and transfer, and what an unprivileged user can do.
#include "kemo.h"
#include "as_nobody.hpp"
#include "operation_util.hpp"
#include "sandbox_fixture.hpp"
#include "syslog_capture.hpp"

#include <gmock/gmock.h>
#include <sys/mman.h>

#include <chrono>

namespace {

using ::testing::AllOf;
using ::testing::Ge;
using ::testing::Lt;
constexpr const char *lock_path = KEMO_OP_LOCK_PATH;

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
        EXPECT_STREQ(KEMOOperationGetName(id), id < 39 && names >> name ? name.c_str() : nullptr) << "id " << id;
    }
    for (int c = 0; c < 18; ++c)
        EXPECT_THAT((std::vector<uint32_t>{grgBOPack[c].bit, grgBOPack[c].refuse, grgBOPack[c].wait}),
                    ::testing::ElementsAreArray(rows[c])) << "category " << c;
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
    // Each id asks (check only) in a process of its own, all at about the
    // same time, a little apart and with time to wait for the lock.
    auto *out = static_cast<Outcome *>(
        ::mmap(nullptr, 40 * sizeof(Outcome), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    pid_t pids[40];
    for (int id = 0; id < 40; ++id)
        if ((pids[id] = ::fork()) == 0) {
            ::usleep(useconds_t(id) * 5000);
            out[id] = reg(id, KEMO_OP_CHECK_ONLY, 400);
            ::_exit(0);
        }
    for (int id = 0; id < 40; ++id) { // ids of category 0 (bit 0): nothing refuses them
        ::waitpid(pids[id], nullptr, 0);
        EXPECT_EQ(summary(out[id]), id == 0 || id == 39 ? "0 0:" : "1 1: 34") << "id " << id;
    }
    ::munmap(out, 40 * sizeof(Outcome));
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

    // Every operation of categories 1 to 11 (ids 1 to 24 and 26 to 28) makes
    // init wait, 16 of them in a full table too.
    for (const std::vector<int> &ids : {std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16},
                                        std::vector<int>{17, 18, 19, 20, 21, 22, 23, 24, 26, 27, 28}}) {
        Entries table;
        std::string expected = "2 " + std::to_string(ids.size()) + ":";
        for (int id : ids) {
            table.emplace_back(id, ::getpid());
            expected += " " + std::to_string(id);
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
    EXPECT_EQ(other.join(), 0);
    EXPECT_EQ(segment().entries(), Entries{});
}

TEST_F(RegistryAttack, PlantedLockFilesAreReplacedAndNobodyReachesTheRegistry)
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

    // Now that both objects are root's, nobody can open, read, remove or use them.
    EXPECT_TRUE(as_nobody([] {
        const int id = ::shmget(KEMO_OP_KEY, 0, 0);
        struct shmid_ds ds {};
        return ::open(lock_path, O_RDONLY) < 0 &&
               (id < 0 || (::shmat(id, nullptr, SHM_RDONLY) == reinterpret_cast<void *>(-1) && errno == EACCES &&
                           ::shmctl(id, IPC_STAT, &ds) < 0 && errno == EACCES &&
                           ::shmctl(id, IPC_RMID, nullptr) < 0 && errno == EPERM)) &&
               reg(0).result == -1 && KEMOOperationUnregister(1) == -1;
    }));
    EXPECT_EQ(segment().entries(), (Entries{{1, ::getpid()}}));
}

TEST_F(RegistryAttack, SegmentsMadeByAnotherUserAreNeverUsed)
{
    // Forged entries (init run by pid 1 would refuse everything) in a
    // segment of nobody's, passed off as root's: only its creator tells.
    ASSERT_TRUE(as_nobody([&] {
        const int id = ::shmget(KEMO_OP_KEY, 132, IPC_CREAT | IPC_EXCL | 0666);
        auto *mem = static_cast<uint32_t *>(::shmat(id, nullptr, 0));
        if (id < 0 || mem == reinterpret_cast<uint32_t *>(-1))
            return false;
        const uint32_t words[] = {2, 34, 1, 31, 1};
        for (int i = 0; i < 5; ++i)
            mem[i] = htobe32(words[i]);
        struct shmid_ds ds {};
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
}

} // namespace
