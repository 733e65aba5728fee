// e2fs-progress: the appliance's mke2fs, mkfs.ext3 and resize2fs.  One
// program, installed under those three names; it knows its role from the
// name it was called by and always runs the real e2fsprogs tool of
// KEMO_E2FSPROGS_DIR to do the work.  It adds what the volume functions
// need from these tools:
//
//   mke2fs|mkfs.ext3 -P PREFIX [OPTION...] DEVICE [SIZE]
//       runs the real tool without -P and keeps the file PREFIX.<name of
//       DEVICE> holding one line "done/total": the block groups whose inode
//       tables are written, out of all of them.  It never shows total/total
//       before the tool has succeeded, and shows it when it has.  PREFIX is
//       "/tmp/" and a plain name.
//   resize2fs -fpF DEVICE  (or -f -p -F in any grouping)
//       runs the real resize2fs -f -p -F DEVICE (-F, flushing the device's
//       buffers, is left out for an image file) and keeps
//       /tmp/resize2fs.progress.extend.<name> (pass 1: extending the inode
//       table) and /tmp/resize2fs.progress.scan.<name> (the later passes)
//       holding a decimal percent: 0 at the start, 100 once the tool has
//       succeeded.
//   resize2fs -M DEVICE
//       answers whether the ext2/ext3 file system on DEVICE can grow into
//       it: exit 0 when the device holds at least 1 MiB more than the file
//       system, 1 when not, 2 when that cannot be told.  The real tool is not
//       run: its own -M shrinks the file system to its minimum size.
//   anything else
//       is passed to the real tool unchanged (resize2fs refuses -M in any
//       other form).
//
// Options go before the operands, and no operand may start with "-": the
// real tools reorder their arguments, so a device named "-x" further on
// would be taken for an option.  The wrapper's own refusals exit 2 with a
// message on standard error; otherwise the exit status is the real tool's
// (128 + N when signal N ended it).  The tool's output is passed through.
//
// Progress files are replaced whole: a new file made with mkstemp in /tmp,
// then renamed over the name, so a name planted in /tmp (a symbolic link, a
// file of another user) is replaced, never written through.  They are
// informational: a progress file that cannot be written is reported on
// standard error and the tool's work goes on.
#include <fcntl.h>
#include <linux/fs.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#ifndef KEMO_E2FSPROGS_DIR
#define KEMO_E2FSPROGS_DIR "/usr/sbin"
#endif

namespace {

constexpr int kRefused = 2;
constexpr std::size_t kMaxName = 200;

std::string g_role = "e2fs-progress";

void say(const std::string &message)
{
    std::fprintf(stderr, "%s: %s\n", g_role.c_str(), message.c_str());
}

int refuse(const std::string &message)
{
    say(message);
    return kRefused;
}

// A plain file name for a name in /tmp: letters, digits and "._+-", not
// starting with "." or "-", not too long.
bool plain_name(std::string_view name)
{
    if (name.empty() || name.size() > kMaxName || name[0] == '.' || name[0] == '-')
        return false;
    for (const char c : name) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                        c == '_' || c == '+' || c == '-';
        if (!ok)
            return false;
    }
    return true;
}

// The last component of a device path ("/dev/md2" gives "md2").
std::string base_name(std::string_view path)
{
    while (path.size() > 1 && path.back() == '/')
        path.remove_suffix(1);
    const auto slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

// ---- Progress files ----------------------------------------------------------

// Replaces /tmp/NAME by a new file holding text.
bool publish(const std::string &name, const std::string &text)
{
    std::string temp = "/tmp/." + name + ".XXXXXX";
    const int fd = mkstemp(temp.data());
    if (fd < 0)
        return false;
    bool ok = fchmod(fd, 0644) == 0;
    std::size_t done = 0;
    while (ok && done < text.size()) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        ok = n > 0;
        if (ok)
            done += static_cast<std::size_t>(n);
    }
    ok = close(fd) == 0 && ok;
    ok = ok && rename(temp.c_str(), ("/tmp/" + name).c_str()) == 0;
    if (!ok)
        unlink(temp.c_str());
    return ok;
}

// One progress file; writes only changes, and says once when it cannot.
class ProgressFile {
public:
    explicit ProgressFile(std::string name) : name_(std::move(name)) {}

