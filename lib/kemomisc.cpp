// Process and system helpers: running programs, finding and stopping
// processes, pid files, file system and directory sizes, the status light
// and printer reset, and the notifications of the media services.  The
// command runner these use is kemomisc_run.cpp; the connection counts of the
// file servers live with the current connections (sdk/kemoconn.cpp).
#include "kemo_internal.hpp"
#include "kemo_io.hpp"
#include "kemofile.hpp"
#include "kemomisc.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <ctime>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr const char *defaults_conf = "/etc.defaults/kemoinfo.conf";

// The leading unsigned decimal number of text (after blanks), if any.
bool leading_number(std::string_view text, unsigned long long &value) noexcept
{
    const auto start = text.find_first_not_of(" \t");
    if (start == std::string_view::npos)
        return false;
    const char *first = text.data() + start;
    const auto [end, ec] = std::from_chars(first, text.data() + text.size(), value);
    return ec == std::errc() && end != first;
}

// Names handed to grep: text a ps line can hold and grep cannot take for an
// option.
bool searchable(std::string_view name) noexcept
{
    return !name.empty() && name.front() != '-' && name.find('\n') == std::string_view::npos;
}

// "yes" for key in the model's defaults.
bool supported(const char *key)
{
    return kemo::settings::get_value(defaults_conf, key) == "yes";
}

// The folder of path under a volume ("/volume1/photo/a.jpg" -> "photo"),
// or "" when path is not inside a volume's folder or climbs with "..".
std::string_view volume_folder(std::string_view path) noexcept
{
    constexpr std::string_view volume = "/volume";
    if (path.substr(0, volume.size()) != volume)
        return {};
    std::size_t i = volume.size();
    const std::size_t digits = i;
    while (i < path.size() && path[i] >= '0' && path[i] <= '9')
        ++i;
    if (i == digits || i >= path.size() || path[i] != '/')
        return {};
    for (std::size_t at = path.find(".."); at != std::string_view::npos; at = path.find("..", at + 1)) {
        const bool starts = path[at - 1] == '/';
        const bool ends = at + 2 == path.size() || path[at + 2] == '/';
        if (starts && ends)
            return {};
    }
    const std::string_view rest = path.substr(i + 1);
    return rest.substr(0, rest.find('/'));
}

// Runs a media helper on path when the model supports the service and path
// lies in one of folders (comma-separated).
int notify_media(const char *path, const char *support_key, std::string_view folders,
                 const char *program)
{
    if (path == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        if (!supported(support_key))
            return 0;
        const std::string_view folder = volume_folder(path);
        if (folder.empty())
            return 0;
        bool media = false;
        for (std::size_t start = 0; start <= folders.size();) {
            const std::size_t comma = std::min(folders.find(',', start), folders.size());
            media = media || folders.substr(start, comma - start) == folder;
            start = comma + 1;
        }
        if (!media)
            return 0;
        const std::array<const char *, 2> argv{program, path};
        if (kemo::run_program(argv) != 0) {
            KEMO_LOG_SP("Failed to run exec. (%s)", program);
            return kemo::fail(-1, ERR_OP_FAILURE);
        }
        return 0;
    });
}

// The USB printer class driver's soft-reset request.
constexpr unsigned long lp_soft_reset = _IOC(_IOC_NONE, 'P', 7, 0);
constexpr int printer_open_attempts = 5;
constexpr long printer_busy_wait_ms = 500;

using StatFs = struct statfs64;

// statfs of path, or false (a null path is logged).
bool fs_stat(const char *path, StatFs &fs, int line)
{
    if (path == nullptr) {
        kemo::log("%s(%d)bad parameter", __FILE__, line);
        KLIBErrSet(ERR_BAD_PARAMETERS);
        return false;
    }
    return ::statfs64(path, &fs) == 0;
}

} // namespace

