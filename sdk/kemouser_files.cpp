// Shared pieces of the user modules: settings they read, the download
// scheduler's signal, the mail address file, and lookups of one account's
// lines.
#include "kemouser_internal.hpp"
#include "kemomisc.hpp"

#include <signal.h>

namespace kemo::accounts {

namespace {
constexpr char kSchedulerPidFile[] = "/var/run/scheduler.pid";
} // namespace

// ------------------------------------------------------------ settings

std::string setting_of_defaults(const char *key)
{
    return setting(kDefaults, key);
}

bool domain_joined()
{
    return setting(kSettings, "domainjoined") == "yes";
}

// Has the download scheduler reread its users, on models that have one.
void signal_download_scheduler()
{
    if (setting_of_defaults("support_download") == "yes")
        kemo::signal_pid_file(kSchedulerPidFile, SIGUSR1);
}

// ------------------------------------------------------------ /etc/mail

// The address of an account (compared by name key), "" when none.
std::string mail_of(std::string_view name)
{
    const std::string key = key_of(name);
    std::string address;
    kemo::for_each_line(kMail, [&](std::string_view line) {
        const auto entry = records::parse_mail(kemo::chomp(line));
        if (!entry || key_of(entry->name) != key)
            return 1;
        address = entry->address;
        return 0;
    });
    return address;
}

// Stages the new /etc/mail when the edit changes it.  false with the code
// set when the file cannot be read.
bool stage_mail(Transaction &txn, MailEdit &edit)
{
    if (edit.empty())
        return true;
    Lines mail;
    if (!read_lines(kMail, mail, true))
        return false;
    if (auto content = edit.apply(mail))
        txn.stage(kMail, std::move(*content));
    return true;
}

// The first line of path that begins with "name:", without its newline.
// 1 found, 0 not, -1 with the read error set.
int find_line(const char *path, std::string_view name, std::string &out)
{
    bool found = false;
    const int r = kemo::for_each_line(path, [&](std::string_view line) {
        if (line.size() > name.size() && line[name.size()] == ':' && line.starts_with(name)) {
            out = kemo::chomp(line);
            found = true;
            return 0;
        }
        return 1;
    });
    return r < 0 ? -1 : found ? 1 : 0;
}

// The user's shadow hash and expiry day (0 = none).  false with the code
// set: ERR_NO_SUCH_USER (no line), ERR_FORMAT_ERROR (not 9 fields), or the
// read error.
bool shadow_of(const char *name, std::string &hash, long &expire)
{
    std::string line;
    const int found = find_line(kShadow, name, line);
    if (found <= 0) {
        if (found == 0)
            KLIBErrSet(ERR_NO_SUCH_USER);
        KEMO_LOG("cant get line by %s(%X)", name, static_cast<unsigned>(KLIBErrGet()));
        return false;
    }
    const auto entry = records::parse_shadow(line);
    if (!entry) {
        // The line itself holds the hash and stays out of the log.
        KEMO_LOG("szLine[%s] has %d entries format error", name,
                 static_cast<int>(std::count(line.begin(), line.end(), ':') + 1));
        return fail(false, ERR_FORMAT_ERROR);
    }
    hash = entry->hash;
    expire = decimal(entry->expire).value_or(0);
    return true;
}

} // namespace kemo::accounts