    void put(const std::string &text)
    {
        if (text == last_)
            return;
        if (publish(name_, text + "\n")) {
            last_ = text;
        } else if (!warned_) {
            say("cannot write the progress file /tmp/" + name_ + ": " + std::strerror(errno));
            warned_ = true;
        }
    }

private:
    std::string name_;
    std::string last_;
    bool warned_ = false;
};

// ---- Reading the tools' progress output ------------------------------------

// mke2fs prints "LABEL: " and then, at most once a second, "DONE/TOTAL"
// (right-aligned) followed by backspaces that take the cursor back over it,
// and at the phase's end "done" and a line break.  The block groups' count
// is the total of "Allocating group tables", "Writing inode tables" and
// "Writing superblocks ..."; the inode tables are the long part.
class MkfsProgress {
public:
    explicit MkfsProgress(ProgressFile &file) : file_(file) {}

    void feed(std::string_view bytes)
    {
        for (const char c : bytes) {
            if (c == '\n') {
                segment_.clear();
                line_.clear();
            } else if (c == '\b') {
                if (!segment_.empty())
                    numbers(segment_);
                segment_.clear();
            } else {
                segment_ += c;
                if (line_.size() < 256)
                    line_ += c;
            }
        }
    }

    // The tool succeeded: every group is done.
    void finished()
    {
        const unsigned long long total = groups_ != 0 ? groups_ : 1;
        file_.put(std::to_string(total) + "/" + std::to_string(total));
    }

private:
    // A "DONE/TOTAL" the tool just printed (segment ends with it).
    void numbers(const std::string &segment)
    {
        const auto slash = segment.rfind('/');
        if (slash == std::string::npos)
            return;
        auto begin = slash;
        while (begin > 0 && segment[begin - 1] >= '0' && segment[begin - 1] <= '9')
            --begin;
        unsigned long long done = 0, total = 0;
        if (!digits(segment.substr(begin, slash - begin), done) || !digits(segment.substr(slash + 1), total) ||
            total == 0 || done > total)
            return;
        const std::string_view line = line_;
        if (line.starts_with("Allocating group tables")) {
            groups_ = total;
            report(0);
        } else if (line.starts_with("Writing inode tables")) {
            groups_ = total;
            report(done);
        } else if (line.starts_with("Writing superblocks") && groups_ != 0) {
            report(groups_);
        }
    }

    static bool digits(const std::string &text, unsigned long long &value)
    {
        if (text.empty() || text.size() > 18)
            return false;
        value = 0;
        for (const char c : text) {
            if (c < '0' || c > '9')
                return false;
            value = value * 10 + static_cast<unsigned>(c - '0');
        }
        return true;
    }

    // Never total/total while the tool runs, and never backwards.
    void report(unsigned long long done)
    {
        if (done > groups_ - 1)
            done = groups_ - 1;
        if (shown_ && done < done_)
            return;
        shown_ = true;
        done_ = done;
        file_.put(std::to_string(done) + "/" + std::to_string(groups_));
    }

    ProgressFile &file_;
    std::string segment_;
    std::string line_;
    unsigned long long groups_ = 0;
    unsigned long long done_ = 0;
    bool shown_ = false;
};

// resize2fs -p prints "Begin pass N (max = M)" on a line, then a line with
// the pass's label and a bar of 40 characters that fills with "X".  Pass 1
// extends the inode table; passes 2 to 5 relocate blocks, scan the inode
// table, update inode references and move the inode table, and count a
// quarter each of the scan percent (passes that are not needed are skipped).
class ResizeProgress {
public:
    ResizeProgress(ProgressFile &extend, ProgressFile &scan) : extend_(extend), scan_(scan)
    {
        extend_.put("0");
        scan_.put("0");
    }

    void feed(std::string_view bytes)
    {
        for (const char c : bytes) {
            if (c == '\n') {
                end_of_line();
            } else {
                if (in_bar_ && c == 'X')
                    bar(++marks_);
                if (line_.size() < 256)
                    line_ += c;
            }
        }
    }

    void finished()
    {
        extend_percent_ = scan_percent_ = 100;
        extend_.put("100");
        scan_.put("100");
    }

private:
    static constexpr int kBarWidth = 40;

