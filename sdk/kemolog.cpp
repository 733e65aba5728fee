// The event logs: fixed-size ring files of binary records under /var/log,
// their paths and size limits in /etc/kemolog.conf, and the text form of a
// log in the reader's language.  (The list of current connections that
// KEMOLogGet gives lives in sdk/kemoconn.cpp.)
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
#include "kemo_conn.hpp"
#include "kemo_internal.hpp"
#include "kemo_io.hpp"
#include "kemo_process.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

extern "C" {
KEMO_API int32_t glogsizeMax = 65536;
KEMO_API PKLIBSZHASH gpshEvent = nullptr;
}

namespace {

using kemo::fail;

constexpr uint32_t kArea = 16;       // first byte of the record area
constexpr uint32_t kNone = 0xFFFFFFFF; // head or tail that could not be read
constexpr int64_t kFixed = 24;       // record bytes before the texts
constexpr int kTries = 10;           // opens and locks: 10 tries a second apart
constexpr char kConf[] = "/etc/kemolog.conf";
constexpr char kTexts[] = "/usr/kemo/kemosdk/texts/";
constexpr char kTypeSection[] = "11000000";
constexpr int kEventCacheSize = 2048;

// ------------------------------------------------------------ byte order

void put_u16(unsigned char *p, uint16_t v)
{
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}

void put_u32(unsigned char *p, uint32_t v)
{
    put_u16(p, static_cast<uint16_t>(v >> 16));
    put_u16(p + 2, static_cast<uint16_t>(v));
}

uint16_t get_u16(const unsigned char *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

uint32_t get_u32(const unsigned char *p)
{
    return static_cast<uint32_t>(get_u16(p)) << 16 | get_u16(p + 2);
}

// ------------------------------------------------------------ classes

struct LogClass {
    const char *file_key;
    const char *default_file;
    const char *size_key;
    int32_t default_size; // the size of a first write, before the file exists
};

constexpr LogClass kSystem{"syslogfile", "/var/log/kemosys.log", "syslogfilesize_MAX", 131072};
constexpr LogClass kManage{"manlogfile", "/var/log/kemoman1.log", "manlogfilesize_MAX", 131072};
constexpr LogClass kConnect{"connlogfile", "/var/log/kemoconn.log", "connlogfilesize_MAX", 65536};
constexpr LogClass kBackup{"bkplogfile", "/var/log/kemobackup.log", "bkplogfilesize_MAX", 65536};
constexpr LogClass kCopy{"copylogfile", "/var/log/kemocopy.log", "copylogfilesize_MAX", 65536};
constexpr LogClass kNetBackup{"netbkplogfile", "/var/log/kemonetbkp.log", "netbkplogfilesize_MAX",
                              65536};

// The class's own file and size key (readers, size changes); null for
// class 4, 0 and 8 and above.
const LogClass *class_of(long long log_class)
{
    switch (log_class) {
    case 1: return &kSystem;
    case 2: return &kManage;
    case 3: return &kConnect;
    case 5: return &kBackup;
    case 6: return &kCopy;
    case 7: return &kNetBackup;
    default: return nullptr;
    }
}

// The value of key in /etc/kemolog.conf if it is there and fits a buffer
// of `room` bytes (NUL included), as the file paths (32) and sizes (11)
// are read.
std::optional<std::string> conf_value(const char *key, int room)
{
    std::string buf(static_cast<std::size_t>(room), '\0');
    if (KLIBFileGetKeyValue(kConf, key, buf.data(), room, 0) <= 0)
        return std::nullopt;
    buf.resize(std::strlen(buf.c_str()));
    return buf;
}

std::string file_of(const LogClass &c)
{
    auto file = conf_value(c.file_key, 32);
    return file ? std::move(*file) : std::string(c.default_file);
}

// The size key as a number; a missing, unparsable or non-positive value
// counts as absent (a size of 0 would empty the log on every write).
std::optional<int32_t> size_of(const LogClass &c)
{
    const auto text = conf_value(c.size_key, 11);
    if (!text)
        return std::nullopt;
    const long size = std::strtol(text->c_str(), nullptr, 10);
    if (size <= 0 || size > INT32_MAX)
        return std::nullopt;
    return static_cast<int32_t>(size);
}

bool file_exists(const char *path)
{
    struct stat st;
    return ::stat(path, &st) == 0;
}

// ------------------------------------------------------------ descriptors

class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(Fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd &operator=(Fd &&other) noexcept
    {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    void reset() noexcept
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

// Runs attempt up to kTries times, a second apart, until it succeeds.
template <class Attempt>
bool retrying(Attempt &&attempt)
{
    for (int i = 0; i < kTries; ++i) {
        if (attempt())
            return true;
        if (i + 1 < kTries)
            std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    return false;
}

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

// An open log, whether its exclusive flock is held, and its status when
// it was opened.
struct Log {
    Fd fd;
    bool locked = false;
    struct stat st {};
    ~Log()
    {
        if (fd && locked)
            ::flock(fd.get(), LOCK_UN);
    }
    Log() = default;
    Log(Log &&) = default;
};

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
        if (KEMOLogInit(fd) != 0)
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
            if (KEMOLogSetHead(fd, kArea) != 0 || KEMOLogSetTail(fd, kArea) != 0)
                return fail(-1, ERR_WRITE_FAILED);
        }
        head = tail = kArea;
    }

    if (tail >= head) {
        if (limit - tail - 2 >= length) {
            if (!write_at(fd, tail, record.data(), count))
                return fail(-1, ERR_WRITE_FAILED);
            return KEMOLogSetTail(fd, tail + static_cast<uint32_t>(length)) == 0 ? 0
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
            if (KEMOLogSetHead(fd, head) != 0)
                return fail(-1, ERR_WRITE_FAILED);
        }
        if (!write_at(fd, kArea, record.data(), count)) {
            KEMO_LOG("sdk/kemolog1 : line 371");
            return fail(-1, ERR_WRITE_FAILED);
        }
        return KEMOLogSetTail(fd, kArea + static_cast<uint32_t>(length)) == 0 ? 0
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
            if (KEMOLogSetHead(fd, head) != 0)
                return fail(-1, ERR_WRITE_FAILED);
        }
    }
    if (!write_at(fd, tail, record.data(), count)) {
        KEMO_LOG("sdk/kemolog1 : lline 432");
        return fail(-1, ERR_WRITE_FAILED);
    }
    return KEMOLogSetTail(fd, tail + static_cast<uint32_t>(length)) == 0 ? 0 : fail(-1, ERR_WRITE_FAILED);
}

int append_event(const char *path, uint32_t type, uint32_t event_id,
                 const std::array<const char *, 4> &args)
{
    const char *user = KEMOLogObtainUser();
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

// ------------------------------------------------------------ walking a log

// A record of a log held in memory: its offset and length.
struct Span {
    uint32_t offset;
    uint16_t length;
};

struct Walk {
    std::vector<Span> records; // oldest first
    uint32_t end = kArea;      // after the last record of the pass that ends at the tail
    bool format_error = false; // a length of 1 was met
};

// The records from head to tail in order: from head to the end marker
// (or the file's end) and from 16 to the tail when the log has wrapped.
// A pass stops at a zero length, a length of 1, a record cut short by the
// file's end, or one that would run past the tail.
Walk walk_log(std::string_view file, uint32_t stored_head, uint32_t stored_tail)
{
    Walk walk;
    const uint64_t size = file.size();
    const uint64_t head = std::max(stored_head, kArea);
    const uint64_t tail = std::max(stored_tail, kArea);
    const auto *bytes = reinterpret_cast<const unsigned char *>(file.data());
    const auto pass = [&](uint64_t pos, std::optional<uint64_t> until) {
        while (!until || pos < *until) {
            if (pos + 2 > size)
                break;
            const uint16_t n = get_u16(bytes + pos);
            if (n == 0)
                break;
            if (n < 2) {
                walk.format_error = true;
                break;
            }
            if (pos + n > size || (until && pos + n > *until))
                break;
            walk.records.push_back({static_cast<uint32_t>(pos), n});
            pos += n;
        }
        return static_cast<uint32_t>(std::min<uint64_t>(pos, UINT32_MAX));
    };
    if (head <= tail) {
        walk.end = pass(head, tail);
    } else {
        pass(head, std::nullopt);
        walk.end = tail == kArea ? kArea : pass(kArea, tail);
    }
    return walk;
}

// The whole content of an open file; nullopt when it cannot be read.
std::optional<std::string> slurp(int fd)
{
    struct stat st;
    if (::fstat(fd, &st) != 0)
        return std::nullopt;
    std::string data(static_cast<std::size_t>(st.st_size), '\0');
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = ::pread(fd, data.data() + done, data.size() - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += static_cast<std::size_t>(n);
    }
    data.resize(done);
    return data;
}

// ------------------------------------------------------------ event texts

bool valid_language(std::string_view language)
{
    if (language.empty() || language.size() > 32)
        return false;
    return std::all_of(language.begin(), language.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-';
    });
}

std::string events_path(std::string_view language)
{
    return std::string(kTexts) + std::string(language) + "/events";
}

std::string hex_id(uint32_t id)
{
    char text[12];
    std::snprintf(text, sizeof text, "%X", id);
    return text;
}

// Frees a temporary hash.
struct HashFree {
    void operator()(PKLIBSZHASH h) const noexcept { KLIBSzHashFree(h); }
};
using HashPtr = std::unique_ptr<KLIBSZHASH, HashFree>;

// The catalogue text of event_id, through the process-wide cache; null for
// an unknown event (which is cached empty, so the file is not read for it
// again).
const char *event_text(uint32_t event_id, std::string_view language)
{
    const std::string key = hex_id(event_id);
    if (gpshEvent == nullptr) {
        gpshEvent = PshKLIBSzHashAlloc(kEventCacheSize);
        if (gpshEvent == nullptr) {
            KEMO_LOG("malloc event hash failed");
            return nullptr;
        }
    } else if (const char *cached = SzKLIBSzHashGetValue(gpshEvent, key.c_str())) {
        return *cached != '\0' ? cached : nullptr;
    }
    const std::string section = hex_id(event_id & ~0xFFFFFu);
    const std::string path = events_path(language);
    HashPtr loaded(PshKLIBSzHashAlloc(kEventCacheSize));
    if (!loaded)
        return nullptr;
    PKLIBSZHASH raw = loaded.release();
    const int pairs = KLIBFileGetSection(path.c_str(), section.c_str(), &raw);
    loaded.reset(raw);
    if (pairs <= 0) {
        KEMO_LOG("section %s not found in %s", section.c_str(), path.c_str());
        // A catalogue without the section does not know the event; a
        // catalogue that cannot be read may appear later.
        if (pairs == 0)
            KLIBSzHashSetValue(&gpshEvent, key.c_str(), "");
        return nullptr;
    }
    for (int i = 0; i < raw->nSlot; ++i) {
        const KLIBSZHASHSLOT &slot = raw->rgSlot[i];
        if (slot.pszKey != nullptr && KLIBSzHashSetValue(&gpshEvent, slot.pszKey, slot.pszValue) < 0)
            return nullptr;
    }
    const char *text = SzKLIBSzHashGetValue(gpshEvent, key.c_str());
    if (text == nullptr) {
        KLIBSzHashSetValue(&gpshEvent, key.c_str(), "");
        KEMO_LOG("event %s not found in %s", key.c_str(), section.c_str());
        return nullptr;
    }
    return *text != '\0' ? text : nullptr;
}

// The text with "@1".."@4" replaced by the arguments that are not empty.
// One pass over the catalogue text: a placeholder inside an argument stays
// as it is.
std::string fill_placeholders(std::string_view text, const std::array<std::string_view, 4> &args)
{
    std::string out;
    out.reserve(text.size() + args[0].size() + args[1].size() + args[2].size() + args[3].size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '@' && i + 1 < text.size() && text[i + 1] >= '1' && text[i + 1] <= '4' &&
            !args[static_cast<std::size_t>(text[i + 1] - '1')].empty()) {
            out += args[static_cast<std::size_t>(text[i + 1] - '1')];
            ++i;
        } else {
            out += text[i];
        }
    }
    return out;
}

