// Share definitions: the sections of the file-sharing configuration read as
// share records, share lists and access-list answers.  Writing shares is
// done elsewhere; everything here only reads /usr/kemo/etc/smb.conf.
#include "kemo_accounts.hpp"
#include "kemounicode.hpp"
#include "kemosection.hpp"
#include "kemogrp_internal.hpp"
#include "kemo_domain.hpp"
#include "kemo_share.hpp"
#include "kemo_io.hpp"
#include "kemo_records.hpp"

#include <pwd.h>
#include <sys/types.h>

#include <array>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

using kemo::fail;
using namespace kemo::accounts;

constexpr int kSectionPool = 8192;
constexpr std::string_view kSnapshotDoor = ".snapshot";

struct HashFree {
    void operator()(PKLIBSZHASH h) const noexcept { KLIBSzHashFree(h); }
};
struct ListFree {
    void operator()(PKLIBSZLIST l) const noexcept { KLIBSzListFree(l); }
};
struct CFree {
    void operator()(char *p) const noexcept { std::free(p); }
};

// Sections that configure the server rather than export a folder.
bool is_reserved(std::string_view name)
{
    static constexpr std::array<std::string_view, 4> reserved = {"global", "homes", "home",
                                                                 "printers"};
    for (std::string_view r : reserved)
        if (equal_nocase(name, r))
            return true;
    return false;
}

// "usbshare" (any case) followed by one or more decimal digits, or exactly
// "usbbackup": shares of external USB disks.
bool is_usb(std::string_view name) noexcept
{
    constexpr std::string_view prefix = "usbshare";
    if (name == "usbbackup")
        return true;
    if (name.size() <= prefix.size() || !equal_nocase(name.substr(0, prefix.size()), prefix))
        return false;
    for (char c : name.substr(prefix.size()))
        if (c < '0' || c > '9')
            return false;
    return true;
}

bool is_sata(std::string_view name) noexcept
{
    return name == "satashare" || name == "satabackup";
}

int kind_of(std::string_view name) noexcept
{
    return is_usb(name) ? KEMO_SHARE_USB : is_sata(name) ? KEMO_SHARE_SATA : KEMO_SHARE_ORDINARY;
}

using Section = std::unordered_map<std::string, std::string>;

// The pairs of one section of the share file (empty when there is no such
// section); nullopt with the error code set.
std::optional<Section> read_section(const char *name)
{
    std::unique_ptr<KLIBSZHASH, HashFree> hash(PshKLIBSzHashAlloc(kSectionPool));
    if (!hash)
        return std::nullopt;
    PKLIBSZHASH raw = hash.release();
    const int pairs = kemo::sections::get_section(kSmbConf, name, &raw);
    hash.reset(raw);
    if (pairs < 0)
        return std::nullopt;
    Section section;
    for (int i = 0; i < hash->nSlot; ++i)
        if (hash->rgSlot[i].pszKey != nullptr)
            section.emplace(hash->rgSlot[i].pszKey, hash->rgSlot[i].pszValue);
    return section;
}

std::optional<std::string_view> value_of(const Section &section, const std::string &key)
{
    const auto at = section.find(key);
    if (at == section.end())
        return std::nullopt;
    return std::string_view(at->second);
}

// Share names of the selected kinds in file order (the caller holds the
// share lock); nullopt with the error code set.
std::optional<std::vector<std::string>> share_names(int kinds)
{
    std::unique_ptr<KLIBSZLIST, ListFree> list(PslKLIBSzListAlloc(kSectionPool));
    if (!list)
        return std::nullopt;
    PKLIBSZLIST raw = list.release();
    const int count = kemo::sections::enum_sections(kSmbConf, &raw);
    list.reset(raw);
    if (count < 0)
        return std::nullopt;
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) {
        const std::string_view name = list->pszItem[i];
        if (!name.empty() && !is_reserved(name) && (kind_of(name) & kinds) != 0)
            names.emplace_back(name);
    }
    return names;
}

// Runs body under the share file's reader lock.  A lock that cannot be had
// is ERR_LOCK_FAILED, one that cannot be released ERR_UNLOCK_FAILED.
template <class R, class F>
R under_share_lock(R failure, const char *caller, F &&body)
{
    auto lock = account_lock(kShareReadLock, kShareReadUnlock);
    if (!lock.held()) {
        KEMO_LOG("kemoshare: %s: lock smb.conf failed!", caller);
        return fail(failure, ERR_LOCK_FAILED);
    }
    R result = body();
    if (!lock.release())
        return failure;
    return result;
}

