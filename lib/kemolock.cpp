// Cross-process locks of the shared configuration files: one empty lock
// file per resource under /tmp/lock/, locked with flock, selected by mask
// bits, nesting within a process.  And a single exclusive lock by path.
//
// The lock directory sits in the world-writable /tmp, so nothing there is
// taken on trust: the directory must be a real directory owned by root
// that nobody else may write, and every lock file a regular file owned by
// root and readable by root only.  Anything else was planted: it is moved
// out of the way (or, where that fails, the lock is refused) and never
// used, so that an unprivileged user can neither hold nor delete a lock.
#include "kemo_internal.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

namespace {

constexpr const char *lock_dir = "/tmp/lock";
constexpr uid_t lock_owner = 0;
constexpr mode_t dir_mode = 0755, file_mode = 0600;
// Held while a planted root-only lock file elsewhere in /tmp is replaced.
constexpr const char *repair_guard = "/tmp/lock/lock_repair";

struct LockEntry {
    FILE *stream;     // open while this process holds the lock
    const char *path; // the lock file
    std::uint32_t mask;
    int nesting;      // how many times this process took it
    int operation;    // the flock operation it was taken with
};

// Process-global, ended by the entry whose mask is 0.
LockEntry lock_table[] = {
    {nullptr, "/tmp/lock/lock_kemoinfo", KLIB_LOCK_KEMOINFO, 0, 0},
    {nullptr, "/tmp/lock/lock_pw", KLIB_LOCK_PW, 0, 0},
    {nullptr, "/tmp/lock/lock_gr", KLIB_LOCK_GR, 0, 0},
    {nullptr, "/tmp/lock/lock_rc", KLIB_LOCK_RC, 0, 0},
    {nullptr, "/tmp/lock/lock_host", KLIB_LOCK_HOST, 0, 0},
    {nullptr, "/tmp/lock/lock_smb", KLIB_LOCK_SMB, 0, 0},
    {nullptr, "/tmp/lock/lock_exports", KLIB_LOCK_EXPORTS, 0, 0},
    {nullptr, "/tmp/lock/lock_nw", KLIB_LOCK_NW, 0, 0},
    {nullptr, "/tmp/lock/lock_apple", KLIB_LOCK_APPLE, 0, 0},
    {nullptr, "/tmp/lock/lock_snmp", KLIB_LOCK_SNMP, 0, 0},
    {nullptr, "/tmp/lock/lock_win", KLIB_LOCK_WIN, 0, 0},
    {nullptr, "/tmp/lock/lock_tapebkp", KLIB_LOCK_TAPEBKP, 0, 0},
    {nullptr, "/tmp/lock/lock_connect", KLIB_LOCK_CONNECT, 0, 0},
    {nullptr, "/tmp/lock/lock_usbidmap", KLIB_LOCK_USBIDMAP, 0, 0},
    {nullptr, "/tmp/lock/lock_duseruid", KLIB_LOCK_DUSERUID, 0, 0},
    {nullptr, "/tmp/lock/lock_dusergid", KLIB_LOCK_DUSERGID, 0, 0},
    {nullptr, "/tmp/lock/lock_fstab", KLIB_LOCK_FSTAB, 0, 0},
    {nullptr, "/tmp/lock/lock_hotswap", KLIB_LOCK_HOTSWAP, 0, 0},
    {nullptr, nullptr, 0, 0, 0},
};

constexpr int operation_bits = 0xF;

bool valid_operation(int operation) noexcept
{
    const int base = operation & ~KLIB_LOCK_NB;
    return base == KLIB_LOCK_SH || base == KLIB_LOCK_EX;
}

bool exclusive(int operation) noexcept { return (operation & KLIB_LOCK_EX) != 0; }

template <class F>
void for_each_lock(F &&f)
{
    for (LockEntry *e = lock_table; e->mask != 0; ++e)
        f(*e);
}

// Closes the entry's stream, which drops its flock once no other
// descriptor shares it.  false when the close failed.
bool close_entry(LockEntry &e) noexcept
{
    const bool ok = std::fclose(e.stream) == 0;
    e.stream = nullptr;
    e.nesting = 0;
    e.operation = 0;
    return ok;
}

// A name beside path that nothing else uses, for moving a planted entry
// out of the way.
std::string aside_name(const char *path)
{
    static unsigned counter = 0;
    return std::string(path) + ".untrusted." + std::to_string(::getpid()) + '.' +
           std::to_string(static_cast<unsigned long>(::time(nullptr))) + '.' + std::to_string(++counter);
}

// Moves whatever stands at path out of the way: a directory is renamed
// aside (its content is not ours to walk), anything else is unlinked.
bool remove_planted(const char *path, const struct stat &st)
{
    if (S_ISDIR(st.st_mode))
        return ::rename(path, aside_name(path).c_str()) == 0;
    return ::unlink(path) == 0 || errno == ENOENT;
}

// The lock directory as it must be: a root-owned directory without group
// or other write permission.  A root-owned directory whose mode was
// loosened is tightened in place (holders of its locks keep them); any
// other entry at the name is replaced.  false with the failure logged.
bool trusted_lock_dir(bool *created = nullptr)
{
    // Only root can put things right; anyone else takes the directory as
    // it is or not at all, and leaves nothing behind in /tmp.
    const bool may_repair = ::geteuid() == lock_owner;
    for (int attempt = 0; attempt < 3; ++attempt) {
        struct stat st {};
        if (::lstat(lock_dir, &st) != 0) {
            if (errno != ENOENT || !may_repair) {
                KEMO_LOG("cannot examine the lock directory %s: %m", lock_dir);
                return false;
            }
            // Created private, opened to readers only once it is ours.
            if (::mkdir(lock_dir, 0700) != 0 && errno != EEXIST) {
                KEMO_LOG("cannot create the lock directory %s: %m", lock_dir);
                return false;
            }
            if (created != nullptr)
                *created = true;
            continue; // examine what is there now (ours, or a racer's)
        }
        if (S_ISDIR(st.st_mode) && st.st_uid == lock_owner) {
            if ((st.st_mode & 07777) == dir_mode)
                return true;
            if (!may_repair)
                break;
            const int fd = ::open(lock_dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            struct stat now {};
            const bool fixed = fd >= 0 && ::fstat(fd, &now) == 0 && S_ISDIR(now.st_mode) &&
                               now.st_uid == lock_owner && ::fchmod(fd, dir_mode) == 0;
            if (fd >= 0)
                ::close(fd);
            if (fixed)
                return true;
            continue;
        }
        if (!may_repair)
            break;
        KEMO_LOG("untrusted lock directory %s (owner %u, mode %o) replaced", lock_dir,
                 static_cast<unsigned>(st.st_uid), static_cast<unsigned>(st.st_mode));
        if (!remove_planted(lock_dir, st)) {
            KEMO_LOG("cannot move the untrusted lock directory %s away: %m", lock_dir);
            return false;
        }
    }
    KEMO_LOG("the lock directory %s is not a private directory of root's", lock_dir);
    return false;
}

// Opens the lock file at path for flock: a regular file owned by root,
// mode 0600, never through a link and never blocking on a FIFO.  A missing
// file is created; any other file at the name (planted while the directory
// was not yet safe, or left by an older release) is replaced.
// The descriptor, or -1 with the failure logged.
int open_lock_file(const char *path)
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        const int fd = ::open(path, O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, file_mode);
        struct stat st {};
        // A file others could open is replaced, not tightened: someone may
        // already have it open and hold its flock for ever.
        if (fd >= 0 && ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == lock_owner &&
            (st.st_mode & 07777) == file_mode)
            return fd;
        if (fd >= 0)
            ::close(fd);
        if (::lstat(path, &st) != 0) {
            if (errno == ENOENT)
                continue;
            break;
        }
        KEMO_LOG("untrusted lock file %s (owner %u, mode %o) replaced", path,
                 static_cast<unsigned>(st.st_uid), static_cast<unsigned>(st.st_mode));
        if (!remove_planted(path, st))
            break;
    }
    KEMO_LOG("cannot open the lock file %s: %m", path);
    return -1;
}