// "11000001".."11000003" for the types 1..3, "11000000" for the rest.
std::string type_key(int type)
{
    return type >= 1 && type <= 3 ? "1100000" + std::to_string(type) : kTypeSection;
}

std::string type_name(int type, std::string_view language)
{
    std::string name = "Unknown";
    HashPtr names(PshKLIBSzHashAlloc(512));
    if (!names)
        return name;
    PKLIBSZHASH raw = names.release();
    KLIBFileGetSection(events_path(language).c_str(), kTypeSection, &raw);
    names.reset(raw);
    if (const char *value = SzKLIBSzHashGetValue(raw, type_key(type).c_str()))
        name = value;
    return name;
}

// Type names already looked up by one reading of a log.
struct TypeNames {
    std::map<std::string, std::string> by_key;
    const std::string &get(int type, std::string_view language)
    {
        const std::string key = type_key(type);
        auto it = by_key.find(key);
        if (it == by_key.end())
            it = by_key.emplace(key, type_name(type, language)).first;
        return it->second;
    }
};

// Reads fields of a record body in order, never past its end.
class Fields {
public:
    Fields(const unsigned char *body, int size) : at_(body), left_(size) {}
    bool u16(uint16_t &v) { return take(2) && (v = get_u16(at_ - 2), true); }
    bool u32(uint32_t &v) { return take(4) && (v = get_u32(at_ - 4), true); }
    bool text(uint16_t n, std::string &v)
    {
        return take(n) && (v.assign(reinterpret_cast<const char *>(at_ - n), n), true);
    }

private:
    bool take(int n)
    {
        if (left_ - n < 0)
            return false;
        left_ -= n;
        at_ += n;
        return true;
    }
    const unsigned char *at_;
    int left_;
};