// An access list without its "nobody" members and without a final ",".
struct CleanList {
    std::string text;
    bool has_users = false; // names "@users"
};
CleanList clean_list(std::string_view list)
{
    CleanList clean;
    bool first = true;
    for (std::string_view member : split(list, ',')) {
        if (equal_nocase(member, "nobody"))
            continue;
        if (equal_nocase(member, "@users"))
            clean.has_users = true;
        if (!first)
            clean.text += ',';
        clean.text.append(member);
        first = false;
    }
    if (!clean.text.empty() && clean.text.back() == ',')
        clean.text.pop_back();
    return clean;
}

// The fields of a KEMOSHARE before they are laid out in a buffer.  Absent
// texts are nullopt.
struct ShareRecord {
    std::string name;
    std::array<std::optional<std::string>, 5> texts; // comment, path, deny, rw, ro
    int users_access = KEMO_ACCESS_NONE;
    int browseable = 1;
};

// Lays the record out in the two-call convention: the texts are copied
// from the buffer's end backwards, name first; an absent text points to
// the buffer's last byte (the name's NUL).  1 filled, 0 size query, -1.
int store_record(const ShareRecord &record, PKEMOSHARE out, int size, int *needed)
{
    std::size_t total = sizeof(KEMOSHARE) + record.name.size() + 1;
    for (const auto &text : record.texts)
        if (text)
            total += text->size() + 1;
    if (total > INT_MAX)
        return fail(-1, ERR_NOT_ENOUGH_MEMORY);
    *needed = static_cast<int>(total);
    if (out == nullptr)
        return 0;
    if (total > static_cast<std::size_t>(size))
        return fail(-1, ERR_NOT_ENOUGH_MEMORY);
    char *const last = reinterpret_cast<char *>(out) + size - 1;
    char *end = last + 1;
    auto copy = [&end](const std::string &text) {
        end -= text.size() + 1;
        std::memcpy(end, text.c_str(), text.size() + 1);
        return end;
    };
    out->szName = copy(record.name);
    char **fields[5] = {&out->szComment, &out->szPath, &out->szDenyList, &out->szRWList,
                        &out->szROList};
    for (std::size_t i = 0; i < record.texts.size(); ++i)
        *fields[i] = record.texts[i] ? copy(*record.texts[i]) : last;
    out->usersAccess = record.users_access;
    out->browseable = record.browseable;
    return 1;
}

// Builds the record of share name from its section.  false with the error
// code set (ERR_UNKNOWN when the access of "@users" cannot be told).
bool make_record(const char *name, const Section &section, ShareRecord &record)
{
    record.name = name;
    record.texts[0] = value_of(section, "comment");
    record.texts[1] = value_of(section, "path");
    // The first list that names "@users" gives its access: deny, then
    // read-write, then read-only.
    static constexpr std::array<std::pair<const char *, int>, 3> lists = {
        {{"invalid users", KEMO_ACCESS_NONE}, {"write list", KEMO_ACCESS_RW},
         {"read list", KEMO_ACCESS_RO}}};
    std::optional<int> access;
    for (std::size_t i = 0; i < lists.size(); ++i) {
        const auto raw = value_of(section, lists[i].first);
        if (!raw)
            continue;
        CleanList clean = clean_list(*raw);
        if (clean.has_users && !access)
            access = lists[i].second;
        record.texts[2 + i] = std::move(clean.text);
    }
    if (!access) {
        // Nobody named "@users": the share's own switches tell.
        const auto guest = value_of(section, "guest ok");
        const auto writeable = value_of(section, "writeable");
        if (guest == "yes" && writeable == "yes")
            access = KEMO_ACCESS_RW;
        else if (guest == "yes" && writeable == "no")
            access = KEMO_ACCESS_RO;
        else if (guest == "no" && writeable == "no")
            access = KEMO_ACCESS_NONE;
        if (!access) {
            KEMO_LOG("kemoshare: unknown error!, szTempName:%s szTempName2:%s",
                     guest ? std::string(*guest).c_str() : "NULL",
                     writeable ? std::string(*writeable).c_str() : "NULL");
            return fail(false, ERR_UNKNOWN);
        }
    }
    record.users_access = *access;
    const auto browseable = value_of(section, "browseable");
    record.browseable = browseable && equal_nocase(*browseable, "no") ? 0 : 1;
    return true;
}

