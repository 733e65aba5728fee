// Internal helpers shared by every module of the library.  Not installed.
#pragma once

#include "kemo.h"

#include <cerrno>
#include <new>
#include <syslog.h>
#include <utility>

// Diagnostics: one line to the system log at LOG_ERR, prefixed with the
// source path (relative to the project, with its extension) and the line.
#define KEMO_LOG(fmt, ...) \
    ::syslog(LOG_ERR, "%s(%d): " fmt, __FILE__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

namespace kemo {

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

} // namespace kemo
