// Line reader, twin writer and pair format shared by the file modules.
#include "kemo_io.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace kemo {

int open_for_caller(const char *path, mode_t mode)
{
    Fd out(::open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    if (!out)
        return -1;
    struct stat st;
    if (::fstat(out.get(), &st) != 0)
        return -1;
    if (!S_ISREG(st.st_mode) || st.st_uid != ::geteuid() || st.st_nlink != 1) {
        errno = EPERM;
        return -1;
    }
    // Non-blocking was for the open of a FIFO only.
    const int flags = ::fcntl(out.get(), F_GETFL);
    if (flags < 0 || ::fcntl(out.get(), F_SETFL, flags & ~O_NONBLOCK) != 0)
        return -1;
    if (::ftruncate(out.get(), 0) != 0 || ::fchmod(out.get(), mode & 07777) != 0)
        return -1;
    return out.release();
}

std::optional<std::string> read_small_file(const char *path, std::size_t limit, bool tail)
{
    Fd fd(::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd)
        return std::nullopt;
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0)
        return std::nullopt;
    if (!S_ISREG(st.st_mode)) {
        errno = EINVAL;
        return std::nullopt;
    }
    const bool cut = tail && static_cast<std::size_t>(st.st_size) > limit;
    if (cut && ::lseek(fd.get(), st.st_size - static_cast<off_t>(limit), SEEK_SET) < 0)
        return std::nullopt;
    // Room for what the file holds now (a file that grows meanwhile gets
    // more, up to limit), so that a generous limit costs nothing.
    const std::size_t now = static_cast<std::size_t>(st.st_size) + 1;
    std::string text(cut || now > limit ? limit : now, '\0');
    std::size_t got = 0;
    while (got < limit) {
        if (got == text.size())
            text.resize(std::min(limit, text.size() * 2));
        const ssize_t n = ::read(fd.get(), text.data() + got, text.size() - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return std::nullopt;
        if (n == 0)
            break;
        got += static_cast<std::size_t>(n);
    }
    text.resize(got);
    // Read from the middle of a line: that line is not whole.
    if (cut)
        text.erase(0, std::min(text.size(), text.find('\n') + 1));
    return text;
}

FilePtr open_file(const char *path, const char *mode)
{
    FILE *f;
    do
        f = std::fopen(path, mode);
    while (f == nullptr && errno == EINTR);
    return FilePtr(f);
}

bool is_directory(const char *path)
{
    struct stat st;
    return ::stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool LineReader::next(std::string_view &line)
{
    if (carried_) {
        carry_.clear();
        carried_ = false;
    }
    for (;;) {
        if (begin_ < end_) {
            const char *start = chunk_.get() + begin_;
            const std::size_t avail = end_ - begin_;
            const auto *newline = static_cast<const char *>(std::memchr(start, '\n', avail));
            if (newline != nullptr) {
                const auto n = static_cast<std::size_t>(newline - start) + 1;
                begin_ += n;
                if (carry_.empty()) {
                    line = std::string_view(start, n);
                    return true;
                }
                carry_.append(start, n);
                line = carry_;
                carried_ = true;
                return true;
            }
            carry_.append(start, avail);
            begin_ = end_ = 0;
        }
        if (eof_) {
            if (carry_.empty())
                return false;
            line = carry_;
            carried_ = true;
            return true;
        }
        ssize_t n;
        do
            n = ::read(fd_, chunk_.get(), kChunk);
        while (n < 0 && errno == EINTR);
        if (n < 0) {
            error_ = true;
            return false;
        }
        if (n == 0)
            eof_ = true;
        begin_ = 0;
        end_ = static_cast<std::size_t>(n);
    }
}

std::string_view chomp(std::string_view line) noexcept
{
    if (!line.empty() && line.back() == '\n')
        line.remove_suffix(1);
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    return line;
}

bool flush_and_sync(FILE *stream)
{
    if (std::fflush(stream) != 0)
        return false;
    return ::fsync(::fileno(stream)) == 0 || errno == EINVAL;
}

bool sync_parent_directory(const std::string &path)
{
    const auto slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool synced = ::fsync(fd) == 0 || errno == EINVAL;
    ::close(fd);
    return synced;
}

bool fits_on_line(std::string_view text) noexcept
{
    return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

bool is_single_line(std::string_view line) noexcept
{
    if (!line.empty() && line.back() == '\n')
        line.remove_suffix(1);
    return fits_on_line(line);
}

bool hash_fits_on_lines(const KLIBSZHASH *hash) noexcept
{
    if (hash == nullptr)
        return true;
    for (int i = 0; i < hash->nSlot; ++i) {
        const KLIBSZHASHSLOT &slot = hash->rgSlot[i];
        if (slot.pszKey != nullptr &&
            (!fits_on_line(slot.pszKey) || (slot.pszValue != nullptr && !fits_on_line(slot.pszValue))))
            return false;
    }
    return true;
}

std::string unique_name(std::string_view prefix)
{
    static std::atomic<unsigned> counter{0};
    std::string name(prefix);
    name += std::to_string(static_cast<int>(::getpid()));
    name += '-';
    name += std::to_string(static_cast<int>(counter.fetch_add(1) & INT_MAX));
    return name;
}

Twin::Twin(std::string target) : target_(std::move(target)), fixed_(false) {}

Twin::Twin(std::string target, std::string fixed_twin_path)
    : target_(std::move(target)), twin_(std::move(fixed_twin_path)), fixed_(!twin_.empty())
{
}

Twin::~Twin()
{
    if (fd_ >= 0)
        ::close(fd_);
    if (created_ && !done_)
        ::unlink(twin_.c_str());
}

// Creates the twin exclusively, never through a link: a name of its own
// (the next one when a stale file of a dead process holds it), or the fixed
// path with a stale file removed first.  The descriptor, or -1.
int Twin::create(mode_t mode)
{
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    if (fixed_) {
        if (::unlink(twin_.c_str()) != 0 && errno != ENOENT)
            return -1;
        return ::open(twin_.c_str(), flags, mode);
    }
    for (int attempt = 0; attempt < 100; ++attempt) {
        twin_ = unique_name(target_ + ".");
        const int fd = ::open(twin_.c_str(), flags, mode);
        if (fd >= 0 || errno != EEXIST)
            return fd;
    }
    return -1;
}

bool Twin::open()
{
    if (fd_ >= 0 || created_)
        return fail(false, ERR_OPEN_FAILED);
    // A replacement is created private and given the target's owner and
    // mode before any content reaches it; a new file gets the new-file mode.
    struct stat st;
    const bool replacing = ::stat(target_.c_str(), &st) == 0;
    fd_ = create(replacing ? 0600 : new_mode_);
    if (fd_ < 0)
        return fail(false, ERR_OPEN_FAILED);
    created_ = true;
    // Only root may give a file away; for anyone else the twin already has
    // the caller's owner, which is the best that can be done.
    if (replacing && ((::fchown(fd_, st.st_uid, st.st_gid) != 0 && errno != EPERM) ||
                      ::fchmod(fd_, st.st_mode & 07777) != 0))
        return fail(false, ERR_OPEN_FAILED);
    return true;
}

bool Twin::drain()
{
    std::size_t done = 0;
    while (ok_ && done < pending_.size()) {
        const ssize_t n = ::write(fd_, pending_.data() + done, pending_.size() - done);
        if (n > 0)
            done += static_cast<std::size_t>(n);
        else if (n == 0 || errno != EINTR)
            ok_ = false;
    }
    pending_.clear();
    return ok_;
}

bool Twin::write(std::string_view text)
{
    if (!ok_)
        return false;
    pending_.append(text);
    return pending_.size() < kFlushAt || drain();
}

bool Twin::finish()
{
    if (fd_ < 0)
        return fail(false, ERR_WRITE_FAILED);
    bool good = drain() && (::fsync(fd_) == 0 || errno == EINVAL);
    good = (::close(fd_) == 0) && good;
    fd_ = -1;
    if (!good)
        return fail(false, ERR_WRITE_FAILED);
    done_ = true;
    return true;
}

bool Twin::commit()
{
    if (!finish())
        return false;
    if (std::rename(twin_.c_str(), target_.c_str()) != 0) {
        done_ = false; // still the twin's: remove it
        return fail(false, ERR_WRITE_FAILED);
    }
    // The new content is in place; a failed directory sync only weakens
    // durability across a power cut, and there is nothing to undo.
    sync_parent_directory(target_);
    return true;
}

bool create_file(const char *path, std::string_view content)
{
    Twin twin(path);
    return twin.open() && twin.write(content) && twin.commit();
}

int open_or_create(const char *path, const char *mode, std::string_view fresh, FilePtr &out)
{
    out = open_file(path, mode);
    if (out)
        return 1;
    if (errno != ENOENT)
        return fail(-1, ERR_OPEN_FAILED);
    return create_file(path, fresh) ? 0 : -2;
}

bool append_in_place(FILE *stream, std::string_view text)
{
    const int fd = ::fileno(stream);
    const off_t old_size = ::lseek(fd, 0, SEEK_END);
    const bool written = old_size >= 0 && std::fseek(stream, 0, SEEK_END) == 0 &&
                         std::fwrite(text.data(), 1, text.size(), stream) == text.size() &&
                         flush_and_sync(stream);
    if (written)
        return true;
    std::clearerr(stream);
    if (old_size >= 0 && ::ftruncate(fd, old_size) == 0)
        ::fsync(fd);
    return fail(false, ERR_WRITE_FAILED);
}

int set_pair(PKLIBSZHASH *phash, const KeyValue &pair, std::string &scratch)
{
    scratch.assign(pair.key).push_back('\0');
    scratch.append(pair.value);
    return KLIBSzHashSetValue(phash, scratch.c_str(), scratch.c_str() + pair.key.size() + 1);
}

bool PairFormat::parse(std::string_view format)
{
    lead_.clear();
    middle_.clear();
    tail_.clear();
    std::string *parts[] = {&lead_, &middle_, &tail_};
    std::size_t conversions = 0;
    for (std::size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%') {
            parts[conversions]->push_back(format[i]);
            continue;
        }
        if (++i == format.size())
            return false;
        if (format[i] == '%')
            parts[conversions]->push_back('%');
        else if (format[i] == 's' && conversions < 2)
            ++conversions;
        else
            return false;
    }
    return conversions == 2 && middle_.find('=') != std::string::npos &&
           tail_.find('\n') != std::string::npos;
}

std::string PairFormat::line(std::string_view key, std::string_view value) const
{
    std::string out;
    out.reserve(lead_.size() + key.size() + middle_.size() + value.size() + tail_.size());
    out.append(lead_).append(key).append(middle_).append(value).append(tail_);
    return out;
}

} // namespace kemo
