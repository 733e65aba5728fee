// The event logs' ring files and their writer.  The reader and
// compaction are in sdk/kemologread.cpp, event texts in
// sdk/kemologtext.cpp, the configuration file in sdk/kemologconf.cpp, and
// the list of current connections that KEMOLogGet gives in
// sdk/kemoconn.cpp.
//
// Ring file, every integer big-endian (put_u16/put_u32/get_u16/get_u32):
//   0 "KEMO", 4 reserved, 8 u32 head (oldest record), 12 u32 tail (where
//   the next record goes), 16 records back to back.  A record is u16
//   length (itself included), u16 type, u32 time, u16 source length, u16
//   user length, u32 event id, four u16 argument lengths, then the source,
//   user and argument bytes.  A length of 0 ends the record area, which
//   then goes on at 16.  head = tail means empty; the writer keeps the gap
//   in front of the head larger than the record it adds.
//
// Damaged files: every walk over records is bounded by the file's size and
// moves forward by at least two bytes a step.  The reader stops at the
// first record that is cut short, has a length of 1, or would run past the
// tail, and moves the tail back to the end of the last good record, so the
// next write continues there.  The writer starts a log afresh (head = tail
// = 16) when the header's head or tail lies outside the record area or the
// log is empty; a broken chain met while freeing room in front of the head
// aborts the write with -1 (the reader's repair makes the next write work).
#include "kemo_io.hpp"
#include "kemo_log.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

extern "C" {
KEMO_API int32_t glogsizeMax = 65536;
}

namespace kemo::eventlog {

// Opens path, retrying; a file that is not there (and is not to be
// created) is not waited for.
Fd open_retrying(const char *path, int flags)
{
    Fd fd;
    retrying([&] {
        fd = Fd(::open(path, flags | O_CLOEXEC, 0600));
        const bool missing = !fd && errno == ENOENT && (flags & O_CREAT) == 0;
        return fd || missing;
    });
    return fd;
}

// True when fd is still the file at path: a compaction renames a new file
// over the log, and a process that waited for the old file's lock must
// not write into the old file.
bool still_at(int fd, const char *path, struct stat &held)
{
    struct stat named;
    return ::fstat(fd, &held) == 0 && ::stat(path, &named) == 0 && held.st_dev == named.st_dev &&
           held.st_ino == named.st_ino;
}

// Opens the log and takes its lock (both retried); opens again when the
// file was replaced while waiting for the lock.
Log open_log(const char *path, int flags)
{
    Log log;
    bool known = false;
    for (int round = 0; round < kTries; ++round) {
        log.fd = open_retrying(path, flags);
        if (!log.fd)
            return log;
        log.locked = retrying([&] { return ::flock(log.fd.get(), LOCK_EX | LOCK_NB) == 0; });
        if (!log.locked)
            break;
        if ((known = still_at(log.fd.get(), path, log.st)))
            break;
        ::flock(log.fd.get(), LOCK_UN);
        log.locked = false;
    }
    // Without a status the file's size is not known: no offset is refused
    // for lying beyond it.
    if (!known && ::fstat(log.fd.get(), &log.st) != 0)
        log.st.st_size = std::numeric_limits<off_t>::max();
    return log;
}

} // namespace kemo::eventlog

