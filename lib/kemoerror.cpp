// Error state, the error name table, the error log file and the plain
// system-call wrappers.
#include "kemo_io.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <cstdarg>
#include <syslog.h>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

void vlog(int priority, const char *fmt, std::va_list args) noexcept
{
    const int saved = errno;
    ::vsyslog(priority, fmt, args);
    errno = saved;
}

} // namespace

void kemo::log(const char *fmt, ...) noexcept
{
    std::va_list args;
    va_start(args, fmt);
    vlog(LOG_ERR, fmt, args);
    va_end(args);
}

void kemo::log_at(int priority, const char *fmt, ...) noexcept
{
    std::va_list args;
    va_start(args, fmt);
    vlog(priority, fmt, args);
    va_end(args);
}

extern "C" {

KEMO_API int kemoerrno = 0;

const char *const rgszErrMsg[KEMO_ERR_TABLE_SIZE] = {
    "ERR_SUCCESS", /* 0 */
    "ERR_NOT_ENOUGH_MEMORY", /* 1 */
    "ERR_OUT_OF_MEMORY", /* 2 */
    "ERR_ACCESS_DENIED", /* 3 */
    "ERR_LOCK_FAILED", /* 4 */
    "ERR_UNLOCK_FAILED", /* 5 */
    "ERR_PATH_NOT_FOUND", /* 6 */
    "ERR_FILE_NOT_FOUND", /* 7 */
    "ERR_FILE_EXISTS", /* 8 */
    "ERR_OPEN_FAILED", /* 9 */
    "ERR_READ_FAILED", /* 10 */
    "ERR_WRITE_FAILED", /* 11 */
    "ERR_CREATE_FAILED", /* 12 */
    "ERR_BAD_PARAMETERS", /* 13 */
    "ERR_INVALID_SERVERNAME", /* 14 */
    "ERR_INVALID_DOMAINNAME", /* 15 */
    "ERR_INVALID_NETNAME", /* 16 */
    "ERR_SERVER_UNREACHABLE", /* 17 */
    "ERR_INVALID_SHARENAME", /* 18 */
    "ERR_SHARE_EXISTS", /* 19 */
    "ERR_NO_SUCH_SHARE", /* 20 */
    "ERR_TOO_MANY_SHARES", /* 21 */
    "ERR_INVALID_GROUPNAME", /* 22 */
    "ERR_GROUP_EXISTS", /* 23 */
    "ERR_NO_SUCH_GROUP", /* 24 */
    "ERR_TOO_MANY_GROUPS", /* 25 */
    "ERR_INVALID_USERNAME", /* 26 */
    "ERR_INVALID_PASSWORDNAME", /* 27 */
    "ERR_USER_EXISTS", /* 28 */
    "ERR_NO_SUCH_USER", /* 29 */
    "ERR_WRONG_PASSWORD", /* 30 */
    "ERR_TOO_MANY_USERS", /* 31 */
    "ERR_KEY_NOT_FOUND", /* 32 */
    "ERR_KEY_EXISTS", /* 33 */
    "ERR_SECTION_NOT_FOUND", /* 34 */
    "ERR_SECTION_EXISTS", /* 35 */
    "ERR_NOT_ENOUGH_QUOTA", /* 36 */
    "ERR_NOT_ENOUGH_VOLUME_SPACE", /* 37 */
    "ERR_SEEK_FAILED", /* 38 */
    "ERR_STAT_FAILED", /* 39 */
    "ERR_RENAME_FAILED", /* 40 */
    "ERR_NOT_ENOUGH_SPACE", /* 41 */
    "ERR_OP_FAILURE", /* 42 */
    "ERR_DEV_UNCONFIG", /* 43 */
    "ERR_DEV_UNMOUNTED", /* 44 */
    "ERR_OP_UNREGISTERED", /* 45 */
    "ERR_TIMER_EXPIRED", /* 46 */
    nullptr, /* 47 reserved */
    "ERR_READ_GEO", /* 48 */
    "ERR_USAGE", /* 49 */
    "ERR_UPDATE_OFFSET", /* 50 */
    "ERR_CHECKSUM", /* 51 */
    "ERR_OPEN_RAWDEVICE", /* 52 */
    "ERR_OPEN_OPTFILE", /* 53 */
    "ERR_READ_RAWDEVICE", /* 54 */
    "ERR_WRITE_RAWDEVICE", /* 55 */
    "ERR_BADPATCH", /* 56 */
    nullptr, /* 57 reserved */
    nullptr, /* 58 reserved */
    nullptr, /* 59 reserved */
    nullptr, /* 60 reserved */
    nullptr, /* 61 reserved */
    nullptr, /* 62 reserved */
    nullptr, /* 63 reserved */
    "ERR_FORMAT_ERROR", /* 64 */
    nullptr, /* 65 reserved */
    nullptr, /* 66 reserved */
    nullptr, /* 67 reserved */
    nullptr, /* 68 reserved */
    nullptr, /* 69 reserved */
    nullptr, /* 70 reserved */
    nullptr, /* 71 reserved */
    nullptr, /* 72 reserved */
    nullptr, /* 73 reserved */
    nullptr, /* 74 reserved */
    nullptr, /* 75 reserved */
    nullptr, /* 76 reserved */
    nullptr, /* 77 reserved */
    nullptr, /* 78 reserved */
    nullptr, /* 79 reserved */
    nullptr, /* 80 reserved */
    nullptr, /* 81 reserved */
    nullptr, /* 82 reserved */
    nullptr, /* 83 reserved */
    nullptr, /* 84 reserved */
    nullptr, /* 85 reserved */
    nullptr, /* 86 reserved */
    nullptr, /* 87 reserved */
    nullptr, /* 88 reserved */
    nullptr, /* 89 reserved */
    nullptr, /* 90 reserved */
    nullptr, /* 91 reserved */
    nullptr, /* 92 reserved */
    nullptr, /* 93 reserved */
    nullptr, /* 94 reserved */
    nullptr, /* 95 reserved */
    "ERR_NO_VOLUME_ID", /* 96 */
    "ERR_NO_DISK_ID", /* 97 */
    "ERR_NOT_ENOUGH_SD", /* 98 */
    "ERR_SD_SIZE_NOT_ALIGN", /* 99 */
    "ERR_DEVICE_BUSY", /* 100 */
    "ERR_INVALID_SD", /* 101 */
    "ERR_FORMAT_FAIL", /* 102 */
    "ERR_CANNOT_REBUILD_DISK", /* 103 */
    "ERR_BROKEN_RAID_CONF", /* 104 */
    "ERR_DISK_TOO_SMALL", /* 105 */
    "ERR_CANNOT_GET_MNTINFO", /* 106 */
    "ERR_BROKEN_DISK_INFO", /* 107 */
    "ERR_DISK_IO_FAILED", /* 108 */
    "ERR_BAD_DISKSECTOR", /* 109 */
    nullptr, /* 110 reserved */
    nullptr, /* 111 reserved */
    nullptr, /* 112 reserved */
    "ERR_UDPD_INVALID_HANDLE", /* 113 */
    "ERR_UDPD_RUNNING_HANDLE", /* 114 */
    "ERR_UDPD_INVALID_EVENT", /* 115 */
    "ERR_UDPD_INVALID_PARAMETER", /* 116 */
    "ERR_UDPD_EXIT_ABNORMAL", /* 117 */
    "ERR_UDPD_NOT_ENOUGH_SPACE", /* 118 */
    "ERR_UDPD_TIMEOUT", /* 119 */
    "ERR_UDPD_INIT_FAIL", /* 120 */
    "ERR_UDPD_SEND_FAIL", /* 121 */
    "ERR_UDPD_RECV_FAIL", /* 122 */
    nullptr, /* 123 reserved */
    nullptr, /* 124 reserved */
    nullptr, /* 125 reserved */
    nullptr, /* 126 reserved */
    nullptr, /* 127 reserved */
    "ERR_UNKNOWN", /* 128 */
    "ERR_SYS_UNKNOWN", /* 129 */
    "ERR_VOLUME_SIZE_TOO_LARGE", /* 130 */
    nullptr, /* 131 reserved */
    nullptr, /* 132 reserved */
    nullptr, /* 133 reserved */
    nullptr, /* 134 reserved */
    nullptr, /* 135 reserved */
    nullptr, /* 136 reserved */
    nullptr, /* 137 reserved */
    nullptr, /* 138 reserved */
    nullptr, /* 139 reserved */
    nullptr, /* 140 reserved */
    nullptr, /* 141 reserved */
    nullptr, /* 142 reserved */
    nullptr, /* 143 reserved */
    "ERR_YP_BIND", /* 144 */
};

KEMO_API const char *SzKEMOLibVersion(void)
{
    return KEMO_VERSION_STRING;
}

KEMO_API void KLIBErrSet(int code)
{
    errno = code;
    kemoerrno = code;
}

KEMO_API int KLIBErrGet(void)
{
    return kemoerrno;
}

KEMO_API void KLIBErrPrint(void)
{
    const int code = errno;
    if ((code & 0xFF) != 0 || code < 0)
        return;
    const int index = code >> 8;
    if (index >= KEMO_ERR_TABLE_SIZE || rgszErrMsg[index] == nullptr)
        return;
    std::printf("%s\n", rgszErrMsg[index]);
}

} // extern "C"

