// Internal file helpers shared by every module that reads or rewrites the
// appliance's text files: a reader of lines of any length, the twin writer
// that replaces a file atomically, and the "key=value" line format.
#pragma once

#include "kemo_internal.hpp"

#include <cstdio>
#include <sys/types.h>
#include <cstring>
#include <unistd.h>
#include <memory>
#include <sys/types.h>
#include <utility>
#include <optional>
#include <string>
#include <string_view>

namespace kemo {

// A stdio stream closed when it goes out of scope.
struct FileCloser {
    void operator()(FILE *f) const noexcept { std::fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// A file descriptor closed when it goes out of scope.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) noexcept : fd_(fd) {}
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
    // Gives the descriptor up without closing it.
    int release() noexcept { return std::exchange(fd_, -1); }
    // Closes now; false when close reported an error.
    bool close() noexcept
    {
        const int fd = std::exchange(fd_, -1);
        return fd < 0 || ::close(fd) == 0;
    }
    void reset() noexcept { close(); }

private:
    int fd_ = -1;
};

// Opens a file the library writes for its caller at a path the caller
// names (an export, a listing), empty and with exactly `mode`.  A new file
// is created; an existing one is reused only when the opened descriptor
// shows a regular file of the caller's with no other name, so that a name
// another user planted (a link, a FIFO, a file of theirs, a second name of
// a private file) is never written through.  -1 with errno set (EPERM for
// a file that may not be reused, which is then left as it is).
int open_for_caller(const char *path, mode_t mode);

// The bytes of a file another process writes (under /tmp, or a sysfs
// attribute): opened without following a symbolic link and without
// blocking, read only when it is a regular file, at most limit bytes (with
// tail: its last whole lines within limit bytes of its end).  nullopt
// (errno set: ENOENT when absent, EINVAL when not a regular file) when it
// cannot be had.
std::optional<std::string> read_small_file(const char *path, std::size_t limit = 64 * 1024, bool tail = false);

// fopen that retries on EINTR; null with errno set on failure.
FilePtr open_file(const char *path, const char *mode);

// True when path exists and is a directory.
bool is_directory(const char *path);

// Reads a stream line by line.  A line is the bytes up to and including its
// newline (the last one may lack it) and may be of any length or hold NUL
// bytes.  The view stays valid until the next call.  Reading goes straight
// to the descriptor in large chunks (the stream's own buffer is not used,
// so the reader must start where the stream stands, as right after opening
// or rewinding it); lines are cut out of the chunk without copying.
class LineReader {
public:
    explicit LineReader(FILE *stream) : fd_(::fileno(stream)) {}
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;

    // Next line, or false at the end of the file or on a read error (tell
    // them apart with failed()).  Throws std::bad_alloc when out of memory.
    bool next(std::string_view &line);
    bool failed() const noexcept { return error_; }

private:
    static constexpr std::size_t kChunk = 32 * 1024;
    int fd_;
    std::unique_ptr<char[]> chunk_ = std::make_unique_for_overwrite<char[]>(kChunk);
    std::size_t begin_ = 0, end_ = 0;
    std::string carry_; // a line that runs across chunks
    bool carried_ = false, eof_ = false, error_ = false;
};

// Reads the file at path line by line: each(line) returns 1 to go on, 0 to
// stop early, -1 to fail (with the error code set).  0 when the lines were
// read (or reading was stopped), -1 with ERR_OPEN_FAILED, ERR_READ_FAILED or
// each's code.
template <class Each>
int for_each_line(const char *path, Each &&each)
{
    FilePtr in = open_file(path, "r");
    if (!in)
        return fail(-1, ERR_OPEN_FAILED);
    LineReader reader(in.get());
    std::string_view line;
    while (reader.next(line)) {
        const int go_on = each(line);
        if (go_on <= 0)
            return go_on;
    }
    return reader.failed() ? fail(-1, ERR_READ_FAILED) : 0;
}

// A caller's line as it is written to a file: with its newline.
inline std::string with_newline(std::string_view line)
{
    std::string text(line);
    if (text.empty() || text.back() != '\n')
        text += '\n';
    return text;
}

// Sets a line's pair into a hash (scratch holds the NUL-terminated copies).
// The result of KLIBSzHashSetValue.
int set_pair(PKLIBSZHASH *phash, const KeyValue &pair, std::string &scratch);

// A line without its newline (and a CR before it).
std::string_view chomp(std::string_view line) noexcept;

// Caller text that is to stand inside one line of a file: true when it
// holds no line break (CR or LF) and no NUL.  Every writer refuses keys,
// values and section names that fail it with ERR_BAD_PARAMETERS before it
// touches a file, so that no caller can add lines of its choosing.
bool fits_on_line(std::string_view text) noexcept;

// A caller's whole line (of the line setters): fits_on_line once its one
// final newline, its terminator, is set aside.
bool is_single_line(std::string_view line) noexcept;

// Every key and value of hash fits_on_line (a null hash has none).
bool hash_fits_on_lines(const KLIBSZHASH *hash) noexcept;

// A name for a scratch file that this process has not handed out before:
// prefix, the process id, "-" and a per-process counter ("<prefix><pid>-<n>").
// KLIBFileITmpName and the twins draw from the same counter.
std::string unique_name(std::string_view prefix);

// Writes a complete new copy of a file next to it and puts it in the file's
// place only when every byte reached the disk:
//   Twin twin(path);
//   if (!twin.open()) return -1;             // ERR_OPEN_FAILED set
//   twin.write(...); ...
//   if (!twin.commit()) return -1;           // ERR_WRITE_FAILED set
// The twin is created exclusively and never through a symbolic link, private
// (0600), and given the owner and mode of the file it replaces before a
// byte is written, so a private file is never readable by others, not even
// for a moment.  A file that did not exist gets the new-file mode (0644
// unless set_new_file_mode says otherwise; the caller's umask applies).
// commit() flushes and fsyncs the twin, renames it over the target and
// fsyncs the directory, so a crash at any point leaves either the old file
// or the new one.  A twin that was not committed is removed.
class Twin {
public:
    // A twin of a name of its own beside the target ("<target>.<pid>-<n>"),
    // so that writers in several processes never share one.
    explicit Twin(std::string target);
    // A fixed twin path, for files whose writers agree on it under a lock
    // (and whose recovery looks for it): a stale file there is removed
    // first.  An empty path means a twin of a name of its own.
    Twin(std::string target, std::string fixed_twin_path);
    ~Twin();
    Twin(const Twin &) = delete;
    Twin &operator=(const Twin &) = delete;

