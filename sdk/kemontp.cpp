// The time server: its settings, its line in the system scheduler's table,
// and the one writer of that table.
#include "kemo_internal.hpp"
#include "kemo_io.hpp"
#include "kemo_time.hpp"
#include "kemofile.hpp"
#include "kemomisc.hpp"

#include <fcntl.h>
#include <signal.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace {

using kemo::fail;

constexpr char kQuotedPair[] = "%s=\"%s\"\n";
constexpr char kSchedulerPid[] = "/var/run/crond.pid";
// Serialises the writers of the scheduler table across processes (the
// table is shared by every module that schedules something).
constexpr char kCrontabLock[] = "/tmp/lock/lock_crontab";
constexpr std::size_t kMaxLine = 127;

// A text field of the record as a string (its NUL lies within the field).
template <std::size_t N>
std::string_view field(const char (&text)[N]) noexcept
{
    return {text, ::strnlen(text, N)};
}

template <std::size_t N>
void copy_field(char (&out)[N], const std::optional<std::string> &value) noexcept
{
    std::memset(out, 0, N);
    if (value)
        std::memcpy(out, value->data(), std::min(value->size(), N - 1));
}

bool is_label_char(char c) noexcept
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
}

// The table's mtime is what the scheduler watches; a rewrite within the
// second of the last one would look unchanged, so the new file is dated
// one second later then.
void make_change_visible(const struct stat &before)
{
    struct stat now {};
    if (::stat(kemo::timecfg::kCrontab, &now) != 0 || now.st_mtim.tv_sec > before.st_mtim.tv_sec)
        return;
    const struct timespec times[2] = {{0, UTIME_OMIT}, {before.st_mtim.tv_sec + 1, 0}};
    ::utimensat(AT_FDCWD, kemo::timecfg::kCrontab, times, AT_SYMLINK_NOFOLLOW);
}

} // namespace

namespace kemo::timecfg {

bool is_server_name(std::string_view name) noexcept
{
    if (name.empty() || name.size() > 63 || name.front() == '.' || name.back() == '.')
        return false;
    if (name.find_first_not_of("0123456789.") == std::string_view::npos) {
        unsigned parts = 0, value = 0, digits = 0;
        for (const char c : name) {
            if (c == '.') {
                if (digits == 0)
                    return false;
                ++parts;
                value = digits = 0;
            } else if (++digits > 3 || (value = value * 10 + static_cast<unsigned>(c - '0')) > 255) {
                return false;
            }
        }
        return parts == 3 && digits > 0;
    }
    std::size_t start = 0;
    while (start <= name.size()) {
        const std::size_t end = std::min(name.find('.', start), name.size());
        const std::string_view label = name.substr(start, end - start);
        if (label.empty() || label.front() == '-' || label.back() == '-')
            return false;
        for (const char c : label)
            if (!is_label_char(c))
                return false;
        start = end + 1;
    }
    return true;
}

std::optional<std::string> ntp_line(std::string_view period, std::string_view server,
                                    std::string_view backup)
{
    const char *schedule = period == "weekly" ? "0\t0\t*\t*\t0" : period == "monthly" ? "0\t0\t1\t*\t*"
                                                                                       : "0\t0\t*\t*\t*";
    std::string line = std::string(schedule) + "\troot\t" + kNtpCommand + " -b " + std::string(server) +
                       " " + std::string(backup);
    if (line.size() > kMaxLine)
        return fail(std::optional<std::string>(), ERR_BAD_PARAMETERS);
    return line;
}

int ntp_get(KEMONTP &ntp)
{
    ConfigLock lock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_EX | KLIB_LOCK_NB);
    if (!lock.held())
        return fail(-1, ERR_LOCK_FAILED);
    const auto run = settings::get_value(kSettings, "run_ntpdate");
    ntp.enabled = run && ::strcasecmp(run->c_str(), "yes") == 0 ? 1 : 0;
    copy_field(ntp.szPeriod, settings::get_value(kSettings, "ntpdate_period"));
    copy_field(ntp.szServer, settings::get_value(kSettings, "ntpdate_server"));
    copy_field(ntp.szServerBackup, settings::get_value(kSettings, "ntpdate_server_backup"));
    if (!lock.release())
        return -1;
    return 1;
}

int ntp_set(const KEMONTP &ntp)
{
    std::optional<std::string> line;
    if (ntp.enabled == 1) {
        line = ntp_line(field(ntp.szPeriod), field(ntp.szServer), field(ntp.szServerBackup));
        if (!line)
            return -1;
    }
    ConfigLock lock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_EX | KLIB_LOCK_NB);
    if (!lock.held()) {
        KLIBErrSet(ERR_LOCK_FAILED);
        return -4;
    }
    if (line) {
        if (update_crontab(kNtpCommand, *line) < 0)
            return -1;
        settings::set_value(kSettings, "run_ntpdate", "yes", kQuotedPair);
    } else {
        if (update_crontab(kNtpCommand, std::nullopt) < 0)
            return -3;
        settings::set_value(kSettings, "run_ntpdate", "no", kQuotedPair);
    }
    // Also when switched off, so that the last choices are offered again.
    settings::set_value(kSettings, "ntpdate_period", field(ntp.szPeriod), kQuotedPair);
    settings::set_value(kSettings, "ntpdate_server", field(ntp.szServer), kQuotedPair);
    settings::set_value(kSettings, "ntpdate_server_backup", field(ntp.szServerBackup), kQuotedPair);
    return 1;
}