// The primary gid of local user name (spelled in any case) from
// /etc/passwd, or nullopt when there is no such user.
std::optional<long> local_primary_gid(std::string_view name)
{
    std::optional<long> gid;
    kemo::for_each_line(kPasswd, [&](std::string_view line) {
        const std::string_view entry_line = kemo::chomp(line);
        if (!same_name(kemo::records::name_of(entry_line), name))
            return 1;
        const auto entry = kemo::records::parse_passwd(entry_line);
        if (!entry)
            return 1;
        gid = entry->gid;
        return 0;
    });
    return gid;
}

bool is_domain(const std::string &name)
{
    return kemo::domain::name_kind(name) == 2;
}

// Whether user belongs to the group named by an "@group" member.  Local
// users match local groups and domain users domain groups; a mix never
// matches.
bool in_group(const std::string &user, bool user_domain, const std::string &group)
{
    if (user_domain != is_domain(group))
        return false;
    if (user_domain)
        return kemo::domain::is_group_member(user, group) == 1;
    if (equal_nocase(group, "users")) {
        // Every local account whose primary group is "users" (or root's).
        const auto gid = local_primary_gid(user);
        return gid && (*gid == 100 || *gid == 0);
    }
    const KLIBGROUP *entry = kemo::groups::local_group_record(group.c_str());
    if (entry == nullptr || entry->gr_mem == nullptr)
        return false;
    for (char **member = entry->gr_mem; *member != nullptr; ++member)
        if (kemo::unicode::case_compare(*member, user) == 0)
            return true;
    return false;
}

bool user_in_list(const std::string &user, std::string_view list)
{
    std::optional<bool> user_domain; // asked only when a group comes up
    for (std::string_view member : split(list, ',')) {
        member = kemo::trimmed(member);
        if (member.empty() || equal_nocase(member, "nobody"))
            continue;
        if (member.front() == '@') {
            if (!user_domain)
                user_domain = is_domain(user);
            if (in_group(user, *user_domain, std::string(member.substr(1))))
                return true;
        } else if (same_name(member, user)) {
            return true;
        }
    }
    return false;
}

