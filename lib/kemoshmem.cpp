// System V shared memory segments guarded by a one-value semaphore (1 free,
// 0 taken), described by a record that a descriptor file carries from the
// process that made the segment to the processes that use it.
//
// The semaphore is read and then set by two separate calls: two processes
// can both see it free and both take it.  The users of these segments
// accept that; what needs real exclusion uses the operations registry.
//
// Nothing read from a descriptor file is trusted further than it must be:
// a segment smaller than the size the file claims is not attached (a user
// of the memory would write past its end), and the file that a record
// names is removed only while it still describes that very segment.
#include "kemo_internal.hpp"
#include "kemo_io.hpp"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

// The record as a descriptor file holds it: four 32-bit words and the path,
// 96 bytes whatever the width of a pointer in this build.
struct FileRecord {
    int32_t shmid;
    int32_t semid;
    uint32_t state;
    uint32_t addr; // meaningless in a file
    char path[KLIB_SHMEM_PATH_SIZE];
};
static_assert(sizeof(FileRecord) == KLIB_SHMEM_FILE_SIZE, "a descriptor file holds 96 bytes");
static_assert(offsetof(FileRecord, path) == 16, "the path follows the four words");

constexpr uint32_t max_segment_size = 64u << 20;
constexpr long poll_ms = 10;
constexpr int access_retries = 1000;

// semctl's fourth argument, which the caller must declare.
union SemArg {
    int val;
    struct semid_ds *buf;
    unsigned short *array;
};

bool valid(const KLIBSHMEM *rec) noexcept { return rec != nullptr && rec != KLIB_SHMEM_INVALID; }

int sem_value(int semid) noexcept { return ::semctl(semid, 0, GETVAL); }

bool sem_set(int semid, int value) noexcept
{
    SemArg arg{};
    arg.val = value;
    return ::semctl(semid, 0, SETVAL, arg) == 0;
}

// Removes the segment and the semaphore set; false when either still
// exists afterwards (already gone counts as removed).
bool remove_objects(int shmid, int semid) noexcept
{
    bool ok = true;
    if (::shmctl(shmid, IPC_RMID, nullptr) != 0 && errno != EINVAL && errno != EIDRM) {
        KEMO_LOG("cannot remove shared memory segment %d: %m", shmid);
        ok = false;
    }
    if (::semctl(semid, 0, IPC_RMID) != 0 && errno != EINVAL && errno != EIDRM) {
        KEMO_LOG("cannot remove semaphore set %d: %m", semid);
        ok = false;
    }
    return ok;
}

// The size of a living segment; -1 when there is none with that id.
long long segment_size(int shmid) noexcept
{
    struct shmid_ds ds {};
    if (shmid < 0 || ::shmctl(shmid, IPC_STAT, &ds) != 0)
        return -1;
    return static_cast<long long>(ds.shm_segsz);
}