enum class Spread { printed, unknown, truncated, failed };

// Prints the text line of one record body; nothing for a truncated body or
// an unknown event.
Spread spread(FILE *out, const unsigned char *body, int size, const char *language, TypeNames &types)
{
    Fields f(body, size);
    uint16_t type = 0, lengths[6] = {};
    uint32_t when = 0, event_id = 0;
    std::string texts[6]; // source, user, arguments 1-4
    if (!f.u16(type) || !f.u32(when) || !f.u16(lengths[0]) || !f.u16(lengths[1]) || !f.u32(event_id))
        return Spread::truncated;
    for (int i = 2; i < 6; ++i)
        if (!f.u16(lengths[i]))
            return Spread::truncated;
    for (int i = 0; i < 6; ++i)
        if (!f.text(lengths[i], texts[i]))
            return Spread::truncated;
    const std::string id = hex_id(event_id);
    const char *text = event_text(event_id, language);
    if (text == nullptr) {
        KEMO_LOG("Can not get the log szEvent id = %s, szLang = %s, szArg1 = [%s], szArg2 = [%s], "
                 "szArg3 = [%s], szArg4 = [%s], szSource = %s",
                 id.c_str(), language, texts[2].c_str(), texts[3].c_str(), texts[4].c_str(),
                 texts[5].c_str(), texts[0].c_str());
        return Spread::unknown;
    }
    const std::string sentence = fill_placeholders(text, {texts[2], texts[3], texts[4], texts[5]});
    const int printed =
        std::fprintf(out, "%d\t%s\t%s\t%s\t%s\t%s\n", static_cast<int>(type),
                     types.get(type & 0xFF, language).c_str(), KEMOLogConvertTime1(when),
                     texts[0].c_str(), texts[1].c_str(), sentence.c_str());
    return printed < 0 ? Spread::failed : Spread::printed;
}

