// The appliance sandbox (see kemo_sandbox.hpp).
//
// Layout inside the process's private mount namespace:
//
//   /tmp                    small tmpfs that holds the sandboxes (it also
//                           hides the machine's /tmp in this namespace)
//   /tmp/g<N>               tmpfs of generation N: upper/ and work/ of the
//                           overlay, and root/, the overlay itself
//   /tmp/g<N>/root          overlay: lower = "/", upper = /tmp/g<N>/upper;
//                           below it: tmp, proc, sys, dev, dev/pts, dev/shm
//                           and run mounts
//   /tmp/parked             empty directory a process is chrooted into when
//                           a new generation could not be built
//
// The process is chrooted into /tmp/g<N>/root. A descriptor on the
// namespace's root lets fresh() step back out (fchdir + chroot("."));
// detaching /tmp/g<N> then drops the whole generation, overlay and submounts
// included, in one lazy unmount.

#include "kemo_sandbox.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>
#include <utility>

namespace kemo::sandbox {

namespace detail {
extern const FactoryFile factory_files[];
extern const std::size_t factory_file_count;
}  // namespace detail

namespace {

constexpr const char *kHolder = "/tmp";
constexpr const char *kParked = "/tmp/parked";
// Long-lived descriptors are moved up here so that tests which look at the
// lowest free descriptor numbers do not trip over them.
constexpr int kHighFd = 700;

struct State {
    bool entered = false;   // in our own mount namespace, holder mounted
    bool inside = false;    // chrooted into a complete generation
    int real_root = -1;     // root of our namespace (outside every generation)
    int host_root = -1;     // root as the process saw it before entering
    int machine_tmp = -1;   // /tmp as it was before the holder hid it
    std::string cwd = "/";  // working directory to restore in every generation
    unsigned generation = 0;
    Options options;
};

State g;
bool g_probed = false;
std::string g_probe_failure;  // empty: the probe succeeded

bool fail(std::string *why, std::string message) {
    if (why != nullptr) *why = std::move(message);
    return false;
}

bool fail_errno(std::string *why, const std::string &what, int error) {
    return fail(why, what + ": " + std::strerror(error));
}

int move_high(int fd) {
    if (fd < 0) return fd;
    const int high = ::fcntl(fd, F_DUPFD_CLOEXEC, kHighFd);
    if (high < 0) return fd;
    ::close(fd);
    return high;
}

std::string generation_dir(unsigned n) { return std::string(kHolder) + "/g" + std::to_string(n); }

// mkdir with exactly `mode` (independent of the umask); an existing
// directory is accepted as it is.
bool make_dir(const std::string &path, mode_t mode, std::string *why) {
    if (::mkdir(path.c_str(), mode) == 0) {
        if (::chmod(path.c_str(), mode) != 0) return fail_errno(why, "chmod " + path, errno);
        return true;
    }
    const int error = errno;
    struct stat st {};
    if (error == EEXIST && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return true;
    return fail_errno(why, "mkdir " + path, error);
}

// Creates the missing directories above `path` (mode 0755).
bool make_parents(const std::string &path, std::string *why) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        if (!make_dir(path.substr(0, slash), 0755, why)) return false;
    }
    return true;
}

bool write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

// Writes a complete file next to `path` and renames it into place, so a
// symbolic link or a file of another owner at `path` is replaced, not
// written through.
bool write_file(const std::string &path, std::string_view content, mode_t mode, uid_t uid,
                gid_t gid, std::string *why) {
    if (!make_parents(path, why)) return false;
    const std::string tmp = path + ".kemo-sandbox-new";
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return fail_errno(why, "create " + tmp, errno);
    bool ok = write_all(fd, content);
    int error = errno;
    // chown before chmod: chown clears set-id bits.
    if (ok && (::fchown(fd, uid, gid) != 0 || ::fchmod(fd, mode) != 0)) {
        ok = false;
        error = errno;
    }
    if (::close(fd) != 0 && ok) {
        ok = false;
        error = errno;
    }
    if (ok && ::rename(tmp.c_str(), path.c_str()) != 0) {
        ok = false;
        error = errno;
    }
    if (!ok) {
        ::unlink(tmp.c_str());
        return fail_errno(why, "write " + path, error);
    }
    return true;
}

bool read_fd(int fd, std::string *content) {
    content->clear();
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n == 0) return true;
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        content->append(buffer, static_cast<std::size_t>(n));
    }
}