    // The mode a file that does not exist yet is created with (before
    // open(); the caller's umask applies).
    void set_new_file_mode(mode_t mode) noexcept { new_mode_ = mode; }
    bool open();
    // Appends bytes (gathered in memory and written in large pieces); a
    // failure is remembered and reported by commit().
    bool write(std::string_view text);
    bool ok() const noexcept { return ok_; }
    // Flush, fsync, close, rename, fsync the directory.  false with
    // ERR_WRITE_FAILED on any failure; the target is then unchanged.
    bool commit();
    // Flush, fsync and close the twin without renaming it; the caller
    // moves it into place (and the twin is no longer removed).
    bool finish();
    // The twin's path (for a twin of its own name, known once open()).
    const std::string &path() const noexcept { return twin_; }
    const std::string &target() const noexcept { return target_; }

private:
    bool drain();
    int create(mode_t mode);

    static constexpr std::size_t kFlushAt = 256 * 1024;
    std::string target_;
    std::string twin_;
    bool fixed_;
    mode_t new_mode_ = 0644;
    int fd_ = -1;
    bool created_ = false;
    std::string pending_;
    bool ok_ = true;
    bool done_ = false;
};

// fsyncs the directory that holds path, so a rename in it is durable.
bool sync_parent_directory(const std::string &path);

// Flushes a stream and fsyncs its descriptor (EINVAL from a descriptor that
// cannot be synced, such as a pipe, is not a failure).
bool flush_and_sync(FILE *stream);

// Copies the lines of `in` into `twin` under the caller's control:
//   each(line, twin) -> bool    writes whatever stands in the line's place
//                               (false: failure, error code already set)
//   done(twin, ended) -> int    may append; `ended` tells whether the last
//                               line had its newline.  -1 failure, 0 leave
//                               the file as it was, 1 put the twin in place
// Returns done's result, or -1 with read_error when reading fails.
template <class Each, class Done>
int copy_lines(FILE *in, Twin &twin, Each &&each, Done &&done, int read_error)
{
    LineReader reader(in);
    std::string_view line;
    bool ended = true;
    while (reader.next(line)) {
        ended = line.back() == '\n';
        if (!each(line, twin))
            return -1;
    }
    if (reader.failed())
        return fail(-1, read_error);
    if (!twin.ok())
        return fail(-1, ERR_WRITE_FAILED);
    return done(twin, ended);
}

// Rewrites the file at path, already open for reading as `in`, through its
// twin with copy_lines, and commits when done() asks for it.
template <class Each, class Done>
int rewrite_file(FILE *in, const char *path, Each &&each, Done &&done,
                 int read_error = ERR_WRITE_FAILED)
{
    Twin twin(path);
    if (!twin.open())
        return -1;
    const int result = copy_lines(in, twin, each, done, read_error);
    if (result == 1 && !twin.commit())
        return -1;
    return result;
}

// Same, opening path first (ERR_OPEN_FAILED when it cannot be read).
template <class Each, class Done>
int rewrite_file(const char *path, Each &&each, Done &&done, int read_error = ERR_WRITE_FAILED)
{
    FilePtr in = open_file(path, "r");
    if (!in)
        return fail(-1, ERR_OPEN_FAILED);
    return rewrite_file(in.get(), path, each, done, read_error);
}

// Creates a file that does not exist yet with the given content, through a
// twin so that it appears complete or not at all.  false with the error
// code set.
bool create_file(const char *path, std::string_view content);

// Opens path with mode into `out` (1), or, when no file is there at all,
// creates it holding `fresh` instead (0).  -1 with ERR_OPEN_FAILED for a
// file that exists but cannot be opened; -2 when the creation failed (with
// its code).
int open_or_create(const char *path, const char *mode, std::string_view fresh, FilePtr &out);

// Appends text at the end of an open stream, in place, and syncs it.  Should
// the disk fill up halfway, the file is cut back to its old length rather
// than left with half a line.  false with ERR_WRITE_FAILED.
bool append_in_place(FILE *stream, std::string_view text);

// The "key=value" line format of the settings writers: "%s", "=", "%s" and a
// newline in that order, no other conversion but "%%".  It is expanded here,
// never handed to printf.
class PairFormat {
public:
    // false for a format that breaks those rules.
    bool parse(std::string_view format);
    // format (NULL: "%s=%s\n") parsed, or false.
    bool parse_or_default(const char *format) { return parse(format ? format : "%s=%s\n"); }
    std::string line(std::string_view key, std::string_view value) const;

private:
    std::string lead_, middle_, tail_;
};

} // namespace kemo