namespace {

// Flush the stream's buffer and the file's data to the disk.  Files that
// cannot be synchronised (character devices, pipes) only need the flush.
// The message of an error log line is a printf format used without
// arguments: "%%" stands for one "%".  A conversion that would need an
// argument has none to consume, so it is written as it stands instead of
// reading whatever happens to be on the stack.
std::string expand_argless_format(std::string_view format)
{
    std::string out;
    out.reserve(format.size());
    for (std::size_t i = 0; i < format.size(); ++i) {
        out += format[i];
        if (format[i] == '%' && i + 1 < format.size() && format[i + 1] == '%')
            ++i;
    }
    return out;
}

} // namespace

namespace kemo {

// Opens an error log file at the caller's path for writing (flags adds
// O_TRUNC or O_APPEND), created 0644 when missing: never through a link,
// never a FIFO (a regular file, or a device only root can have made).  The
// stream, or null.
FilePtr error_log_open(const char *path, int flags)
{
    Fd fd(::open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | flags, 0644));
    struct stat st;
    if (!fd || ::fstat(fd.get(), &st) != 0 || !(S_ISREG(st.st_mode) || S_ISCHR(st.st_mode)))
        return nullptr;
    FilePtr f(::fdopen(fd.get(), "a"));
    if (f) {
        fd.release();
        flush_and_sync(f.get());
    }
    return f;
}