// Reads the record of a descriptor file: a regular file (a FIFO or a device
// at the name would block or never end) of at least 96 bytes.  0; -1 when
// the file cannot be opened; otherwise the number of whole records read (0).
int read_record(const char *path, FileRecord &out) noexcept
{
    kemo::Fd fd(::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return -1;
    std::size_t got = 0;
    auto *bytes = reinterpret_cast<char *>(&out);
    while (got < sizeof out) {
        const ssize_t n = ::read(fd.get(), bytes + got, sizeof out - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += static_cast<std::size_t>(n);
    }
    out.path[sizeof out.path - 1] = '\0';
    return got == sizeof out ? 1 : 0;
}

KLIBSHMEM *new_record() noexcept { return static_cast<KLIBSHMEM *>(std::calloc(1, sizeof(KLIBSHMEM))); }

// Unlinks the descriptor file a record names, but only while that file
// still describes the record's own segment: the path came out of a file,
// and root must not remove whatever another file's path points at.
void unlink_descriptor(const KLIBSHMEM &rec) noexcept
{
    if (rec.path[0] == '\0')
        return;
    struct stat st {};
    FileRecord file {};
    if (::lstat(rec.path, &st) != 0 || !S_ISREG(st.st_mode) || read_record(rec.path, file) != 1 ||
        file.shmid != rec.shmid || file.semid != rec.semid) {
        KEMO_LOG("%s no longer describes segment %d; left in place", rec.path, rec.shmid);
        return;
    }
    if (::unlink(rec.path) != 0)
        KEMO_LOG("cannot remove %s: %m", rec.path);
}

bool plain_path(std::string_view path) noexcept
{
    return !path.empty() && path.front() == '/' && path.size() < KLIB_SHMEM_PATH_SIZE &&
           kemo::fits_on_line(path);
}

bool write_all(int fd, const FileRecord &record) noexcept
{
    const auto *bytes = reinterpret_cast<const char *>(&record);
    std::size_t put = 0;
    while (put < sizeof record) {
        const ssize_t n = ::write(fd, bytes + put, sizeof record - put);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        put += static_cast<std::size_t>(n);
    }
    return ::fsync(fd) == 0;
}

// Writes the descriptor file of a new segment, private to its owner.  A
// file that could not be written whole is removed (while the name still
// leads to it), so that no reader finds half a record.
bool write_descriptor(const char *path, const FileRecord &record) noexcept
{
    kemo::Fd fd(kemo::open_for_caller(path, 0600));
    if (fd.get() < 0)
        return false;
    struct stat written {};
    const bool have_stat = ::fstat(fd.get(), &written) == 0;
    if (write_all(fd.get(), record) && fd.close())
        return true;
    const int error = errno;
    struct stat named {};
    if (have_stat && ::lstat(path, &named) == 0 && named.st_dev == written.st_dev &&
        named.st_ino == written.st_ino)
        ::unlink(path);
    errno = error;
    return false;
}

} // namespace

namespace kemo::shmem {

KLIBSHMEM *make(const char *path, uint32_t size)
{
    if (path == nullptr || !plain_path(path) || size == 0 || size > max_segment_size)
        return fail(KLIB_SHMEM_INVALID, ERR_BAD_PARAMETERS);
    FileRecord old {};
    if (read_record(path, old) == 1 && segment_size(old.shmid) >= 0)
        return fail(KLIB_SHMEM_INVALID, ERR_FILE_EXISTS);

    // Private keys: the ids travel in the descriptor file, so no other
    // process can guess or claim the objects first.
    const int shmid = ::shmget(IPC_PRIVATE, size, IPC_CREAT | IPC_EXCL | 0600);
    if (shmid < 0) {
        KEMO_LOG("shmget of %u bytes failed: %m", size);
        return fail(KLIB_SHMEM_INVALID, ERR_OUT_OF_MEMORY);
    }
    const int semid = ::semget(IPC_PRIVATE, 1, IPC_CREAT | IPC_EXCL | 0600);
    if (semid < 0) {
        KEMO_LOG("semget failed: %m");
        ::shmctl(shmid, IPC_RMID, nullptr);
        return fail(KLIB_SHMEM_INVALID, ERR_OUT_OF_MEMORY);
    }
    KLIBSHMEM *rec = new_record();
    void *addr = ::shmat(shmid, nullptr, 0);
    if (rec == nullptr || addr == reinterpret_cast<void *>(-1) || !sem_set(semid, 1)) {
        KEMO_LOG("cannot set up segment %d: %m", shmid);
        if (addr != reinterpret_cast<void *>(-1))
            ::shmdt(addr);
        remove_objects(shmid, semid);
        std::free(rec);
        return fail(KLIB_SHMEM_INVALID, ERR_OUT_OF_MEMORY);
    }
    FileRecord record {};
    record.shmid = shmid;
    record.semid = semid;
    record.state = size;
    std::memcpy(record.path, path, std::strlen(path) + 1);
    if (!write_descriptor(path, record)) {
        KEMO_LOG("cannot write the descriptor file %s: %m", path);
        ::shmdt(addr);
        remove_objects(shmid, semid);
        std::free(rec);
        return fail(KLIB_SHMEM_INVALID, ERR_WRITE_FAILED);
    }
    rec->shmid = shmid;
    rec->semid = semid;
    rec->state = size;
    rec->addr = addr;
    std::memcpy(rec->path, record.path, sizeof rec->path);
    return rec;
}

KLIBSHMEM *open(const char *path, uint32_t *size)
{
    if (path == nullptr)
        return fail(KLIB_SHMEM_INVALID, ERR_BAD_PARAMETERS);
    FileRecord record {};
    const int read = read_record(path, record);
    if (read < 0) {
        kemo::log("fopen error\n");
        return fail(KLIB_SHMEM_INVALID, ERR_OPEN_FAILED);
    }
    KLIBSHMEM *rec = new_record();
    if (rec == nullptr) {
        kemo::log("malloc error\n");
        return fail(KLIB_SHMEM_INVALID, ERR_OUT_OF_MEMORY);
    }
    if (read != 1) {
        kemo::log("fread error i:%d\n", read);
        std::free(rec);
        return fail(KLIB_SHMEM_INVALID, ERR_READ_FAILED);
    }
    const long long actual = segment_size(record.shmid);
    void *addr = actual >= static_cast<long long>(record.state) ? ::shmat(record.shmid, nullptr, 0)
                                                                : reinterpret_cast<void *>(-1);
    if (addr == reinterpret_cast<void *>(-1)) {
        if (actual < 0)
            KEMO_LOG("%s names segment %d, which does not exist", path, record.shmid);
        else
            KEMO_LOG("segment %d of %s: %lld bytes, not the %u the file says, or not attachable", record.shmid,
                     path, actual, record.state);
        std::free(rec);
        return fail(KLIB_SHMEM_INVALID, ERR_OPEN_FAILED);
    }
    rec->shmid = record.shmid;
    rec->semid = record.semid;
    rec->state = record.state;
    rec->addr = addr;
    std::memcpy(rec->path, record.path, sizeof rec->path);
    if (size != nullptr)
        *size = record.state;
    return rec;
}

int close(KLIBSHMEM *rec)
{
    if (!valid(rec))
        return fail(-1, ERR_BAD_PARAMETERS);
    // The record is freed whatever happens, so that a second close of the
    // same handle is never attempted on a failure.
    const bool detached = rec->addr == nullptr || ::shmdt(rec->addr) == 0;
    std::free(rec);
    return detached ? 0 : fail(-1, ERR_OP_FAILURE);
}

void *get_shm(KLIBSHMEM *rec)
{
    if (!valid(rec))
        return fail<void *>(nullptr, ERR_BAD_PARAMETERS);
    for (;;) {
        const int value = sem_value(rec->semid);
        if (value < 0) {
            KEMO_LOG("semaphore %d of segment %d: %m", rec->semid, rec->shmid);
            return fail<void *>(nullptr, ERR_OP_FAILURE);
        }
        if (value == 1)
            return sem_set(rec->semid, 0) ? rec->addr : fail<void *>(nullptr, ERR_OP_FAILURE);
        sleep_ms(poll_ms);
    }
}

int return_shm(KLIBSHMEM *rec)
{
    if (!valid(rec))
        return fail(-1, ERR_BAD_PARAMETERS);
    return sem_set(rec->semid, 1) ? 0 : fail(-1, ERR_OP_FAILURE);
}

int remove(KLIBSHMEM *rec)
{
    if (!valid(rec))
        return fail(-1, ERR_BAD_PARAMETERS);
    sem_set(rec->semid, 0);
    if (rec->addr != nullptr)
        ::shmdt(rec->addr);
    const bool removed = remove_objects(rec->shmid, rec->semid);
    unlink_descriptor(*rec);
    std::free(rec);
    return removed ? 0 : fail(-1, ERR_OP_FAILURE);
}

// ---------------------------------------------------------- attach kind

bool attached(const KLIBSHMEM *rec) noexcept
{
    return valid(rec) && rec->addr != nullptr && (rec->state & KLIB_SHMEM_ATTACHED) != 0;
}

int detach(KLIBSHMEM *rec)
{
    if (!attached(rec))
        return fail(-1, ERR_BAD_PARAMETERS);
    if (::shmdt(rec->addr) != 0) {
        const int error = errno;
        kemo::log("KLIBShmemDetach: shmdt failed %d\n", error);
        return fail(-1, ERR_OP_FAILURE);
    }
    rec->addr = nullptr;
    rec->state &= ~uint32_t{KLIB_SHMEM_ATTACHED};
    return 0;
}

int get_access(KLIBSHMEM *rec)
{
    if (!attached(rec))
        return fail(-1, ERR_BAD_PARAMETERS);
    // A taken semaphore is waited for like one we may not read yet.
    for (int retry = 0; retry <= access_retries; ++retry) {
        const int value = sem_value(rec->semid);
        if (value == 1) {
            if (!sem_set(rec->semid, 0))
                return fail(-1, ERR_OP_FAILURE);
            rec->state |= KLIB_SHMEM_ACCESS;
            return 0;
        }
        if (value < 0 && errno != EACCES) {
            const int error = errno;
            kemo::log("BlKLIBShmemGetAccess: semctl GETVAL failed %d", error);
            return fail(-1, ERR_OP_FAILURE);
        }
        if (retry < access_retries)
            sleep_ms(poll_ms);
    }
    return fail(-1, ERR_TIMER_EXPIRED);
}

int release_access(KLIBSHMEM *rec)
{
    if (!attached(rec) || (rec->state & KLIB_SHMEM_ACCESS) == 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    if (!sem_set(rec->semid, 1))
        return fail(-1, ERR_OP_FAILURE);
    rec->state &= ~uint32_t{KLIB_SHMEM_ACCESS};
    return 0;
}

int remove_attached(KLIBSHMEM *rec)
{
    if (!valid(rec) || (rec->state & KLIB_SHMEM_ATTACHED) == 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    if (rec->addr != nullptr && ::shmdt(rec->addr) != 0) {
        const int error = errno;
        kemo::log("KLIBShmemRemove: shmdt failed %d\n", error);
    }
    rec->addr = nullptr;
    sem_set(rec->semid, 0);
    const bool removed = remove_objects(rec->shmid, rec->semid);
    rec->state &= ~uint32_t{KLIB_SHMEM_ATTACHED | KLIB_SHMEM_ACCESS};
    return removed ? 0 : fail(-1, ERR_OP_FAILURE);
}

} // namespace kemo::shmem

extern "C" {

KEMO_API KLIBSHMEM *KLIBShmemCreate(int, uint32_t) { return nullptr; }
KEMO_API KLIBSHMEM *KLIBShmemCreateByPath(const char *, uint32_t) { return nullptr; }
KEMO_API KLIBSHMEM *KLIBShmemAttach(int) { return nullptr; }

KEMO_API KLIBSHMEM *KLIBShmemMake(const char *descriptorPath, uint32_t size)
{
    return kemo::edge(KLIB_SHMEM_INVALID, [&] { return kemo::shmem::make(descriptorPath, size); });
}

KEMO_API KLIBSHMEM *KLIBShmemOpen(const char *descriptorPath, uint32_t *size)
{
    return kemo::edge(KLIB_SHMEM_INVALID, [&] { return kemo::shmem::open(descriptorPath, size); });
}

KEMO_API int KLIBShmemClose(KLIBSHMEM *rec)
{
    return kemo::edge(-1, [&] { return kemo::shmem::close(rec); });
}

KEMO_API void *AddrKLIBShmemGetShm(KLIBSHMEM *rec)
{
    return kemo::edge<void *>(nullptr, [&] { return kemo::shmem::get_shm(rec); });
}

KEMO_API int KLIBShmemReturnShm(KLIBSHMEM *rec)
{
    return kemo::edge(-1, [&] { return kemo::shmem::return_shm(rec); });
}

KEMO_API int KLIBShmemDelete(KLIBSHMEM *rec)
{
    return kemo::edge(-1, [&] { return kemo::shmem::remove(rec); });
}

KEMO_API int KLIBShmemDetach(KLIBSHMEM *rec)
{
    return kemo::edge(-1, [&] { return kemo::shmem::detach(rec); });
}

KEMO_API int KLIBShmemGetAccess(KLIBSHMEM *rec)
{
    return kemo::edge(-1, [&] { return kemo::shmem::get_access(rec); });
}

KEMO_API int KLIBShmemReleaseAccess(KLIBSHMEM *rec)
{
    return kemo::edge(-1, [&] { return kemo::shmem::release_access(rec); });
}

KEMO_API int KLIBShmemRemove(KLIBSHMEM *rec)
{
    return kemo::edge(-1, [&] { return kemo::shmem::remove_attached(rec); });
}

} // extern "C"