namespace kemo {

void sleep_ms(long ms) noexcept
{
    timespec left{ms / 1000, (ms % 1000) * 1000000L};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

// The processes whose "ps" line holds name (the search's own lines left
// out): their ids go to pids (at most max), and their number is returned;
// -1 with the error code set.  The output comes through a pipe, so nothing
// is ever written under a name in /tmp.
int ps(std::string_view name, int32_t *pids, int max)
{
    if (!searchable(name))
        return fail(-1, ERR_BAD_PARAMETERS);
    const auto command = shell_command("/bin/ps -awx | /bin/grep '%s' 2>&1", {name});
    // The search's own lines: grep's arguments, and the shell's command line.
    const auto quoted = shell_command("grep '%s'", {name});
    if (!command || !quoted)
        return fail(-1, ERR_BAD_PARAMETERS);
    const ShellOutput out = shell_read(*command); // grep fails when nothing matches
    if (!out.started)
        return fail(-1, ERR_READ_FAILED);
    const std::string plain = "grep " + std::string(name);
    const std::string single = "grep '" + std::string(name) + "'";
    int found = 0;
    std::string_view rest = out.text;
    while (!rest.empty()) {
        const auto end = rest.find('\n');
        const std::string_view line = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
        if (line.find(name) == std::string_view::npos || line.find(plain) != std::string_view::npos ||
            line.find(single) != std::string_view::npos || line.find(*quoted) != std::string_view::npos)
            continue;
        unsigned long long pid = 0;
        if (!leading_number(line, pid) || pid > INT32_MAX)
            continue;
        if (found < max)
            pids[found] = static_cast<int32_t>(pid);
        ++found;
    }
    return found;
}

// Stops the processes named so: SIGKILL at once when forced, else SIGTERM
// and, after a grace period, SIGKILL for the survivors.  The number found
// first (at most 256), or -1.
int kill_by_name(std::string_view name, bool force)
{
    constexpr int most = 256;
    int32_t pids[most];
    const pid_t self = ::getpid();
    // Signals the listed processes; never this process or a process group.
    const auto signal_all = [&](int count, int sig) {
        for (int i = 0; i < std::min(count, most); ++i) {
            if (pids[i] > 0 && pids[i] != self)
                ::kill(pids[i], sig);
        }
    };
    const int found = ps(name, pids, most);
    if (found < 0)
        return -1;
    signal_all(found, force ? SIGKILL : SIGTERM);
    if (!force)
        sleep_ms(100);
    const int left = ps(name, pids, most);
    if (left > 0)
        signal_all(left, SIGKILL);
    return std::min(found, most);
}

unsigned long long dir_size(const char *path)
{
    constexpr std::size_t command_size = 4126;
    // "--": a path that begins with "-" is a path, never an option.
    const auto command = kemo::shell_command("/usr/bin/du -sk -- '%s'", {path});
    if (!command || command->size() >= command_size)
        return kemo::fail(0ULL, ERR_BAD_PARAMETERS);
    const kemo::ShellOutput out = kemo::shell_read(*command, kemo::Output::first_line);
    if (!out.started) {
        KEMO_LOG("Cannot allocate memory for 'popen'");
        return 0ULL;
    }
    if (out.status == -1)
        KEMO_LOG("Cannot close file stream");
    unsigned long long kib = 0;
    if (!leading_number(out.text, kib))
        return 0ULL;
    return kib * 1024;
}

unsigned long long full_dir_size(const char *path)
{
    std::string root = path;
    if (root.front() != '/') {
        char cwd[PATH_MAX];
        if (::getcwd(cwd, sizeof cwd) == nullptr) {
            KEMO_LOG_SP("Failed to get current directory");
            return kemo::fail(0ULL, ERR_PATH_NOT_FOUND);
        }
        root = std::string(cwd) + "/" + root;
    }
    std::set<std::pair<dev_t, ino_t>> linked;
    unsigned long long total = 0;
    std::vector<std::string> pending{root};
    bool top = true;
    while (!pending.empty()) {
        const std::string name = std::move(pending.back());
        pending.pop_back();
        struct stat st {};
        if (::lstat(name.c_str(), &st) != 0) {
            if (errno == ENOENT && !top)
                continue;
            KEMO_LOG_SP("filename: %s", name.c_str());
            return kemo::fail(0ULL, ERR_FILE_NOT_FOUND);
        }
        top = false;
        if (S_ISREG(st.st_mode)) {
            if (st.st_nlink < 2 || linked.emplace(st.st_dev, st.st_ino).second)
                total += static_cast<unsigned long long>(st.st_size);
            continue;
        }
        if (!S_ISDIR(st.st_mode))
            continue;
        DIR *dir = ::opendir(name.c_str());
        if (dir == nullptr) {
            if (errno == ENOENT)
                continue;
            KEMO_LOG_SP("filename: %s", name.c_str());
            return kemo::fail(0ULL, ERR_OPEN_FAILED);
        }
        struct Close {
            DIR *d;
            ~Close() { ::closedir(d); }
        } close{dir};
        while (const dirent *entry = ::readdir(dir)) {
            const std::string_view entry_name = entry->d_name;
            if (entry_name == "." || entry_name == "..")
                continue;
            pending.push_back(name + "/" + std::string(entry_name));
        }
    }
    return total;
}

int process_listed(const char *name)
{
    constexpr std::size_t command_size = 1024;
    const auto command = kemo::shell_command("/bin/ps | /bin/grep %s | /bin/grep -v grep", {name});
    if (!command || command->size() >= command_size)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    const kemo::ShellOutput out = kemo::shell_read(*command, kemo::Output::first_line);
    return out.started && out.text.find(name) != std::string::npos ? 1 : 0;
}

// device is a name under /dev/usb, already checked.
int reset_printer(const char *device)
{
    const char *const function = "KEMOResetPrinter"; // the name its log lines carry
    const std::string path = std::string("/dev/usb/") + device;
    int fd = -1;
    for (int attempt = 1; fd < 0; ++attempt) {
        fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0)
            break;
        if (errno != EBUSY)
            return kemo::fail(-1, ERR_OPEN_FAILED);
        if (attempt == printer_open_attempts) {
            kemo::log("%s:%d(%s) %s open retry excessed.", __FILE__, __LINE__, function, path.c_str());
            return kemo::fail(-1, ERR_OPEN_FAILED);
        }
        kemo::log("%s:%d(%s) %s device busy, retring...", __FILE__, __LINE__, function, path.c_str());
        sleep_ms(printer_busy_wait_ms);
    }
    int result = 0;
    if (::ioctl(fd, lp_soft_reset) != 0) {
        const int why = errno;
        kemo::log("%s:%d(%s) ioctl LPIOC_SOFT_RESET error:(%d) %s", __FILE__, __LINE__, function, why,
                  std::strerror(why));
        result = kemo::fail(-1, ERR_OP_FAILURE);
    }
    ::close(fd);
    return result;
}

} // namespace kemo

