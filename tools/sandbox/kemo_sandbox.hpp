// The appliance sandbox: a throwaway copy of this machine's root file system
// in which the library's absolute paths (/etc/passwd, /etc/kemoinfo.conf,
// /tmp/lock/, /usr/kemo/etc/smb.conf ...) hold the appliance's factory files.
//
// A process enters it for good: it gets a private mount namespace, an overlay
// of the machine's root (writes land in a tmpfs upper layer), fresh tmpfs
// mounts at /tmp, /run, /dev and /dev/shm, a read-only /sys, and the factory
// tree copied in; then it is chrooted there. Each sandbox also has an IPC
// namespace of its own, so no System V segment or semaphore outlives it.
// Nothing written inside reaches the machine's own files. fresh() throws the
// current sandbox away and builds a new one in a few milliseconds, so one
// test process can give every test case its own.
//
// None of these functions throws. Functions that can fail return false and,
// when `why` is not null, store one line that says what went wrong.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kemo::sandbox {

// One entry of the factory tree, embedded in this library at build time.
struct FactoryFile {
    std::string_view path;     // absolute path inside the appliance
    mode_t mode;               // permission bits (07777)
    uid_t uid;
    gid_t gid;
    std::string_view content;  // file bytes; empty for a directory
    bool directory;            // a directory with the given mode and owner
};

// The factory tree in path order.
std::span<const FactoryFile> factory();

struct Options {
    // /tmp starts as a copy-on-write view of the machine's /tmp instead of
    // an empty tmpfs: files there can be read, changes stay in the sandbox.
    bool keep_tmp = false;
};

// True when a sandbox can be made here: we are root and the kernel gives us
// a private mount namespace and an overlay of the root file system. Also
// true once inside. The probe runs in a short-lived child and is cached.
bool available(std::string *why = nullptr);

// Moves the calling process into a new sandbox for good. The process must be
// single-threaded (a mount namespace cannot be unshared otherwise). The
// working directory is kept when its path exists in the sandbox, else "/".
// Already inside: does nothing and returns true.
bool enter(std::string *why = nullptr);
bool enter(const Options &options, std::string *why = nullptr);

// Discards the current sandbox (if any) and builds a new one from the
// machine's root and the factory tree; enters first when not inside yet.
// Descriptors still open on the old sandbox keep working but see only the
// old files. The syslog connection is closed so that the next syslog()
// looks for /dev/log in the new sandbox. No other thread may touch files
// while this runs. When building fails after the old sandbox was left, the
// process is parked in an empty directory (never on the machine's files)
// and inside() is false until a later fresh() succeeds.
bool fresh(std::string *why = nullptr);
bool fresh(const Options &options, std::string *why = nullptr);

// True while the process is in a working sandbox.
bool inside();

// Writes `content` to the absolute `path` inside the sandbox with exactly
// `mode` (the umask does not apply), owned by root; missing parent
// directories are created with mode 0755. An existing file is replaced
// atomically. Refused outside the sandbox.
bool place(std::string_view path, std::string_view content, mode_t mode = 0644,
           std::string *why = nullptr);

// place() with the content of the file `source`, read as the calling
// process sees it now (inside the sandbox that is the sandbox's view, which
// for paths outside /tmp, /run and /dev is the machine's content unless the
// sandbox changed it). Without `mode` the source's permission bits are used.
bool place_file(const std::string &source, std::string_view path,
                std::optional<mode_t> mode = std::nullopt, std::string *why = nullptr);

// Read-only looks at the file system as the process saw it before it
// entered (for tests that prove nothing leaked out). Outside the sandbox
// they look at the current view. Symbolic links are not followed in the
// last component of host_exists().
bool host_exists(std::string_view path);
bool host_read(std::string_view path, std::string *content, std::string *why = nullptr);

}  // namespace kemo::sandbox