FILE *open_lock_stream(const char *path)
{
    const int fd = open_lock_file(path);
    if (fd < 0)
        return nullptr;
    FILE *stream = ::fdopen(fd, "r");
    if (stream == nullptr)
        ::close(fd);
    return stream;
}

// A root-only lock file at a fixed name in a directory others may write:
// a regular file of root's, mode 0600, with no other name (another user
// could otherwise open it and hold its flock for ever, or have planted it).
bool private_lock_file(const struct stat &st) noexcept
{
    return S_ISREG(st.st_mode) && st.st_uid == lock_owner && (st.st_mode & 07777) == file_mode &&
           st.st_nlink == 1;
}

// Puts a private lock file at path in place of whatever stands there.
// Replacements are serialised by a guard lock in the private lock directory:
// while one process holds it, a good file can only appear by its hand, so
// what it finds bad stays bad until it removes it, and no process ever
// removes a lock file that another has just made and locked.
bool replace_lock_file(const char *path)
{
    if (!trusted_lock_dir())
        return false;
    const int guard = open_lock_file(repair_guard);
    if (guard < 0)
        return false;
    while (::flock(guard, LOCK_EX) != 0 && errno == EINTR) {
    }
    bool done = false;
    for (int attempt = 0; attempt < 8 && !done; ++attempt) {
        struct stat st {};
        if (::lstat(path, &st) == 0) {
            if (private_lock_file(st)) {
                done = true;
                break;
            }
            KEMO_LOG("untrusted lock file %s (owner %u, mode %o) replaced", path,
                     static_cast<unsigned>(st.st_uid), static_cast<unsigned>(st.st_mode));
            if (!remove_planted(path, st))
                break;
        } else if (errno != ENOENT) {
            break;
        }
        const int fd = ::open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, file_mode);
        if (fd >= 0) {
            done = ::fchmod(fd, file_mode) == 0;
            ::close(fd);
        } else if (errno != EEXIST) {
            break;
        }
    }
    const int error = errno;
    ::close(guard);
    if (!done)
        KEMO_LOG("cannot make the lock file %s private: %s", path, std::strerror(error));
    errno = error;
    return done;
}

