// Shared memory segments: descriptor files, turns through the semaphore,
// refusals that leave no segment, semaphore set or file behind, planted
// names, and hand-built records of the attach kind.  Every sandbox has its
// own IPC namespace, so the counts of objects start at 0.
#include "kemo.h"
#include "as_nobody.hpp"
#include "sandbox_fixture.hpp"
#include "syslog_capture.hpp"

#include <gmock/gmock.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <utility>

namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using Ipc = std::pair<int, int>;

class Shmem : public SandboxTest {};

constexpr const char *desc = "/tmp/status.seg";
constexpr int hold_ms = 400;

union SemArg {
    int val;
    struct semid_ds *buf;
    struct seminfo *info;
};

// The numbers of segments and of semaphore sets that exist now.
Ipc ipc()
{
    struct shm_info shm {};
    struct seminfo sem {};
    SemArg arg{.info = &sem};
    if (::shmctl(0, SHM_INFO, reinterpret_cast<struct shmid_ds *>(&shm)) < 0 || ::semctl(0, 0, SEM_INFO, arg) < 0)
        return {-1, -1};
    return {shm.used_ids, sem.semusz};
}

int semval(int semid) { return ::semctl(semid, 0, GETVAL); }
bool setval(int semid, int value) { return ::semctl(semid, 0, SETVAL, SemArg{.val = value}) == 0; }
char *text(const KLIBSHMEM *rec, std::size_t at = 0) { return static_cast<char *>(rec->addr) + at; }

// Runs body in a forked child; true when it returned true.
bool in_child(const std::function<bool()> &body)
{
    const pid_t pid = ::fork();
    if (pid == 0)
        ::_exit(body() ? 0 : 1);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return pid > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// With the semaphore taken, a child runs give() after hold_ms while the
// parent runs wait(): the ms that wait() took, or -1 when it failed (an
// alarm ends a wait that never ends).
long long waited_for(const std::function<void()> &give, const std::function<bool()> &wait)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::usleep(hold_ms * 1000);
        give();
        ::_exit(0);
    }
    const auto start = std::chrono::steady_clock::now();
    ::alarm(10);
    const bool waited = pid > 0 && wait();
    ::alarm(0);
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    if (pid > 0)
        ::waitpid(pid, nullptr, 0);
    return waited ? ms.count() : -1;
}

// A record of the attach kind as its callers build it.
KLIBSHMEM *hand_built()
{
    auto *rec = static_cast<KLIBSHMEM *>(std::calloc(1, sizeof(KLIBSHMEM)));
    rec->shmid = ::shmget(IPC_PRIVATE, 512, IPC_CREAT | 0600);
    rec->semid = ::semget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
    setval(rec->semid, 1);
    rec->addr = ::shmat(rec->shmid, nullptr, 0);
    rec->state = KLIB_SHMEM_ATTACHED;
    return rec;
}