namespace {

using kemo::fail;
using namespace kemo::eventlog;

// Positional writes and reads: the file position is left alone.
bool write_at(int fd, uint32_t offset, const void *data, int count)
{
    const ssize_t n = ::pwrite(fd, data, static_cast<std::size_t>(count), offset);
    if (n < 0)
        KEMO_LOG("KEMOLogWriteByte(): write() error!, input count is [%d]", count);
    return n == count;
}

bool read_u16_at(int fd, uint32_t offset, uint16_t &value)
{
    unsigned char b[2];
    if (::pread(fd, b, 2, offset) != 2)
        return false;
    value = get_u16(b);
    return true;
}

bool write_u32_at(int fd, uint32_t offset, uint32_t value)
{
    unsigned char b[4];
    put_u32(b, value);
    return write_at(fd, offset, b, 4);
}

// ------------------------------------------------------------ records

// One record with the writing program, the user and the four arguments;
// nullopt when it would not fit the record's 16-bit length.
std::optional<std::string> build_record(uint32_t type, uint32_t event_id,
                                        const std::array<std::string_view, 6> &texts)
{
    int64_t total = kFixed;
    for (std::string_view t : texts)
        total += static_cast<int64_t>(t.size());
    if (total > 0xFFFF)
        return std::nullopt;
    std::string record(static_cast<std::size_t>(total), '\0');
    auto *p = reinterpret_cast<unsigned char *>(record.data());
    put_u16(p, static_cast<uint16_t>(total));
    put_u16(p + 2, static_cast<uint16_t>(type));
    put_u32(p + 4, static_cast<uint32_t>(std::time(nullptr)));
    put_u16(p + 8, static_cast<uint16_t>(texts[0].size()));
    put_u16(p + 10, static_cast<uint16_t>(texts[1].size()));
    put_u32(p + 12, event_id);
    for (int i = 0; i < 4; ++i)
        put_u16(p + 16 + 2 * i, static_cast<uint16_t>(texts[2 + i].size()));
    std::size_t at = kFixed;
    for (std::string_view t : texts) {
        std::memcpy(record.data() + at, t.data(), t.size());
        at += t.size();
    }
    return record;
}

// Places one record in the ring of an open, locked log of at most
// `limit` bytes.  0, or -1 with the error code set (head moves already
// stored stay).
int place_record(int fd, off_t size, const std::string &record, int64_t limit)
{
    const int64_t length = static_cast<int64_t>(record.size());
    const int count = static_cast<int>(record.size());
    static constexpr unsigned char kEnd[2] = {0, 0};

    // The header in one read; a file that does not start with "KEMO" is
    // given a fresh one (head = tail = 16).
    unsigned char h[kArea];
    const ssize_t got = ::pread(fd, h, kArea, 0);
    uint32_t head = kArea, tail = kArea;
    if (got < 4 || std::memcmp(h, "KEMO", 4) != 0) {
        if (init_ring(fd) != 0)
            return fail(-1, ERR_WRITE_FAILED);
        size = std::max<off_t>(size, kArea);
    } else {
        head = got >= 12 ? get_u32(h + 8) : kNone;
        tail = got >= 16 ? get_u32(h + 12) : kNone;
    }
    // Unreadable, outside the file, or empty: the area starts afresh at 16.
    const auto outside = [&](uint32_t at) { return at == kNone || at < kArea || at > size; };
    if (outside(head) || outside(tail) || head == tail) {
        if (head != kArea || tail != kArea) {
            if (set_head(fd, kArea) != 0 || set_tail(fd, kArea) != 0)
                return fail(-1, ERR_WRITE_FAILED);
        }
        head = tail = kArea;
    }

    if (tail >= head) {
        if (limit - tail - 2 >= length) {
            if (!write_at(fd, tail, record.data(), count))
                return fail(-1, ERR_WRITE_FAILED);
            return set_tail(fd, tail + static_cast<uint32_t>(length)) == 0 ? 0
                                                                             : fail(-1, ERR_WRITE_FAILED);
        }
        // No room before the limit: mark the end and go on at 16, freeing
        // the oldest records until the gap in front of the head is larger
        // than the record.
        if (!write_at(fd, tail, kEnd, 2)) {
            KEMO_LOG("sdk/kemolog1 : lline 349");
            return fail(-1, ERR_WRITE_FAILED);
        }
        int64_t freed = 0;
        while (freed <= length) {
            uint16_t n = 0;
            if (!read_u16_at(fd, head, n) || n == 0)
                return fail(-1, ERR_FORMAT_ERROR);
            head += n;
            freed += n;
            if (set_head(fd, head) != 0)
                return fail(-1, ERR_WRITE_FAILED);
        }
        if (!write_at(fd, kArea, record.data(), count)) {
            KEMO_LOG("sdk/kemolog1 : line 371");
            return fail(-1, ERR_WRITE_FAILED);
        }
        return set_tail(fd, kArea + static_cast<uint32_t>(length)) == 0 ? 0
                                                                             : fail(-1, ERR_WRITE_FAILED);
    }

    // Wrapped: the free gap runs from the tail to the head.
    int64_t gap = static_cast<int64_t>(head) - tail;
    if (gap <= length) {
        bool wrapped = false;
        // Each step moves the head forward by a non-zero length and the one
        // wrap happens once, so the walk ends within the file.
        while (!(length < gap)) {
            uint16_t n = 0;
            if (read_u16_at(fd, head, n) && n != 0) {
                head += n;
                gap += n;
            } else {
                if (wrapped)
                    return fail(-1, ERR_FORMAT_ERROR);
                wrapped = true;
                head = kArea;
                if (!read_u16_at(fd, head, n) || n == 0) {
                    KEMO_LOG("sdk/kemolog1 : lline %d", 531);
                    return fail(-1, ERR_FORMAT_ERROR);
                }
                gap = limit - tail - 2;
                if (gap < length) {
                    // The record cannot go at the end either: end the area
                    // at the tail and overwrite from 16.
                    if (!write_at(fd, tail, kEnd, 2)) {
                        KEMO_LOG("sdk/kemolog1 : lline 410");
                        return fail(-1, ERR_WRITE_FAILED);
                    }
                    tail = kArea;
                    gap = n;
                    head = kArea + n;
                }
            }
            if (set_head(fd, head) != 0)
                return fail(-1, ERR_WRITE_FAILED);
        }
    }
    if (!write_at(fd, tail, record.data(), count)) {
        KEMO_LOG("sdk/kemolog1 : lline 432");
        return fail(-1, ERR_WRITE_FAILED);
    }
    return set_tail(fd, tail + static_cast<uint32_t>(length)) == 0 ? 0 : fail(-1, ERR_WRITE_FAILED);
}

// The user name cached with what it was read from, so that an append does
// not read /etc/passwd again while it stays the same file.
struct UserCache {
    bool valid = false;
    uid_t uid = 0;
    dev_t dev = 0;
    ino_t ino = 0;
    struct timespec mtime {};
    off_t size = 0;
    std::string name;
    int error = 0;
};

} // namespace