// Opens the root-only lock file at path, replacing a planted one.  Only
// root can do that; anyone else gets -1 (EACCES) for a file not theirs.
int open_private_lock(const char *path)
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        const int fd = ::open(path, O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
        struct stat st {};
        if (fd >= 0 && ::fstat(fd, &st) == 0 && private_lock_file(st))
            return fd;
        const int error = errno;
        if (fd >= 0)
            ::close(fd);
        if (::geteuid() != lock_owner) {
            errno = fd >= 0 ? EACCES : error;
            return -1;
        }
        if (!replace_lock_file(path))
            return -1;
    }
    errno = EACCES;
    return -1;
}

// True while path still names the file open at fd.
bool still_named(int fd, const char *path) noexcept
{
    struct stat held {}, named {};
    return ::fstat(fd, &held) == 0 && ::lstat(path, &named) == 0 && held.st_dev == named.st_dev &&
           held.st_ino == named.st_ino;
}

} // namespace

namespace kemo::locks {

// Every lock file of the table, created where missing.
int create_lock_files() noexcept
{
    int result = 0;
    for_each_lock([&](const LockEntry &e) {
        if (result != 0)
            return;
        const int fd = open_lock_file(e.path);
        if (fd < 0)
            result = fail(-1, ERR_OPEN_FAILED);
        else
            ::close(fd);
    });
    return result;
}

int check_dir() noexcept
{
    if (!trusted_lock_dir())
        return fail(-1, ERR_LOCK_FAILED);
    return create_lock_files();
}

int release(int mask) noexcept
{
    int result = 0;
    for_each_lock([&](LockEntry &e) {
        if (e.stream == nullptr || (static_cast<std::uint32_t>(mask) & e.mask) == 0)
            return;
        if (e.nesting >= 2) {
            --e.nesting;
            return;
        }
        if (::flock(::fileno(e.stream), LOCK_UN) != 0)
            result = fail(-1, ERR_UNLOCK_FAILED);
        if (!close_entry(e))
            result = fail(-1, ERR_UNLOCK_FAILED);
    });
    return result;
}

int take(int request, int timeout) noexcept
{
    const int operation = request & operation_bits;
    if (!valid_operation(operation) || timeout < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    const std::uint32_t wanted = static_cast<std::uint32_t>(request) & ~std::uint32_t{operation_bits};
    // The lock files are opened (and made, when missing) one by one below;
    // a directory made anew gets all of them at once.
    bool created = false;
    if (!trusted_lock_dir(&created) || (created && create_lock_files() != 0))
        return fail(-1, ERR_LOCK_FAILED);

    // timeout seconds allow 20 * timeout + 1 attempts, 50 ms apart.
    for (long t = 0; t <= static_cast<long>(timeout) * 100; t += 5) {
        std::uint32_t taken = 0;
        std::uint32_t held = 0;
        bool refused = false;
        for (LockEntry *e = lock_table; e->mask != 0; ++e) {
            if ((wanted & e->mask) == 0)
                continue;
            if (e->stream != nullptr) {
                // A shared lock never becomes exclusive by nesting: another
                // process may hold it shared too.
                if (exclusive(operation) && !exclusive(e->operation)) {
                    refused = true;
                    break;
                }
                ++e->nesting;
                taken |= e->mask;
                held |= e->mask;
                continue;
            }
            e->stream = open_lock_stream(e->path);
            if (e->stream == nullptr)
                continue;
            e->nesting = 1;
            taken |= e->mask;
            if (::flock(::fileno(e->stream), operation) != 0)
                break;
            e->operation = operation;
            held |= e->mask;
        }
        if (!refused && held == wanted)
            return 0;
        release(static_cast<int>(taken));
        if (refused) {
            KEMO_LOG("a shared lock of this process cannot be made exclusive (request %#x)",
                     static_cast<unsigned>(request));
            break;
        }
        if (timeout == 0)
            break;
        sleep_ms(50);
    }
    return fail(-1, ERR_LOCK_FAILED);
}

int reset(int mask) noexcept
{
    int result = 0;
    for_each_lock([&](LockEntry &e) {
        if (e.stream == nullptr)
            return;
        if ((static_cast<std::uint32_t>(mask) & e.mask) != 0)
            e.nesting = 1;
        else if (!close_entry(e))
            result = fail(-1, ERR_UNLOCK_FAILED);
    });
    return result;
}

int close_all() noexcept
{
    int result = 0;
    for_each_lock([&](LockEntry &e) {
        if (e.stream != nullptr && !close_entry(e))
            result = fail(-1, ERR_UNLOCK_FAILED);
    });
    return result;
}


// The exclusive lock by path.  Any caller's path may lie in a directory
// others can write, so the file is never opened through a link and must be
// a regular file.  For a root-only lock file (`private_file`), the file must
// moreover be root's alone (mode 0600, one name); anything else there was
// planted and is replaced, and after flock the name must still lead to the
// locked file, so that a lock file removed meanwhile is never relied on.
int exclusive_file(const char *path, int *timeoutMs, bool private_file) noexcept
{
    if (path == nullptr || timeoutMs == nullptr || *timeoutMs < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    for (int stale = 0;;) {
        const int fd = private_file ? open_private_lock(path)
                                    : ::open(path, O_RDWR | O_NONBLOCK | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno != EAGAIN && errno != EINTR)
                return fail(-1, ERR_OPEN_FAILED);
        } else {
            struct stat st {};
            if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
                ::close(fd);
                return fail(-1, ERR_OPEN_FAILED);
            }
            if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
                if (!private_file || still_named(fd, path))
                    return fd;
                ::close(fd); // removed or replaced while we waited: take the new one
                if (++stale > 8)
                    return fail(-1, ERR_OPEN_FAILED);
                continue;
            }
            const int why = errno;
            ::close(fd);
            if (why != EWOULDBLOCK && why != EINTR)
                return fail(-1, ERR_LOCK_FAILED);
        }
        // Busy: wait 200 ms while time is left.
        sleep_ms(200);
        *timeoutMs -= 200;
        if (*timeoutMs < 0)
            return fail(-2, ERR_LOCK_FAILED);
    }
}

} // namespace kemo::locks