TEST_F(Shmem, DescriptorFileObjectsAndOpenedRecordsAgree)
{
    KLIBSHMEM *rec = KLIBShmemMake(desc, 5000);
    ASSERT_NE(rec, KLIB_SHMEM_INVALID);
    EXPECT_TRUE(rec->state == 5000 && std::strcmp(rec->path, desc) == 0);
    const struct stat st = stat_of(desc);
    EXPECT_TRUE(S_ISREG(st.st_mode) && st.st_uid == 0 && (st.st_mode & 07777) == 0600) << std::oct << st.st_mode;
    const std::string file = read_file(desc);
    ASSERT_EQ(file.size(), std::size_t{KLIB_SHMEM_FILE_SIZE});
    int32_t words[3];
    std::memcpy(words, file.data(), sizeof words);
    EXPECT_THAT(words, ::testing::ElementsAre(rec->shmid, rec->semid, 5000));
    EXPECT_EQ(file.substr(16, std::strlen(desc) + 1), std::string(desc) + '\0');

    struct shmid_ds ds {};
    ASSERT_EQ(::shmctl(rec->shmid, IPC_STAT, &ds), 0);
    EXPECT_TRUE((ds.shm_perm.mode & 0777) == 0600 && ds.shm_perm.uid == 0 && ds.shm_segsz == 5000);
    struct semid_ds sds {};
    ASSERT_EQ(::semctl(rec->semid, 0, IPC_STAT, SemArg{.buf = &sds}), 0);
    EXPECT_TRUE((sds.sem_perm.mode & 0777) == 0600 && sds.sem_nsems == 1 && semval(rec->semid) == 1);
    EXPECT_TRUE(as_nobody([shmid = rec->shmid, semid = rec->semid] {
        return ::shmat(shmid, nullptr, SHM_RDONLY) == reinterpret_cast<void *>(-1) && errno == EACCES &&
               ::open(desc, O_RDONLY) < 0 && errno == EACCES && semval(semid) == -1 && errno == EACCES &&
               ::shmctl(shmid, IPC_RMID, nullptr) != 0 && ::semctl(semid, 0, IPC_RMID) != 0 &&
               KLIBShmemOpen(desc, nullptr) == KLIB_SHMEM_INVALID;
    })) << "nobody reaches the objects or the file";
    EXPECT_TRUE(ipc() == Ipc(1, 1) && semval(rec->semid) == 1);

    EXPECT_TRUE(in_child([rec] {  // a process of its own opens it and writes the last bytes
        uint32_t size = 0;
        KLIBSHMEM *own = KLIBShmemOpen(desc, &size);
        if (own == KLIB_SHMEM_INVALID || size != 5000 || own->shmid != rec->shmid || own->semid != rec->semid ||
            own->state != 5000 || std::strcmp(own->path, desc) != 0)
            return false;
        std::memcpy(text(own, 5000 - 6), "child", 6);
        return KLIBShmemClose(own) == 0;
    }));
    EXPECT_STREQ(text(rec, 5000 - 6), "child");
    EXPECT_EQ(KLIBShmemDelete(rec), 0);
}

TEST_F(Shmem, SemaphoreIsTakenReturnedAndWaitedForAndBadHandlesTouchNothing)
{
    KLIBSHMEM *rec = KLIBShmemMake(desc, 64);
    ASSERT_NE(rec, KLIB_SHMEM_INVALID);
    EXPECT_EQ(AddrKLIBShmemGetShm(rec), rec->addr);
    EXPECT_EQ(semval(rec->semid), 0);
    EXPECT_EQ(KLIBShmemReturnShm(rec), 0);
    EXPECT_EQ(semval(rec->semid), 1);

    // Taken again; a child writes and returns it through a record of its own.
    ASSERT_EQ(AddrKLIBShmemGetShm(rec), rec->addr);
    const long long ms = waited_for(
        [] {
            KLIBSHMEM *own = KLIBShmemOpen(desc, nullptr);
            std::strcpy(text(own), "done");
            KLIBShmemReturnShm(own);
        },
        [rec] { return AddrKLIBShmemGetShm(rec) == rec->addr; });
    EXPECT_TRUE(ms >= hold_ms - 50 && ms < hold_ms + 3000) << ms << " ms";
    EXPECT_STREQ(text(rec), "done");

    for (KLIBSHMEM *bad : {KLIB_SHMEM_INVALID, static_cast<KLIBSHMEM *>(nullptr)}) {
        EXPECT_TRUE(KLIBShmemClose(bad) == -1 && AddrKLIBShmemGetShm(bad) == nullptr && KLIBShmemReturnShm(bad) == -1);
        EXPECT_TRUE(KLIBShmemDelete(bad) == -1 && KLIBShmemDetach(bad) == -1 && KLIBShmemGetAccess(bad) == -1);
        EXPECT_TRUE(KLIBShmemReleaseAccess(bad) == -1 && KLIBShmemRemove(bad) == -1);
    }
    EXPECT_EQ(KLIBShmemCreate(888, 100), nullptr);
    EXPECT_EQ(KLIBShmemCreateByPath("/tmp/bypath.seg", 100), nullptr);
    EXPECT_EQ(KLIBShmemAttach(rec->shmid), nullptr);
    EXPECT_FALSE(exists("/tmp/bypath.seg"));
    EXPECT_TRUE(ipc() == Ipc(1, 1) && semval(rec->semid) == 0 && exists(desc)) << "still taken, still there";
    EXPECT_EQ(KLIBShmemDelete(rec), 0);
}