bool runs_command(std::string_view line, std::string_view command) noexcept
{
    constexpr std::string_view blanks = " \t\r\n";
    std::size_t at = line.find_first_not_of(blanks);
    if (at == std::string_view::npos || line[at] == '#')
        return false;
    const std::size_t wanted = line[at] == '@' ? 2 : 6;
    for (std::size_t index = 0; at != std::string_view::npos; ++index) {
        const std::size_t end = std::min(line.find_first_of(blanks, at), line.size());
        if (index == wanted)
            return line.substr(at, end - at) == command;
        at = line.find_first_not_of(blanks, end);
    }
    return false;
}

int update_crontab(std::string_view command, std::optional<std::string_view> line)
{
    int timeout = 5000;
    if (locks::check_dir() != 0)
        return -1;
    Fd guard(locks::exclusive_file(kCrontabLock, &timeout, true));
    if (!guard)
        return fail(-1, ERR_LOCK_FAILED);
    struct stat before {};
    if (::stat(kCrontab, &before) != 0) {
        if (errno != ENOENT) {
            KEMO_LOG("cannot examine %s: %s", kCrontab, std::strerror(errno));
            return fail(-1, ERR_OPEN_FAILED);
        }
        if (!line)
            return 0; // no table, nothing to remove
        if (!create_file(kCrontab, with_newline(*line)))
            return -1;
    } else {
        bool replaced = false;
        const int result = rewrite_file(
            kCrontab,
            [&](std::string_view current, Twin &twin) {
                if (!runs_command(current, command))
                    return twin.write(current);
                if (line && !replaced)
                    twin.write(with_newline(*line));
                replaced = true;
                return true;
            },
            [&](Twin &twin, bool ended) {
                if (!replaced && line) {
                    if (!ended)
                        twin.write("\n");
                    twin.write(with_newline(*line));
                    replaced = true;
                }
                return replaced ? 1 : 0;
            });
        if (result < 0) {
            KEMO_LOG("cannot rewrite %s (%X)", kCrontab, KLIBErrGet());
            return -1;
        }
        if (result == 0)
            return 0;
        make_change_visible(before);
    }
    // The scheduler also notices the new table by its date within a minute;
    // the signal asks a running one to look now.  Only a live cron process
    // is signalled, never whatever number the pid file holds.
    kemo::signal_pid_file(kSchedulerPid, SIGHUP, {"cron", "crond"});
    return 0;
}

} // namespace kemo::timecfg

extern "C" {

KEMO_API int KEMONtpGet(KEMONTP *ntp)
{
    if (ntp == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::timecfg::ntp_get(*ntp); });
}

KEMO_API int KEMONtpSet(const KEMONTP *ntp)
{
    const KEMONTP off{};
    const KEMONTP &record = ntp != nullptr ? *ntp : off;
    // Texts must end within their fields; names that are stored or put in
    // the scheduler line must be plain server names (or empty), the period
    // a plain word.
    const auto period = field(record.szPeriod), server = field(record.szServer),
               backup = field(record.szServerBackup);
    const bool terminated = period.size() < sizeof record.szPeriod && server.size() < sizeof record.szServer &&
                            backup.size() < sizeof record.szServerBackup;
    const bool plain_period = period.find_first_not_of("abcdefghijklmnopqrstuvwxyz") == std::string_view::npos;
    // The server is required when switching on; empty names are kept as
    // they are otherwise.
    auto name_ok = [](std::string_view name, bool required) {
        return name.empty() ? !required : kemo::timecfg::is_server_name(name);
    };
    const bool names_ok = name_ok(server, record.enabled == 1) && name_ok(backup, false);
    if (!terminated || !plain_period || !names_ok) {
        KEMO_LOG("refused time server settings");
        return fail(-1, ERR_BAD_PARAMETERS);
    }
    return kemo::edge(-1, [&] { return kemo::timecfg::ntp_set(record); });
}

KEMO_API int KEMOUpdateCrontab(const char *command, const char *line)
{
    if (command == nullptr || *command == '\0' || std::strpbrk(command, " \t\r\n") != nullptr ||
        (line != nullptr && !kemo::is_single_line(line)))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        return kemo::timecfg::update_crontab(
            command, line ? std::optional<std::string_view>(line) : std::nullopt);
    });
}

} // extern "C"