bool do_mount(const char *source, const std::string &target, const char *type,
              unsigned long flags, const char *data, std::string *why) {
    if (::mount(source, target.c_str(), type, flags, data) == 0) return true;
    const int error = errno;
    const char *kind = type != nullptr ? type : "bind";
    return fail_errno(why, std::string("mount ") + kind + " on " + target, error);
}

// Bind mount without the submounts when the kernel allows it (it does not
// when submounts hide parts of the source from this user), else with them.
bool bind(const char *source, const std::string &target, std::string *why) {
    if (::mount(source, target.c_str(), nullptr, MS_BIND, nullptr) == 0) return true;
    return do_mount(source, target, nullptr, MS_BIND | MS_REC, nullptr, why);
}

// Remounts a bind mount read-only. The flags that the kernel will not let
// us drop (nosuid, nodev, noexec ...) are carried over from the mount.
bool remount_read_only(const std::string &target, std::string *why) {
    struct statvfs sv {};
    if (::statvfs(target.c_str(), &sv) != 0) return fail_errno(why, "statvfs " + target, errno);
    unsigned long flags = MS_REMOUNT | MS_BIND | MS_RDONLY;
    if (sv.f_flag & ST_NOSUID) flags |= MS_NOSUID;
    if (sv.f_flag & ST_NODEV) flags |= MS_NODEV;
    if (sv.f_flag & ST_NOEXEC) flags |= MS_NOEXEC;
    if (sv.f_flag & ST_NOATIME) flags |= MS_NOATIME;
    if (sv.f_flag & ST_NODIRATIME) flags |= MS_NODIRATIME;
    if (sv.f_flag & ST_RELATIME) flags |= MS_RELATIME;
    return do_mount(nullptr, target, nullptr, flags, nullptr, why);
}

bool mount_tmpfs(const std::string &target, const char *options, unsigned long flags,
                 std::string *why) {
    return make_dir(target, 0755, why) &&
           do_mount("kemo-sandbox", target, "tmpfs", flags, options, why);
}

bool make_dev(const std::string &dev, std::string *why) {
    static const char *const kNodes[] = {"null", "zero", "full", "random", "urandom", "tty", "ptmx"};
    for (const char *node : kNodes) {
        const std::string source = std::string("/dev/") + node;
        struct stat st {};
        if (::stat(source.c_str(), &st) != 0 || !S_ISCHR(st.st_mode)) continue;
        const std::string target = dev + "/" + node;
        const int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        if (fd < 0) return fail_errno(why, "create " + target, errno);
        ::close(fd);
        if (!bind(source.c_str(), target, why)) return false;
    }
    struct stat st {};
    if (::stat("/dev/pts", &st) == 0 && S_ISDIR(st.st_mode)) {
        if (!make_dir(dev + "/pts", 0755, why) || !bind("/dev/pts", dev + "/pts", why)) return false;
    }
    if (!mount_tmpfs(dev + "/shm", "mode=1777", MS_NOSUID | MS_NODEV, why)) return false;
    static const std::pair<const char *, const char *> kLinks[] = {
        {"fd", "/proc/self/fd"},
        {"stdin", "/proc/self/fd/0"},
        {"stdout", "/proc/self/fd/1"},
        {"stderr", "/proc/self/fd/2"},
    };
    for (const auto &[name, to] : kLinks) {
        const std::string link = dev + "/" + name;
        if (::symlink(to, link.c_str()) != 0) return fail_errno(why, "symlink " + link, errno);
    }
    return true;
}

