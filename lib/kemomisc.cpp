// Process and system helpers: running programs, finding and stopping
// processes, pid files, file system and directory sizes, and the small
// notifications of the file servers and media services.
#include "kemo_internal.hpp"
#include "kemo_io.hpp"
#include "kemo_process.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
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

void sleep_ms(long ms) noexcept
{
    timespec left{ms / 1000, (ms % 1000) * 1000000L};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

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
    char value[16] = "";
    return KLIBFileGetKeyValue(defaults_conf, key, value, sizeof value, 0) > 0 &&
           std::strcmp(value, "yes") == 0;
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
            ::syslog(LOG_ERR, "%s (%d) Failed to run exec. (%s)", __FILE__, __LINE__, program);
            return kemo::fail(-1, ERR_OP_FAILURE);
        }
        return 0;
    });
}

// The servers selected by a KLIB_SERVICE_* mask.
constexpr std::array<std::pair<int, const char *>, 3> servers{{
    {KLIB_SERVICE_SMB, "/usr/kemo/sbin/smbd"},
    {KLIB_SERVICE_AFP, "/usr/kemo/sbin/afpd"},
    {KLIB_SERVICE_FTP, "/usr/kemo/sbin/ftpd"},
}};
constexpr int all_services = KLIB_SERVICE_SMB | KLIB_SERVICE_AFP | KLIB_SERVICE_FTP;

using StatFs = struct statfs64;

// statfs of path, or false (a null path is logged).
bool fs_stat(const char *path, StatFs &fs, int line)
{
    if (path == nullptr) {
        ::syslog(LOG_ERR, "%s(%d)bad parameter", __FILE__, line);
        KLIBErrSet(ERR_BAD_PARAMETERS);
        return false;
    }
    return ::statfs64(path, &fs) == 0;
}

} // namespace

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
    if (name == nullptr || !searchable(name) || max < 0 || (pids == nullptr && max > 0))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        const std::string scratch = "/tmp/tempKLIBPs" + std::to_string(static_cast<unsigned>(::getpid()));
        const auto command = kemo::shell_command("/bin/ps -awx | /bin/grep '%s' > %s 2>&1", {name, scratch});
        // The search's own lines: grep's arguments, and the shell's command line.
        const auto quoted = kemo::shell_command("grep '%s'", {name});
        if (!command || !quoted)
            return kemo::fail(-1, ERR_BAD_PARAMETERS);
        // Created here, exclusively and never through a link, so that the
        // shell's redirection only ever truncates our own empty file.
        ::unlink(scratch.c_str());
        const int fd = ::open(scratch.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0)
            return kemo::fail(-1, ERR_READ_FAILED);
        ::close(fd);
        struct Remove {
            const std::string &path;
            ~Remove() { ::unlink(path.c_str()); }
        } remove{scratch};

        kemo::shell_run(*command); // grep fails when nothing matches
        kemo::FilePtr in = kemo::open_file(scratch.c_str(), "r");
        if (!in)
            return kemo::fail(-1, ERR_READ_FAILED);
        const std::string plain = std::string("grep ") + name;
        const std::string single = std::string("grep '") + name + "'";
        kemo::LineReader reader(in.get());
        std::string_view line;
        int found = 0;
        while (reader.next(line)) {
            line = kemo::chomp(line);
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
        if (reader.failed())
            return kemo::fail(-1, ERR_READ_FAILED);
        return found;
    });
}

KEMO_API int KLIBIKill(const char *name, int force)
{
    if (name == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
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
    const int found = KLIBPs(name, pids, most);
    if (found < 0)
        return -1;
    signal_all(found, force ? SIGKILL : SIGTERM);
    if (!force)
        sleep_ms(100);
    const int left = KLIBPs(name, pids, most);
    if (left > 0)
        signal_all(left, SIGKILL);
    return std::min(found, most);
}

KEMO_API int BlKLIBIIsProcAlive(const char *name)
{
    if (name == nullptr)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return KLIBPs(name, nullptr, 0) > 0 ? 1 : 0;
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
    const int pid = KLIBReadPidFile(path);
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
        ::syslog(LOG_ERR, "%s(%d)bad parameter", __FILE__, __LINE__);
        return kemo::fail(0ULL, ERR_BAD_PARAMETERS);
    }
    return kemo::edge(0ULL, [&] {
        constexpr std::size_t command_size = 4126;
        // A leading "-" would be an option of du.
        const auto command = kemo::shell_command("/usr/bin/du -sk '%s'", {path});
        if (*path == '-' || !command || command->size() >= command_size)
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
    });
}

// The bytes of the regular files in the tree at path (path itself when it
// is a file), symbolic links not followed, each inode counted once.  An
// entry that vanishes during the walk is skipped; any other that cannot be
// examined ends the walk with 0 and the entry's name in the log.
KEMO_API unsigned long long KLIBGetFullDirSize(const char *path)
{
    if (path == nullptr || *path == '\0') {
        ::syslog(LOG_ERR, "%s (%d) Bad parameter.", __FILE__, __LINE__);
        return kemo::fail(0ULL, ERR_BAD_PARAMETERS);
    }
    return kemo::edge(0ULL, [&] {
        std::string root = path;
        if (root.front() != '/') {
            char cwd[PATH_MAX];
            if (::getcwd(cwd, sizeof cwd) == nullptr) {
                ::syslog(LOG_ERR, "%s (%d) Failed to get current directory", __FILE__, __LINE__);
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
                ::syslog(LOG_ERR, "%s (%d) filename: %s", __FILE__, __LINE__, name.c_str());
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
                ::syslog(LOG_ERR, "%s (%d) filename: %s", __FILE__, __LINE__, name.c_str());
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
    });
}

KEMO_API int KLIBConnectionCountGet(int services)
{
    if (services == 0 || (services & ~all_services) != 0)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    // Each server runs one master and one process per connection.
    int count = 0;
    for (const auto &[bit, program] : servers) {
        if ((services & bit) == 0)
            continue;
        const int running = KLIBPs(program, nullptr, 0);
        if (running < 0)
            return -1;
        count += std::max(running - 1, 0);
    }
    return count;
}

KEMO_API int KLIBConnectionCountLogin(int services)
{
    const int count = KLIBConnectionCountGet(services);
    if (count < 0)
        return -1;
    // Without a valid "maxservices" the model sets no limit.
    char value[32] = "";
    unsigned long long most = 0;
    if (KLIBFileGetKeyValue(defaults_conf, "maxservices", value, sizeof value, 0) <= 0 ||
        !leading_number(value, most))
        return 1;
    return static_cast<unsigned long long>(count) < most ? 1 : 0;
}

KEMO_API int BlKLIBIsConnected(int services)
{
    return KLIBConnectionCountGet(services) > 0 ? 1 : 0;
}

KEMO_API int KLIBKemoIndexAdd(const char *path)
{
    return notify_media(path, "supportmediaservice", "photo,video,music", "/usr/kemo/bin/kemoindex");
}

KEMO_API int KLIBSignalKemomkthumbd(const char *path)
{
    return notify_media(path, "supportphoto", "photo", "/usr/kemo/bin/kemomkthumb");
}

} // extern "C"
