// Windows domain users and groups, the file server's session processes, and
// the network backup server's password file.
//
// The domain is reached only through the lookup tool "/usr/kemo/bin/wbinfo";
// its answers are kept in three lists under /usr/kemo/etc/private/ that the
// account functions read:
//   domain_user          one user per line ("DOMAIN\name")
//   domain_group         one group per line
//   domain_group_member  one line per group: group = "member,member"
#include "kemo_accounts.hpp"
#include "kemosection.hpp"
#include "kemo_domain.hpp"
#include "kemo_share.hpp"
#include "kemo_io.hpp"
#include "kemomisc.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <dirent.h>
#include <pwd.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace {

using kemo::fail;
using namespace kemo::accounts;

constexpr char kDomainUser[] = "/usr/kemo/etc/private/domain_user";
constexpr char kDomainGroup[] = "/usr/kemo/etc/private/domain_group";
constexpr char kDomainGroupMember[] = "/usr/kemo/etc/private/domain_group_member";
constexpr char kRsyncSecrets[] = "/usr/kemo/etc/rsyncd.secrets";
constexpr int kLockTimeout = 5;

struct HashFree {
    void operator()(PKLIBSZHASH h) const noexcept { KLIBSzHashFree(h); }
};
struct DirClose {
    void operator()(DIR *d) const noexcept { ::closedir(d); }
};

bool domain_joined()
{
    return setting(kSettings, "domainjoined") == "yes";
}

bool is_domain(std::string_view name)
{
    return kemo::domain::name_kind(name) == 2;
}

// "DOMAIN\domain users": the group every domain user belongs to.
bool is_domain_users(std::string_view group)
{
    const auto slash = group.find('\\');
    return slash != std::string_view::npos && equal_nocase(group.substr(slash + 1), "domain users");
}

// Runs the lookup tool; its output, or nullopt (ERR_SYS_UNKNOWN, one log
// line) when it cannot be run or reports a failure.
std::optional<std::string> lookup(std::string_view tmpl, std::initializer_list<std::string_view> args,
                                  kemo::Output what = kemo::Output::all)
{
    // A word that begins with "-" would be read as one of the tool's
    // options: no name, group or SID the tool is asked about does.
    const bool option_like = std::any_of(args.begin(), args.end(),
                                         [](std::string_view arg) { return arg.starts_with('-'); });
    const auto command = option_like ? std::nullopt : kemo::shell_command(tmpl, args);
    if (!command)
        return fail(std::optional<std::string>(), ERR_BAD_PARAMETERS);
    kemo::ShellOutput answer = kemo::shell_read(*command, what);
    if (!answer.started || kemo::exit_code(answer.status) != 0) {
        KEMO_LOG("%s fail", command->c_str());
        return fail(std::optional<std::string>(), ERR_SYS_UNKNOWN);
    }
    return std::move(answer.text);
}

// The non-empty lines of a tool's answer.
std::vector<std::string> answer_lines(std::string_view text)
{
    std::vector<std::string> lines;
    for (std::string_view line : split(text, '\n')) {
        line = kemo::trimmed(kemo::chomp(line));
        if (!line.empty())
            lines.emplace_back(line);
    }
    return lines;
}

// A decimal id that fills the whole of text (blanks around it allowed).
std::optional<int> parse_id(std::string_view text)
{
    text = kemo::trimmed(text);
    int value = -1;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value < 0)
        return std::nullopt;
    return value;
}

// A uid or gid the lookup tool answers with, or -1 (logged with what).
int lookup_id(std::string_view tmpl, std::string_view arg, const char *what)
{
    const auto answer = lookup(tmpl, {arg}, kemo::Output::first_line);
    if (!answer)
        return -1;
    const auto id = parse_id(*answer);
    if (!id) {
        KEMO_LOG("error %s", what);
        return fail(-1, ERR_SYS_UNKNOWN);
    }
    return *id;
}

// Replaces path with content through its twin.
bool replace_file(const char *path, std::string_view content)
{
    kemo::Twin twin(path);
    return twin.open() && twin.write(content) && twin.commit();
}