TEST_F(Shmem, MakeRefusalsAndFailuresLeaveNothingBehind)
{
    const std::string longest = "/tmp/" + std::string(KLIB_SHMEM_PATH_SIZE - 6, 'p');  // 79 bytes
    const std::string too_long = longest + "q";
    const std::pair<const char *, uint32_t> refused[] = {
        {nullptr, 10}, {"tmp/relative.seg", 10}, {"", 10}, {too_long.c_str(), 10}, {"/tmp/new\nline.seg", 10},
        {desc, 0},     {desc, (64u << 20) + 1},
    };
    for (const auto &[path, size] : refused) {
        const std::string what = (path == nullptr ? "(null)" : path) + (" " + std::to_string(size));
        EXPECT_EQ(KLIBShmemMake(path, size), KLIB_SHMEM_INVALID) << what;
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS) << what;
        EXPECT_TRUE(ipc() == Ipc(0, 0) && (path == nullptr || !exists(path))) << what;
    }
    KLIBSHMEM *rec = KLIBShmemMake(longest.c_str(), 64u << 20);  // the limits themselves
    ASSERT_NE(rec, KLIB_SHMEM_INVALID);
    EXPECT_EQ(read_file(longest).substr(16), longest + '\0');
    EXPECT_EQ(KLIBShmemDelete(rec), 0);
    EXPECT_TRUE(!exists(longest) && ipc() == Ipc(0, 0));

    // In a child with an IPC namespace of its own, filled up to the limit.
    const auto refused_when_full = [](const std::function<int()> &take_one) {
        return in_child([&] {
            if (::unshare(CLONE_NEWIPC) != 0)
                return false;
            while (take_one() >= 0) {
            }
            const Ipc full = ipc();
            return errno == ENOSPC && KLIBShmemMake(desc, 8192) == KLIB_SHMEM_INVALID &&
                   KLIBErrGet() == ERR_OUT_OF_MEMORY && ipc() == full && !exists(desc);
        });
    };
    EXPECT_TRUE(refused_when_full([] { return ::shmget(IPC_PRIVATE, 1, IPC_CREAT | 0600); })) << "segments";
    EXPECT_TRUE(refused_when_full([] { return ::semget(IPC_PRIVATE, 1, IPC_CREAT | 0600); })) << "semaphores";

    EXPECT_TRUE(in_child([] {  // the descriptor file cannot be written whole
        ::signal(SIGXFSZ, SIG_IGN);
        const struct rlimit limit {40, 40};
        return ::setrlimit(RLIMIT_FSIZE, &limit) == 0 && KLIBShmemMake(desc, 8192) == KLIB_SHMEM_INVALID &&
               KLIBErrGet() == ERR_WRITE_FAILED;
    }));
    EXPECT_EQ(ipc(), Ipc(0, 0));
    EXPECT_FALSE(exists(desc)) << "half a record left for every later Open to fail on";
}

TEST_F(Shmem, MakeNeverWritesThroughPlantedNames)
{
    const std::string passwd = read_file("/etc/passwd");
    write_file("/tmp/victim", "victim's bytes\n", 0644);
    write_file("/tmp/theirs.seg", "their own file\n", 0666);
    ASSERT_EQ(::chown("/tmp/theirs.seg", 65534, 65534), 0);
    ASSERT_EQ(::symlink("/etc/passwd", "/tmp/passwd.seg"), 0);
    ASSERT_EQ(::symlink("/tmp/through-link", "/tmp/dangling.seg"), 0);
    ASSERT_EQ(::link("/tmp/victim", "/tmp/hard.seg"), 0);
    ASSERT_EQ(::mkfifo("/tmp/fifo.seg", 0666), 0);
    for (const char *path :
         {"/tmp/passwd.seg", "/tmp/dangling.seg", "/tmp/hard.seg", "/tmp/theirs.seg", "/tmp/fifo.seg"}) {
        EXPECT_EQ(KLIBShmemMake(path, 100), KLIB_SHMEM_INVALID) << path;
        EXPECT_EQ(ipc(), Ipc(0, 0)) << path;
    }
    EXPECT_EQ(read_file("/etc/passwd"), passwd);
    EXPECT_FALSE(exists("/tmp/through-link"));
    EXPECT_TRUE(read_file("/tmp/victim") == "victim's bytes\n" && mode_of("/tmp/victim") == 0644);
    EXPECT_EQ(read_file("/tmp/theirs.seg"), "their own file\n");
    EXPECT_TRUE(stat_of("/tmp/theirs.seg").st_uid == 65534 && mode_of("/tmp/theirs.seg") == 0666);
    EXPECT_TRUE(S_ISLNK(stat_of("/tmp/passwd.seg").st_mode) && S_ISFIFO(stat_of("/tmp/fifo.seg").st_mode));
}