    void end_of_line()
    {
        in_bar_ = false;
        int pass = 0;
        unsigned long max = 0;
        if (std::sscanf(line_.c_str(), "Begin pass %d (max = %lu)", &pass, &max) == 2 && pass >= 1 && pass <= 5) {
            pass_ = pass;
            marks_ = 0;
            in_bar_ = true;
            bar(0);
        }
        line_.clear();
    }

    void bar(int marks)
    {
        const int percent = std::min(marks, kBarWidth) * 100 / kBarWidth;
        if (pass_ == 1) {
            set(extend_, extend_percent_, percent);
        } else {
            set(extend_, extend_percent_, 100);
            set(scan_, scan_percent_, ((pass_ - 2) * 100 + percent) / 4);
        }
    }

    // Never 100 before the tool has succeeded, and never backwards.
    static void set(ProgressFile &file, int &current, int percent)
    {
        percent = std::min(percent, 99);
        if (percent <= current)
            return;
        current = percent;
        file.put(std::to_string(percent));
    }

    ProgressFile &extend_;
    ProgressFile &scan_;
    std::string line_;
    int pass_ = 0;
    int marks_ = 0;
    bool in_bar_ = false;
    int extend_percent_ = 0;
    int scan_percent_ = 0;
};

// ---- Running the real tool ---------------------------------------------------

// The real tool of this role; nullopt (and a message) when it is missing or
// is this program itself.
std::optional<std::string> real_tool(const std::string &name)
{
    const std::string path = std::string(KEMO_E2FSPROGS_DIR) + "/" + name;
    struct stat tool {}, self {};
    if (stat(path.c_str(), &tool) != 0) {
        say("cannot find the real " + name + " (" + path + "): " + std::strerror(errno));
        return std::nullopt;
    }
    if (stat("/proc/self/exe", &self) == 0 && self.st_dev == tool.st_dev && self.st_ino == tool.st_ino) {
        say(path + " is this wrapper itself, not the real " + name);
        return std::nullopt;
    }
    return path;
}

std::vector<char *> c_args(std::vector<std::string> &args)
{
    std::vector<char *> out;
    for (auto &a : args)
        out.push_back(a.data());
    out.push_back(nullptr);
    return out;
}

int exit_status(int status)
{
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return 1;
}

void write_all(int fd, const char *data, std::size_t size)
{
    while (size > 0) {
        const ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return; // our own output is gone: the tool's work still counts
        data += n;
        size -= static_cast<std::size_t>(n);
    }
}

// Runs the tool with its standard output on a pipe; every chunk goes to
// our standard output and to feed.  Returns the tool's exit status.
template <class Feed>
int run_watched(const std::string &path, std::vector<std::string> args, Feed feed)
{
    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0)
        return refuse(std::string("cannot make a pipe: ") + std::strerror(errno));
    auto argv = c_args(args);
    const pid_t pid = fork();
    if (pid < 0) {
        close(pipe_fds[0]);
        close(pipe_fds[1]);
        return refuse(std::string("cannot start ") + path + ": " + std::strerror(errno));
    }
    if (pid == 0) {
        dup2(pipe_fds[1], STDOUT_FILENO);
        signal(SIGPIPE, SIG_DFL);
        // The progress texts are read in the C locale's words, and always
        // printed.
        setenv("LC_ALL", "C", 1);
        unsetenv("E2FSPROGS_SKIP_PROGRESS");
        execv(path.c_str(), argv.data());
        std::fprintf(stderr, "%s: cannot run %s: %s\n", g_role.c_str(), path.c_str(), std::strerror(errno));
        _exit(127);
    }
    close(pipe_fds[1]);
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(pipe_fds[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        write_all(STDOUT_FILENO, buffer, static_cast<std::size_t>(n));
        feed(std::string_view(buffer, static_cast<std::size_t>(n)));
    }
    close(pipe_fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return refuse(std::string("cannot wait for ") + path + ": " + std::strerror(errno));
    }
    return exit_status(status);
}

int run_plain(const std::string &path, std::vector<std::string> args)
{
    auto argv = c_args(args);
    signal(SIGPIPE, SIG_DFL);
    execv(path.c_str(), argv.data());
    return refuse("cannot run " + path + ": " + std::strerror(errno));
}

// ---- Arguments ---------------------------------------------------------------