extern "C" {

KEMO_API int KLIBExec(const char *path, const char *arg1, const char *arg2, const char *arg3,
                      const char *arg4)
{
    if (path == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        const std::array<const char *, 5> argv{path, arg1, arg2, arg3, arg4};
        return kemo::run_program(argv);
    });
}

KEMO_API int KLIBSystem(const char *command)
{
    if (command == nullptr)
        return 0;
    return kemo::edge(-1, [&] { return kemo::shell_run(command); });
}

KEMO_API int KLIBBackgroundExec(const char *path, const char *arg1, const char *arg2,
                                const char *arg3, const char *arg4)
{
    if (path == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        const std::array<const char *, 5> argv{path, arg1, arg2, arg3, arg4};
        return static_cast<int>(kemo::start_program(argv));
    });
}

KEMO_API int KLIBPs(const char *name, int32_t *pids, int max)
{
    if (name == nullptr || max < 0 || (pids == nullptr && max > 0))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::ps(name, pids, max); });
}

KEMO_API int KLIBIKill(const char *name, int force)
{
    if (name == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::kill_by_name(name, force != 0); });
}

KEMO_API int BlKLIBIIsProcAlive(const char *name)
{
    if (name == nullptr)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return kemo::edge(0, [&] { return kemo::ps(name, nullptr, 0) > 0 ? 1 : 0; });
}

KEMO_API int BlKLIBProcAlive(int pid)
{
    // pid 0 and negative ones would address process groups, not a process.
    if (pid <= 0)
        return 0;
    return ::kill(pid, 0) == 0 || errno == EPERM ? 1 : 0;
}