int read_log(const char *log_path, const char *out_path, const char *language)
{
    if (!file_exists(log_path)) {
        KEMO_LOG("Kemora log file %s not exist", log_path);
        return fail(-1, ERR_FILE_NOT_FOUND);
    }
    kemo::FilePtr out = kemo::open_file(out_path, "w+");
    if (!out) {
        const int error = errno;
        KEMO_LOG("output log file open failed [%d].\n", error);
        return fail(-1, ERR_OPEN_FAILED);
    }
    Log log = open_log(log_path, O_RDONLY);
    if (!log.fd) {
        KEMO_LOG("log file %s open failed", log_path);
        return fail(-1, ERR_OPEN_FAILED);
    }
    if (!log.locked) {
        KEMO_LOG("log file lock failed");
        return fail(-1, ERR_LOCK_FAILED);
    }
    const auto file = slurp(log.fd.get());
    if (!file || file->size() < kArea)
        return fail(-1, ERR_READ_FAILED);
    const auto *bytes = reinterpret_cast<const unsigned char *>(file->data());
    const uint32_t tail = get_u32(bytes + 12);
    const Walk walk = walk_log(*file, get_u32(bytes + 8), tail);
    if (walk.format_error)
        KEMO_LOG("Log format error line%d", __LINE__);

    TypeNames types;
    bool written = true;
    for (const Span &r : walk.records)
        written = spread(out.get(), bytes + r.offset + 2, r.length - 2, language, types) != Spread::failed && written;
    written = std::fflush(out.get()) == 0 && written;

    // A tail past the last complete record (a cut or damaged end) is moved
    // back to it, under the same lock, so the next write continues there.
    if (walk.end != tail) {
        Fd fix(::open(log_path, O_RDWR | O_CLOEXEC));
        struct stat st;
        if (fix && still_at(fix.get(), log_path, st) && KEMOLogSetTail(fix.get(), walk.end) == 0)
            KEMO_LOG("log file %s: tail moved from %u to %u", log_path, tail, walk.end);
        else
            KEMO_LOG("log file %s: tail %u could not be moved to %u", log_path, tail, walk.end);
    }
    if (!written)
        return fail(-1, ERR_WRITE_FAILED);
    return 0;
}

