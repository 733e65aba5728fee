// Configuration file locks: as other processes see them (flock on the
// files under /tmp/lock/), nesting, shared and exclusive requests, the
// all-or-nothing rule of a request, and the exclusive lock by path.
#include "kemo.h"
#include "as_nobody.hpp"
#include "sandbox_fixture.hpp"

#include <sys/file.h>

#include <filesystem>

namespace {

class FileLock : public SandboxTest {};

constexpr const char *kemoinfo = "/tmp/lock/lock_kemoinfo";
constexpr const char *pw = "/tmp/lock/lock_pw";

// How another process fares when it asks for the lock of path without
// waiting: true when it gets it.
bool other_gets(const char *path, int operation = LOCK_EX)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int fd = ::open(path, O_RDONLY);
        ::_exit(fd >= 0 && ::flock(fd, operation | LOCK_NB) == 0 ? 0 : 1);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A process that takes locks through the library and keeps them until the
// object goes away.
class Holder {
public:
    // With a lifetime in ms, the holder lets go by itself after it.
    explicit Holder(int request, int lifetime_ms = -1)
    {
        int ready[2], hold[2];
        if (::pipe(ready) != 0 || ::pipe(hold) != 0)
            return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(ready[0]);
            ::close(hold[1]);
            const char got = ErrKLIBFileLock(request, 0) == 0 ? 'y' : 'n';
            if (::write(ready[1], &got, 1) != 1)
                ::_exit(2);
            if (lifetime_ms >= 0)
                ::usleep(static_cast<useconds_t>(lifetime_ms) * 1000);
            char c;
            while (lifetime_ms < 0 && ::read(hold[0], &c, 1) < 0 && errno == EINTR) {
            }
            ::_exit(0);
        }
        ::close(ready[1]);
        ::close(hold[0]);
        release_ = hold[1];
        char got = 'n';
        held_ = ::read(ready[0], &got, 1) == 1 && got == 'y';
        ::close(ready[0]);
    }
    ~Holder()
    {
        ::close(release_);
        if (pid_ > 0)
            ::waitpid(pid_, nullptr, 0);
    }
    bool held() const { return held_; }

private:
    pid_t pid_ = -1;
    int release_ = -1;
    bool held_ = false;
};

TEST_F(FileLock, NestedLocksStayHeldUntilTheLastUnlock)
{
    ASSERT_EQ(ErrKLIBFileLock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_PW | KLIB_LOCK_EX, 0), 0);
    EXPECT_FALSE(other_gets(kemoinfo));
    EXPECT_FALSE(other_gets(pw));
    EXPECT_TRUE(other_gets("/tmp/lock/lock_gr")) << "only the requested files are locked";

    ASSERT_EQ(ErrKLIBFileLock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_EX, 0), 0);
    EXPECT_EQ(ErrKLIBFileUnlock(KLIB_LOCK_KEMOINFO), 0);
    EXPECT_FALSE(other_gets(kemoinfo)) << "one unlock of two nested locks keeps it";
    EXPECT_EQ(ErrKLIBFileUnlock(KLIB_LOCK_KEMOINFO), 0);
    EXPECT_TRUE(other_gets(kemoinfo));
    EXPECT_FALSE(other_gets(pw));

    EXPECT_EQ(ErrKLIBFileUnlock(KLIB_LOCK_PW), 0);
    EXPECT_TRUE(other_gets(pw));
    EXPECT_EQ(ErrKLIBFileUnlock(KLIB_LOCK_PW), 0) << "unlocking what is not held is harmless";
}

TEST_F(FileLock, BusyLockFailsTheWholeRequest)
{
    const Holder other(KLIB_LOCK_PW | KLIB_LOCK_EX);
    ASSERT_TRUE(other.held());

    KLIBErrSet(ERR_SUCCESS);
    EXPECT_EQ(ErrKLIBFileLock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_PW | KLIB_LOCK_EX | KLIB_LOCK_NB, 1), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_LOCK_FAILED);
    EXPECT_TRUE(other_gets(kemoinfo)) << "the lock taken before the busy one was given back";

    // Nothing of the failed request is left in the table either: one
    // unlock frees a lock taken afresh.
    ASSERT_EQ(ErrKLIBFileLock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_EX, 0), 0);
    ASSERT_EQ(ErrKLIBFileUnlock(KLIB_LOCK_KEMOINFO), 0);
    EXPECT_TRUE(other_gets(kemoinfo));
}

