// The connections to the file services: who is connected right now (the
// file server's share listing, read from its status tool through a pipe,
// and the connection files the Apple file server and the FTP server keep,
// one line per connection), and how many connections the servers carry.
#include "kemo_conn.hpp"
#include "kemo_io.hpp"
#include "kemofile.hpp"
#include "kemomisc.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

// A process id of a connection file, or -1.
int parse_pid(std::string_view text)
{
    if (text.empty() || text.size() > 9)
        return -1;
    int pid = 0;
    for (char ch : text) {
        if (ch < '0' || ch > '9')
            return -1;
        pid = pid * 10 + (ch - '0');
    }
    return pid > 0 ? pid : -1;
}

// True when process pid runs the program named daemon.
bool runs(int pid, std::string_view daemon)
{
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d/comm", pid);
    kemo::FilePtr comm = kemo::open_file(path, "r");
    if (!comm)
        return false;
    char name[64] = {};
    if (std::fgets(name, sizeof name, comm.get()) == nullptr)
        return false;
    return kemo::chomp(name) == daemon;
}

std::string local_time(time_t when)
{
    struct tm tm;
    char text[32] = "";
    if (::localtime_r(&when, &tm) != nullptr)
        std::strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", &tm);
    return text;
}

std::vector<std::string_view> split_tabs(std::string_view line)
{
    std::vector<std::string_view> fields;
    for (;;) {
        const std::size_t tab = line.find('\t');
        fields.push_back(line.substr(0, tab));
        if (tab == std::string_view::npos)
            return fields;
        line.remove_prefix(tab + 1);
    }
}

// The Apple and FTP servers keep one line per connection in their file:
//   pid TAB user TAB client address TAB login time (seconds since the epoch)
// Lines whose pid no longer runs the server (or that do not parse) are
// pruned: the file is rewritten through its twin when any is dropped.
// Each live connection becomes "user\taddress\ttime\t<service>\tpid".
int connection_file(PKLIBSZLIST *list, const char *path, const char *daemon, const char *service)
{
    kemo::FilePtr in = kemo::open_file(path, "r");
    if (!in)
        return 0;
    std::vector<std::string> kept, entries;
    bool dropped = false;
    kemo::LineReader reader(in.get());
    std::string_view line;
    while (reader.next(line)) {
        const auto fields = split_tabs(kemo::chomp(line));
        const int pid = fields.size() == 4 ? parse_pid(fields[0]) : -1;
        char *end = nullptr;
        const std::string seconds = fields.size() == 4 ? std::string(fields[3]) : std::string();
        const long long when = std::strtoll(seconds.c_str(), &end, 10);
        if (pid < 0 || seconds.empty() || *end != '\0' || !runs(pid, daemon)) {
            dropped = true;
            continue;
        }
        kept.emplace_back(kemo::chomp(line));
        entries.push_back(std::string(fields[1]) + '\t' + std::string(fields[2]) + '\t' +
                          local_time(static_cast<time_t>(when)) + '\t' + service + '\t' +
                          std::to_string(pid));
    }
    in.reset();
    if (dropped) {
        // The twin gets a name of its own, made exclusively: these files
        // sit in directories other users can write.
        kemo::Twin twin(path);
        bool good = twin.open();
        for (const std::string &k : kept)
            good = good && twin.write(k + '\n');
        if (!good || !twin.commit())
            KEMO_LOG("connection file %s could not be pruned", path);
    }
    for (const std::string &e : entries)
        if (KLIBSzListPush(list, e.c_str()) < 0)
            return -1;
    return static_cast<int>(entries.size());
}

int month_of(std::string_view name)
{
    static constexpr std::string_view kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                    "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    for (int i = 0; i < 12; ++i)
        if (name == kMonths[i])
            return i + 1;
    return 0;
}

