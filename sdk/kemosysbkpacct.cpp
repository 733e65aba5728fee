// The account sections of the configuration backup: users (with their
// password hashes, so that a restore needs no password), groups (members
// and descriptions) and share definitions (every line of each share's
// section, access lists included).  Bodies are typed values:
//   users:  count, then per user: name, uid, description, shadow hash, LM
//           hash, NT hash, expiry day, mail address
//   groups: count, then per group: name, description, member count, members
//   shares: count, then per share: name, line count, then key and value of
//           each line in file order
// An importer reads and checks its whole body before it changes anything;
// with apply 0 it stops there.  A backup file is caller input like any
// other: a restored share keeps only the keys the appliance writes for a
// share and must lie on a data volume, and the system's own groups are
// never redefined by a restore.
#include "kemo_accounts.hpp"
#include "kemosection.hpp"
#include "kemostr.hpp"
#include "kemo_share.hpp"
#include "kemogrp_internal.hpp"
#include "kemo_io.hpp"
#include "kemo_sysbackup.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

namespace acc = kemo::accounts;

constexpr uint32_t kShareId = 0x20, kUserId = 0x100, kGroupId = 0x200;
// Failure events of the sections, and of one account the import could not
// restore (with its name as the first argument).
constexpr uint32_t kShareExportFailed = 0x1210000B, kShareImportFailed = 0x1210000C;
constexpr uint32_t kUserExportFailed = 0x12100011, kUserImportFailed = 0x12100012;
constexpr uint32_t kGroupExportFailed = 0x12100013, kGroupImportFailed = 0x12100014;
constexpr uint32_t kShareNotRestored = 0x12100051, kUserNotRestored = 0x12100052,
                   kGroupNotRestored = 0x12100053;
// More entries than a body could describe sensibly: the count is damaged.
constexpr int32_t kMaxEntries = 1 << 16;

using kemo::sysbackup::report;

// Typed values out; every call after a failure does nothing.
struct Writer {
    int fd;
    bool ok = true;
    Writer &text(std::string_view value)
    {
        ok = ok && kemo::sysbackup::write_string(fd, value) == 0;
        return *this;
    }
    Writer &number(long value)
    {
        ok = ok && kemo::sysbackup::write_long(fd, static_cast<int32_t>(value)) == 0;
        return *this;
    }
};

// Typed values in; a failed read (a cut or damaged body) sets ok to false
// and yields empty values from then on.
struct Reader {
    int fd;
    bool ok = true;
    std::string text()
    {
        std::string value;
        ok = ok && kemo::sysbackup::read_text(fd, value);
        return ok ? value : std::string();
    }
    long number()
    {
        int32_t value = 0;
        if (!ok || kemo::sysbackup::read_long(fd, value) < 0) {
            ok = false;
            return 0;
        }
        return value;
    }
    // Refuses the body for an entry that may not be restored (its name is
    // the event's argument).
    void refuse(const char *kind, const std::string &name, uint32_t event)
    {
        KEMO_LOG("invalid %s [%s] in the backup", kind, name.c_str());
        report(event, name.c_str());
        ok = false;
    }
    // An entry count, refused when negative or implausible.
    long count()
    {
        const long n = number();
        if (n < 0 || n > kMaxEntries)
            ok = false;
        return ok ? n : 0;
    }
};

// A body that cannot be restored: logged, the section's import failure
// event appended.  -1.
int damaged(const char *section, uint32_t event)
{
    KEMO_LOG("the %s section is damaged", section);
    report(event);
    return -1;
}

bool has_line_break(std::string_view text)
{
    return text.find_first_of("\r\n") != std::string_view::npos;
}

// ------------------------------------------------------------ users

int export_users(int fd)
{
    return kemo::sysbackup::write_section("KEMOSysbkpUserExport", fd, kUserId, [&] {
        std::vector<acc::StoredUser> users;
        if (!acc::stored_users(users)) {
            KEMO_LOG("fail to read the local users (%X)", KLIBErrGet());
            return false;
        }
        Writer out{fd};
        out.number(static_cast<long>(users.size()));
        for (const acc::StoredUser &u : users)
            out.text(u.name).number(u.uid).text(u.desc).text(u.unix_hash).text(u.lm).text(u.nt)
                .number(u.expire).text(u.email);
        if (!out.ok)
            KEMO_LOG("fail to write the users");
        return out.ok;
    }, kUserExportFailed);
}