// ------------------------------------------------------------ size changes

int create_conf_if_missing()
{
    if (file_exists(kConf))
        return 0;
    if (KEMOSetLogConf() != 0)
        return -1;
    KEMO_LOG("logconf file not exist! created one!");
    return 1;
}

int compact(int drop, const char *path)
{
    Log log = open_log(path, O_RDWR);
    if (!log.fd) {
        KEMO_LOG("logfile %s open error while resizing!", path);
        return fail(-1, ERR_OPEN_FAILED);
    }
    if (!log.locked) {
        KEMO_LOG("log file lock failed");
        return fail(-1, ERR_LOCK_FAILED);
    }
    const auto file = slurp(log.fd.get());
    if (!file)
        return fail(-1, ERR_READ_FAILED);
    // An unreadable header counts as an empty log.
    uint32_t head = kArea, tail = kArea;
    if (file->size() >= kArea) {
        head = get_u32(reinterpret_cast<const unsigned char *>(file->data()) + 8);
        tail = get_u32(reinterpret_cast<const unsigned char *>(file->data()) + 12);
    }
    const Walk walk = walk_log(*file, head, tail);
    std::size_t first = 0;
    for (int64_t skipped = 0; first < walk.records.size() && skipped < drop; ++first)
        skipped += walk.records[first].length;

    std::string fresh(kArea, '\0');
    for (std::size_t i = first; i < walk.records.size(); ++i)
        fresh.append(*file, walk.records[i].offset, walk.records[i].length);
    auto *p = reinterpret_cast<unsigned char *>(fresh.data());
    std::memcpy(p, "KEMO", 4);
    put_u32(p + 8, kArea);
    put_u32(p + 12, static_cast<uint32_t>(fresh.size()));

    // The new log replaces the old one whole (owner and mode kept) while
    // the old one's lock is held; a failure leaves the old log in place.
    char twin_path[4096];
    if (KLIBFileITmpName((std::string(path) + ".").c_str(), twin_path, sizeof twin_path) != 0)
        return -1;
    kemo::Twin twin(path, twin_path);
    if (!twin.open() || !twin.write(fresh) || !twin.commit()) {
        KEMO_LOG("log file %s could not be compacted", path);
        return -1;
    }
    return 0;
}