// The member text of a domain group from domain_group_member.  found is
// false when the group is not listed (a missing list holds no group); ok
// is false when the list could not be read (error code set).
struct Members {
    bool ok = true;
    std::optional<std::string> text;
};
Members group_members(std::string_view group)
{
    Members members;
    if (::access(kDomainGroupMember, F_OK) != 0)
        return members;
    members.ok = kemo::for_each_line(kDomainGroupMember, [&](std::string_view line) {
        const auto pair = kemo::split_pair(kemo::chomp(line));
        if (!pair || !same_name(pair->key, group))
            return 1;
        members.text.emplace(pair->value);
        return 0;
    }) == 0;
    return members;
}

// Upper-cased names of a list's items, to push each name once.
std::unordered_set<std::string> keys_of(PKLIBSZLIST list)
{
    std::unordered_set<std::string> keys;
    for (int i = 0; i < list->nItem; ++i)
        if (const auto key = upper(list->pszItem[i]))
            keys.insert(*key);
    return keys;
}

// Pushes name unless its key is already in keys.  -1 when the push failed,
// else the number pushed (0 or 1).
int push_once(PKLIBSZLIST *list, std::unordered_set<std::string> &keys, std::string_view name)
{
    const auto key = upper(name);
    if (!key || !keys.insert(*key).second)
        return 0;
    return KLIBSzListPush(list, std::string(name).c_str()) < 0 ? -1 : 1;
}

// Pushes the names listed in one of the domain lists, producing the lists
// first when they are missing.  Machine accounts (names with "$") are
// skipped when skip_machines.
int push_listed(const char *path, PKLIBSZLIST *list, bool skip_machines)
{
    if (::access(path, F_OK) != 0 && kemo::domain::refresh_lists() < 0) {
        KEMO_LOG("get domain user list fail");
        return -1;
    }
    auto keys = keys_of(*list);
    int count = 0;
    const int read = kemo::for_each_line(path, [&](std::string_view line) {
        line = kemo::chomp(line);
        if (line.empty() || (skip_machines && line.find('$') != std::string_view::npos))
            return 1;
        const int pushed = push_once(list, keys, line);
        count += pushed > 0 ? pushed : 0;
        return pushed < 0 ? -1 : 1;
    });
    return read < 0 ? -1 : count;
}

