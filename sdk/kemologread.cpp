// Reading an event log back as text, oldest record first, with the repair
// of a damaged end; and compaction, which drops the oldest records into a
// fresh file.  Every walk over records is bounded by the file's size and
// moves forward by at least two bytes a step.
#include "kemo_conn.hpp"
#include "kemofile.hpp"
#include "kemo_io.hpp"
#include "kemo_log.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using kemo::fail;
using namespace kemo::eventlog;

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

} // namespace

namespace kemo::eventlog {

int read_log(const char *log_path, const char *out_path, const char *language)
{
    if (!file_exists(log_path)) {
        KEMO_LOG("Kemora log file %s not exist", log_path);
        return fail(-1, ERR_FILE_NOT_FOUND);
    }
    // The caller names the path: never written through a planted name.
    kemo::Fd out_fd(kemo::open_for_caller(out_path, 0644));
    kemo::FilePtr out(out_fd ? ::fdopen(out_fd.get(), "w+") : nullptr);
    if (out)
        out_fd.release();
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
        if (fix && still_at(fix.get(), log_path, st) && set_tail(fix.get(), walk.end) == 0)
            KEMO_LOG("log file %s: tail moved from %u to %u", log_path, tail, walk.end);
        else
            KEMO_LOG("log file %s: tail %u could not be moved to %u", log_path, tail, walk.end);
    }
    if (!written)
        return fail(-1, ERR_WRITE_FAILED);
    return 0;
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
    if (kemo::settings::temp_name(std::string(path) + ".", twin_path, sizeof twin_path) != 0)
        return -1;
    kemo::Twin twin(path, twin_path);
    if (!twin.open() || !twin.write(fresh) || !twin.commit()) {
        KEMO_LOG("log file %s could not be compacted", path);
        return -1;
    }
    return 0;
}

int read_class_log(const LogClass &c, const char *output_path, const char *language)
{
    // The event texts looked up for this reading are dropped however it
    // ends.
    struct DropTexts {
        ~DropTexts()
        {
            KLIBSzHashFree(gpshEvent);
            gpshEvent = nullptr;
        }
    } drop;
    if (language == nullptr)
        language = "enu";
    if (output_path == nullptr)
        output_path = "./output";
    if (!valid_language(language))
        return fail(-1, ERR_BAD_PARAMETERS);
    const std::string path = file_of(c);
    return read_log(path.c_str(), output_path, language);
}

} // namespace kemo::eventlog

extern "C" {

KEMO_API int KEMOLogGet1(uint32_t logClass, const char *outputPath, const char *language)
{
    const LogClass *c = class_of(logClass);
    if (c == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return read_class_log(*c, outputPath, language); });
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

KEMO_API int KEMOLogChangeSize_a(int bytesToDrop, const char *path)
{
    if (path == nullptr || *path == '\0' || bytesToDrop < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return compact(bytesToDrop, path); });
}

KEMO_API int KEMOLogGet(int kind, int sub, PKLIBSZLIST *list, const char *filter)
{
    (void)filter;
    if (kind != 2 || sub != 1 || list == nullptr || *list == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::connections::current(list); });
}

} // extern "C"