namespace kemo::eventlog {

int init_ring(int fd)
{
    char magic[4];
    if (::pread(fd, magic, 4, 0) == 4 && std::memcmp(magic, "KEMO", 4) == 0)
        return 0;
    if (!write_at(fd, 0, "KEMO", 4)) {
        KEMO_LOG("sdk/kemolog1: line 99");
        return fail(-1, ERR_WRITE_FAILED);
    }
    if (!write_u32_at(fd, 8, kArea)) {
        KEMO_LOG("sdk/kemolog1: line 104");
        return fail(-1, ERR_WRITE_FAILED);
    }
    if (!write_u32_at(fd, 12, kArea)) {
        KEMO_LOG("sdk/kemolog1: line 110");
        return fail(-1, ERR_WRITE_FAILED);
    }
    return 0;
}

uint32_t head_of(int fd)
{
    unsigned char b[4];
    return ::pread(fd, b, 4, 8) == 4 ? get_u32(b) : kNone;
}

uint32_t tail_of(int fd)
{
    unsigned char b[4];
    return ::pread(fd, b, 4, 12) == 4 ? get_u32(b) : kNone;
}

int set_head(int fd, uint32_t head)
{
    // The head is made durable right after it moves.
    if (!write_u32_at(fd, 8, head) || ::fsync(fd) != 0) {
        KEMO_LOG("sdk/kemolog1: line 160");
        return fail(-1, ERR_WRITE_FAILED);
    }
    return 0;
}

int set_tail(int fd, uint32_t tail)
{
    // The records the tail comes to cover reach the disk before it moves.
    if (::fsync(fd) != 0 || !write_u32_at(fd, 12, tail)) {
        KEMO_LOG("sdk/kemolog1: line 138");
        return fail(-1, ERR_WRITE_FAILED);
    }
    return 0;
}

int write_bytes(int fd, const void *buffer, int count)
{
    const ssize_t n = ::write(fd, buffer, static_cast<std::size_t>(count));
    if (n < 0)
        KEMO_LOG("KEMOLogWriteByte(): write() error!, input count is [%d]", count);
    return static_cast<int>(n);
}

int read_bytes(int fd, void *buffer, int count)
{
    const ssize_t n = ::read(fd, buffer, static_cast<std::size_t>(count));
    return n == count ? count : -1;
}

std::string event_user(int &error)
{
    static UserCache cache;
    std::string user;
    error = 0;
    if (const char *name = std::getenv("USERNAME")) {
        user = name;
    } else {
        struct stat st;
        const uid_t uid = ::geteuid();
        if (::stat("/etc/passwd", &st) != 0) {
            cache = UserCache{};
            cache.error = ERR_OPEN_FAILED;
        } else if (!cache.valid || cache.uid != uid || cache.dev != st.st_dev || cache.ino != st.st_ino ||
                   cache.size != st.st_size || cache.mtime.tv_sec != st.st_mtim.tv_sec ||
                   cache.mtime.tv_nsec != st.st_mtim.tv_nsec) {
            cache = UserCache{};
            const std::string wanted = std::to_string(uid);
            const int scanned = kemo::for_each_line("/etc/passwd", [&](std::string_view line) {
                // name:password:uid:...
                const auto first = line.find(':');
                const auto second = first == std::string_view::npos ? first : line.find(':', first + 1);
                const auto third = second == std::string_view::npos ? second : line.find(':', second + 1);
                if (third == std::string_view::npos || line.substr(second + 1, third - second - 1) != wanted)
                    return 1;
                cache.name = std::string(line.substr(0, first));
                return 0;
            });
            cache.error = scanned < 0 ? ERR_OPEN_FAILED : cache.name.empty() ? ERR_KEY_NOT_FOUND : 0;
            cache.valid = scanned >= 0;
            cache.uid = uid;
            cache.dev = st.st_dev;
            cache.ino = st.st_ino;
            cache.size = st.st_size;
            cache.mtime = st.st_mtim;
        }
        error = cache.error;
        user = cache.name;
    }
    // The name is recorded as the exported buffer of 256 bytes holds it.
    if (user.size() > kUserRoom - 1)
        user.resize(kUserRoom - 1);
    if (user == "root")
        user = "admin";
    return user;
}

int append_event(const char *path, uint32_t type, uint32_t event_id,
                 const std::array<const char *, 4> &args)
{
    // A user that cannot be looked up is recorded as empty; the write
    // goes on and leaves the caller's error code alone.
    int user_error = 0;
    const std::string user = event_user(user_error);
    std::array<std::string_view, 6> texts{program_invocation_short_name, user};
    for (int i = 0; i < 4; ++i)
        texts[2 + i] = args[i] != nullptr ? args[i] : "";
    const auto record = build_record(type, event_id, texts);
    const int64_t limit = glogsizeMax;
    // A record that cannot fit even an empty log is refused before the log
    // is touched (it would otherwise free every record and still fail).
    if (!record || static_cast<int64_t>(record->size()) + kArea + 2 > limit) {
        KEMO_LOG("event %X of %zu bytes does not fit log %s of %d bytes", event_id,
                 record ? record->size() : std::size_t{0x10000}, path, static_cast<int>(limit));
        return fail(-1, ERR_BAD_PARAMETERS);
    }

    Log log = open_log(path, O_RDWR | O_CREAT);
    if (!log.fd) {
        KEMO_LOG("logfile %s open error while writing!", path);
        return fail(-1, ERR_OPEN_FAILED);
    }
    // Without the lock the write goes on all the same: an event is worth
    // more than the rare clash with a stuck writer.
    const int result = place_record(log.fd.get(), log.st.st_size, *record, limit);
    if (log.locked) {
        ::flock(log.fd.get(), LOCK_UN);
        log.locked = false;
    }
    if (result == 0 && (log.st.st_mode & 07777) != 0600)
        ::fchmod(log.fd.get(), 0600);
    return result;
}

int write_event(uint32_t log_class, uint32_t type, uint32_t event_id, const std::array<const char *, 4> &args)
{
    // Class 2 is written into the system log, with the system log's size.
    const LogClass *c = log_class == 2 ? &kSystem : class_of(log_class);
    if (c == nullptr) {
        if (log_class != 4)
            KEMO_LOG("logclass error!");
        return fail(-1, ERR_BAD_PARAMETERS);
    }
    const int created = create_conf_if_missing();
    if (created < 0)
        return -1;
    const int file_class = log_class == 2 ? 1 : static_cast<int>(log_class);
    if (created == 1) {
        glogsizeMax = c->default_size;
        shrink(c->default_size, file_class);
    } else {
        if (log_class >= 3)
            KEMO_LOG("KEMO : log file %s opened", kConf);
        const auto size = size_of(*c);
        glogsizeMax = size ? *size : c->default_size;
        if (size)
            shrink(*size, file_class);
    }
    const std::string path = file_of(*c);
    if (path.empty())
        return fail(-1, ERR_BAD_PARAMETERS);
    // An empty argument stays visible as a single blank.
    const auto stored = [](const char *arg) { return arg == nullptr ? "" : *arg == '\0' ? " " : arg; };
    return append_event(path.c_str(), type, event_id,
                        {stored(args[0]), stored(args[1]), stored(args[2]), stored(args[3])});
}

} // namespace kemo::eventlog