// The file server's processes: named "smbd"; their effective uid, or
// nullopt for any other process (or one that is gone).
std::optional<uid_t> smbd_euid(pid_t pid)
{
    const std::string dir = "/proc/" + std::to_string(pid);
    // One plain read: this runs for every process on the machine.
    char name[32] = {};
    const int fd = ::open((dir + "/comm").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    const ssize_t n = ::read(fd, name, sizeof name - 1);
    ::close(fd);
    if (n != 5 || std::memcmp(name, "smbd\n", 5) != 0)
        return std::nullopt;
    std::optional<uid_t> euid;
    kemo::for_each_line((dir + "/status").c_str(), [&](std::string_view line) {
        if (!line.starts_with("Uid:"))
            return 1;
        // "Uid:\treal\teffective\tsaved\tfs"
        const auto fields = split(kemo::trimmed(line.substr(4)), '\t');
        if (fields.size() >= 2)
            if (const auto id = parse_id(fields[1]))
                euid = static_cast<uid_t>(*id);
        return 0;
    });
    return euid;
}

// Sends SIGTERM to pid after checking that it is a session of the file
// server (an smbd not running as root).  A pid descriptor, where the kernel
// has them, makes sure the process checked is the one signalled.
bool end_session(pid_t pid)
{
#ifdef SYS_pidfd_open
    const int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (fd >= 0) {
        const auto euid = smbd_euid(pid);
        const bool ended = euid && *euid != 0 &&
                           ::syscall(SYS_pidfd_send_signal, fd, SIGTERM, nullptr, 0) == 0;
        ::close(fd);
        return ended;
    }
    if (errno != ENOSYS)
        return false;
#endif
    const auto euid = smbd_euid(pid);
    return euid && *euid != 0 && ::kill(pid, SIGTERM) == 0;
}

int refresh_domain_lists()
{
    if (!domain_joined()) {
        KEMO_LOG("no Windows domain joined");
        return fail(-1, ERR_INVALID_DOMAINNAME);
    }
    // Ask everything first: a failing tool leaves the old lists in place.
    const auto users = lookup("/usr/kemo/bin/wbinfo -u 2>/dev/null", {});
    const auto groups = users ? lookup("/usr/kemo/bin/wbinfo -g 2>/dev/null", {}) : std::nullopt;
    if (!users || !groups)
        return -1;
    std::string user_list, group_list, member_list;
    for (const std::string &user : answer_lines(*users))
        user_list.append(user).append("\n");
    for (const std::string &group : answer_lines(*groups)) {
        // "name:x:gid:member,member"
        const auto info = lookup("/usr/kemo/bin/wbinfo --group-info %s 2>/dev/null", {group},
                                 kemo::Output::first_line);
        if (!info)
            return -1;
        const auto fields = split(*info, ':');
        std::string_view members;
        if (fields.size() >= 4)
            members = kemo::trimmed(std::string_view(*info).substr(
                fields[0].size() + fields[1].size() + fields[2].size() + 3));
        group_list.append(group).append("\n");
        member_list.append(group).append(" = \"").append(members).append("\"\n");
    }
    kemo::ConfigLock lock(KLIB_LOCK_WIN | KLIB_LOCK_EX, kLockTimeout);
    if (!lock.held())
        return fail(-1, ERR_LOCK_FAILED);
    if (!replace_file(kDomainUser, user_list) || !replace_file(kDomainGroup, group_list) ||
        !replace_file(kDomainGroupMember, member_list))
        return -1;
    return 0;
}

// Domain users named in the shares' access lists, directly or through a
// domain group.
int push_share_users(PKLIBSZLIST *list)
{
    auto lock = account_lock(kShareReadLock, kShareReadUnlock);
    if (!lock.held())
        return fail(-1, ERR_LOCK_FAILED);
    const auto names = kemo::share::names(KEMO_SHARE_ORDINARY | KEMO_SHARE_USB | KEMO_SHARE_SATA);
    if (!names)
        return -1;

    auto keys = keys_of(*list);
    int count = 0;
    auto push = [&](std::string_view name) {
        const int pushed = push_once(list, keys, name);
        if (pushed < 0)
            throw std::bad_alloc();
        count += pushed;
    };
    std::optional<std::vector<std::string>> all_users; // read once when needed
    for (const std::string &share : *names) {
        std::unique_ptr<KLIBSZHASH, HashFree> hash(PshKLIBSzHashAlloc(8192));
        if (!hash)
            return -1;
        PKLIBSZHASH raw = hash.release();
        const int pairs = kemo::sections::get_section(kSmbConf, share, &raw);
        hash.reset(raw);
        if (pairs < 0)
            return -1;
        for (const char *key : {"invalid users", "write list", "read list", "valid users"}) {
            const char *value = SzKLIBSzHashGetValue(hash.get(), key);
            if (value == nullptr)
                continue;
            for (std::string_view member : split(value, ',')) {
                member = kemo::trimmed(member);
                const bool group = member.starts_with('@');
                if (group)
                    member.remove_prefix(1);
                if (member.empty() || !is_domain(member))
                    continue;
                if (!group) {
                    push(member);
                } else if (is_domain_users(member)) {
                    if (!all_users) {
                        all_users.emplace();
                        if (::access(kDomainUser, F_OK) == 0 &&
                            kemo::for_each_line(kDomainUser, [&](std::string_view line) {
                                line = kemo::chomp(line);
                                if (!line.empty() && line.find('$') == std::string_view::npos)
                                    all_users->emplace_back(line);
                                return 1;
                            }) < 0)
                            return -1;
                    }
                    for (const std::string &user : *all_users)
                        push(user);
                } else if (const Members members = group_members(member); !members.ok) {
                    return -1;
                } else if (members.text) {
                    for (std::string_view user : split(*members.text, ','))
                        if (!kemo::trimmed(user).empty())
                            push(kemo::trimmed(user));
                }
            }
        }
    }
    return count;
}

// The member text of a domain group into out; out NULL only measures.
int group_info(const char *group, char *out, int size)
{
    const Members members = group_members(group);
    if (!members.ok)
        return -1;
    if (!members.text)
        return fail(-1, ERR_NO_SUCH_GROUP);
    const auto length = members.text->size() + 1;
    if (length > static_cast<std::size_t>(INT32_MAX))
        return fail(-1, ERR_NOT_ENOUGH_MEMORY);
    if (out == nullptr)
        return static_cast<int>(length);
    if (length > static_cast<std::size_t>(size))
        return fail(-1, ERR_NOT_ENOUGH_MEMORY);
    std::memcpy(out, members.text->c_str(), length);
    return static_cast<int>(length);
}

} // namespace