// The appliance's own programs that the library runs by absolute path (such
// as /bin/get_key_value) stand in the sandbox as links to the freshly built
// ones: "BUILT:/PATH|..." from the build.
bool install_programs(const std::string &root, std::string *why) {
#ifdef KEMO_SANDBOX_PROGRAMS
    std::string_view rest = KEMO_SANDBOX_PROGRAMS;
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find('|'), rest.size());
        const std::string_view entry = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        const std::size_t colon = entry.rfind(":/");
        if (colon == std::string_view::npos) continue;
        const std::string target = root + std::string(entry.substr(colon + 1));
        const std::string built(entry.substr(0, colon));
        ::unlink(target.c_str());
        if (!make_parents(target, why)) return false;
        if (::symlink(built.c_str(), target.c_str()) != 0)
            return fail_errno(why, "link " + target, errno);
    }
#else
    (void)root;
    (void)why;
#endif
    return true;
}

bool install_factory(const std::string &root, std::string *why) {
    for (const FactoryFile &f : factory()) {
        const std::string path = root + std::string(f.path);
        if (f.directory) {
            if (!make_parents(path, why) || !make_dir(path, f.mode, why)) return false;
            if (::chown(path.c_str(), f.uid, f.gid) != 0 || ::chmod(path.c_str(), f.mode) != 0)
                return fail_errno(why, "set owner and mode of " + path, errno);
        } else if (!write_file(path, f.content, f.mode, f.uid, f.gid, why)) {
            return false;
        }
    }
    return install_programs(root, why);
}

// The working directory and the directories named in KEMO_SANDBOX_EXPOSE
// (colon-separated), when they lie under the machine's /tmp: a checkout or
// build tree there would otherwise vanish behind the sandbox's fresh /tmp.
// Paths elsewhere are visible through the overlay already.
std::vector<std::string> hidden_work_dirs() {
    std::vector<std::string> wanted {g.cwd};
    if (const char *list = std::getenv("KEMO_SANDBOX_EXPOSE")) {
        std::string_view rest = list;
        while (!rest.empty()) {
            const std::size_t colon = rest.find(':');
            wanted.emplace_back(rest.substr(0, colon));
            if (colon == std::string_view::npos) break;
            rest.remove_prefix(colon + 1);
        }
    }
    std::sort(wanted.begin(), wanted.end());
    std::vector<std::string> out;
    for (const std::string &path : wanted) {
        if (path.rfind("/tmp/", 0) != 0 || path.find("/../") != std::string::npos) continue;
        // A directory below one already exposed comes with it.
        if (!out.empty() && path.rfind(out.back() + "/", 0) == 0) continue;
        if (!out.empty() && path == out.back()) continue;
        out.push_back(path);
    }
    return out;
}