KEMO_API int KLIBReadPidFile(const char *path)
{
    if (path == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    const int pid = kemo::read_pid_file(path);
    return pid < 0 ? kemo::fail(-1, ERR_OPEN_FAILED) : pid;
}

KEMO_API int KLIBProcAliveByPidFile(const char *path)
{
    if (path == nullptr)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    // EPERM counts as not alive here, unlike BlKLIBProcAlive.
    const int pid = kemo::read_pid_file(path);
    return pid >= 1 && ::kill(pid, 0) == 0 ? 1 : 0;
}

KEMO_API unsigned long long KLIBGetFsAvailSize(const char *path)
{
    StatFs fs{};
    if (!fs_stat(path, fs, __LINE__))
        return 0;
    return static_cast<unsigned long long>(fs.f_bsize) * fs.f_bavail;
}

KEMO_API unsigned long long KLIBGetFsFreeSize(const char *path)
{
    StatFs fs{};
    if (!fs_stat(path, fs, __LINE__))
        return 0;
    return static_cast<unsigned long long>(fs.f_bsize) * fs.f_bfree;
}

KEMO_API unsigned long long KLIBGetFsUsedSize(const char *path)
{
    StatFs fs{};
    if (!fs_stat(path, fs, __LINE__))
        return 0;
    return static_cast<unsigned long long>(fs.f_bsize) * (fs.f_blocks - fs.f_bfree);
}

KEMO_API unsigned long long KLIBGetDirSize(const char *path)
{
    if (path == nullptr) {
        kemo::log("%s(%d)bad parameter", __FILE__, __LINE__);
        return kemo::fail(0ULL, ERR_BAD_PARAMETERS);
    }
    return kemo::edge(0ULL, [&] { return kemo::dir_size(path); });
}

// The bytes of the regular files in the tree at path (path itself when it
// is a file), symbolic links not followed, each inode counted once.  An
// entry that vanishes during the walk is skipped; any other that cannot be
// examined ends the walk with 0 and the entry's name in the log.
KEMO_API unsigned long long KLIBGetFullDirSize(const char *path)
{
    if (path == nullptr || *path == '\0') {
        KEMO_LOG_SP("Bad parameter.");
        return kemo::fail(0ULL, ERR_BAD_PARAMETERS);
    }
    return kemo::edge(0ULL, [&] { return kemo::full_dir_size(path); });
}

KEMO_API int KLIBKemoIndexAdd(const char *path)
{
    return notify_media(path, "supportmediaservice", "photo,video,music", "/usr/kemo/bin/kemoindex");
}

KEMO_API int KLIBSignalKemomkthumbd(const char *path)
{
    return notify_media(path, "supportphoto", "photo", "/usr/kemo/bin/kemomkthumb");
}


KEMO_API int BlProcessIsAlive(const char *name)
{
    // A name starting with "-" would be an option of grep.
    if (name == nullptr || *name == '\0' || *name == '-')
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return kemo::edge(0, [&] { return kemo::process_listed(name); });
}

// on != 0 asks the daemon to light the status light (SIGUSR1), 0 to clear
// it (SIGUSR2).
KEMO_API int KLIBChangeQormdLight(int on)
{
    // Never init, never a process group, whatever the file holds.
    const int pid = kemo::read_pid_file("/var/run/qormd.pid");
    if (pid <= 1)
        return kemo::fail(-1, pid < 0 ? ERR_OPEN_FAILED : ERR_READ_FAILED);
    if (::kill(pid, on != 0 ? SIGUSR1 : SIGUSR2) != 0)
        return kemo::fail(-1, ERR_OP_FAILURE);
    return 0;
}

// device is a name under /dev/usb ("lp0").  A busy device is tried again
// every half second, five times in all.
KEMO_API int KEMOResetPrinter(const char *device)
{
    if (device == nullptr || *device == '\0' || std::strchr(device, '/') != nullptr ||
        std::strcmp(device, ".") == 0 || std::strcmp(device, "..") == 0)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::reset_printer(device); });
}

} // extern "C"