namespace kemo::domain {

int name_kind(std::string_view text)
{
    const auto slash = text.find('\\');
    if (slash == std::string_view::npos || !domain_joined())
        return 1;
    const std::string workgroup = setting(kSettings, "workgroup");
    return !workgroup.empty() && same_name(text.substr(0, slash), workgroup) ? 2 : 1;
}

int refresh_lists()
{
    return refresh_domain_lists();
}

int user_sid(const char *name, char *out, int size)
{
    const auto answer = lookup("/usr/kemo/bin/wbinfo -n %s 2>/dev/null", {name}, kemo::Output::first_line);
    if (!answer)
        return -1;
    // "S-1-5-21-...-1104 SID_USER (1)": the SID is the first word.
    std::string_view sid = kemo::trimmed(*answer);
    sid = sid.substr(0, sid.find_first_of(" \t"));
    if (sid.empty())
        return fail(-1, ERR_SYS_UNKNOWN);
    if (sid.size() >= static_cast<std::size_t>(size))
        return fail(-1, ERR_NOT_ENOUGH_MEMORY);
    std::memcpy(out, sid.data(), sid.size());
    out[sid.size()] = '\0';
    return 0;
}

int user_uid(const char *name)
{
    char sid[256];
    if (user_sid(name, sid, sizeof sid) < 0) {
        KEMO_LOG("get uid fail");
        return -1;
    }
    return lookup_id("/usr/kemo/bin/wbinfo -S %s 2>/dev/null", sid, "uid");
}

// Asked as "DOMAIN\user"; a name without a domain is taken to be in the
// joined domain ("workgroup").  The first gid the tool gives is the user's.
int user_gid(const char *name)
{
    const std::string_view text = name;
    const auto slash = text.find('\\');
    const std::string domain = slash == std::string_view::npos ? setting(kSettings, "workgroup")
                                                               : std::string(text.substr(0, slash));
    const std::string_view user = slash == std::string_view::npos ? text : text.substr(slash + 1);
    const std::string qualified = domain + "\\" + std::string(user);
    return lookup_id("/usr/kemo/bin/wbinfo -r %s 2>/dev/null", qualified, "gid");
}

int push_users(PKLIBSZLIST *list)
{
    return push_listed(kDomainUser, list, true);
}

int push_used_users(PKLIBSZLIST *list)
{
    return push_share_users(list);
}

int push_groups(PKLIBSZLIST *list)
{
    return push_listed(kDomainGroup, list, false);
}

// Members pushed as they are written, without "nobody" and empty ones.
int push_group_members(std::string_view group, PKLIBSZLIST *list)
{
    const Members members = group_members(group);
    if (!members.ok)
        return -1;
    if (!members.text)
        return fail(-1, ERR_NO_SUCH_GROUP);
    int count = 0;
    for (std::string_view member : split(*members.text, ',')) {
        member = kemo::trimmed(member);
        if (member.empty() || equal_nocase(member, "nobody"))
            continue;
        if (KLIBSzListPush(list, std::string(member).c_str()) < 0)
            return -1;
        ++count;
    }
    return count;
}

int is_group_member(std::string_view user, std::string_view group)
{
    if (is_domain_users(group))
        return is_domain(user) ? 1 : 0;
    const Members members = group_members(group);
    if (!members.text)
        return 0;
    for (std::string_view member : split(*members.text, ','))
        if (same_name(kemo::trimmed(member), user))
            return 1;
    return 0;
}

// The file server forks one process per client session and switches it to
// the client's account, so a user's sessions are the processes named
// "smbd" whose effective uid is the user's.  The server's own root process
// is never one of them: sessions of "root" are not reported.
int session_pids(const char *user, int32_t *pids, int max)
{
    const struct passwd *account = ::getpwnam(user);
    if (account == nullptr)
        return fail(-1, ERR_NO_SUCH_USER);
    const uid_t uid = account->pw_uid;
    if (uid == 0)
        return 0;
    std::unique_ptr<DIR, DirClose> proc(::opendir("/proc"));
    if (!proc)
        return fail(-1, ERR_OPEN_FAILED);
    int found = 0;
    while (const dirent *entry = ::readdir(proc.get())) {
        if (found >= max)
            break;
        const auto pid = parse_id(entry->d_name);
        if (!pid || *pid == 0)
            continue;
        if (smbd_euid(*pid) == uid)
            pids[found++] = *pid;
    }
    return found;
}

// Each pid is checked again, right before it is signalled, to still be a
// file server session; the others are skipped.
int end_sessions(const int32_t *pids, int count)
{
    int ended = 0;
    for (int i = 0; i < count; ++i)
        if (pids[i] > 0 && end_session(pids[i]))
            ++ended;
    return ended;
}

// The backup server's secrets file holds "user:password" lines.  Only an
// existing line is changed (the user's spelling there is kept); a user
// without a line is not a backup user.
int set_backup_password(const char *user, const char *password)
{
    if (::access(kRsyncSecrets, F_OK) != 0)
        return 0;
    bool changed = false;
    return kemo::rewrite_file(
        kRsyncSecrets,
        [&](std::string_view line, kemo::Twin &twin) {
            const std::string_view text = kemo::chomp(line);
            const auto colon = text.find(':');
            if (text.starts_with('#') || colon == std::string_view::npos ||
                !same_name(text.substr(0, colon), user)) {
                twin.write(line);
                return true;
            }
            std::string entry(text.substr(0, colon + 1));
            entry.append(password).append("\n");
            changed = changed || text.substr(colon + 1) != password;
            twin.write(entry);
            return true;
        },
        [&](kemo::Twin &, bool) { return changed ? 1 : 0; }, ERR_READ_FAILED);
}

} // namespace kemo::domain

