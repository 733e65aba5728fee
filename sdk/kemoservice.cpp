// The file and network services as the storage code switches them: all of
// them stopped and started around a change of the volumes, and the services
// that keep their data on a volume taken off it before the volume goes.
//
// The service-by-volume registry is kept in /etc/kemoinfo.conf: a service
// that lives on a volume has the key "<service>_volume" whose value is the
// volume id (mysql_volume="1"), its switch "run<service>", and its control
// script /usr/kemo/etc/rc.d/<service>.sh.
#include "kemo_service.hpp"
#include "kemo_internal.hpp"
#include "kemo_io.hpp"
#include "kemo_net.hpp"
#include "kemofile.hpp"
#include "kemomisc.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace kemo::service {

namespace {

constexpr char kSettings[] = "/etc/kemoinfo.conf";
constexpr char kScriptDir[] = "/usr/kemo/etc/rc.d/";
constexpr char kQuotedPair[] = "%s=\"%s\"\n";
constexpr std::string_view kVolumeSuffix = "_volume";
constexpr std::size_t kMaxServiceName = 64;

// A service name may become part of a path and a key: letters, digits and
// "_" only, so it can name neither another directory nor an option.
bool service_name_ok(std::string_view name) noexcept
{
    if (name.empty() || name.size() > kMaxServiceName)
        return false;
    for (const char c : name)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'))
            return false;
    return true;
}

// The services the registry puts on volume id `volume`, in file order.
// Keys of the registry's form whose service name is not acceptable go to
// `refused`.  false with the read error set.
bool services_on(int volume, std::vector<std::string> &services, std::vector<std::string> &refused)
{
    const std::string id = std::to_string(volume);
    return kemo::for_each_line(kSettings, [&](std::string_view line) {
        const std::string_view text = kemo::trimmed(line);
        if (text.empty() || text[0] == '#' || text[0] == ';')
            return 1;
        const auto pair = kemo::split_pair(text);
        if (!pair || !pair->key.ends_with(kVolumeSuffix) || pair->value != id)
            return 1;
        const std::string_view name = pair->key.substr(0, pair->key.size() - kVolumeSuffix.size());
        auto &into = service_name_ok(name) ? services : refused;
        for (const std::string &seen : into)
            if (seen == name)
                return 1;
        into.emplace_back(name);
        return 1;
    }) == 0;
}

// Stops one service through its control script when it has one.  false
// when the script ran and failed.
bool stop_service(const std::string &name)
{
    const std::string script = kScriptDir + name + ".sh";
    struct stat st {};
    if (::stat(script.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return true; // nothing to stop: the service has no script here
    const std::array<const char *, 2> argv{script.c_str(), "stop"};
    const int status = kemo::run_program(argv);
    if (status != 0) {
        KEMO_LOG("%s stop failed (%d)", script.c_str(), status);
        return false;
    }
    return true;
}

} // namespace

int on_off_all(int action)
{
    if (action != 1 && action != 2)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::net::net_services(action == 2);
}

// Every service of the volume is taken off it even when stopping one
// fails: its switch goes to "no" and its registry key away, so that it is
// never started again on a volume that is gone.  The call still fails
// then, and for registry keys whose service name is not acceptable (those
// are left as they are, since no script may be run for them).
int remove_by_volume(int volume)
{
    if (volume < 1 || volume > 4)
        return fail(-1, ERR_BAD_PARAMETERS);
    const ConfigLock lock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_EX);
    if (!lock.held())
        return fail(-1, ERR_LOCK_FAILED);
    std::vector<std::string> services, refused;
    if (!services_on(volume, services, refused))
        return -1;
    bool ok = true;
    for (const std::string &name : refused) {
        KEMO_LOG("service [%s] on volume %d has an invalid name; left alone", name.c_str(), volume);
        ok = false;
    }
    for (const std::string &name : services) {
        if (!stop_service(name))
            ok = false;
        if (kemo::settings::set_value(kSettings, "run" + name, "no", kQuotedPair) < 0 ||
            kemo::settings::remove_key(kSettings, name + std::string(kVolumeSuffix)) < 0) {
            KEMO_LOG("fail to switch off service [%s] (%X)", name.c_str(), KLIBErrGet());
            return -1;
        }
    }
    return ok ? 0 : fail(-1, ERR_OP_FAILURE);
}

} // namespace kemo::service

extern "C" {

KEMO_API int KEMOServiceOnOffALL(int action)
{
    return kemo::edge(-1, [&] { return kemo::service::on_off_all(action); });
}

KEMO_API int KEMOServiceRemovebyVolume(int volume)
{
    return kemo::edge(-1, [&] { return kemo::service::remove_by_volume(volume); });
}

} // extern "C"