int shrink(int size, long long log_class)
{
    const LogClass *c = class_of(log_class);
    const std::string path = c != nullptr ? file_of(*c) : std::string();
    struct stat st;
    if (c == nullptr || ::stat(path.c_str(), &st) != 0) {
        KEMO_LOG("KEMOLogChangeSize : logfile %s not existed", path.c_str());
        return 0;
    }
    if (st.st_size <= size)
        return 0;
    return KEMOLogChangeSize_a(static_cast<int>(std::min<off_t>(st.st_size - size, INT32_MAX)),
                               path.c_str());
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

extern "C" {

KEMO_API int KEMOLogSet1(uint32_t logClass, uint32_t type, uint32_t eventId, const char *arg1,
                         const char *arg2, const char *arg3, const char *arg4)
{
    return kemo::edge(-1, [&] {
        // Class 2 is written into the system log, with the system log's size.
        const LogClass *c = logClass == 2 ? &kSystem : class_of(logClass);
        if (c == nullptr) {
            if (logClass != 4)
                KEMO_LOG("logclass error!");
            return fail(-1, ERR_BAD_PARAMETERS);
        }
        const int created = create_conf_if_missing();
        if (created < 0)
            return -1;
        const int file_class = logClass == 2 ? 1 : static_cast<int>(logClass);
        if (created == 1) {
            glogsizeMax = c->default_size;
            KEMOLogChangeSize(c->default_size, file_class);
        } else {
            if (logClass >= 3)
                KEMO_LOG("KEMO : log file %s opened", kConf);
            const auto size = size_of(*c);
            glogsizeMax = size ? *size : c->default_size;
            if (size)
                KEMOLogChangeSize(*size, file_class);
        }
        const std::string path = file_of(*c);
        // An empty argument stays visible as a single blank.
        const auto stored = [](const char *arg) { return arg == nullptr ? "" : *arg == '\0' ? " " : arg; };
        return KEMOLogSet1a(path.c_str(), type, eventId, stored(arg1), stored(arg2), stored(arg3),
                            stored(arg4));
    });
}

KEMO_API int KEMOLogSet1a(const char *path, uint32_t type, uint32_t eventId, const char *arg1,
                          const char *arg2, const char *arg3, const char *arg4)
{
    if (path == nullptr || *path == '\0')
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return append_event(path, type, eventId, {arg1, arg2, arg3, arg4}); });
}

KEMO_API int KEMOLogGet1(uint32_t logClass, const char *outputPath, const char *language)
{
    const LogClass *c = class_of(logClass);
    if (c == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    const int result = kemo::edge(-1, [&] {
        const std::string path = file_of(*c);
        return KEMOLogGet1a(path.c_str(), outputPath, language);
    });
    KLIBSzHashFree(gpshEvent);
    gpshEvent = nullptr;
    return result;
}

KEMO_API int KEMOLogGet1a(const char *logPath, const char *outputPath, const char *language)
{
    if (language == nullptr)
        language = "enu";
    if (outputPath == nullptr)
        outputPath = "./output";
    if (logPath == nullptr || !valid_language(language))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return read_log(logPath, outputPath, language); });
}