int import_users(int fd, int apply)
{
    Reader in{fd};
    std::vector<acc::StoredUser> users(static_cast<std::size_t>(in.count()));
    for (acc::StoredUser &u : users) {
        u.name = in.text();
        u.uid = in.number();
        u.desc = in.text();
        u.unix_hash = in.text();
        u.lm = in.text();
        u.nt = in.text();
        u.expire = static_cast<int32_t>(in.number());
        u.email = in.text();
        if (in.ok && !kemo::strings::is_user_name(u.name))
            in.refuse("user name", u.name, kUserNotRestored);
        if (!in.ok)
            break;
    }
    if (!in.ok)
        return damaged("user", kUserImportFailed);
    if (apply == 0)
        return 0;

    std::vector<std::pair<std::string, long>> uids;
    PKLIBSZLIST errors = nullptr;
    const int result = acc::restore_users(users, uids, &errors);
    if (result != 0) {
        KEMO_LOG("fail to restore the users (%d, %X)", result, KLIBErrGet());
        for (int i = 0; errors != nullptr && i < errors->nItem && i < 8; ++i)
            report(kUserNotRestored, errors->pszItem[i]);
        report(kUserImportFailed);
    }
    KLIBSzListFree(errors);
    if (result != 0)
        return -1;
    if (gpshUser == nullptr && (gpshUser = PshKLIBSzHashAlloc(4096)) == nullptr)
        return -1;
    for (const auto &[name, uid] : uids)
        if (KLIBSzHashSetValue(&gpshUser, name.c_str(), std::to_string(uid).c_str()) < 0)
            return -1;
    return 0;
}

// ------------------------------------------------------------ groups

struct StoredGroup {
    std::string name, desc;
    std::vector<std::string> members;
};

// The group's stored name and members (KEMOGroupGet's layout: name first).
std::optional<StoredGroup> read_group(const std::string &name)
{
    if (name.empty())
        return kemo::fail(std::optional<StoredGroup>(), ERR_BAD_PARAMETERS);
    int needed = 0;
    if (kemo::groups::get_group(KEMO_GROUP_LOCAL, name.c_str(), nullptr, 0, &needed) < 0)
        return std::nullopt;
    std::vector<char *> buffer(static_cast<std::size_t>(needed) / sizeof(char *) + 1);
    if (kemo::groups::get_group(KEMO_GROUP_LOCAL, name.c_str(), buffer.data(),
                                static_cast<int>(buffer.size() * sizeof(char *)), &needed) != 1)
        return std::nullopt;
    StoredGroup group;
    group.name = buffer[0];
    for (char **p = buffer.data() + 1; *p != nullptr; ++p)
        group.members.emplace_back(*p);
    if (kemo::groups::get_desc(name.c_str(), nullptr, 0, &needed) == 0) {
        std::string desc(static_cast<std::size_t>(needed), '\0');
        if (kemo::groups::get_desc(name.c_str(), desc.data(), needed, &needed) == 1)
            group.desc = desc.c_str();
    }
    return group;
}

int export_groups(int fd)
{
    return kemo::sysbackup::write_section("KEMOSysbkpGroupExport", fd, kGroupId, [&] {
        std::vector<std::string> names;
        if (!kemo::groups::group_names(KEMO_GROUP_LOCAL, names)) {
            KEMO_LOG("fail to enumerate the local groups (%X)", KLIBErrGet());
            return false;
        }
        // "users" holds every user by its gid; "administrators" is a system
        // group, not enumerated, whose members the administrator chooses.
        std::erase_if(names, [](const std::string &n) { return acc::equal_nocase(n, "users"); });
        if (kemo::groups::local_group_record("administrators") != nullptr)
            names.insert(names.begin(), "administrators");
        std::vector<StoredGroup> groups;
        for (const std::string &name : names) {
            auto group = read_group(name);
            if (!group) {
                KEMO_LOG("fail to read group [%s] (%X)", name.c_str(), KLIBErrGet());
                return false;
            }
            groups.push_back(std::move(*group));
        }
        Writer out{fd};
        out.number(static_cast<long>(groups.size()));
        for (const StoredGroup &g : groups) {
            out.text(g.name).text(g.desc).number(static_cast<long>(g.members.size()));
            for (const std::string &member : g.members)
                out.text(member);
        }
        if (!out.ok)
            KEMO_LOG("fail to write the groups");
        return out.ok;
    }, kGroupExportFailed);
}

