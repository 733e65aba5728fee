// Login services that follow account changes: the web password of
// "admin" in .htpasswd, and the Apple file server's guest login.
#include "kemouser_internal.hpp"

namespace kemo::accounts {

namespace {
constexpr char kAfpdConf[] = "/usr/kemo/etc/afpd.conf";
} // namespace

// The web password of "admin" follows its Unix hash.  Not fatal: the
// account change goes on without it.
void stage_web_password(Transaction &txn, std::string_view admin_hash)
{
    Lines file;
    if (!read_lines(kHtpasswd, file, true)) {
        KEMO_LOG("KLIBFileSetLine() write %s failed", kHtpasswd);
        return;
    }
    const std::string line = "admin:" + std::string(admin_hash);
    std::size_t at = file.lines.size();
    for (std::size_t i = 0; i < file.lines.size(); ++i)
        if (file.lines[i].starts_with("admin:")) {
            at = i;
            break;
        }
    if (at < file.lines.size() && file.lines[at] == line)
        return;
    put_line(file, at < file.lines.size() ? &at : nullptr, line);
    txn.stage(kHtpasswd, join_lines(file));
}

// Lets the Apple file server accept guests (guest_has_password false) or
// not, by its login modules in afpd.conf, rewritten through a twin that
// keeps the file's owner and mode.  A file without a "-uamlist" line is
// left alone.  false with the code set.
bool set_guest_afpd(bool guest_has_password)
{
    Lines conf;
    if (!read_lines(kAfpdConf, conf)) {
        KEMO_LOG("kemouser: SDKISetGuestAfpd(): %s not found!", kAfpdConf);
        return fail(false, ERR_FILE_NOT_FOUND);
    }
    if (std::none_of(conf.lines.begin(), conf.lines.end(), [](const std::string &line) {
            return line.find("-uamlist") != std::string::npos;
        }))
        return true;
    const std::string_view from = guest_has_password ? "uams_guest.so" : "uams_noguest.so";
    const std::string_view to = guest_has_password ? "uams_noguest.so" : "uams_guest.so";
    for (std::string &line : conf.lines)
        for (auto at = line.find(from); at != std::string::npos; at = line.find(from, at + to.size()))
            line.replace(at, from.size(), to);
    kemo::Twin twin(kAfpdConf);
    if (!twin.open() || !twin.write(join_lines(conf)) || !twin.commit()) {
        KEMO_LOG("kemouser: SDKISetGuestAfpd(): writing %s failed!", kAfpdConf);
        return false;
    }
    return true;
}

} // namespace kemo::accounts