// A path without trailing "/" (the root stays "/").
std::string without_trailing_slash(std::string path)
{
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

// The canonical form of path: realpath when it resolves, else the text
// itself without trailing "/".
std::string canonical(const std::string &path)
{
    std::unique_ptr<char, CFree> resolved(::realpath(path.c_str(), nullptr));
    return without_trailing_slash(resolved ? std::string(resolved.get()) : path);
}

// Whether path is dir or lies below it (whole components only).
bool is_within(std::string_view path, std::string_view dir)
{
    if (dir == "/")
        return !path.empty() && path.front() == '/';
    return path == dir || (path.starts_with(dir) && path.size() > dir.size() &&
                           path[dir.size()] == '/');
}

// Snapshots.  A volume's snapshot <snap> is reached through the folder
// "<volume>/.snapshot/<snap>/" and holds the volume's folders as they were:
// the snapshot copy of the folder "<volume>/<folder>" is the snapshot
// folder "<volume>/<snap>.snap/<folder>/".  A path inside the door is put
// in that form, and so is each share folder on the same volume, before the
// two are compared: a snapshot copy is valid exactly when the folder it
// copies is a share folder.
struct SnapshotPath {
    std::string volume; // "/volume1"
    std::string snap;   // snapshot name
    std::string rest;   // the folder inside the volume ("" for its root)
};

std::optional<SnapshotPath> snapshot_path(std::string_view path)
{
    // "/<volume>/.snapshot/<snap>[/<rest>]"
    const auto parts = split(path, '/');
    if (parts.size() < 4 || !parts[0].empty() || parts[1].empty() || parts[2] != kSnapshotDoor ||
        parts[3].empty())
        return std::nullopt;
    // Built by appending: gcc 12 warns falsely about "/" + std::string at -O2.
    std::string volume(1, '/');
    volume.append(parts[1]);
    SnapshotPath snapshot{std::move(volume), std::string(parts[3]), {}};
    const std::size_t head = snapshot.volume.size() + kSnapshotDoor.size() + snapshot.snap.size() + 2;
    if (path.size() > head)
        snapshot.rest = std::string(path.substr(head + 1));
    return snapshot;
}

std::string snapshot_folder(const std::string &volume, const std::string &snap,
                            const std::string &folder)
{
    std::string text(volume);
    text.append("/").append(snap).append(".snap/");
    if (!folder.empty())
        text.append(folder).append("/");
    return text;
}

// Whether resolved (a canonical path) lies inside the share folder
// share_path (canonical too), directly or as a snapshot copy.
bool inside_share(const std::string &resolved, const std::optional<SnapshotPath> &snapshot,
                  const std::string &share_path)
{
    if (!snapshot)
        return is_within(resolved, share_path);
    if (!is_within(share_path, snapshot->volume))
        return false;
    const std::string folder = share_path.size() > snapshot->volume.size()
                                   ? share_path.substr(snapshot->volume.size() + 1)
                                   : std::string();
    const std::string copy = snapshot_folder(snapshot->volume, snapshot->snap, folder);
    return snapshot_folder(snapshot->volume, snapshot->snap, snapshot->rest).starts_with(copy);
}

// Home folders: "/home/<name>" (and the same below the folder /home
// resolves to, when it is a link) belongs to the user of that name, in any
// case.  The superuser "root" has no home folder there but may reach all of
// them.
bool inside_own_home(const std::string &resolved, std::string_view user)
{
    const std::string roots[] = {"/home", canonical("/home")};
    for (const std::string &root : roots) {
        if (root == "/" || !is_within(resolved, root) || resolved.size() <= root.size() + 1)
            continue;
        if (user == "root")
            return true;
        std::string_view home = std::string_view(resolved).substr(root.size() + 1);
        home = home.substr(0, home.find('/'));
        if (same_name(home, user))
            return true;
    }
    return false;
}

int share_get(const char *name, PKEMOSHARE out, int size, int *needed)
{
    // Reserved sections are refused before the file is read.
    if (*name == '\0' || is_reserved(name)) {
        KEMO_LOG("kemoshare: KEMOShareGet: no such share; szName=%s!", name);
        return fail(-1, ERR_NO_SUCH_SHARE);
    }
    return under_share_lock(-1, "KEMOShareGet", [&] {
        const auto section = read_section(name);
        if (!section || section->empty()) {
            KEMO_LOG("kemoshare: KEMOShareGet: KLIBFileGetSection() failed, szName=%s", name);
            return fail(-1, ERR_NO_SUCH_SHARE);
        }
        ShareRecord record;
        if (!make_record(name, *section, record))
            return -1;
        return store_record(record, out, size, needed);
    });
}

} // namespace