extern "C" {

KEMO_API int KEMOLogSet1(uint32_t logClass, uint32_t type, uint32_t eventId, const char *arg1,
                         const char *arg2, const char *arg3, const char *arg4)
{
    return kemo::edge(-1, [&] { return write_event(logClass, type, eventId, {arg1, arg2, arg3, arg4}); });
}

KEMO_API int KEMOLogSet1a(const char *path, uint32_t type, uint32_t eventId, const char *arg1,
                          const char *arg2, const char *arg3, const char *arg4)
{
    if (path == nullptr || *path == '\0')
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return append_event(path, type, eventId, {arg1, arg2, arg3, arg4}); });
}

KEMO_API int KEMOLogInit(int fd)
{
    return init_ring(fd);
}

KEMO_API uint32_t KEMOLogGetHead(int fd)
{
    return head_of(fd);
}

KEMO_API uint32_t KEMOLogGetTail(int fd)
{
    return tail_of(fd);
}

KEMO_API int KEMOLogSetHead(int fd, uint32_t head)
{
    return set_head(fd, head);
}

KEMO_API int KEMOLogSetTail(int fd, uint32_t tail)
{
    return set_tail(fd, tail);
}

KEMO_API int KEMOLogWriteByte(int fd, const void *buffer, int count)
{
    if (buffer == nullptr || count < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return write_bytes(fd, buffer, count);
}

KEMO_API int KEMOLogReadByte(int fd, void *buffer, int count)
{
    if (buffer == nullptr || count < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return read_bytes(fd, buffer, count);
}

KEMO_API long long KEMOLogTell(int fd)
{
    return static_cast<long long>(::lseek(fd, 0, SEEK_CUR));
}

KEMO_API char *KEMOLogObtainUser(void)
{
    static char user[kUserRoom];
    user[0] = '\0';
    kemo::edge_void([] {
        int error = 0;
        const std::string name = event_user(error);
        if (error != 0)
            KLIBErrSet(error);
        std::memcpy(user, name.c_str(), name.size() + 1);
    });
    return user;
}

} // extern "C"