namespace kemo {

ConfigLock::ConfigLock(int request, int release_mask, int timeout) noexcept
    : mask_(release_mask), held_(locks::take(request, timeout) == 0)
{
}

ConfigLock::ConfigLock(ConfigLock &&other) noexcept : mask_(other.mask_), held_(other.held_)
{
    other.held_ = false;
}

ConfigLock::~ConfigLock()
{
    if (held_)
        locks::release(mask_);
}

bool ConfigLock::release() noexcept
{
    if (!held_)
        return true;
    held_ = false;
    return locks::release(mask_) == 0 || fail(false, ERR_UNLOCK_FAILED);
}

} // namespace kemo

extern "C" {

KEMO_API int ErrKLIBILockCheckDir(void)
{
    return kemo::locks::check_dir();
}

KEMO_API int ErrKLIBFileUnlock(int mask)
{
    return kemo::locks::release(mask);
}

KEMO_API int ErrKLIBFileLock(int request, int timeout)
{
    return kemo::locks::take(request, timeout);
}

KEMO_API int ErrKLIBFileResetLock(int mask)
{
    return kemo::locks::reset(mask);
}

KEMO_API int ErrKLIBFileCloseLock(void)
{
    return kemo::locks::close_all();
}

KEMO_API int GetExclusiveFileLock(const char *path, int *timeoutMs)
{
    return kemo::locks::exclusive_file(path, timeoutMs, false);
}

KEMO_API int ReleaseExclusiveFileLock(int fd)
{
    return ::close(fd);
}

} // extern "C"