// A command line split the way the real tools' getopt reads it: option
// words (kept as given, except the wrapper's own -P), then the operands.
struct Scanned {
    std::vector<std::string> options;  // to pass on, in their order
    std::vector<std::string> operands; // DEVICE [SIZE]
    std::set<char> flags;              // option letters without a value
    std::set<char> valued;             // option letters with a value
    std::optional<std::string> prefix; // the value of -P (mke2fs roles)
    std::string error;
};

// with_value: the letters that take a value.  own: a letter the wrapper
// consumes (its value goes to prefix), or '\0'.
Scanned scan(int argc, char **argv, std::string_view with_value, char own)
{
    Scanned s;
    int i = 1;
    for (; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--") {
            ++i;
            break;
        }
        if (word.size() < 2 || word[0] != '-')
            break;
        std::string kept = "-";
        for (std::size_t j = 1; j < word.size(); ++j) {
            const char letter = word[j];
            const bool is_own = own != '\0' && letter == own;
            if (!is_own && with_value.find(letter) == std::string_view::npos) {
                s.flags.insert(letter);
                kept += letter;
                continue;
            }
            std::string value;
            const bool separate = j + 1 == word.size();
            if (!separate) {
                value = word.substr(j + 1);
            } else if (i + 1 < argc) {
                value = argv[++i];
            } else {
                s.error = std::string("option -") + letter + " needs a value";
                return s;
            }
            if (is_own) {
                if (s.prefix) {
                    s.error = std::string("option -") + letter + " given twice";
                    return s;
                }
                s.prefix = value;
                if (kept.size() > 1)
                    s.options.push_back(kept);
            } else {
                s.valued.insert(letter);
                s.options.push_back(kept + letter + (separate ? "" : value));
                if (separate)
                    s.options.push_back(value);
            }
            kept.clear();
            break;
        }
        if (kept.size() > 1)
            s.options.push_back(kept);
    }
    for (; i < argc; ++i) {
        const std::string word = argv[i];
        if (word.empty() || word[0] == '-') {
            s.error = word.empty() ? "an empty operand" : "\"" + word + "\": options go before the device, and no "
                                                          "device or size may start with \"-\"";
            return s;
        }
        s.operands.push_back(word);
    }
    return s;
}

// ---- The roles ---------------------------------------------------------------

// mke2fs's option letters that take a value.
constexpr std::string_view kMkfsValued = "bdegilmorstCEGIJLMNORTUz";
// resize2fs's.
constexpr std::string_view kResizeValued = "dSz";

int mkfs(const std::string &name, int argc, char **argv)
{
    const Scanned s = scan(argc, argv, kMkfsValued, 'P');
    if (!s.error.empty())
        return refuse(s.error);
    const auto tool = real_tool(name);
    if (!tool)
        return kRefused;
    std::vector<std::string> args {*tool};
    args.insert(args.end(), s.options.begin(), s.options.end());
    args.insert(args.end(), s.operands.begin(), s.operands.end());
    if (!s.prefix)
        return run_plain(*tool, args);

    const std::string_view prefix = *s.prefix;
    if (!prefix.starts_with("/tmp/") || !plain_name(prefix.substr(5)))
        return refuse("-P takes /tmp/ followed by a plain name (letters, digits, \"._+-\"; not starting with \".\" "
                      "or \"-\")");
    if (s.operands.empty() || s.operands.size() > 2)
        return refuse("-P needs DEVICE [SIZE] after the options");
    const std::string device = base_name(s.operands[0]);
    const std::string file = std::string(prefix.substr(5)) + "." + device;
    if (!plain_name(device) || file.size() > kMaxName)
        return refuse("the device's name \"" + device + "\" cannot name a progress file");

    ProgressFile progress(file);
    MkfsProgress watch(progress);
    const int status = run_watched(*tool, args, [&](std::string_view bytes) { watch.feed(bytes); });
    if (status == 0)
        watch.finished();
    return status;
}

int resize_with_progress(const std::string &tool, const std::string &device)
{
    const std::string name = base_name(device);
    if (!plain_name(name) || name.size() + 30 > kMaxName)
        return refuse("the device's name \"" + name + "\" cannot name a progress file");
    // -F flushes a block device's buffers; an image file has none, and the
    // real tool fails on it.
    struct stat st {};
    const bool image = stat(device.c_str(), &st) == 0 && S_ISREG(st.st_mode);
    std::vector<std::string> args {tool, "-f", "-p"};
    if (!image)
        args.push_back("-F");
    args.push_back(device);

    ProgressFile extend("resize2fs.progress.extend." + name);
    ProgressFile scanned("resize2fs.progress.scan." + name);
    ResizeProgress watch(extend, scanned);
    const int status = run_watched(tool, args, [&](std::string_view bytes) { watch.feed(bytes); });
    if (status == 0)
        watch.finished();
    return status;
}