KEMO_API int KEMOLogSetSize(int size, int logClass)
{
    const LogClass *c = logClass == 7 ? nullptr : class_of(logClass);
    if (c == nullptr || size <= 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        if (create_conf_if_missing() < 0) {
            KEMO_LOG("logconf file created error while set size coz the logconf not exist!");
            return -1;
        }
        if (KLIBFileSetKeyValue(kConf, c->size_key, std::to_string(size).c_str(), "%s=\t\"%s\"\n") < 0) {
            KEMO_LOG("error occured in setkeyvalue in %s.", kConf);
            return -1;
        }
        return KEMOLogChangeSize(size, logClass) == 0 ? 0 : -1;
    });
}

KEMO_API int KEMOLogChangeSize(int size, int logClass)
{
    if (size < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return shrink(size, logClass); });
}

KEMO_API int KEMOLogChangeSize_a(int bytesToDrop, const char *path)
{
    if (path == nullptr || *path == '\0' || bytesToDrop < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return compact(bytesToDrop, path); });
}

KEMO_API int KEMOSetLogConf(void)
{
    return kemo::edge(-1, [] {
        static constexpr struct {
            const char *key, *file;
        } kLines[] = {
            {"syslogfile", "/var/log/kemosys.log"},     {"manlogfile", "/var/log/kemoman1.log"},
            {"connlogfile", "/var/log/kemoconn.log"},   {"bkplogfile", "/var/log/kemobackup.log"},
            {"copylogfile", "/var/log/kemocopy.log"},   {"netbkplogfile", "/var/log/kemonetbkp.log"},
        };
        std::string text;
        for (const auto &line : kLines) {
            text += std::string(line.key) + "\t=\t\"" + line.file + "\"\n";
            text += std::string(line.key) + "size_MAX\t=\t\"65536\"\n";
        }
        kemo::Twin twin(kConf);
        if (!twin.open())
            return fail(-1, ERR_OPEN_FAILED);
        return twin.write(text) && twin.commit() ? 0 : -1;
    });
}

KEMO_API int KEMOLogInit(int fd)
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

KEMO_API uint32_t KEMOLogGetHead(int fd)
{
    unsigned char b[4];
    return ::pread(fd, b, 4, 8) == 4 ? get_u32(b) : kNone;
}

KEMO_API uint32_t KEMOLogGetTail(int fd)
{
    unsigned char b[4];
    return ::pread(fd, b, 4, 12) == 4 ? get_u32(b) : kNone;
}

KEMO_API int KEMOLogSetHead(int fd, uint32_t head)
{
    // The head is made durable right after it moves.
    if (!write_u32_at(fd, 8, head) || ::fsync(fd) != 0) {
        KEMO_LOG("sdk/kemolog1: line 160");
        return fail(-1, ERR_WRITE_FAILED);
    }
    return 0;
}

KEMO_API int KEMOLogSetTail(int fd, uint32_t tail)
{
    // The records the tail comes to cover reach the disk before it moves.
    if (::fsync(fd) != 0 || !write_u32_at(fd, 12, tail)) {
        KEMO_LOG("sdk/kemolog1: line 138");
        return fail(-1, ERR_WRITE_FAILED);
    }
    return 0;
}