// How much of a stored group a restore may change here.
enum class GroupRestore {
    none,    // a system group: left as it is
    members, // "users" and "administrators": their members only
    whole,   // members and description
};

// "wheel" (which may grant the superuser's rights) is never restored, nor
// any group that has a system gid (below 100) on this appliance.
GroupRestore group_restore(const std::string &name, const acc::Lines &group_file)
{
    if (acc::equal_nocase(name, "wheel"))
        return GroupRestore::none;
    if (acc::equal_nocase(name, "users") || acc::equal_nocase(name, "administrators"))
        return GroupRestore::members;
    for (const std::string &line : group_file.lines) {
        const auto fields = acc::split(line);
        if (fields.size() < 3 || !acc::same_name(fields[0], name))
            continue;
        const std::string gid(fields[2]);
        char *end = nullptr;
        const long number = std::strtol(gid.c_str(), &end, 10);
        if (gid.empty() || *end != '\0' || number < 100)
            return GroupRestore::none;
    }
    return GroupRestore::whole;
}

bool restore_group(const StoredGroup &g, GroupRestore what)
{
    std::vector<const char *> record{g.name.c_str()};
    for (const std::string &member : g.members)
        record.push_back(member.c_str());
    record.push_back(nullptr);
    const bool present = kemo::groups::local_group_record(g.name.c_str()) != nullptr;
    if (kemo::groups::set_group(present ? g.name.c_str() : nullptr, record.data()) != 0)
        return false;
    if (what != GroupRestore::whole || g.desc.empty())
        return true;
    if (!kemo::groups::desc_arguments_ok(g.name.c_str(), g.desc.c_str()))
        return kemo::fail(false, ERR_BAD_PARAMETERS);
    return kemo::groups::set_desc(g.name.c_str(), g.desc.c_str()) == 0;
}

int import_groups(int fd, int apply)
{
    Reader in{fd};
    std::vector<StoredGroup> groups(static_cast<std::size_t>(in.count()));
    for (StoredGroup &g : groups) {
        g.name = in.text();
        g.desc = in.text();
        g.members.resize(static_cast<std::size_t>(in.count()));
        for (std::string &member : g.members)
            member = in.text();
        if (in.ok && (!kemo::strings::is_group_name(g.name) || has_line_break(g.desc)))
            in.refuse("group", g.name, kGroupNotRestored);
        if (!in.ok)
            break;
    }
    if (!in.ok)
        return damaged("group", kGroupImportFailed);
    if (apply == 0)
        return 0;
    acc::Lines group_file;
    if (!acc::read_lines(acc::kGroup, group_file)) {
        KEMO_LOG("fail to read %s (%X)", acc::kGroup, KLIBErrGet());
        report(kGroupImportFailed);
        return -1;
    }
    // Each group is its own change: one that cannot be restored (a member
    // refused, the group limit) does not hold back the others.
    bool all = true;
    for (const StoredGroup &g : groups) {
        const GroupRestore what = group_restore(g.name, group_file);
        if (what == GroupRestore::none) {
            KEMO_LOG("system group [%s] not restored", g.name.c_str());
            continue;
        }
        if (!restore_group(g, what)) {
            KEMO_LOG("fail to restore group [%s] (%X)", g.name.c_str(), KLIBErrGet());
            report(kGroupNotRestored, g.name.c_str());
            all = false;
        }
    }
    if (!all)
        report(kGroupImportFailed);
    return all ? 0 : -1;
}

// ------------------------------------------------------------ shares

struct StoredShare {
    std::string name;
    std::vector<std::pair<std::string, std::string>> lines; // key, value in file order
};

// The keys the appliance itself writes for a share.  A restored share
// keeps only these (the first line of each): anything else in a backup,
// such as another user to act as or a command to run on connecting, is
// dropped.
constexpr std::string_view kShareKeys[] = {"comment",    "path",      "invalid users",
                                           "valid users", "write list", "read list",
                                           "browseable", "guest ok",  "writeable"};