extern "C" {

KEMO_API int IsDomainUG(const char *name)
{
    if (name == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::domain::name_kind(name); });
}

KEMO_API int KEMOWinGetDomainUG(int flags)
{
    (void)flags; // every list is refreshed
    return kemo::edge(-1, [] { return kemo::domain::refresh_lists(); });
}

KEMO_API int KEMOGetDUserSid(const char *name, char *out, int size)
{
    if (name == nullptr || *name == '\0' || out == nullptr || size <= 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::domain::user_sid(name, out, size); });
}

KEMO_API int KEMOGetDUserUid(const char *name)
{
    if (name == nullptr || *name == '\0') {
        KEMO_LOG("bad parameter");
        return fail(-1, ERR_BAD_PARAMETERS);
    }
    return kemo::edge(-1, [&] { return kemo::domain::user_uid(name); });
}

KEMO_API int KEMOGetDUserGid(const char *name)
{
    if (name == nullptr || *name == '\0')
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::domain::user_gid(name); });
}

KEMO_API int KEMOPushDUser(PKLIBSZLIST *list)
{
    if (list == nullptr || *list == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::domain::push_users(list); });
}

KEMO_API int KEMOPushDUserUsed(PKLIBSZLIST *list)
{
    if (list == nullptr || *list == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::domain::push_used_users(list); });
}

KEMO_API int KEMOGetDGRPMem(const char *group, PKLIBSZLIST *list)
{
    if (group == nullptr || list == nullptr || *list == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::domain::push_group_members(group, list); });
}

// out NULL with size 0 only measures; otherwise the text must fit.
KEMO_API int KEMOGetDGRPInfo(const char *group, char *out, int size)
{
    if (group == nullptr || size < 0 || (out == nullptr && size != 0))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return group_info(group, out, size); });
}

KEMO_API int KEMOIsDGRPMem(const char *user, const char *group)
{
    if (user == nullptr || group == nullptr)
        return fail(0, ERR_BAD_PARAMETERS);
    return kemo::edge(0, [&] { return kemo::domain::is_group_member(user, group); });
}

KEMO_API int KEMOPushDGroup(PKLIBSZLIST *list)
{
    if (list == nullptr || *list == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::domain::push_groups(list); });
}

// Returns the number stored in pids (at most max), ready for
// KEMODelConnOfSmb.
KEMO_API int KEMOGetConnPidOfSmb(const char *user, int32_t *pids, int max)
{
    if (user == nullptr || *user == '\0' || max < 0 || (pids == nullptr && max > 0))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::domain::session_pids(user, pids, max); });
}

KEMO_API int KEMODelConnOfSmb(const int32_t *pids, int count)
{
    if (count < 0 || (pids == nullptr && count > 0))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::domain::end_sessions(pids, count); });
}

KEMO_API int KEMONetBackupSetServerPasswd(const char *user, const char *password)
{
    if (user == nullptr || *user == '\0' || password == nullptr ||
        std::strpbrk(user, ":\r\n") != nullptr || std::strpbrk(password, ":\r\n") != nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::domain::set_backup_password(user, password); });
}

} // extern "C"