// Appends message (a format without arguments) and a newline, synced.
int error_log_append(const char *path, const char *message)
{
    FilePtr f = error_log_open(path, O_APPEND);
    if (!f)
        return fail(-1, ERR_OPEN_FAILED);
    const std::string text = expand_argless_format(message);
    // A line that never reached the disk is a failed write too.
    const bool written = std::fputs(text.c_str(), f.get()) >= 0 && std::fputs("\n", f.get()) >= 0 &&
                         flush_and_sync(f.get());
    if (std::fclose(f.release()) != 0 || !written)
        return fail(-1, ERR_WRITE_FAILED);
    return 0;
}

} // namespace kemo

extern "C" {

KEMO_API void KLIBErrLogInitial(const char *path)
{
    if (path == nullptr)
        return;
    kemo::edge_void([&] { kemo::error_log_open(path, O_TRUNC); });
}

KEMO_API int KLIBErrLogSet(const char *path, const char *message)
{
    if (path == nullptr || message == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::error_log_append(path, message); });
}

KEMO_API int KLIBSysRename(const char *oldpath, const char *newpath)
{
    return std::rename(oldpath, newpath);
}

KEMO_API int KLIBSysUnlink(const char *path)
{
    return ::unlink(path);
}

KEMO_API int KLIBSysRemove(const char *path)
{
    return std::remove(path);
}

KEMO_API int KLIBSysRmdir(const char *path)
{
    return ::rmdir(path);
}

// The mode buffers are 8 bytes.  fopen copies the caller's mode as it is;
// fdopen and freopen have always prefixed it with "s", and callers that
// rely on that are kept working the same way.
KEMO_API FILE *pfKLIBSysFopen(const char *path, const char *mode)
{
    char buf[8];
    std::snprintf(buf, sizeof buf, "%s", mode ? mode : "");
    return fopen64(path, buf);
}

KEMO_API FILE *pfKLIBSysFdopen(int fd, const char *mode)
{
    char buf[8];
    std::snprintf(buf, sizeof buf, "s%s", mode ? mode : "");
    return ::fdopen(fd, buf);
}

KEMO_API FILE *pfKLIBSysFreopen(const char *path, const char *mode, FILE *stream)
{
    char buf[8];
    std::snprintf(buf, sizeof buf, "s%s", mode ? mode : "");
    return freopen64(path, buf, stream);
}

} // extern "C"