namespace kemo::share {

std::optional<std::vector<std::string>> names(int kinds)
{
    return share_names(kinds);
}

int enumerate(char **out, int size, int *needed, int kinds)
{
    return under_share_lock(-1, "KEMOShareEnum1", [&] {
        const auto found = share_names(kinds);
        return found ? store_names(*found, out, size, needed) : -1;
    });
}

bool is_usb_section(std::string_view name) noexcept
{
    return is_usb(name);
}

bool is_sata_section(std::string_view name) noexcept
{
    return is_sata(name);
}

// The body of KEMOSharePathGet, with its arguments checked.
int path_of(const char *name, char *out, int size)
{
    const auto section = read_section(name);
    if (!section) {
        KEMO_LOG("KLIBFileGetSection failed [%X]!!", KLIBErrGet());
        return -1;
    }
    const auto path = value_of(*section, "path");
    if (!path) {
        KEMO_LOG("key [path] not found or error!!");
        return fail(-1, section->empty() ? ERR_NO_SUCH_SHARE : ERR_KEY_NOT_FOUND);
    }
    if (path->size() >= static_cast<std::size_t>(size))
        return fail(-1, ERR_NOT_ENOUGH_MEMORY);
    std::memcpy(out, path->data(), path->size());
    out[path->size()] = '\0';
    return 0;
}

// The body of KEMOShareIsUnderValidPath, with its arguments checked.
int under_valid_path(const char *user, const char *path)
{
    std::unique_ptr<char, CFree> real(::realpath(path, nullptr));
    if (!real)
        return fail(-1, ERR_PATH_NOT_FOUND);
    const std::string resolved = real.get();
    if (inside_own_home(resolved, user))
        return 1;
    const auto snapshot = snapshot_path(resolved);
    return under_share_lock(-1, "KEMOShareIsUnderValidPath", [&] {
        const auto names = share_names(KEMO_SHARE_ORDINARY | KEMO_SHARE_USB | KEMO_SHARE_SATA);
        if (!names) {
            KEMO_LOG("kemoshare: KEMOShareIsUnderValidPath: failed to enumerate shares!");
            return -1;
        }
        for (const std::string &name : *names) {
            const auto section = read_section(name.c_str());
            if (!section) {
                KEMO_LOG("kemoshare: KEMOShareIsUnderValidPath: failed to get share [%s]!",
                         name.c_str());
                return -1;
            }
            const auto share_path = value_of(*section, "path");
            if (share_path && !share_path->empty() &&
                inside_share(resolved, snapshot, canonical(std::string(*share_path))))
                return 1;
        }
        return 0;
    });
}

// The body of KEMOShareGetCase, with its arguments checked.
int stored_case(const char *name, char **stored)
{
    return under_share_lock(-1, "KEMOShareGetCase", [&] {
        const auto names = share_names(KEMO_SHARE_ORDINARY | KEMO_SHARE_USB | KEMO_SHARE_SATA);
        if (!names) {
            KEMO_LOG("[%X] Failed to KEMOShareEnum", KLIBErrGet());
            return -1;
        }
        for (const std::string &candidate : *names)
            if (same_name(candidate, name)) {
                *stored = ::strdup(candidate.c_str());
                return *stored != nullptr ? 0 : fail(-1, ERR_OUT_OF_MEMORY);
            }
        return fail(-1, ERR_NO_SUCH_SHARE);
    });
}

// The body of KEMOShareEnumbyVolume, with its arguments checked.
int enum_by_volume(int volume, char **out, int size, int *needed)
{
    const std::string mount = "/volume" + std::to_string(volume + 1);
    auto lock = account_lock(kShareReadLock, kShareReadUnlock);
    if (!lock.held()) {
        KEMO_LOG("Failed to lock LOCK_SMB");
        return fail(-1, ERR_LOCK_FAILED);
    }
    const auto names = share_names(KEMO_SHARE_ORDINARY | KEMO_SHARE_USB | KEMO_SHARE_SATA);
    if (!names)
        return -1;
    std::vector<std::string> on_volume;
    for (const std::string &name : *names) {
        const auto section = read_section(name.c_str());
        if (!section) {
            KEMO_LOG("Failed to get share [%s]", name.c_str());
            return -1;
        }
        const auto path = value_of(*section, "path");
        if (path && is_within(without_trailing_slash(std::string(*path)), mount))
            on_volume.push_back(name);
    }
    const int result = store_names(on_volume, out, size, needed);
    if (result < 0 && KLIBErrGet() == ERR_NOT_ENOUGH_MEMORY)
        KEMO_LOG("Buffer not enough.");
    return lock.release() ? result : -1;
}

// The body of KEMOShareWriteableGet, with its arguments checked.
int writeable(const char *share, const char *user)
{
    return under_share_lock(-1, "KEMOShareWriteableGet", [&] {
        const auto section = read_section(share);
        if (!section)
            return -1;
        if (section->empty())
            return fail(-1, ERR_NO_SUCH_SHARE);
        auto named_in = [&](const char *key) {
            const auto list = value_of(*section, key);
            return list && user_in_list(user, *list);
        };
        if (named_in("invalid users"))
            return 0;
        if (named_in("write list"))
            return 1;
        if (named_in("read list"))
            return 0;
        return value_of(*section, "writeable") == "yes" ? 1 : 0;
    });
}

// The body of ParseShareParam, with its arguments checked.
int parse_param(const char *text, PKEMOSHARE out, int size, int *needed)
{
    const auto fields = split(text, ':');
    if (fields.size() != 8)
        return fail(-1, ERR_BAD_PARAMETERS);
    ShareRecord record;
    record.name = std::string(fields[0]);
    record.texts[0] = std::string(fields[1]);
    record.texts[1] = std::string(fields[2]);
    for (std::size_t i = 0; i < 3; ++i)
        record.texts[2 + i] = clean_list(fields[3 + i]).text;
    const std::string_view access = fields[6];
    const auto underscore = access.find('_');
    const std::string_view level =
        underscore == std::string_view::npos ? std::string_view() : access.substr(underscore + 1);
    record.users_access = equal_nocase(level, "RW")   ? KEMO_ACCESS_RW
                          : equal_nocase(level, "RO") ? KEMO_ACCESS_RO
                                                      : KEMO_ACCESS_NONE;
    const std::string_view browseable = fields[7];
    const auto [end, ec] = std::from_chars(browseable.data(),
                                           browseable.data() + browseable.size(),
                                           record.browseable);
    if (browseable.empty() || ec != std::errc() || end != browseable.data() + browseable.size())
        return fail(-1, ERR_BAD_PARAMETERS);
    return store_record(record, out, size, needed);
}

} // namespace kemo::share