uint32_t le32(const unsigned char *p)
{
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// Exit 0 when the device has room for the file system to grow by at least
// 1 MiB, 1 when not, 2 when either size cannot be had.
int can_grow(const std::string &device)
{
    constexpr int kError = 2;
    const int fd = open(device.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return say("cannot open " + device + ": " + std::strerror(errno)), kError;
    struct stat st {};
    uint64_t device_bytes = 0;
    bool sized = false;
    if (fstat(fd, &st) == 0) {
        if (S_ISREG(st.st_mode)) {
            device_bytes = static_cast<uint64_t>(st.st_size);
            sized = true;
        } else if (S_ISBLK(st.st_mode)) {
            sized = ioctl(fd, BLKGETSIZE64, &device_bytes) == 0;
        }
    }
    // The superblock: 1024 bytes at offset 1024.
    unsigned char sb[1024];
    const ssize_t n = sized ? pread(fd, sb, sizeof sb, 1024) : -1;
    close(fd);
    if (!sized)
        return say(device + " is neither a block device nor a file, or its size cannot be read"), kError;
    if (n != static_cast<ssize_t>(sizeof sb) || sb[0x38] != 0x53 || sb[0x39] != 0xEF)
        return say(device + " holds no ext2/ext3 file system"), kError;
    const uint32_t log_block = le32(sb + 0x18);
    if (log_block > 6)
        return say(device + ": implausible block size in the superblock"), kError;
    uint64_t blocks = le32(sb + 0x04);
    if ((le32(sb + 0x60) & 0x80) != 0) // 64-bit block numbers
        blocks |= static_cast<uint64_t>(le32(sb + 0x150)) << 32;
    const uint64_t block_size = 1024ull << log_block;
    if (blocks > UINT64_MAX / block_size)
        return say(device + ": implausible block count in the superblock"), kError;
    const uint64_t fs_bytes = blocks * block_size;
    constexpr uint64_t kMinGrowth = 1 << 20;
    const bool grows = device_bytes >= fs_bytes && device_bytes - fs_bytes >= kMinGrowth;
    std::printf("%s: file system %llu bytes, device %llu bytes: %s\n", device.c_str(),
                static_cast<unsigned long long>(fs_bytes), static_cast<unsigned long long>(device_bytes),
                grows ? "can grow" : "cannot grow");
    return grows ? 0 : 1;
}

int resize(int argc, char **argv)
{
    const Scanned s = scan(argc, argv, kResizeValued, '\0');
    if (!s.error.empty())
        return refuse(s.error);
    if (s.flags.count('M') != 0) {
        if (s.flags != std::set<char> {'M'} || !s.valued.empty() || s.operands.size() != 1)
            return refuse("-M is only 'resize2fs -M DEVICE': whether the file system can grow");
        return can_grow(s.operands[0]);
    }
    const auto tool = real_tool("resize2fs");
    if (!tool)
        return kRefused;
    if (s.flags == std::set<char> {'f', 'p', 'F'} && s.valued.empty() && s.operands.size() == 1)
        return resize_with_progress(*tool, s.operands[0]);
    std::vector<std::string> args {*tool};
    args.insert(args.end(), s.options.begin(), s.options.end());
    args.insert(args.end(), s.operands.begin(), s.operands.end());
    return run_plain(*tool, args);
}

} // namespace

int main(int argc, char **argv)
{
    const std::string name = argc > 0 ? base_name(argv[0]) : "";
    if (name == "mke2fs" || name == "mkfs.ext3" || name == "resize2fs")
        g_role = name;
    else
        return refuse("run me as mke2fs, mkfs.ext3 or resize2fs");
    // Our own output may go to a closed pipe: the tool's work still counts.
    signal(SIGPIPE, SIG_IGN);
    return name == "resize2fs" ? resize(argc, argv) : mkfs(name, argc, argv);
}