TEST_F(FileLock, BlockingRequestWaitsForTheOtherProcess)
{
    // The holder lets go while we wait inside flock: a single attempt of a
    // blocking request still succeeds.
    const Holder other(KLIB_LOCK_PW | KLIB_LOCK_EX, 50);
    ASSERT_TRUE(other.held());
    EXPECT_EQ(ErrKLIBFileLock(KLIB_LOCK_PW | KLIB_LOCK_EX, 0), 0);
    EXPECT_FALSE(other_gets(pw));
}

TEST_F(FileLock, SharedLocksAndTheRefusedUpgrade)
{
    const Holder reader(KLIB_LOCK_PW | KLIB_LOCK_SH);
    ASSERT_TRUE(reader.held());
    ASSERT_EQ(ErrKLIBFileLock(KLIB_LOCK_PW | KLIB_LOCK_SH | KLIB_LOCK_NB, 0), 0);
    EXPECT_TRUE(other_gets(pw, LOCK_SH));
    EXPECT_FALSE(other_gets(pw, LOCK_EX));

    // Held shared without waiting, it cannot be nested as exclusive; the
    // lock taken before it in the same request is given back.
    EXPECT_EQ(ErrKLIBFileLock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_PW | KLIB_LOCK_EX | KLIB_LOCK_NB, 0), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_LOCK_FAILED);
    EXPECT_TRUE(other_gets(kemoinfo));
    EXPECT_FALSE(other_gets(pw, LOCK_EX)) << "the shared lock is kept";
    // Nor as a blocking exclusive request: the other reader would still
    // read while this process believes it writes alone.
    EXPECT_EQ(ErrKLIBFileLock(KLIB_LOCK_PW | KLIB_LOCK_EX, 0), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_LOCK_FAILED);
    ASSERT_EQ(ErrKLIBFileUnlock(KLIB_LOCK_PW), 0);
    EXPECT_TRUE(other_gets(pw, LOCK_SH)) << "one unlock ends the one shared lock taken";

    EXPECT_EQ(ErrKLIBFileLock(KLIB_LOCK_PW | 8, 0), -1) << "unlock is not a lock operation";
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
}

TEST_F(FileLock, ResetKeepsTheMaskAndCloseReleasesAll)
{
    ASSERT_EQ(ErrKLIBFileLock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_PW | KLIB_LOCK_GR | KLIB_LOCK_EX, 0), 0);
    ASSERT_EQ(ErrKLIBFileLock(KLIB_LOCK_PW | KLIB_LOCK_EX, 0), 0);
    ASSERT_EQ(ErrKLIBFileLock(KLIB_LOCK_PW | KLIB_LOCK_EX, 0), 0);

    EXPECT_EQ(ErrKLIBFileResetLock(KLIB_LOCK_PW), 0);
    EXPECT_TRUE(other_gets(kemoinfo));
    EXPECT_TRUE(other_gets("/tmp/lock/lock_gr"));
    EXPECT_FALSE(other_gets(pw));
    ASSERT_EQ(ErrKLIBFileUnlock(KLIB_LOCK_PW), 0);
    EXPECT_TRUE(other_gets(pw)) << "reset left a nesting count of one";

    ASSERT_EQ(ErrKLIBFileLock(KLIB_LOCK_HOTSWAP | KLIB_LOCK_FSTAB | KLIB_LOCK_EX, 0), 0);
    ASSERT_EQ(ErrKLIBFileLock(KLIB_LOCK_HOTSWAP | KLIB_LOCK_EX, 0), 0);
    EXPECT_EQ(ErrKLIBFileCloseLock(), 0);
    EXPECT_TRUE(other_gets("/tmp/lock/lock_hotswap"));
    EXPECT_TRUE(other_gets("/tmp/lock/lock_fstab"));
}

