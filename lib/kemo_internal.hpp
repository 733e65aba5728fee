// Internal helpers shared by every module of the library.  Not installed.
#pragma once

#include "kemo.h"

#include <cerrno>
#include <new>
#include <optional>
#include <string_view>
#include <syslog.h>
#include <utility>

namespace kemo {

// The library's one way to the system log: one line at LOG_ERR, formatted
// as printf does.  Every diagnostic of every module goes through it (the
// KEMO_LOG forms below, or a module's own message format passed whole), so
// the errno of the caller is never changed by logging.
void log(const char *fmt, ...) noexcept __attribute__((format(printf, 1, 2)));
// The same at another level (LOG_INFO for a step worth recording that is
// not a failure).
void log_at(int priority, const char *fmt, ...) noexcept __attribute__((format(printf, 2, 3)));

} // namespace kemo

// Diagnostics prefixed with the source path (relative to the project, with
// its extension) and the line, in the three prefix forms of the library:
//   KEMO_LOG       "lib/kemofile.cpp(120): message"
//   KEMO_LOG_SP    "lib/kemofile.cpp (120) message"
//   KEMO_LOG_CODE  "lib/kemofile.cpp(120)[2000] message"  (the current error code)
#define KEMO_LOG(fmt, ...) ::kemo::log("%s(%d): " fmt, __FILE__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
#define KEMO_LOG_SP(fmt, ...) ::kemo::log("%s (%d) " fmt, __FILE__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
#define KEMO_LOG_CODE(fmt, ...) \
    ::kemo::log("%s(%d)[%X] " fmt, __FILE__, __LINE__, static_cast<unsigned>(kemoerrno) __VA_OPT__(, ) __VA_ARGS__)

namespace kemo {

// Sleeps ms milliseconds, also across signals that interrupt the sleep.
void sleep_ms(long ms) noexcept;

// The configuration locks of the process (the lock files under /tmp/lock,
// selected by KLIB_LOCK_* masks): take(request, timeout) and release(mask)
// as ErrKLIBFileLock and ErrKLIBFileUnlock describe them; close_all() drops
// every lock (a child about to run another program).
namespace locks {
int take(int request, int timeout) noexcept;
int release(int mask) noexcept;
int reset(int mask) noexcept;
int close_all() noexcept;
int check_dir() noexcept;
// GetExclusiveFileLock; with private_file the lock file must be root's
// alone (a planted one is replaced), as for the registry's fixed lock file
// in /tmp.
int exclusive_file(const char *path, int *timeoutMs, bool private_file) noexcept;
} // namespace locks

// The one lock object of the library: holds configuration locks for a scope.
//   ConfigLock lock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_EX);
//   if (!lock.held()) return fail(-1, ERR_LOCK_FAILED);
// The release covers the masks of the request unless another release mask
// is given.  Movable, so that a function can take a lock for its caller.
class ConfigLock {
public:
    explicit ConfigLock(int request, int timeout = 5) noexcept
        : ConfigLock(request, request & ~0xF, timeout)
    {
    }
    ConfigLock(int request, int release_mask, int timeout) noexcept;
    ConfigLock(ConfigLock &&other) noexcept;
    ~ConfigLock();
    ConfigLock(const ConfigLock &) = delete;
    ConfigLock &operator=(const ConfigLock &) = delete;
    ConfigLock &operator=(ConfigLock &&) = delete;
    bool held() const noexcept { return held_; }
    // Releases now; false (ERR_UNLOCK_FAILED set) when the release failed.
    bool release() noexcept;

private:
    int mask_;
    bool held_;
};

// Runs the body of an exported function.  No exception may cross the C
// boundary: running out of memory becomes ERR_OUT_OF_MEMORY, anything else
// ERR_UNKNOWN, and the documented failure value is returned.
template <class R, class F>
R edge(R failure, F &&body) noexcept
{
    try {
        return std::forward<F>(body)();
    } catch (const std::bad_alloc &) {
        KLIBErrSet(ERR_OUT_OF_MEMORY);
    } catch (...) {
        KLIBErrSet(ERR_UNKNOWN);
    }
    return failure;
}

// Same for functions without a result.
template <class F>
void edge_void(F &&body) noexcept
{
    try {
        std::forward<F>(body)();
    } catch (const std::bad_alloc &) {
        KLIBErrSet(ERR_OUT_OF_MEMORY);
    } catch (...) {
        KLIBErrSet(ERR_UNKNOWN);
    }
}

// Sets the error code and returns the failure value, for one-line refusals:
//   if (!list) return kemo::fail(-1, ERR_BAD_PARAMETERS);
template <class R>
inline R fail(R failure, int code) noexcept
{
    KLIBErrSet(code);
    return failure;
}

// The text of s without outer blanks (space, tab, CR, LF) and without one
// pair of enclosing double quotes: how keys, values and trimmed lines of
// the settings files are read.
inline std::string_view trimmed(std::string_view s) noexcept
{
    constexpr std::string_view blanks = " \t\r\n";
    const auto first = s.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    s = s.substr(first, s.find_last_not_of(blanks) - first + 1);
    if (s.size() >= 2 && s.front() == '"' && s.back() == '"')
        s = s.substr(1, s.size() - 2);
    return s;
}

// A "key=value" line split at its first "=", both sides trimmed(); nullopt
// for a line without "=" or with an empty key.
struct KeyValue {
    std::string_view key, value;
};
inline std::optional<KeyValue> split_pair(std::string_view line) noexcept
{
    const auto eq = line.find('=');
    if (eq == std::string_view::npos)
        return std::nullopt;
    const std::string_view key = trimmed(line.substr(0, eq));
    if (key.empty())
        return std::nullopt;
    return KeyValue{key, trimmed(line.substr(eq + 1))};
}

} // namespace kemo
