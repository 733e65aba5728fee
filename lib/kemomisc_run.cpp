// The process module's command runner: safe shell commands, popen-style
// output, programs run without a shell in a detached child, and pid files.
#include "kemomisc.hpp"

#include "kemo_internal.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace kemo {
namespace {

bool plain_word(std::string_view text) noexcept
{
    if (text.empty())
        return false;
    for (const char c : text) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                        std::string_view("_@%+=:,./-").find(c) != std::string_view::npos;
        if (!ok)
            return false;
    }
    return true;
}

// text for the inside of a single-quoted word.
void append_in_single(std::string &out, std::string_view text)
{
    for (const char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
}

// text for the inside of a double-quoted word.
void append_in_double(std::string &out, std::string_view text)
{
    for (const char c : text) {
        if (c == '$' || c == '`' || c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
}

// The argument list up to its first null entry, null-terminated for exec.
std::vector<const char *> exec_args(std::span<const char *const> argv)
{
    std::vector<const char *> args;
    for (const char *a : argv) {
        if (a == nullptr)
            break;
        args.push_back(a);
    }
    args.push_back(nullptr);
    return args;
}

// The child's side of run_program/start_program: detach and exec.  When
// exec fails, errno goes to report (if any) and the child exits with 255.
[[noreturn]] void exec_detached(const std::vector<const char *> &args, int report = -1) noexcept
{
    const int null = ::open("/dev/null", O_RDWR);
    if (null >= 0) {
        ::dup2(null, STDIN_FILENO);
        ::dup2(null, STDOUT_FILENO);
        ::dup2(null, STDERR_FILENO);
        if (null > STDERR_FILENO)
            ::close(null);
    }
    kemo::locks::close_all();
    ::setsid();
    if (::chdir("/") != 0) {
        // Nothing better to do: the program runs where we are.
    }
    ::execv(args[0], const_cast<char *const *>(args.data()));
    const int failed = errno;
    if (report >= 0 && ::write(report, &failed, sizeof failed) < 0) {
        // The parent then sees no report and takes it for a success.
    }
    ::_exit(255);
}

// Clears SA_NOCLDWAIT of SIGCHLD while it lives, so a child can be waited for.
class ChildWaitable {
public:
    ChildWaitable() noexcept
    {
        if (::sigaction(SIGCHLD, nullptr, &old_) == 0 && (old_.sa_flags & SA_NOCLDWAIT) != 0) {
            struct sigaction now = old_;
            now.sa_flags &= ~SA_NOCLDWAIT;
            changed_ = ::sigaction(SIGCHLD, &now, nullptr) == 0;
        }
    }
    ~ChildWaitable()
    {
        if (changed_)
            ::sigaction(SIGCHLD, &old_, nullptr);
    }
    ChildWaitable(const ChildWaitable &) = delete;
    ChildWaitable &operator=(const ChildWaitable &) = delete;

private:
    struct sigaction old_ {};
    bool changed_ = false;
};

// read() of exactly size bytes unless the end comes first; bytes read.
std::size_t read_full(int fd, void *buffer, std::size_t size) noexcept
{
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::read(fd, static_cast<char *>(buffer) + done, size - done);
        if (n > 0)
            done += static_cast<std::size_t>(n);
        else if (n == 0 || errno != EINTR)
            break;
    }
    return done;
}

// A descriptor above standard error, so that the child's dup2 onto 0..2
// cannot clobber it.
int above_stdio(int fd) noexcept
{
    if (fd > STDERR_FILENO)
        return fd;
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::close(fd);
    return moved;
}

} // namespace

std::string shell_quote(std::string_view text)
{
    if (plain_word(text))
        return std::string(text);
    std::string out = "'";
    append_in_single(out, text);
    out += '\'';
    return out;
}

std::optional<std::string> shell_command(std::string_view tmpl,
                                         std::initializer_list<std::string_view> args)
{
    for (const std::string_view a : args) {
        if (a.find('\0') != std::string_view::npos)
            return std::nullopt;
    }
    enum class Quote { none, single, dbl } quote = Quote::none;
    auto next = args.begin();
    std::string out;
    for (std::size_t i = 0; i < tmpl.size(); ++i) {
        const char c = tmpl[i];
        if (c == '%') {
            if (i + 1 >= tmpl.size())
                return std::nullopt;
            const char conv = tmpl[++i];
            if (conv == '%') {
                out += '%';
                continue;
            }
            if (conv != 's' || next == args.end())
                return std::nullopt;
            const std::string_view arg = *next++;
            switch (quote) {
            case Quote::single: append_in_single(out, arg); break;
            case Quote::dbl: append_in_double(out, arg); break;
            case Quote::none: out += shell_quote(arg); break;
            }
            continue;
        }
        out += c;
        if (quote == Quote::single) {
            if (c == '\'')
                quote = Quote::none;
        } else if (c == '\\') {
            // An escaped character neither opens nor closes quotes.
            if (i + 1 < tmpl.size() && tmpl[i + 1] != '%')
                out += tmpl[++i];
        } else if (c == '\'' && quote == Quote::none) {
            quote = Quote::single;
        } else if (c == '"') {
            quote = quote == Quote::dbl ? Quote::none : Quote::dbl;
        }
    }
    if (next != args.end() || quote != Quote::none)
        return std::nullopt;
    return out;
}

int shell_run(std::string_view command)
{
    if (command.find('\0') != std::string_view::npos) {
        errno = EINVAL;
        return -1;
    }
    const std::string text(command);
    return std::system(text.c_str());
}

int exit_code(int status) noexcept
{
    if (status == -1 || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

ShellOutput shell_read(std::string_view command, Output what, std::size_t max_bytes)
{
    ShellOutput result;
    if (command.find('\0') != std::string_view::npos) {
        errno = EINVAL;
        return result;
    }
    const std::string text(command);
    FILE *pipe = ::popen(text.c_str(), "re");
    if (pipe == nullptr)
        return result;
    result.started = true;
    try {
        char buffer[4096];
        std::size_t n;
        while (result.text.size() < max_bytes &&
               (n = std::fread(buffer, 1, std::min(sizeof buffer, max_bytes - result.text.size()), pipe)) > 0)
            result.text.append(buffer, n);
    } catch (...) {
        ::pclose(pipe);
        throw;
    }
    result.status = ::pclose(pipe);
    if (what == Output::first_line) {
        const auto end = result.text.find('\n');
        if (end != std::string::npos)
            result.text.resize(end);
    }
    return result;
}

int run_program(std::span<const char *const> argv)
{
    const std::vector<const char *> args = exec_args(argv);
    if (args.front() == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    const ChildWaitable waitable;
    const pid_t pid = ::fork();
    if (pid == 0)
        exec_detached(args);
    if (pid < 0)
        return fail(-1, ERR_OP_FAILURE);
    int status = 0;
    pid_t reaped;
    do
        reaped = ::waitpid(pid, &status, 0);
    while (reaped < 0 && errno == EINTR);
    if (reaped < 0)
        return errno == ECHILD ? 0 : 1;
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    return fail(-1, ERR_OP_FAILURE);
}

pid_t start_program(std::span<const char *const> argv)
{
    const std::vector<const char *> args = exec_args(argv);
    if (args.front() == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    // The grandchild reports its pid, and once more if exec fails; the
    // pipe's end closes on a successful exec.
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return fail(-1, ERR_OP_FAILURE);
    const int reader = above_stdio(fds[0]);
    const int writer = above_stdio(fds[1]);
    if (reader < 0 || writer < 0) {
        if (reader >= 0)
            ::close(reader);
        if (writer >= 0)
            ::close(writer);
        return fail(-1, ERR_OP_FAILURE);
    }
    const pid_t middle = ::fork();
    if (middle == 0) {
        ::close(reader);
        const pid_t pid = ::fork();
        if (pid == 0) {
            const pid_t self = ::getpid();
            if (::write(writer, &self, sizeof self) != static_cast<ssize_t>(sizeof self))
                ::_exit(255);
            exec_detached(args, writer);
        }
        ::_exit(pid < 0 ? 1 : 0);
    }
    ::close(writer);
    if (middle < 0) {
        ::close(reader);
        return fail(-1, ERR_OP_FAILURE);
    }
    pid_t pid = -1;
    const bool got_pid = read_full(reader, &pid, sizeof pid) == sizeof pid;
    int exec_errno = 0;
    const bool exec_failed = got_pid && read_full(reader, &exec_errno, sizeof exec_errno) > 0;
    ::close(reader);
    int status = 0;
    while (::waitpid(middle, &status, 0) < 0 && errno == EINTR) {
    }
    if (!got_pid || exec_failed)
        return fail(-1, ERR_OP_FAILURE);
    return pid;
}

int read_pid_file(const char *path)
{
    int fd;
    do
        fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    while (fd < 0 && errno == EINTR);
    if (fd < 0)
        return -1;
    char text[32];
    const std::size_t n = read_full(fd, text, sizeof text - 1);
    ::close(fd);
    std::string_view view(text, n);
    const auto start = view.find_first_not_of(" \t");
    if (start == std::string_view::npos)
        return 0;
    long long pid = 0;
    std::size_t i = start;
    for (; i < view.size() && view[i] >= '0' && view[i] <= '9' && pid <= INT_MAX; ++i)
        pid = pid * 10 + (view[i] - '0');
    if (i == start || pid > INT_MAX)
        return 0;
    return static_cast<int>(pid);
}

bool signal_pid_file(const char *path, int sig)
{
    const int pid = read_pid_file(path);
    if (pid <= 1 || ::kill(pid, 0) != 0)
        return false;
    return ::kill(pid, sig) == 0;
}

bool signal_pid_file(const char *path, int sig, std::initializer_list<std::string_view> names)
{
    const int pid = read_pid_file(path);
    if (pid <= 1)
        return false;
    const std::string comm_path = "/proc/" + std::to_string(pid) + "/comm";
    int fd;
    do
        fd = ::open(comm_path.c_str(), O_RDONLY | O_CLOEXEC);
    while (fd < 0 && errno == EINTR);
    if (fd < 0)
        return false;
    char text[32];
    std::string_view comm(text, read_full(fd, text, sizeof text));
    ::close(fd);
    if (!comm.empty() && comm.back() == '\n')
        comm.remove_suffix(1);
    for (const std::string_view name : names)
        if (comm == name)
            return ::kill(pid, sig) == 0;
    return false;
}

} // namespace kemo
