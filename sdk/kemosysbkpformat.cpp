// The configuration backup's file format: the typed values, raw word
// blocks, section headers and their patched sizes.  Every integer of the
// file is a big-endian u32 (put_u32/get_u32).
#include "kemo_io.hpp"
#include "kemo_log.hpp"
#include "kemo_sysbackup.hpp"

#include <unistd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kemo::sysbackup {

// Writes every byte (retrying short writes and EINTR).
bool write_all(int fd, const void *data, std::size_t size) noexcept
{
    const auto *p = static_cast<const unsigned char *>(data);
    while (size > 0) {
        const ssize_t n = ::write(fd, p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

// Reads up to size bytes, stopping early only at the end of the file.  The
// count read, or -1 on a read error.
ssize_t read_full(int fd, void *data, std::size_t size) noexcept
{
    auto *p = static_cast<unsigned char *>(data);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::read(fd, p + done, size - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        done += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

bool write_u32(int fd, uint32_t v) noexcept
{
    unsigned char word[4];
    put_u32(word, v);
    return write_all(fd, word, sizeof word);
}

bool read_u32(int fd, uint32_t &v) noexcept
{
    unsigned char word[4];
    if (read_full(fd, word, sizeof word) != 4)
        return false;
    v = get_u32(word);
    return true;
}

// Bytes left between the position and the end of a regular file; nullopt
// for anything else (a pipe has no known end).
std::optional<long long> remaining(int fd) noexcept
{
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
        return std::nullopt;
    const off_t at = ::lseek(fd, 0, SEEK_CUR);
    if (at < 0)
        return std::nullopt;
    return at >= st.st_size ? 0 : static_cast<long long>(st.st_size - at);
}

} // namespace kemo::sysbackup

namespace {

using namespace kemo::sysbackup;

// A section header with a zero size, to be patched once the body is done.
bool write_header_words(const char *fn, int fd, uint32_t id, uint32_t version)
{
    if (!write_u32(fd, id)) {
        BKP_LOG(fn, "write id fail, errno = %d", errno);
        return false;
    }
    if (!write_u32(fd, version)) {
        BKP_LOG(fn, "write ver fail, errno = %d", errno);
        return false;
    }
    if (!write_u32(fd, 0)) {
        BKP_LOG(fn, "write fake size fail, errno = %d", errno);
        return false;
    }
    return true;
}

// The temporary buffer of a raw block after checking the arguments: count
// a multiple of 4, a buffer unless count is 0.  false (logged) otherwise.
bool raw_block(const char *fn, const void *buffer, int count, std::vector<unsigned char> &words)
{
    if (count < 0 || count % 4 != 0) {
        kemo::log("%s:%d(%s) bytes error:[%d]", __FILE__, __LINE__, fn, count);
        return false;
    }
    if (buffer == nullptr && count > 0) {
        kemo::log("%s:%d(%s) parameter error", __FILE__, __LINE__, fn);
        return false;
    }
    try {
        words.resize(static_cast<std::size_t>(count));
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        kemo::log("%s:%d(%s) malloc:[%d(%m)]", __FILE__, __LINE__, fn, count);
        return false;
    }
    return true;
}

} // namespace

namespace kemo::sysbackup {

// The interface section has no registry entry, so its header is written
// with the common version instead of the registry's.
// The section proper; the caller reports a failure.
int write_section_body(const char *fn, int fd, uint32_t id, const std::function<bool()> &body)
{
    const bool headed = id == kInterfaceId ? write_header_words(fn, fd, id, kVersion)
                                           : write_header(fd, id) == 0;
    if (!headed) {
        BKP_LOG(fn, "fail to write header");
        return -1;
    }
    const off_t begin = ::lseek(fd, 0, SEEK_CUR);
    if (begin < 0) {
        BKP_LOG(fn, "fail to get current location, errno =%d", errno);
        return -1;
    }
    if (!body())
        return -1;
    const off_t end = ::lseek(fd, 0, SEEK_CUR);
    if (end < 0) {
        BKP_LOG(fn, "fail to get current location, errno =%d", errno);
        return -1;
    }
    if (write_block_size(fd, begin, end) < 0) {
        BKP_LOG(fn, "fail to write block size");
        return -1;
    }
    return 0;
}

int write_section(const char *fn, int fd, uint32_t id, const std::function<bool()> &body,
                  uint32_t failed_event)
{
    const int result = write_section_body(fn, fd, id, body);
    if (result < 0 && failed_event != 0)
        report(failed_event);
    return result;
}

void report(uint32_t event, const char *arg1)
{
    kemo::eventlog::write_event(KEMO_LOG_SYSTEM, KEMO_EVENT_ERROR, event, {arg1, "", "", ""});
}

} // namespace kemo::sysbackup

namespace kemo::sysbackup {

int write_header(int fd, uint32_t id)
{
    const char *const fn = "KEMOSysbkpIWriteHeader";
    if (!write_u32(fd, id)) {
        BKP_LOG(fn, "write id fail, errno = %d", errno);
        return -1;
    }
    const int index = section_index(id);
    if (index < 0) {
        BKP_LOG(fn, "fail to get id");
        return -1;
    }
    if (!write_u32(fd, grgSysRoutine[index].version)) {
        BKP_LOG(fn, "write ver fail, errno = %d", errno);
        return -1;
    }
    if (!write_u32(fd, 0)) {
        BKP_LOG(fn, "write fake size fail, errno = %d", errno);
        return -1;
    }
    return 0;
}

int write_block_size(int fd, int64_t begin, int64_t end)
{
    const char *const fn = "KEMOSysbkpIWriteBlkSize";
    if (begin < 4 || end < begin || end - begin > UINT32_MAX) {
        BKP_LOG(fn, "parameter error");
        return -1;
    }
    if (::lseek(fd, static_cast<off_t>(begin - 4), SEEK_SET) < 0) {
        BKP_LOG(fn, "fail to seek to offBegin - sizeof(long), errno =%d", errno);
        return -1;
    }
    if (!write_u32(fd, static_cast<uint32_t>(end - begin))) {
        BKP_LOG(fn, "write len fail, errno = %d", errno);
        return -1;
    }
    if (::lseek(fd, static_cast<off_t>(end), SEEK_SET) < 0) {
        BKP_LOG(fn, "fail to seek to offEnd, errno =%d", errno);
        return -1;
    }
    return 0;
}

int write_string(int fd, std::string_view text)
{
    const char *const fn = "KEMOSysbkpIWriteString";
    const std::size_t length = text.size() + 1;
    if (length > INT32_MAX) {
        BKP_LOG(fn, "string too long (%zu)", length);
        return -1;
    }
    // One write for the whole value.
    std::string value(8, '\0');
    put_u32(reinterpret_cast<unsigned char *>(value.data()), kTypeString);
    put_u32(reinterpret_cast<unsigned char *>(value.data()) + 4, static_cast<uint32_t>(length));
    value.append(text);
    value.push_back('\0');
    if (!write_all(fd, value.data(), value.size())) {
        BKP_LOG(fn, "write string fail, errno = %d", errno);
        return -1;
    }
    return 0;
}

bool read_text(int fd, std::string &text)
{
    const char *const fn = "KEMOSysbkpIReadString";
    unsigned char head[8];
    if (read_full(fd, head, sizeof head) != static_cast<ssize_t>(sizeof head)) {
        BKP_LOG(fn, "fail to read string header, errno = %d", errno);
        return false;
    }
    const uint32_t type = get_u32(head);
    const auto length = static_cast<int32_t>(get_u32(head + 4));
    if (type != kTypeString || length <= 0) {
        BKP_LOG(fn, "invalid type(%ld, %ld)", static_cast<long>(type), static_cast<long>(length));
        return false;
    }
    // Never allocate more than the value can hold: a length beyond the
    // rest of the body is refused, and from a descriptor without a known
    // end the text grows only as bytes arrive.
    const std::optional<long long> left = remaining(fd);
    if (left && length > *left) {
        BKP_LOG(fn, "string length %ld beyond the body (%lld left)", static_cast<long>(length), *left);
        return false;
    }
    std::string value;
    constexpr std::size_t kChunk = 64 * 1024;
    while (value.size() < static_cast<std::size_t>(length)) {
        const std::size_t want = std::min(kChunk, static_cast<std::size_t>(length) - value.size());
        const std::size_t at = value.size();
        value.resize(at + want);
        if (read_full(fd, value.data() + at, want) != static_cast<ssize_t>(want)) {
            BKP_LOG(fn, "fail to read string, errno = %d", errno);
            return false;
        }
    }
    // The text ends at its one NUL, the value's last byte.
    if (std::strlen(value.c_str()) + 1 != value.size()) {
        BKP_LOG(fn, "string not terminated");
        return false;
    }
    value.pop_back();
    text = std::move(value);
    return true;
}

int read_string(int fd, char **text)
{
    *text = nullptr;
    std::string value;
    if (!read_text(fd, value))
        return -1;
    char *copy = static_cast<char *>(std::malloc(value.size() + 1));
    if (copy == nullptr) {
        BKP_LOG("KEMOSysbkpIReadString", "malloc fail");
        return -1;
    }
    std::memcpy(copy, value.c_str(), value.size() + 1);
    *text = copy;
    return 0;
}

int write_long(int fd, int32_t value)
{
    unsigned char word[12];
    put_u32(word, kTypeLong);
    put_u32(word + 4, 4);
    put_u32(word + 8, static_cast<uint32_t>(value));
    if (!write_all(fd, word, sizeof word)) {
        BKP_LOG("KEMOSysbkpIWriteLong", "write long fail, errno = %d", errno);
        return -1;
    }
    return 0;
}

int read_long(int fd, int32_t &value)
{
    const char *const fn = "KEMOSysbkpIReadLong";
    unsigned char word[12];
    if (read_full(fd, word, sizeof word) != static_cast<ssize_t>(sizeof word)) {
        BKP_LOG(fn, "fail to read long, errno = %d", errno);
        return -1;
    }
    const uint32_t type = get_u32(word), length = get_u32(word + 4);
    if (type != kTypeLong || length != 4) {
        BKP_LOG(fn, "invalid type(%ld, %ld)", static_cast<long>(type), static_cast<long>(length));
        return -1;
    }
    value = static_cast<int32_t>(get_u32(word + 8));
    return 0;
}

// Raw blocks hold words in the host's order; in the file each word is
// big-endian, so a block written on this (little-endian) host reads back
// the same on every host.
int raw_write(int fd, const void *buffer, int count)
{
    const char *const fn = "KEMOSysbkpRawIntWrite";
    std::vector<unsigned char> words;
    if (!raw_block(fn, buffer, count, words))
        return -1;
    const auto *in = static_cast<const unsigned char *>(buffer);
    for (int i = 0; i < count; i += 4) {
        uint32_t word;
        std::memcpy(&word, in + i, 4);
        put_u32(words.data() + i, word);
    }
    if (!write_all(fd, words.data(), words.size())) {
        kemo::log("%s:%d(%s) write:[%d(%m)]", __FILE__, __LINE__, fn, errno);
        return -1;
    }
    return 0;
}

int raw_read(int fd, void *buffer, int count)
{
    const char *const fn = "KEMOSysbkpRawIntRead";
    std::vector<unsigned char> words;
    if (!raw_block(fn, buffer, count, words))
        return -1;
    const ssize_t got = read_full(fd, words.data(), words.size());
    if (got == 0)
        return 0; // the end of the file
    if (got != count) {
        kemo::log("%s:%d(%s) read(%d/%d):[%d(%m)]", __FILE__, __LINE__, fn, static_cast<int>(got), count,
                  errno);
        return -1;
    }
    auto *out = static_cast<unsigned char *>(buffer);
    for (int i = 0; i < count; i += 4) {
        const uint32_t word = get_u32(words.data() + i);
        std::memcpy(out + i, &word, 4);
    }
    return count;
}

} // namespace kemo::sysbackup

extern "C" {

KEMO_API int KEMOSysbkpIWriteHeader(int fd, uint32_t id)
{
    return write_header(fd, id);
}

KEMO_API int KEMOSysbkpIWriteBlkSize(int fd, int64_t offBegin, int64_t offEnd)
{
    return write_block_size(fd, offBegin, offEnd);
}

KEMO_API int KEMOSysbkpIWriteString(int fd, const char *text)
{
    if (text == nullptr) {
        BKP_LOG(__func__, "parameter error");
        return -1;
    }
    return kemo::edge(-1, [&] { return write_string(fd, text); });
}

KEMO_API int KEMOSysbkpIReadString(int fd, char **text)
{
    if (text == nullptr) {
        BKP_LOG(__func__, "parameter error");
        return -1;
    }
    *text = nullptr;
    return kemo::edge(-1, [&] { return read_string(fd, text); });
}

KEMO_API int KEMOSysbkpIWriteLong(int fd, int32_t value)
{
    return write_long(fd, value);
}

KEMO_API int KEMOSysbkpIReadLong(int fd, int32_t *value)
{
    if (value == nullptr) {
        BKP_LOG(__func__, "parameter error");
        return -1;
    }
    return read_long(fd, *value);
}

KEMO_API int KEMOSysbkpRawIntWrite(int fd, const void *buffer, int count)
{
    return kemo::edge(-1, [&] { return raw_write(fd, buffer, count); });
}

KEMO_API int KEMOSysbkpRawIntRead(int fd, void *buffer, int count)
{
    return kemo::edge(-1, [&] { return raw_read(fd, buffer, count); });
}

} // extern "C"