// Section names that are not shares of this appliance's folders: the file
// server's own sections and those of external disks.
bool reserved_share_name(const std::string &name)
{
    for (std::string_view reserved : {"global", "homes", "home", "printers"})
        if (acc::equal_nocase(name, reserved))
            return true;
    return kemo::share::is_usb_section(name) || kemo::share::is_sata_section(name);
}

// True for a folder on a data volume: "/volume" and its digit, then "/"
// or the end, without a ".." component.  A "%" is refused too: the file
// server would replace it with text of the client's choosing.
bool on_a_volume(std::string_view path)
{
    constexpr std::string_view prefix = "/volume";
    if (!path.starts_with(prefix) || path.size() == prefix.size())
        return false;
    const char digit = path[prefix.size()];
    if (digit < '1' || digit > '9')
        return false;
    std::string_view rest = path.substr(prefix.size() + 1);
    if ((!rest.empty() && rest[0] != '/') || path.find('%') != std::string_view::npos)
        return false;
    while (!rest.empty()) {
        rest.remove_prefix(1); // the "/"
        const std::size_t slash = std::min(rest.find('/'), rest.size());
        if (rest.substr(0, slash) == "..")
            return false;
        rest.remove_prefix(slash);
    }
    return true;
}

// The share as it may be restored (allowed keys, first line of each), or
// nullopt for a share that may not be restored at all: a name that is no
// share name or is reserved, a text with a line break, no path or a path
// outside the data volumes.
std::optional<StoredShare> restorable(const StoredShare &share)
{
    if (!kemo::strings::is_share_name(share.name) || reserved_share_name(share.name))
        return std::nullopt;
    StoredShare kept{share.name, {}};
    for (const auto &line : share.lines) {
        // Named, not bound: the lambda below captures the key.
        const std::string &key = line.first, &value = line.second;
        if (has_line_break(key) || has_line_break(value))
            return std::nullopt;
        const bool known = std::find(std::begin(kShareKeys), std::end(kShareKeys), key) !=
                           std::end(kShareKeys);
        const bool seen = std::any_of(kept.lines.begin(), kept.lines.end(),
                                      [&](const auto &kept_line) { return kept_line.first == key; });
        if (!known || seen) {
            KEMO_LOG("share [%s]: key [%s] not restored", share.name.c_str(), key.c_str());
            continue;
        }
        if (key == "path" && !on_a_volume(value))
            return std::nullopt;
        kept.lines.emplace_back(key, value);
    }
    const bool has_path = std::any_of(kept.lines.begin(), kept.lines.end(),
                                      [](const auto &line) { return line.first == "path"; });
    if (!has_path)
        return std::nullopt;
    return kept;
}

// The share sections of smb.conf ("global", USB and SATA disks left out:
// those describe this appliance and the disks plugged into it now).
bool read_shares(std::vector<StoredShare> &out)
{
    acc::Lines conf;
    if (!acc::read_lines(acc::kSmbConf, conf))
        return false;
    StoredShare *current = nullptr;
    for (const std::string &line : conf.lines) {
        if (kemo::sections::is_section(line)) {
            const auto close = line.find(']');
            const std::string name = line.substr(1, close - 1);
            const bool wanted = !acc::equal_nocase(name, "global") &&
                                !kemo::share::is_usb_section(name) &&
                                !kemo::share::is_sata_section(name);
            current = wanted ? &out.emplace_back(StoredShare{name, {}}) : nullptr;
            continue;
        }
        if (current == nullptr || line.empty() || line[0] == '#' || line[0] == ';')
            continue;
        if (const auto pair = kemo::split_pair(line))
            current->lines.emplace_back(pair->key, pair->value);
    }
    return true;
}