TEST_F(Shmem, BadOrStaleDescriptorFilesGiveTheInvalidHandleAndLivingOnesAreKept)
{
    SyslogCapture log;
    KLIBSHMEM *real = KLIBShmemMake(desc, 4096);
    ASSERT_NE(real, KLIB_SHMEM_INVALID);
    const std::string good = read_file(desc);
    EXPECT_EQ(KLIBShmemMake(desc, 256), KLIB_SHMEM_INVALID);
    EXPECT_EQ(KLIBErrGet(), ERR_FILE_EXISTS);
    EXPECT_TRUE(read_file(desc) == good && ipc() == Ipc(1, 1) && semval(real->semid) == 1);
    std::string larger = good;
    larger[8] = static_cast<char>(larger[8] + 1);  // claims one byte more, in either byte order
    write_file("/tmp/larger.seg", larger, 0600);
    write_file("/tmp/short.seg", good.substr(0, KLIB_SHMEM_FILE_SIZE - 1), 0600);
    ASSERT_EQ(::mkfifo("/tmp/fifo.seg", 0600), 0);
    const std::pair<const char *, const char *> cases[] = {{"/tmp/missing.seg", "fopen error"},
        {"/tmp/fifo.seg", "fopen error"}, {"/tmp/short.seg", "fread error i:0"}, {"/tmp/larger.seg", ""}};
    for (const auto &[path, logged] : cases) {
        log.texts();
        EXPECT_TRUE(in_child([path = path] {
            ::alarm(5);  // a FIFO must not wait for a writer
            uint32_t size = 12345;
            return KLIBShmemOpen(path, &size) == KLIB_SHMEM_INVALID && size == 12345;
        })) << path;
        EXPECT_THAT(log.texts(), Contains(HasSubstr(logged))) << path;
    }
    EXPECT_EQ(KLIBShmemOpen(nullptr, nullptr), KLIB_SHMEM_INVALID);

    real->path[0] = '\0';  // without a path Delete unlinks nothing: the file outlives its segment
    EXPECT_EQ(KLIBShmemDelete(real), 0);
    ASSERT_EQ(read_file(desc), good);
    EXPECT_EQ(KLIBShmemOpen(desc, nullptr), KLIB_SHMEM_INVALID);
    EXPECT_EQ(ipc(), Ipc(0, 0));

    ::chmod(desc, 0644);  // a leftover, replaced by a private file
    KLIBSHMEM *second = KLIBShmemMake(desc, 256);
    ASSERT_NE(second, KLIB_SHMEM_INVALID);
    int32_t shmid = -1;
    std::memcpy(&shmid, read_file(desc).data(), sizeof shmid);
    EXPECT_TRUE(mode_of(desc) == 0600 && shmid == second->shmid);
    EXPECT_EQ(KLIBShmemDelete(second), 0);
}