TEST_F(FileLock, LockDirectoryAndFilesAreRecreated)
{
    ASSERT_EQ(ErrKLIBILockCheckDir(), 0);
    std::filesystem::remove_all("/tmp/lock");
    const mode_t old_mask = ::umask(077);
    ASSERT_EQ(ErrKLIBFileLock(KLIB_LOCK_SMB | KLIB_LOCK_EX, 0), 0);
    ::umask(old_mask);
    EXPECT_EQ(mode_of("/tmp/lock"), 0755u);
    EXPECT_TRUE(S_ISDIR(stat_of("/tmp/lock").st_mode));
    const char *names[] = {"kemoinfo", "pw", "gr", "rc", "host", "smb", "exports", "nw", "apple",
                           "snmp", "win", "tapebkp", "connect", "usbidmap", "duseruid", "dusergid",
                           "fstab", "hotswap"};
    for (const char *name : names)
        EXPECT_TRUE(S_ISREG(stat_of(std::string("/tmp/lock/lock_") + name).st_mode)) << name;

    for (const char *name : names)
        EXPECT_EQ(mode_of(std::string("/tmp/lock/lock_") + name), 0600u) << name;

    // A link planted in /tmp is not taken for the directory: it is replaced
    // and what it pointed to is left alone.
    ASSERT_EQ(ErrKLIBFileCloseLock(), 0);
    std::filesystem::remove_all("/tmp/lock");
    std::filesystem::create_directory("/tmp/elsewhere");
    std::filesystem::create_directory_symlink("/tmp/elsewhere", "/tmp/lock");
    EXPECT_EQ(ErrKLIBILockCheckDir(), 0);
    EXPECT_TRUE(S_ISDIR(stat_of("/tmp/lock").st_mode));
    EXPECT_TRUE(std::filesystem::is_empty("/tmp/elsewhere"));
}

// What an unprivileged local user can do to the locks of the appliance.
class LockAttack : public SandboxTest {};

TEST_F(LockAttack, AnOpenableLockFileCannotBeHeldByAnotherUser)
{
    // A lock file any user could open (as older releases made them).
    ASSERT_EQ(ErrKLIBILockCheckDir(), 0);
    ASSERT_EQ(::chmod(pw, 0644), 0);
    int ready[2], hold[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(hold), 0);
    const pid_t holder = ::fork();
    if (holder == 0) {
        ::close(hold[1]);
        if (!become_nobody())
            ::_exit(99);
        const int fd = ::open(pw, O_RDONLY);
        const char got = fd >= 0 && ::flock(fd, LOCK_EX) == 0 ? 'y' : 'n';
        if (::write(ready[1], &got, 1) != 1)
            ::_exit(2);
        char c;
        while (::read(hold[0], &c, 1) < 0 && errno == EINTR) {
        }
        ::_exit(0);
    }
    ::close(hold[0]);
    ::close(ready[1]);
    struct Reap {
        int fd;
        pid_t pid;
        ~Reap()
        {
            ::close(fd);
            ::waitpid(pid, nullptr, 0);
        }
    } reap{hold[1], holder};
    char got = 'n';
    ASSERT_EQ(::read(ready[0], &got, 1), 1);
    ASSERT_EQ(got, 'y') << "the attacker holds the old lock file";

    // The appliance still gets its lock, on a file only root can open.
    EXPECT_EQ(ErrKLIBFileLock(KLIB_LOCK_PW | KLIB_LOCK_EX | KLIB_LOCK_NB, 1), 0);
    const struct stat st = stat_of(pw);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(st.st_uid, 0u);
    EXPECT_TRUE(as_nobody([] { return ::open(pw, O_RDONLY) < 0 && errno == EACCES; }));
}

TEST_F(LockAttack, ADirectoryOwnedByAnotherUserIsNeverUsed)
{
    std::filesystem::remove_all("/tmp/lock");
    ASSERT_TRUE(as_nobody([] { return ::mkdir("/tmp/lock", 0777) == 0 && ::chmod("/tmp/lock", 0777) == 0; }));
    ASSERT_EQ(stat_of("/tmp/lock").st_uid, 65534u);

    ASSERT_EQ(ErrKLIBFileLock(KLIB_LOCK_PW | KLIB_LOCK_GR | KLIB_LOCK_EX, 0), 0);
    const struct stat dir = stat_of("/tmp/lock");
    EXPECT_TRUE(S_ISDIR(dir.st_mode));
    EXPECT_EQ(dir.st_uid, 0u);
    EXPECT_EQ(dir.st_mode & 07777, 0755u);
    // The attacker can neither delete a lock file nor put one of its own.
    EXPECT_TRUE(as_nobody([] { return ::unlink(pw) < 0 && errno == EACCES; }));
    EXPECT_TRUE(as_nobody([] { return ::open("/tmp/lock/lock_smb", O_WRONLY | O_CREAT, 0666) < 0; }));
    EXPECT_FALSE(other_gets(pw));
}

