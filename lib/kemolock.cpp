// Cross-process locks of the shared configuration files: one empty lock
// file per resource under /tmp/lock/, locked with flock, selected by mask
// bits, nesting within a process.  And a single exclusive lock by path.
#include "kemo_internal.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>

namespace {

constexpr const char *lock_dir = "/tmp/lock";

struct LockEntry {
    FILE *stream;     // open while this process holds the lock
    const char *path; // the lock file
    std::uint32_t mask;
    int nesting;      // how many times this process took it
    int operation;    // the flock operation it was taken with
};

// Process-global, ended by the entry whose mask is 0.
LockEntry locks[] = {
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
constexpr int shared_nb = LOCK_SH | LOCK_NB;
constexpr int exclusive_nb = LOCK_EX | LOCK_NB;

template <class F>
void for_each_lock(F &&f)
{
    for (LockEntry *e = locks; e->mask != 0; ++e)
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

void sleep_ms(long ms) noexcept
{
    timespec left{ms / 1000, (ms % 1000) * 1000000L};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

} // namespace

extern "C" {

KEMO_API int ErrKLIBILockCheckDir(void)
{
    struct stat st {};
    // A symbolic link in the world-writable /tmp is not taken for the directory.
    if (::lstat(lock_dir, &st) != 0 || !S_ISDIR(st.st_mode)) {
        if (::mkdir(lock_dir, 0700) == 0) {
            if (::chmod(lock_dir, 0755) != 0)
                return kemo::fail(-1, ERR_CREATE_FAILED);
        } else if (errno != EEXIST || ::lstat(lock_dir, &st) != 0 || !S_ISDIR(st.st_mode)) {
            // EEXIST with a directory there: another process made it just now.
            return kemo::fail(-1, ERR_CREATE_FAILED);
        }
    }
    int result = 0;
    for_each_lock([&](const LockEntry &e) {
        if (result != 0 || (::lstat(e.path, &st) == 0 && S_ISREG(st.st_mode)))
            return;
        // Missing (or not a regular file): create it empty, never through a link.
        const int fd = ::open(e.path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd < 0 || ::close(fd) != 0)
            result = kemo::fail(-1, ERR_OPEN_FAILED);
    });
    return result;
}

KEMO_API int ErrKLIBFileUnlock(int mask)
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
            result = kemo::fail(-1, ERR_UNLOCK_FAILED);
        if (!close_entry(e))
            result = kemo::fail(-1, ERR_UNLOCK_FAILED);
    });
    return result;
}

KEMO_API int ErrKLIBFileLock(int request, int timeout)
{
    const int operation = request & operation_bits;
    if (operation != LOCK_SH && operation != LOCK_EX && operation != shared_nb &&
        operation != exclusive_nb)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    const std::uint32_t wanted = static_cast<std::uint32_t>(request) & ~std::uint32_t{operation_bits};
    if (ErrKLIBILockCheckDir() != 0)
        return -1;

    // timeout seconds allow 20 * timeout + 1 attempts, 50 ms apart.
    for (long t = 0; t <= static_cast<long>(timeout) * 100; t += 5) {
        std::uint32_t taken = 0;
        std::uint32_t held = 0;
        bool refused = false;
        for (LockEntry *e = locks; e->mask != 0; ++e) {
            if ((wanted & e->mask) == 0)
                continue;
            if (e->stream != nullptr) {
                ++e->nesting;
                taken |= e->mask;
                held |= e->mask;
                // A shared lock cannot become exclusive by nesting.
                if (e->operation == shared_nb && operation == exclusive_nb) {
                    refused = true;
                    break;
                }
                continue;
            }
            // Close-on-exec, so that programs the caller starts never keep a lock.
            e->stream = std::fopen(e->path, "re");
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
        ErrKLIBFileUnlock(static_cast<int>(taken));
        if (refused || timeout == 0)
            break;
        sleep_ms(50);
    }
    return kemo::fail(-1, ERR_LOCK_FAILED);
}

KEMO_API int ErrKLIBFileResetLock(int mask)
{
    int result = 0;
    for_each_lock([&](LockEntry &e) {
        if (e.stream == nullptr)
            return;
        if ((static_cast<std::uint32_t>(mask) & e.mask) != 0)
            e.nesting = 1;
        else if (!close_entry(e))
            result = kemo::fail(-1, ERR_UNLOCK_FAILED);
    });
    return result;
}

KEMO_API int ErrKLIBFileCloseLock(void)
{
    int result = 0;
    for_each_lock([&](LockEntry &e) {
        if (e.stream != nullptr && !close_entry(e))
            result = kemo::fail(-1, ERR_UNLOCK_FAILED);
    });
    return result;
}

KEMO_API int GetExclusiveFileLock(const char *path, int *timeoutMs)
{
    if (path == nullptr || timeoutMs == nullptr || *timeoutMs < 0)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    for (;;) {
        const int fd = ::open(path, O_RDWR | O_NONBLOCK | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) {
            if (errno != EAGAIN && errno != EINTR)
                return kemo::fail(-1, ERR_OPEN_FAILED);
        } else if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
            return fd;
        } else {
            const int why = errno;
            ::close(fd);
            if (why != EWOULDBLOCK && why != EINTR)
                return kemo::fail(-1, ERR_LOCK_FAILED);
        }
        // Busy: wait 200 ms while time is left.
        sleep_ms(200);
        *timeoutMs -= 200;
        if (*timeoutMs < 0)
            return kemo::fail(-2, ERR_LOCK_FAILED);
    }
}

KEMO_API int ReleaseExclusiveFileLock(int fd)
{
    return ::close(fd);
}

} // extern "C"