int export_shares(int fd)
{
    return kemo::sysbackup::write_section("KEMOSysbkpShareExport", fd, kShareId, [&] {
        std::vector<StoredShare> shares;
        {
            auto lock = acc::account_lock(acc::kShareReadLock, acc::kShareReadUnlock);
            if (!lock.held() || !read_shares(shares)) {
                KEMO_LOG("fail to read %s (%X)", acc::kSmbConf, KLIBErrGet());
                return false;
            }
        }
        Writer out{fd};
        out.number(static_cast<long>(shares.size()));
        for (const StoredShare &share : shares) {
            out.text(share.name).number(static_cast<long>(share.lines.size()));
            for (const auto &[key, value] : share.lines)
                out.text(key).text(value);
        }
        if (!out.ok)
            KEMO_LOG("fail to write the shares");
        return out.ok;
    }, kShareExportFailed);
}

// smb.conf with the restored shares' sections replacing those of the same
// name (without regard to case), the others appended; every other line
// stays as it was.
std::string merged_conf(const acc::Lines &conf, const std::vector<StoredShare> &shares)
{
    auto section_text = [](const StoredShare &share) {
        std::string text = "[" + share.name + "]\n";
        for (const auto &[key, value] : share.lines)
            text += "\t" + key + "=" + value + "\n";
        return text;
    };
    std::vector<bool> placed(shares.size());
    std::string out;
    bool skipping = false;
    for (const std::string &line : conf.lines) {
        if (kemo::sections::is_section(line)) {
            const std::string name = line.substr(1, line.find(']') - 1);
            skipping = false;
            for (std::size_t i = 0; i < shares.size(); ++i) {
                if (acc::same_name(shares[i].name, name)) {
                    skipping = true;
                    if (!placed[i])
                        out += section_text(shares[i]), placed[i] = true;
                    break;
                }
            }
            if (skipping)
                continue;
        }
        if (!skipping)
            out.append(line).push_back('\n');
    }
    for (std::size_t i = 0; i < shares.size(); ++i)
        if (!placed[i])
            out += section_text(shares[i]);
    return out;
}

int import_shares(int fd, int apply)
{
    Reader in{fd};
    std::vector<StoredShare> shares(static_cast<std::size_t>(in.count()));
    for (StoredShare &share : shares) {
        share.name = in.text();
        share.lines.resize(static_cast<std::size_t>(in.count()));
        for (auto &[key, value] : share.lines) {
            key = in.text();
            value = in.text();
        }
        if (!in.ok)
            break;
        std::optional<StoredShare> kept = restorable(share);
        if (!kept) {
            in.refuse("share", share.name, kShareNotRestored);
            break;
        }
        share = std::move(*kept);
    }
    if (!in.ok)
        return damaged("share", kShareImportFailed);
    if (apply == 0 || shares.empty())
        return 0;

    auto lock = acc::account_lock(acc::kAccountWriteLock, acc::kAccountWriteUnlock);
    acc::Lines conf;
    if (!lock.held() || !acc::read_lines(acc::kSmbConf, conf)) {
        KEMO_LOG("fail to read %s (%X)", acc::kSmbConf, KLIBErrGet());
        report(kShareImportFailed);
        return -1;
    }
    acc::Transaction txn;
    txn.stage(acc::kSmbConf, merged_conf(conf, shares));
    if (!txn.commit()) {
        KEMO_LOG("fail to write %s (%X)", acc::kSmbConf, KLIBErrGet());
        report(kShareImportFailed);
        return -1;
    }
    return 0;
}

} // namespace

extern "C" {

KEMO_API int KEMOSysbkpUserExport(int fd)
{
    return kemo::edge(-1, [&] { return export_users(fd); });
}

KEMO_API int KEMOSysbkpUserImport(int fd, uint32_t /*version*/, int apply)
{
    return kemo::edge(-1, [&] { return import_users(fd, apply); });
}

KEMO_API int KEMOSysbkpGroupExport(int fd)
{
    return kemo::edge(-1, [&] { return export_groups(fd); });
}

KEMO_API int KEMOSysbkpGroupImport(int fd, uint32_t /*version*/, int apply)
{
    return kemo::edge(-1, [&] { return import_groups(fd, apply); });
}

KEMO_API int KEMOSysbkpShareExport(int fd)
{
    return kemo::edge(-1, [&] { return export_shares(fd); });
}

KEMO_API int KEMOSysbkpShareImport(int fd, uint32_t /*version*/, int apply)
{
    return kemo::edge(-1, [&] { return import_shares(fd, apply); });
}

} // extern "C"
