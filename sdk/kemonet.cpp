// Host name and network services: the appliance's name (kept alike in
// /etc/kemoinfo.conf, /etc/hostname and the kernel), and switching the file
// and network services and the web service through their control scripts.
#include "kemo_internal.hpp"
#include "kemostr.hpp"
#include "kemofile.hpp"
#include "kemo_io.hpp"
#include "kemo_net.hpp"
#include "kemomisc.hpp"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

namespace {

using kemo::fail;

constexpr char kSettings[] = "/etc/kemoinfo.conf";
constexpr char kHostnameFile[] = "/etc/hostname";
constexpr char kNetServiceScript[] = "/usr/kemo/etc/rc.d/rc.netservice";
constexpr char kWebScript[] = "/usr/kemo/etc/rc.d/web.sh";
constexpr char kQuotedPair[] = "%s=\"%s\"\n";

// Runs a control script with one argument: 0 when it ran and exited 0,
// else -1 with ERR_OP_FAILURE (also for a missing script).
int run_script(const char *script, const char *argument)
{
    if (::access(script, X_OK) != 0) {
        KEMO_LOG("control script %s missing", script);
        return fail(-1, ERR_OP_FAILURE);
    }
    const std::array<const char *, 2> argv{script, argument};
    const int status = kemo::run_program(argv);
    if (status != 0) {
        KEMO_LOG("%s %s failed (%d)", script, argument, status);
        return fail(-1, ERR_OP_FAILURE);
    }
    return 0;
}

} // namespace

namespace kemo::net {

int hostname(std::string &name)
{
    if (auto stored = kemo::settings::get_value(kSettings, "hostname")) {
        name = std::move(*stored);
        return 0;
    }
    // No setting yet: the kernel's name.
    char kernel[256] = "";
    if (::gethostname(kernel, sizeof kernel - 1) != 0)
        return fail(-1, ERR_OP_FAILURE);
    name = kernel;
    return 0;
}

int set_hostname(const char *name)
{
    kemo::ConfigLock lock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_EX);
    if (!lock.held())
        return fail(-1, ERR_LOCK_FAILED);
    // The kernel first: when it refuses, no file names a host that is
    // not running.  Should a file write fail afterwards, the kernel gets
    // its old name back.
    char old_name[256] = "";
    const bool had_name = ::gethostname(old_name, sizeof old_name - 1) == 0;
    if (::sethostname(name, std::strlen(name)) != 0) {
        KEMO_LOG("sethostname(%s) failed, errno = %d", name, errno);
        return fail(-1, ERR_OP_FAILURE);
    }
    if (kemo::settings::set_value(kSettings, "hostname", name, kQuotedPair) < 0 ||
        !kemo::create_file(kHostnameFile, std::string(name) + "\n")) {
        KEMO_LOG("fail to store host name %s (%X)", name, KLIBErrGet());
        if (had_name && ::sethostname(old_name, std::strlen(old_name)) != 0)
            KEMO_LOG("fail to restore host name %s", old_name);
        return -1;
    }
    return 0;
}

int net_services(bool start)
{
    return run_script(kNetServiceScript, start ? "start" : "stop");
}

int web_service(bool on)
{
    {
        kemo::ConfigLock lock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_EX);
        if (!lock.held())
            return fail(-1, ERR_LOCK_FAILED);
        if (kemo::settings::set_value(kSettings, "runweb", on ? "yes" : "no", kQuotedPair) < 0)
            return -1;
    }
    return run_script(kWebScript, on ? "start" : "stop");
}

int hostname_into(char *buf, int size)
{
    std::string name;
    if (hostname(name) != 0)
        return -1;
    if (name.size() >= static_cast<std::size_t>(size))
        return fail(-1, ERR_NOT_ENOUGH_MEMORY);
    std::memcpy(buf, name.c_str(), name.size() + 1);
    return 0;
}

} // namespace kemo::net

extern "C" {

KEMO_API int KEMOLnxGetHostname(char *buf, int size)
{
    if (buf == nullptr || size <= 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::net::hostname_into(buf, size); });
}

KEMO_API int KEMOLnxSetHostname(const char *name)
{
    if (name == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    if (!kemo::strings::is_hostname(name))
        return fail(-1, ERR_INVALID_SERVERNAME);
    return kemo::edge(-1, [&] { return kemo::net::set_hostname(name); });
}

KEMO_API int ErrNetServiceStop(void)
{
    return kemo::edge(-1, [] { return kemo::net::net_services(false); });
}

KEMO_API int ErrNetServiceStart(void)
{
    return kemo::edge(-1, [] { return kemo::net::net_services(true); });
}

KEMO_API int KEMOWebService(int on)
{
    return kemo::edge(-1, [&] { return kemo::net::web_service(on != 0); });
}

} // extern "C"