TEST_F(LockAttack, PlantedLockFilesAreReplaced)
{
    ASSERT_EQ(ErrKLIBILockCheckDir(), 0);
    // A FIFO would hang an open for reading; a link would lead elsewhere.
    ::unlink(pw);
    ASSERT_EQ(::mkfifo(pw, 0666), 0);
    ::unlink("/tmp/lock/lock_gr");
    write_file("/tmp/target", "keep\n", 0644);
    ASSERT_EQ(::symlink("/tmp/target", "/tmp/lock/lock_gr"), 0);
    ASSERT_EQ(::chown("/tmp/lock/lock_smb", 65534, 65534), 0);

    EXPECT_EQ(ErrKLIBFileLock(KLIB_LOCK_PW | KLIB_LOCK_GR | KLIB_LOCK_SMB | KLIB_LOCK_EX | KLIB_LOCK_NB, 0), 0);
    for (const char *path : {pw, "/tmp/lock/lock_gr", "/tmp/lock/lock_smb"}) {
        const struct stat st = stat_of(path);
        EXPECT_TRUE(S_ISREG(st.st_mode)) << path;
        EXPECT_EQ(st.st_uid, 0u) << path;
    }
    EXPECT_EQ(read_file("/tmp/target"), "keep\n");
}

TEST_F(FileLock, ExclusiveLockByPath)
{
    const char *path = "/tmp/app.lock";
    int timeout = 0;
    const mode_t old_mask = ::umask(0);
    const int fd = GetExclusiveFileLock(path, &timeout);
    ::umask(old_mask);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(mode_of(path), 0600u) << "a lock file the library makes is root's alone";
    EXPECT_FALSE(other_gets(path));
    EXPECT_EQ(::fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);

    // Busy: one try and one wait for a timeout of 0, and the remaining
    // time is handed back below zero.
    KLIBErrSet(ERR_SUCCESS);
    EXPECT_EQ(GetExclusiveFileLock(path, &timeout), -2);
    EXPECT_EQ(KLIBErrGet(), ERR_LOCK_FAILED);
    EXPECT_EQ(timeout, -200);
    timeout = 300;
    EXPECT_EQ(GetExclusiveFileLock(path, &timeout), -2);
    EXPECT_EQ(timeout, -100);

    EXPECT_EQ(ReleaseExclusiveFileLock(fd), 0);
    EXPECT_TRUE(other_gets(path));
    timeout = 0;
    const int again = GetExclusiveFileLock(path, &timeout);
    EXPECT_GE(again, 0);
    EXPECT_EQ(timeout, 0);
    ReleaseExclusiveFileLock(again);

    timeout = -1;
    EXPECT_EQ(GetExclusiveFileLock(path, &timeout), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    EXPECT_EQ(GetExclusiveFileLock(nullptr, &timeout), -1);
    EXPECT_EQ(GetExclusiveFileLock(path, nullptr), -1);
    timeout = 0;
    EXPECT_EQ(GetExclusiveFileLock("/tmp/no/such/dir/x.lock", &timeout), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_OPEN_FAILED);

    // Never through a link planted at the name, never on a FIFO.
    write_file("/tmp/victim", "data\n", 0644);
    ASSERT_EQ(::symlink("/tmp/victim", "/tmp/link.lock"), 0);
    EXPECT_EQ(GetExclusiveFileLock("/tmp/link.lock", &timeout), -1);
    ASSERT_EQ(::mkfifo("/tmp/fifo.lock", 0666), 0);
    EXPECT_EQ(GetExclusiveFileLock("/tmp/fifo.lock", &timeout), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_OPEN_FAILED);
}

} // namespace