// Binds those directories read-only at their own paths in the new /tmp, so
// that tests and tools can run from such a tree but never write to it.
bool expose_work_dirs(const std::string &root, std::string *why) {
    for (const std::string &path : hidden_work_dirs()) {
        const std::string source =
            "/proc/self/fd/" + std::to_string(g.machine_tmp) + path.substr(std::strlen("/tmp"));
        struct stat st {};
        if (::stat(source.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) continue;
        const std::string target = root + path;
        if (!make_parents(target, why) || !make_dir(target, 0755, why) ||
            !bind(source.c_str(), target, why) || !remount_read_only(target, why))
            return false;
    }
    return true;
}

// Mounts generation `gen` (overlay and everything below it) and copies the
// factory tree in. Paths are those of the namespace's root, where the
// process stands while this runs.
bool build_tree(const std::string &gen, const std::string &root, std::string *why) {
    if (!make_dir(gen, 0700, why) ||
        !do_mount("kemo-sandbox", gen, "tmpfs", 0, "mode=0700", why))
        return false;
    // The overlay root takes its owner and mode from the upper directory.
    if (!make_dir(gen + "/upper", 0755, why) || !make_dir(gen + "/work", 0700, why) ||
        !make_dir(root, 0755, why))
        return false;
    const std::string layers = "lowerdir=/,upperdir=" + gen + "/upper,workdir=" + gen + "/work";
    if (!do_mount("overlay", root, "overlay", 0, layers.c_str(), why)) return false;

    if (g.options.keep_tmp) {
        // The machine's /tmp is hidden by the holder; it is reached through
        // a descriptor taken before. (An overlay layer must be a mount of
        // this namespace, so the descriptor on the original root won't do.)
        const std::string tmp_layers = "lowerdir=/proc/self/fd/" + std::to_string(g.machine_tmp) +
                                       ",upperdir=" + gen + "/tmp-upper,workdir=" + gen +
                                       "/tmp-work";
        if (!make_dir(gen + "/tmp-upper", 01777, why) || !make_dir(gen + "/tmp-work", 0700, why) ||
            !make_dir(root + "/tmp", 01777, why) ||
            !do_mount("overlay", root + "/tmp", "overlay", 0, tmp_layers.c_str(), why))
            return false;
    } else if (!mount_tmpfs(root + "/tmp", "mode=1777", MS_NOSUID | MS_NODEV, why) ||
               !expose_work_dirs(root, why)) {
        return false;
    }

    // /proc is needed for /proc/self and /proc/mounts; its sysctl tree is
    // read-only so that nothing inside can retune the machine's kernel.
    if (!make_dir(root + "/proc", 0555, why) || !bind("/proc", root + "/proc", why) ||
        !bind("/proc/sys", root + "/proc/sys", why) ||
        !remount_read_only(root + "/proc/sys", why))
        return false;
    if (!make_dir(root + "/sys", 0555, why) || !bind("/sys", root + "/sys", why) ||
        !remount_read_only(root + "/sys", why))
        return false;
    if (!mount_tmpfs(root + "/dev", "mode=0755", MS_NOSUID | MS_NOEXEC, why) ||
        !make_dev(root + "/dev", why))
        return false;
    if (!mount_tmpfs(root + "/run", "mode=0755", MS_NOSUID | MS_NODEV, why) ||
        !make_dir(root + "/run/lock", 01777, why))
        return false;
    return install_factory(root, why);
}

void drop_generation(unsigned n) {
    const std::string gen = generation_dir(n);
    ::umount2(gen.c_str(), MNT_DETACH);
    ::rmdir(gen.c_str());
}

// Keeps a process whose new generation failed away from the machine's
// files: its root becomes an empty directory of the holder.
void park() {
    ::mkdir(kParked, 0555);
    if (::chroot(kParked) == 0) {
        [[maybe_unused]] const int ignored = ::chdir("/");
    }
}

// Called with the namespace's own root as the process root.
bool build_generation(std::string *why) {
    const unsigned n = ++g.generation;
    const std::string gen = generation_dir(n);
    const std::string root = gen + "/root";
    if (!build_tree(gen, root, why)) {
        drop_generation(n);
        park();
        return false;
    }
    if (::chroot(root.c_str()) != 0) {
        const int error = errno;
        drop_generation(n);
        park();
        return fail_errno(why, "chroot " + root, error);
    }
    // System V shared memory, semaphores and message queues of its own:
    // the old sandbox's objects go with its namespace.
    if (::unshare(CLONE_NEWIPC) != 0) {
        const int error = errno;
        return fail_errno(why, "the kernel refused a private IPC namespace", error);
    }
    if (::chdir(g.cwd.c_str()) != 0 && ::chdir("/") != 0) {
        const int error = errno;
        return fail_errno(why, "chdir inside the sandbox", error);
    }
    // The syslog connection, if any, points at the /dev/log of the old view.
    ::closelog();
    g.inside = true;
    return true;
}

int count_threads() {
    DIR *dir = ::opendir("/proc/self/task");
    if (dir == nullptr) return 1;
    int n = 0;
    while (const dirent *e = ::readdir(dir)) {
        if (e->d_name[0] != '.') ++n;
    }
    ::closedir(dir);
    return n;
}

bool enter_namespace(const Options &options, std::string *why) {
    if (::geteuid() != 0) return fail(why, "needs root (mount namespaces)");
    const int threads = count_threads();
    if (threads > 1)
        return fail(why, "the process runs " + std::to_string(threads) +
                             " threads; a mount namespace needs a single-threaded process");
    std::string cwd(4096, '\0');
    while (::getcwd(cwd.data(), cwd.size()) == nullptr) {
        if (errno != ERANGE) {
            cwd = "/";
            break;
        }
        cwd.resize(cwd.size() * 2);
    }
    cwd.resize(std::strlen(cwd.c_str()));

    // Taken before unsharing, this descriptor keeps resolving in the
    // original mount namespace.  The host name gets a namespace of its own
    // too, so that setting the appliance's name never renames the machine.
    const int host_root = move_high(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (host_root < 0) return fail_errno(why, "open /", errno);
    if (::unshare(CLONE_NEWNS | CLONE_NEWUTS) != 0) {
        const int error = errno;
        ::close(host_root);
        return fail_errno(why, "the kernel refused a private mount and host-name namespace", error);
    }
    // From here on this process has its own mount table; nothing it mounts
    // may propagate back to the machine's.
    if (!do_mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr, why)) {
        ::close(host_root);
        return false;
    }
    const int machine_tmp = move_high(::open(kHolder, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (machine_tmp < 0) {
        const int error = errno;
        ::close(host_root);
        return fail_errno(why, std::string("open ") + kHolder, error);
    }
    if (!do_mount("kemo-sandbox", kHolder, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0700,size=1m", why)) {
        ::close(host_root);
        ::close(machine_tmp);
        return false;
    }
    const int real_root = move_high(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (real_root < 0) {
        const int error = errno;
        ::close(host_root);
        ::close(machine_tmp);
        return fail_errno(why, "open /", error);
    }
    g.host_root = host_root;
    g.machine_tmp = machine_tmp;
    g.real_root = real_root;
    g.cwd = cwd;
    g.options = options;
    g.entered = true;
    return true;
}

bool fresh_impl(const Options &options, std::string *why) {
    if (!g.entered) return enter_namespace(options, why) && build_generation(why);
    if (::fchdir(g.real_root) != 0 || ::chroot(".") != 0)
        return fail_errno(why, "leaving the old sandbox", errno);
    g.inside = false;
    drop_generation(g.generation);
    g.options = options;
    return build_generation(why);
}

// Runs in a throwaway child: everything that enter() will need, once.
std::string probe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return std::string("pipe: ") + std::strerror(errno);
    const pid_t pid = ::fork();
    if (pid < 0) {
        const int error = errno;
        ::close(fds[0]);
        ::close(fds[1]);
        return std::string("fork: ") + std::strerror(error);
    }
    if (pid == 0) {
        ::close(fds[0]);
        const auto say = [&](const char *what) {
            char message[256];
            const int n = std::snprintf(message, sizeof message, "%s: %s", what, std::strerror(errno));
            if (n > 0 && ::write(fds[1], message, static_cast<std::size_t>(n)) < 0) ::_exit(2);
            ::_exit(1);
        };
        if (::unshare(CLONE_NEWNS | CLONE_NEWUTS | CLONE_NEWIPC) != 0)
            say("the kernel refused private mount, host-name and IPC namespaces");
        if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            say("cannot make the mount tree private");
        if (::mount("kemo-sandbox-probe", kHolder, "tmpfs", 0, "mode=0700") != 0)
            say("cannot mount a tmpfs");
        if (::mkdir("/tmp/u", 0755) != 0 || ::mkdir("/tmp/w", 0700) != 0 ||
            ::mkdir("/tmp/r", 0755) != 0)
            say("cannot make directories in a tmpfs");
        if (::mount("overlay", "/tmp/r", "overlay", 0, "lowerdir=/,upperdir=/tmp/u,workdir=/tmp/w") != 0)
            say("cannot mount an overlay of the root file system");
        if (::open("/tmp/r/etc/.kemo-sandbox-probe", O_WRONLY | O_CREAT | O_EXCL, 0600) < 0)
            say("cannot write through an overlay of the root file system");
        ::_exit(0);
    }
    ::close(fds[1]);
    std::string message;
    read_fd(fds[0], &message);
    ::close(fds[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {};
    return message.empty() ? std::string("the sandbox probe process failed") : message;
}

int host_open(std::string_view path, int flags) {
    const std::string p(path);
    if (g.host_root < 0) return ::open(p.c_str(), flags | O_CLOEXEC);
    const std::size_t start = p.find_first_not_of('/');
    const std::string relative = start == std::string::npos ? "." : p.substr(start);
    // Symbolic links met on the way must resolve on the original root too.
    open_how how {};
    how.flags = static_cast<std::uint64_t>(flags | O_CLOEXEC);
    how.resolve = RESOLVE_IN_ROOT;
    const long fd = ::syscall(SYS_openat2, g.host_root, relative.c_str(), &how, sizeof how);
    if (fd < 0 && errno == ENOSYS) return ::openat(g.host_root, relative.c_str(), flags | O_CLOEXEC);
    return static_cast<int>(fd);
}

}  // namespace

std::span<const FactoryFile> factory() {
    return {detail::factory_files, detail::factory_file_count};
}

bool available(std::string *why) {
    try {
        if (g.entered) return true;
        if (::geteuid() != 0) return fail(why, "needs root (mount namespaces)");
        if (!g_probed) {
            g_probe_failure = probe();
            g_probed = true;
        }
        if (!g_probe_failure.empty()) return fail(why, g_probe_failure);
        return true;
    } catch (const std::bad_alloc &) {
        return fail(why, "out of memory");
    }
}

bool enter(std::string *why) { return enter(Options {}, why); }

bool enter(const Options &options, std::string *why) {
    try {
        if (g.inside) return true;
        return fresh_impl(options, why);
    } catch (const std::bad_alloc &) {
        return fail(why, "out of memory");
    }
}

bool fresh(std::string *why) { return fresh(Options {}, why); }

bool fresh(const Options &options, std::string *why) {
    try {
        return fresh_impl(options, why);
    } catch (const std::bad_alloc &) {
        return fail(why, "out of memory");
    }
}

bool inside() { return g.inside; }

bool place(std::string_view path, std::string_view content, mode_t mode, std::string *why) {
    try {
        if (!g.inside) return fail(why, "not inside the appliance sandbox");
        if (path.size() < 2 || path.front() != '/' || path.back() == '/' ||
            path.find('\0') != std::string_view::npos)
            return fail(why, "not an absolute file path: \"" + std::string(path) + "\"");
        return write_file(std::string(path), content, mode & 07777, 0, 0, why);
    } catch (const std::bad_alloc &) {
        return fail(why, "out of memory");
    }
}

bool place_file(const std::string &source, std::string_view path, std::optional<mode_t> mode,
                std::string *why) {
    try {
        const int fd = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return fail_errno(why, "open " + source, errno);
        struct stat st {};
        std::string content;
        const bool ok = ::fstat(fd, &st) == 0 && read_fd(fd, &content);
        const int error = errno;
        ::close(fd);
        if (!ok) return fail_errno(why, "read " + source, error);
        return place(path, content, mode.value_or(st.st_mode & 07777), why);
    } catch (const std::bad_alloc &) {
        return fail(why, "out of memory");
    }
}

bool host_exists(std::string_view path) {
    try {
        const int fd = host_open(path, O_PATH | O_NOFOLLOW);
        if (fd < 0) return false;
        ::close(fd);
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

bool host_read(std::string_view path, std::string *content, std::string *why) {
    try {
        const int fd = host_open(path, O_RDONLY);
        if (fd < 0) return fail_errno(why, "open " + std::string(path) + " on the machine", errno);
        const bool ok = read_fd(fd, content);
        const int error = errno;
        ::close(fd);
        if (!ok) return fail_errno(why, "read " + std::string(path) + " on the machine", error);
        return true;
    } catch (const std::bad_alloc &) {
        return fail(why, "out of memory");
    }
}

}  // namespace kemo::sandbox