bool digits(std::string_view s)
{
    return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// "Mon Jan  2 10:00:00 2006" or "Tue Mar  5 10:11:12 AM 2024 CET" (the
// weekday and the zone optional) as "2006/01/02 10:00:00".
std::optional<std::string> smb_time(const std::vector<std::string_view> &words, std::size_t i)
{
    if (i < words.size() && month_of(words[i]) == 0)
        ++i; // the weekday
    if (i + 3 > words.size())
        return std::nullopt;
    const int month = month_of(words[i]);
    int day = 0, hour = 0, minute = 0, second = 0, year = 0;
    char extra = 0;
    const std::string day_text(words[i + 1]), clock(words[i + 2]);
    if (month == 0 || !digits(words[i + 1]) ||
        std::sscanf(clock.c_str(), "%2d:%2d:%2d%c", &hour, &minute, &second, &extra) != 3)
        return std::nullopt;
    day = std::atoi(day_text.c_str());
    std::size_t y = i + 3;
    if (y < words.size() && (words[y] == "AM" || words[y] == "PM")) {
        if (hour == 12)
            hour = 0;
        if (words[y] == "PM")
            hour += 12;
        ++y;
    }
    if (y >= words.size() || words[y].size() != 4 || !digits(words[y]))
        return std::nullopt;
    year = std::atoi(std::string(words[y]).c_str());
    char text[32];
    std::snprintf(text, sizeof text, "%04d/%02d/%02d %02d:%02d:%02d", year, month, day, hour, minute,
                  second);
    return text;
}

// The share listing of the file server:
//   Service      pid     Machine       Connected at
//   -------------------------------------------------------
//   public       4711    192.168.1.5   Mon Jan  2 10:00:01 2006
// The listing names no users: both the first and the second field of an
// entry are the client machine.  A client's smbd serves all its shares,
// so rows of the same pid and machine are one connection (the earliest
// time is kept).  Entries: "machine\tmachine\ttime\tSamba\tpid".
int parse_listing(PKLIBSZLIST *list, std::string_view listing)
{
    struct Row {
        std::string machine, time;
        int pid;
    };
    std::vector<Row> rows;
    bool in_rows = false;
    while (!listing.empty()) {
        const std::size_t newline = std::min(listing.find('\n'), listing.size());
        const std::string_view text = kemo::trimmed(listing.substr(0, newline));
        listing.remove_prefix(std::min(newline + 1, listing.size()));
        if (!in_rows) {
            // The header line ("Service ...") comes before the rule.
            in_rows = text.starts_with("-----");
            continue;
        }
        std::vector<std::string_view> words;
        for (std::size_t at = 0; at < text.size();) {
            const std::size_t start = text.find_first_not_of(" \t", at);
            if (start == std::string_view::npos)
                break;
            const std::size_t stop = std::min(text.find_first_of(" \t", start), text.size());
            words.push_back(text.substr(start, stop - start));
            at = stop;
        }
        // The service name may hold blanks: the pid is the first number
        // after it that is followed by a machine and a date.
        for (std::size_t i = 1; i + 2 < words.size(); ++i) {
            const int pid = parse_pid(words[i]);
            const auto when = pid > 0 ? smb_time(words, i + 2) : std::nullopt;
            if (!when)
                continue;
            const std::string machine(words[i + 1]);
            auto same = std::find_if(rows.begin(), rows.end(),
                                     [&](const Row &r) { return r.pid == pid && r.machine == machine; });
            if (same == rows.end())
                rows.push_back({machine, *when, pid});
            else if (*when < same->time)
                same->time = *when;
            break;
        }
    }
    for (const Row &r : rows) {
        const std::string entry = r.machine + '\t' + r.machine + '\t' + r.time + "\tSamba\t" + std::to_string(r.pid);
        if (KLIBSzListPush(list, entry.c_str()) < 0)
            return -1;
    }
    return static_cast<int>(rows.size());
}

} // namespace

namespace kemo::connections {

int current(PKLIBSZLIST *list)
{
    // The tool's errors go into the listing too; they come before the rule
    // and are skipped like its header.
    const kemo::ShellOutput smbstatus = kemo::shell_read("/usr/kemo/bin/smbstatus -S 2>&1");
    const int smb = parse_listing(list, smbstatus.started ? smbstatus.text : std::string());
    if (smb < 0)
        return -1;
    const int apple = connection_file(list, "/tmp/apple/AT_LOG", "afpd", "Apple login");
    if (apple < 0)
        return -1;
    const int ftp = connection_file(list, "/var/tmp/ftp_cur_con.log", "ftpd", "@FTP Service");
    if (ftp < 0)
        return -1;
    return smb + apple + ftp;
}

} // namespace kemo::connections

// ---------------------------------------------------------------------------
// Connection counts of the file servers, from their processes.

namespace {

// The servers selected by a KLIB_SERVICE_* mask.
constexpr std::array<std::pair<int, const char *>, 3> servers{{
    {KLIB_SERVICE_SMB, "/usr/kemo/sbin/smbd"},
    {KLIB_SERVICE_AFP, "/usr/kemo/sbin/afpd"},
    {KLIB_SERVICE_FTP, "/usr/kemo/sbin/ftpd"},
}};
constexpr int all_services = KLIB_SERVICE_SMB | KLIB_SERVICE_AFP | KLIB_SERVICE_FTP;

// Each server runs one master and one process per connection.  -1 with
// the error code set.
int connection_count(int services)
{
    int count = 0;
    for (const auto &[bit, program] : servers) {
        if ((services & bit) == 0)
            continue;
        const int running = kemo::ps(program, nullptr, 0);
        if (running < 0)
            return -1;
        count += std::max(running - 1, 0);
    }
    return count;
}

} // namespace

extern "C" {

KEMO_API int KLIBConnectionCountGet(int services)
{
    if (services == 0 || (services & ~all_services) != 0)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return connection_count(services); });
}

KEMO_API int KLIBConnectionCountLogin(int services)
{
    if (services == 0 || (services & ~all_services) != 0)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        const int count = connection_count(services);
        if (count < 0)
            return -1;
        // Without a valid "maxservices" the model sets no limit.
        const auto value = kemo::settings::get_value("/etc.defaults/kemoinfo.conf", "maxservices");
        unsigned long long most = 0;
        if (!value || std::from_chars(value->data(), value->data() + value->size(), most).ec != std::errc())
            return 1;
        return static_cast<unsigned long long>(count) < most ? 1 : 0;
    });
}

KEMO_API int BlKLIBIsConnected(int services)
{
    if (services == 0 || (services & ~all_services) != 0)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return kemo::edge(0, [&] { return connection_count(services) > 0 ? 1 : 0; });
}

} // extern "C"