KEMO_API int KEMOLogWriteByte(int fd, const void *buffer, int count)
{
    if (buffer == nullptr || count < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    const ssize_t n = ::write(fd, buffer, static_cast<std::size_t>(count));
    if (n < 0)
        KEMO_LOG("KEMOLogWriteByte(): write() error!, input count is [%d]", count);
    return static_cast<int>(n);
}

KEMO_API int KEMOLogReadByte(int fd, void *buffer, int count)
{
    if (buffer == nullptr || count < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    const ssize_t n = ::read(fd, buffer, static_cast<std::size_t>(count));
    return n == count ? count : -1;
}

KEMO_API long long KEMOLogTell(int fd)
{
    return static_cast<long long>(::lseek(fd, 0, SEEK_CUR));
}

KEMO_API char *KEMOLogObtainUser(void)
{
    static char user[256];
    static UserCache cache;
    user[0] = '\0';
    if (const char *name = std::getenv("USERNAME")) {
        std::snprintf(user, sizeof user, "%s", name);
    } else {
        kemo::edge_void([] {
            struct stat st;
            const uid_t uid = ::geteuid();
            if (::stat("/etc/passwd", &st) != 0) {
                cache = UserCache{};
                cache.error = ERR_OPEN_FAILED;
            } else if (!cache.valid || cache.uid != uid || cache.dev != st.st_dev ||
                       cache.ino != st.st_ino || cache.size != st.st_size ||
                       cache.mtime.tv_sec != st.st_mtim.tv_sec || cache.mtime.tv_nsec != st.st_mtim.tv_nsec) {
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
            if (cache.error != 0)
                KLIBErrSet(cache.error);
            std::snprintf(user, sizeof user, "%s", cache.name.c_str());
        });
    }
    if (std::strcmp(user, "root") == 0)
        std::strcpy(user, "admin");
    return user;
}

KEMO_API char *KEMOLogConvertTime1(int64_t seconds)
{
    static char text[32];
    text[0] = '\0';
    const time_t when = static_cast<time_t>(seconds);
    struct tm tm;
    if (::localtime_r(&when, &tm) != nullptr)
        std::strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", &tm);
    return text;
}

KEMO_API char *KEMOLogConvertType(int type, const char *language)
{
    static char name[256];
    std::strcpy(name, "Unknown");
    if (language == nullptr)
        language = "enu";
    if (!valid_language(language))
        return name;
    kemo::edge_void([&] { std::snprintf(name, sizeof name, "%s", type_name(type, language).c_str()); });
    return name;
}

KEMO_API char *KEMOLogConvertEventKey(uint32_t eventId, const char *language, const char *arg1,
                                      const char *arg2, const char *arg3, const char *arg4)
{
    if (language == nullptr)
        language = "enu";
    if (!valid_language(language))
        return fail<char *>(nullptr, ERR_BAD_PARAMETERS);
    return kemo::edge<char *>(nullptr, [&]() -> char * {
        const char *text = event_text(eventId, language);
        if (text == nullptr)
            return nullptr;
        const auto arg = [](const char *a) { return std::string_view(a != nullptr ? a : ""); };
        const std::string sentence = fill_placeholders(text, {arg(arg1), arg(arg2), arg(arg3), arg(arg4)});
        char *out = static_cast<char *>(std::malloc(sentence.size() + 1));
        if (out == nullptr)
            return fail<char *>(nullptr, ERR_OUT_OF_MEMORY);
        std::memcpy(out, sentence.c_str(), sentence.size() + 1);
        return out;
    });
}

KEMO_API int KEMOLogEventSpread(FILE *out, const unsigned char *body, const char *language, int size)
{
    if (language == nullptr)
        language = "enu";
    if (out == nullptr || body == nullptr || size < 0 || !valid_language(language))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        TypeNames types;
        switch (spread(out, body, size, language, types)) {
        case Spread::truncated: return fail(-1, ERR_FORMAT_ERROR);
        case Spread::failed: return fail(-1, ERR_WRITE_FAILED);
        default: return 0;
        }
    });
}

KEMO_API int KEMOLogGet(int kind, int sub, PKLIBSZLIST *list, const char *filter)
{
    (void)filter;
    if (kind != 2 || sub != 1 || list == nullptr || *list == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::connections::current(list); });
}

} // extern "C"
