// Small process-signalling helpers: is a program running, the status-light
// daemon, and the soft reset of a USB printer.
#include "kemo_internal.hpp"
#include "kemo_process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

namespace {

// The USB printer class driver's soft-reset request.
constexpr unsigned long lp_soft_reset = _IOC(_IOC_NONE, 'P', 7, 0);

constexpr int open_attempts = 5;
constexpr long busy_wait_ms = 500;

void sleep_ms(long ms) noexcept
{
    timespec left{ms / 1000, (ms % 1000) * 1000000L};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

} // namespace

extern "C" {

KEMO_API int BlProcessIsAlive(const char *name)
{
    // A name starting with "-" would be an option of grep.
    if (name == nullptr || *name == '\0' || *name == '-')
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return kemo::edge(0, [&] {
        constexpr std::size_t command_size = 1024;
        const auto command = kemo::shell_command("/bin/ps | /bin/grep %s | /bin/grep -v grep", {name});
        if (!command || command->size() >= command_size)
            return kemo::fail(0, ERR_BAD_PARAMETERS);
        const kemo::ShellOutput out = kemo::shell_read(*command, kemo::Output::first_line);
        return out.started && out.text.find(name) != std::string::npos ? 1 : 0;
    });
}

// on != 0 asks the daemon to light the status light (SIGUSR1), 0 to clear
// it (SIGUSR2).
KEMO_API int KLIBChangeQormdLight(int on)
{
    const int pid = KLIBReadPidFile("/var/run/qormd.pid");
    if (pid < 1)
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
    const char *const function = __func__; // not the lambda's
    return kemo::edge(-1, [&] {
        const std::string path = std::string("/dev/usb/") + device;
        int fd = -1;
        for (int attempt = 1; fd < 0; ++attempt) {
            fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
            if (fd >= 0)
                break;
            if (errno != EBUSY)
                return kemo::fail(-1, ERR_OPEN_FAILED);
            if (attempt == open_attempts) {
                ::syslog(LOG_ERR, "%s:%d(%s) %s open retry excessed.", __FILE__, __LINE__, function,
                         path.c_str());
                return kemo::fail(-1, ERR_OPEN_FAILED);
            }
            ::syslog(LOG_ERR, "%s:%d(%s) %s device busy, retring...", __FILE__, __LINE__, function,
                     path.c_str());
            sleep_ms(busy_wait_ms);
        }
        int result = 0;
        if (::ioctl(fd, lp_soft_reset) != 0) {
            const int why = errno;
            ::syslog(LOG_ERR, "%s:%d(%s) ioctl LPIOC_SOFT_RESET error:(%d) %s", __FILE__, __LINE__,
                     function, why, std::strerror(why));
            result = kemo::fail(-1, ERR_OP_FAILURE);
        }
        ::close(fd);
        return result;
    });
}

} // extern "C"