TEST_F(Shmem, DeleteRemovesTheObjectsAndOnlyItsOwnDescriptor)
{
    // A late Delete of an opened record keeps the file of a newer segment.
    KLIBSHMEM *first = KLIBShmemMake(desc, 100);
    ASSERT_NE(first, KLIB_SHMEM_INVALID);
    const int semid = first->semid;
    KLIBSHMEM *late = KLIBShmemOpen(desc, nullptr);
    ASSERT_NE(late, KLIB_SHMEM_INVALID);
    EXPECT_EQ(KLIBShmemDelete(first), 0);
    EXPECT_TRUE(semval(semid) == -1 && !exists(desc));
    EXPECT_TRUE(in_child([late] {  // its semaphore is gone: no endless wait
        ::alarm(5);
        return AddrKLIBShmemGetShm(late) == nullptr;
    }));
    EXPECT_EQ(KLIBShmemReturnShm(late), -1);
    KLIBSHMEM *second = KLIBShmemMake(desc, 100);
    ASSERT_NE(second, KLIB_SHMEM_INVALID);
    const std::string newer = read_file(desc);
    EXPECT_EQ(KLIBShmemDelete(late), 0);
    EXPECT_EQ(read_file(desc), newer);  // and its objects
    EXPECT_TRUE(ipc() == Ipc(1, 1) && semval(second->semid) == 1) << "only the newer objects are left";

    write_file(desc, "something else\n", 0600);  // nor a file that took its place
    EXPECT_EQ(KLIBShmemDelete(second), 0);
    EXPECT_EQ(read_file(desc), "something else\n");
    EXPECT_EQ(ipc(), Ipc(0, 0));
}

TEST_F(Shmem, AttachedAccessIsTakenReleasedAndWaitedForAndDetachesOnce)
{
    KLIBSHMEM *rec = hand_built();
    ASSERT_NE(rec->addr, reinterpret_cast<void *>(-1));
    ASSERT_TRUE(setval(rec->semid, 0));  // taken by someone else
    EXPECT_EQ(KLIBShmemReleaseAccess(rec), -1);  // access not held
    EXPECT_EQ(semval(rec->semid), 0);
    ASSERT_TRUE(setval(rec->semid, 1));

    EXPECT_EQ(KLIBShmemGetAccess(rec), 0);
    EXPECT_TRUE(semval(rec->semid) == 0 && rec->state == (KLIB_SHMEM_ATTACHED | KLIB_SHMEM_ACCESS)) << rec->state;
    EXPECT_EQ(KLIBShmemReleaseAccess(rec), 0);
    EXPECT_TRUE(semval(rec->semid) == 1 && rec->state == KLIB_SHMEM_ATTACHED) << rec->state;

    // Held here; the child releases it through its copy of the record.
    ASSERT_EQ(KLIBShmemGetAccess(rec), 0);
    const long long ms = waited_for(
        [rec] {
            std::strcpy(text(rec), "released");
            KLIBShmemReleaseAccess(rec);
        },
        [rec] { return KLIBShmemGetAccess(rec) == 0; });
    EXPECT_TRUE(ms >= hold_ms - 50 && ms < hold_ms + 3000) << ms << " ms";
    EXPECT_STREQ(text(rec), "released");

    // Remove takes both objects away and leaves the record to its caller.
    const int shmid = rec->shmid;
    EXPECT_EQ(KLIBShmemRemove(rec), 0);
    EXPECT_EQ(ipc(), Ipc(0, 0));
    EXPECT_TRUE(rec->shmid == shmid && (rec->state & KLIB_SHMEM_ATTACHED) == 0) << rec->state;
    EXPECT_TRUE(KLIBShmemReleaseAccess(rec) == -1 && KLIBShmemRemove(rec) == -1);
    std::free(rec);

    // Detach leaves the objects and makes the record unusable.
    rec = hand_built();
    ASSERT_NE(rec->addr, reinterpret_cast<void *>(-1));
    EXPECT_EQ(KLIBShmemDetach(rec), 0);
    EXPECT_EQ(rec->state & KLIB_SHMEM_ATTACHED, 0u);
    struct shmid_ds ds {};
    ASSERT_EQ(::shmctl(rec->shmid, IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.shm_nattch, 0u);
    EXPECT_TRUE(KLIBShmemDetach(rec) == -1 && KLIBShmemGetAccess(rec) == -1 && KLIBShmemRemove(rec) == -1);
    EXPECT_TRUE(ipc() == Ipc(1, 1) && semval(rec->semid) == 1);
    std::free(rec);
}

}  // namespace