extern "C" {

KEMO_API int KEMOShareGet(int type, const char *name, PKEMOSHARE out, int size, int *needed)
{
    if (type != KEMO_ACCOUNT_LOCAL || name == nullptr || needed == nullptr || size < 0 ||
        (out == nullptr && size != 0)) {
        KEMO_LOG("kemoshare: KEMOShareGet: bad parameters!");
        return fail(-1, ERR_BAD_PARAMETERS);
    }
    return kemo::edge(-1, [&] { return share_get(name, out, size, needed); });
}

KEMO_API int KEMOShareEnum(char **out, int size, int *needed)
{
    if (!enum_arguments_ok(out, size, needed))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        return kemo::share::enumerate(out, size, needed,
                                      KEMO_SHARE_ORDINARY | KEMO_SHARE_USB | KEMO_SHARE_SATA);
    });
}

KEMO_API int KEMOShareEnum1(char **out, int size, int *needed, int kinds)
{
    if (!enum_arguments_ok(out, size, needed) || kinds <= 0 ||
        (kinds & ~(KEMO_SHARE_ORDINARY | KEMO_SHARE_USB | KEMO_SHARE_SATA)) != 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::share::enumerate(out, size, needed, kinds); });
}

KEMO_API int BlShareIIsUsbSection(const char *name)
{
    return name != nullptr && kemo::share::is_usb_section(name) ? 1 : 0;
}

KEMO_API int BlShareIIsSATASection(const char *name)
{
    return name != nullptr && kemo::share::is_sata_section(name) ? 1 : 0;
}

// Takes no lock: callers may already hold the share lock in any mode.  A
// path that does not fit is refused rather than cut short, since a
// shortened path names another folder.
KEMO_API int KEMOSharePathGet(const char *name, char *out, int size)
{
    if (name == nullptr || *name == '\0' || out == nullptr || size <= 0) {
        KEMO_LOG("KEMOSharePathGet: Bad parameters!");
        return fail(-1, ERR_BAD_PARAMETERS);
    }
    return kemo::edge(-1, [&] { return kemo::share::path_of(name, out, size); });
}

KEMO_API int BlSDKUserIsInList(const char *user, const char *list)
{
    if (user == nullptr || list == nullptr)
        return fail(0, ERR_BAD_PARAMETERS);
    return kemo::edge(0, [&] { return user_in_list(user, list) ? 1 : 0; });
}

KEMO_API int KEMOShareIsUnderValidPath(const char *user, const char *path)
{
    if (user == nullptr || *user == '\0' || path == nullptr || *path == '\0')
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::share::under_valid_path(user, path); });
}

KEMO_API int KEMOShareGetCase(const char *name, char **stored)
{
    if (name == nullptr || stored == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    *stored = nullptr;
    return kemo::edge(-1, [&] { return kemo::share::stored_case(name, stored); });
}

KEMO_API void KEMOShareGetCaseFree(char *stored)
{
    std::free(stored);
}

KEMO_API int KEMOShareEnumbyVolume(int volume, char **out, int size, int *needed)
{
    if (volume < 0 || volume >= INT_MAX || !enum_arguments_ok(out, size, needed))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::share::enum_by_volume(volume, out, size, needed); });
}

// Deny list first, then the read-write list, then the read-only list; a user
// named in none of them may write when the share is writeable.
KEMO_API int KEMOShareWriteableGet(const char *share, const char *user)
{
    if (share == nullptr || user == nullptr || *user == '\0')
        return fail(-1, ERR_BAD_PARAMETERS);
    if (*share == '\0' || is_reserved(share))
        return fail(-1, ERR_NO_SUCH_SHARE);
    return kemo::edge(-1, [&] { return kemo::share::writeable(share, user); });
}

// "name:comment:path:deny:rw:ro:access:browseable".  The access field is
// split at its first "_": "RW" after it is read-write, "RO" read-only, any
// other text no access.  browseable must be a decimal integer.
KEMO_API int ParseShareParam(const char *text, PKEMOSHARE out, int size, int *needed)
{
    if (text == nullptr || needed == nullptr || size < 0 || (out == nullptr && size != 0))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::share::parse_param(text, out, size, needed); });
}

} // extern "C"
