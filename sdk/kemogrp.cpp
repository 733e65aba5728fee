// Local groups: /etc/group (members between two "nobody" sentinels, the gid
// allocator's index line, the tail of groups that mirror a Windows group),
// their descriptions in /etc/group_desc, the "@group" members of the share
// access lists, and the static-record readers of the group file.
#include "kemo_accounts.hpp"
#include "kemo_io.hpp"

#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <strings.h>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

namespace acc = kemo::accounts;
using kemo::fail;

// Gids handed out to new groups, and the allocator's index line.
constexpr int kFirstGid = 65536;
constexpr int kLastGid = 196607;
constexpr std::string_view kIndexTag = "_@GID__INDEX@_";
// Tail flags: the group mirrors a Windows (NT) group; it was written back
// under its own name.
constexpr int kMirrorFlag = 0x2;
constexpr int kOwnNameFlag = 0x1;
// Descriptions are rewritten under an exclusive lock of the group file.
constexpr int kGroupDescWriteLock = KLIB_LOCK_GR | KLIB_LOCK_EX | KLIB_LOCK_NB;

bool equals_ascii_nocase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// The sentinel member that keeps a member field non-empty; never returned.
bool is_sentinel(std::string_view member)
{
    return equals_ascii_nocase(member, "nobody");
}

template <class Int> bool to_number(std::string_view text, Int &value)
{
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc() && end == text.data() + text.size() && !text.empty();
}

// One entry of /etc/group.
struct Group {
    std::string name;
    std::string passwd;
    int gid = 0;
    int flags = 0;
    std::string name2;
    unsigned long number = 0;
    std::vector<std::string> members; // without the sentinels
};

// The entry a line holds: "name:passwd:gid:members[:flags:name2:number]".
// Comments, blank lines and lines without a name or a numeric gid are not
// entries (the writers carry them over as they are).
std::optional<Group> parse_group(std::string_view line)
{
    line = kemo::chomp(line);
    if (line.empty() || line.front() == '#')
        return std::nullopt;
    const auto fields = acc::split(line, ':');
    Group g;
    if (fields.size() < 4 || fields[0].empty() || !to_number(fields[2], g.gid))
        return std::nullopt;
    g.name = fields[0];
    g.passwd = fields[1];
    for (const std::string_view member : acc::split(fields[3], ','))
        if (!member.empty() && !is_sentinel(member))
            g.members.emplace_back(member);
    if (fields.size() > 4 && !to_number(fields[4], g.flags))
        g.flags = 0;
    if (fields.size() > 5)
        g.name2 = fields[5];
    if (fields.size() > 6 && !to_number(fields[6], g.number))
        g.number = 0;
    return g;
}

// "name:x:gid:nobody,m1,m2,nobody", with ":flags:name2:number" when the
// tail is written.
std::string group_line(std::string_view name, int gid, const std::vector<std::string> &members,
                       const Group *tail = nullptr, int tail_flags = 0)
{
    std::string line(name);
    line += ":x:" + std::to_string(gid) + ":nobody,";
    for (const std::string &m : members)
        line += m + ',';
    line += "nobody";
    if (tail != nullptr)
        line += ':' + std::to_string(tail_flags) + ':' + tail->name2 + ':' +
                std::to_string(tail->number);
    return line;
}

// The next gid stored in an index line ("#$_@GID__INDEX@_$<gid>$"), or
// nullopt for any other line.
std::optional<int> index_value(std::string_view line)
{
    line = kemo::chomp(line);
    if (line.find('#') == std::string_view::npos)
        return std::nullopt;
    std::vector<std::string_view> tokens;
    for (const std::string_view piece : acc::split(line, '#'))
        for (const std::string_view token : acc::split(piece, '$'))
            if (!token.empty())
                tokens.push_back(token);
    int next = 0;
    if (tokens.size() < 2 || tokens[0] != kIndexTag || !to_number(tokens[1], next))
        return std::nullopt;
    return next;
}

// Takes the next free gid for the group file in `file`: probing from the
// index line's position (65536 without one) upwards, wrapping after
// 196607, and advancing the index line (appended when missing).  -1 when
// every gid of the range is in use.
int take_gid(acc::Lines &file)
{
    std::vector<bool> used(kLastGid - kFirstGid + 1);
    std::optional<std::size_t> index_at;
    int start = kFirstGid;
    for (std::size_t i = 0; i < file.lines.size(); ++i) {
        if (!index_at) {
            if (const auto next = index_value(file.lines[i])) {
                index_at = i;
                // A value outside the range would hand out system gids.
                start = *next >= kFirstGid && *next <= kLastGid ? *next : kFirstGid;
                continue;
            }
        }
        if (const auto g = parse_group(file.lines[i]);
            g && g->gid >= kFirstGid && g->gid <= kLastGid)
            used[static_cast<std::size_t>(g->gid - kFirstGid)] = true;
    }
    int gid = start;
    while (used[static_cast<std::size_t>(gid - kFirstGid)]) {
        gid = gid == kLastGid ? kFirstGid : gid + 1;
        if (gid == start)
            return -1;
    }
    const int next = gid == kLastGid ? kFirstGid : gid + 1;
    std::string index = "#$" + std::string(kIndexTag) + "$" + std::to_string(next) + "$";
    if (index_at) {
        file.lines[*index_at] = std::move(index);
    } else {
        file.lines.push_back(std::move(index));
        file.final_newline = true;
    }
    return gid;
}

// The line index and entry of group `key` (upper-cased name) in `file`.
struct Found {
    std::size_t at;
    Group group;
};
std::optional<Found> find_in(const acc::Lines &file, std::string_view key)
{
    for (std::size_t i = 0; i < file.lines.size(); ++i) {
        auto g = parse_group(file.lines[i]);
        if (g && acc::upper(g->name) == key)
            return Found{i, std::move(*g)};
    }
    return std::nullopt;
}

// Scans /etc/group for the first entry that `match` accepts.  1 found (in
// out), 0 none, -1 with the read error set.
template <class Match> int scan_file(Match &&match, Group &out)
{
    bool found = false;
    const int result = kemo::for_each_line(acc::kGroup, [&](std::string_view line) {
        auto g = parse_group(line);
        if (!g || !match(*g))
            return 1;
        out = std::move(*g);
        found = true;
        return 0;
    });
    return result < 0 ? -1 : found ? 1 : 0;
}

// The local group of that name (without regard to case): 1, 0, -1.
int find_local(std::string_view name, Group &out)
{
    const auto key = acc::upper(name);
    if (!key)
        return 0;
    return scan_file([&](const Group &g) { return acc::upper(g.name) == key; }, out);
}

bool is_wheel(std::string_view name)
{
    return equals_ascii_nocase(name, "wheel");
}

// ------------------------------------------------------ static records

struct Record {
    std::string name, passwd, name2;
    std::vector<std::string> members;
    std::vector<char *> pointers;
    KLIBGROUP group{};
};

Record &record()
{
    static Record r;
    return r;
}

// Moves g into the static record, valid until the next reader call.
PKLIBGROUP publish(Group &&g)
{
    Record &r = record();
    r.name = std::move(g.name);
    r.passwd = std::move(g.passwd);
    r.name2 = std::move(g.name2);
    r.members = std::move(g.members);
    r.pointers.clear();
    for (std::string &m : r.members)
        r.pointers.push_back(m.data());
    r.pointers.push_back(nullptr);
    r.group = KLIBGROUP{r.name.data(), r.passwd.data(),  g.gid, g.flags, r.name2.data(),
                        g.number,      r.pointers.data()};
    return &r.group;
}

// The open group file of the entry-by-entry readers.
struct Scanner {
    std::unique_ptr<kemo::LineReader> reader;
    kemo::FilePtr file;
    void close()
    {
        reader.reset();
        file.reset();
    }
};
Scanner &scanner()
{
    static Scanner s;
    return s;
}

// A list block freed at the end of the scope (functions that grow it take
// the address of `p`).
struct OwnedList {
    PKLIBSZLIST p;
    explicit OwnedList(int size) : p(PslKLIBSzListAlloc(size)) {}
    ~OwnedList() { KLIBSzListFree(p); }
    OwnedList(const OwnedList &) = delete;
    OwnedList &operator=(const OwnedList &) = delete;
};

// ------------------------------------------------------ two-call buffers

// ------------------------------------------------------ enumeration

// The group names the enumeration filter yields: local groups of gid 65536
// and above and "users", once each without regard to case, in file order;
// then the domain groups when a domain is joined.  false with the error
// code set.
bool collect_names(int flags, std::vector<std::string> &names)
{
    if (flags == 0 || (flags & KEMO_GROUP_LOCAL) != 0) {
        std::unordered_set<std::string> seen;
        const int result = kemo::for_each_line(acc::kGroup, [&](std::string_view line) {
            auto g = parse_group(line);
            if (!g || is_wheel(g->name))
                return 1;
            if (g->gid < kFirstGid && !equals_ascii_nocase(g->name, "users"))
                return 1;
            if (seen.insert(acc::upper(g->name).value_or(g->name)).second)
                names.push_back(std::move(g->name));
            return 1;
        });
        if (result < 0)
            return false;
    }
    if ((flags == 0 || (flags & KEMO_GROUP_DOMAIN) != 0) &&
        acc::setting(acc::kSettings, "domainjoined") == "yes") {
        OwnedList list(1024);
        if (list.p == nullptr || KEMOPushDGroup(&list.p) < 0)
            return false;
        for (int i = 0; i < list.p->nItem; ++i)
            names.emplace_back(list.p->pszItem[i]);
    }
    return true;
}

// The same, read under the group readers' lock.
bool read_names(int flags, std::vector<std::string> &names)
{
    acc::FileLock lock(acc::kGroupReadLock, acc::kGroupReadUnlock);
    if (!lock.held())
        return fail(false, ERR_LOCK_FAILED);
    return collect_names(flags, names) && lock.release();
}

// ------------------------------------------------------ set and delete

// Stages the rewrite of /etc/group_desc: lines whose name is a key of map
// are renamed (value) or dropped (nullopt).  Unchanged: nothing staged.
bool stage_desc_rewrite(acc::Transaction &txn, const acc::MemberMap &map)
{
    acc::Lines file;
    if (!acc::read_lines(acc::kGroupDesc, file, true))
        return false;
    acc::Lines out; // every line ends with a newline again
    bool changed = false;
    for (std::string &line : file.lines) {
        const auto colon = line.find(':');
        const auto key = acc::upper(std::string_view(line).substr(0, colon));
        const auto hit = key ? map.find(*key) : map.end();
        if (hit == map.end()) {
            out.lines.push_back(std::move(line));
            continue;
        }
        changed = true;
        if (hit->second)
            out.lines.push_back(*hit->second +
                                (colon == std::string::npos ? "" : line.substr(colon)));
    }
    if (changed)
        txn.stage(acc::kGroupDesc, acc::join_lines(out));
    return true;
}

int set_group(const char *old_name, const char *const *request)
{
    const std::string name = request[0];
    std::vector<std::string> members;
    for (const char *const *p = request + 1; *p != nullptr; ++p) {
        const std::string_view member(*p);
        if (member.empty() || is_sentinel(member))
            continue;
        // A member must not break the line or the list it is written into.
        if (member.find_first_of(":,\n\r") != std::string_view::npos) {
            KEMO_LOG("kemogrp: KEMOGroupSet(): bad member; szMember=%s", *p);
            return fail(-1, ERR_BAD_PARAMETERS);
        }
        members.emplace_back(member);
    }

    acc::FileLock lock(acc::kAccountWriteLock, acc::kAccountWriteUnlock);
    if (!lock.held()) {
        KEMO_LOG("kemogrp: KEMOGroupSet(): ErrKLIBFileLock() failed");
        return fail(-1, ERR_LOCK_FAILED);
    }
    const auto key = acc::upper(name);
    if (!BlKLIBIsGroupName(name.c_str()) || !key) {
        KEMO_LOG(
            "kemogrp: KEMOGroupSet(): BlKLIBIsGroupName(szNewName) failed\t\t\t   szNewName=%s",
            name.c_str());
        return fail(-1, ERR_INVALID_GROUPNAME);
    }
    const bool modify = old_name != nullptr && *old_name != '\0';
    const bool same = modify && acc::same_name(old_name, name);
    if (!same && acc::is_system_group(name, kFirstGid)) {
        KEMO_LOG("kemogrp: KEMOGroupSet(): system group name refused; szNewName=%s", name.c_str());
        return fail(-1, ERR_ACCESS_DENIED);
    }

    acc::Lines file;
    if (!acc::read_lines(acc::kGroup, file))
        return -1;
    if (!same && find_in(file, *key)) {
        KEMO_LOG(
            "kemogrp: KEMOGroupSet(): group exists!! or\t\t\t    PgrpKLIBGetLocalGrName(szName) "
            "failed, szName=%s",
            name.c_str());
        return fail(-1, ERR_GROUP_EXISTS);
    }

    acc::Transaction txn;
    if (!modify) {
        const int gid = take_gid(file);
        if (gid < 0) {
            KEMO_LOG("kemogrp: KEMOGroupSet(): GROUPIGetFreeGid() failed");
            return fail(-1, ERR_TOO_MANY_GROUPS);
        }
        file.lines.push_back(group_line(name, gid, members));
        file.final_newline = true;
        txn.stage(acc::kGroup, acc::join_lines(file));
    } else {
        const auto old_key = acc::upper(old_name);
        auto old = old_key ? find_in(file, *old_key) : std::nullopt;
        if (!old) {
            KEMO_LOG("kemogrp: KEMOGroupSet(): no such group!!");
            return fail(-1, ERR_NO_SUCH_GROUP);
        }
        const Group &g = old->group;
        if (acc::is_system_group(g.name, g.gid) || (acc::is_fixed_group(g.name) && g.name != name)) {
            KEMO_LOG("kemogrp: KEMOGroupSet(): group [%s] may not be changed", g.name.c_str());
            return fail(-1, ERR_ACCESS_DENIED);
        }
        const bool mirror = (g.flags & kMirrorFlag) != 0;
        file.lines[old->at] = mirror && same
                                  ? group_line(name, g.gid, members, &g, g.flags | kOwnNameFlag)
                                  : group_line(name, g.gid, members);
        // A renamed mirror group leaves an empty group under the Windows
        // group's own name, unless one is there already.
        const auto key2 = acc::upper(g.name2);
        if (mirror && !same && key2 && !key2->empty() && !find_in(file, *key2)) {
            const int gid = take_gid(file);
            if (gid < 0) {
                KEMO_LOG("kemogrp: KEMOGroupSet(): GROUPIGetFreeGid() failed");
                return fail(-1, ERR_TOO_MANY_GROUPS);
            }
            file.lines.push_back(group_line(g.name2, gid, {}, &g, g.flags & ~kOwnNameFlag));
            file.final_newline = true;
        }
        txn.stage(acc::kGroup, acc::join_lines(file));
        if (g.name != name) {
            // Share lists and the description follow the new spelling; a
            // stale description left under the new name gives way.
            const acc::MemberMap shares{{*old_key, name}};
            if (!acc::stage_list_rewrite(txn, shares, "@", false)) {
                KEMO_LOG("kemogrp: KEMOGroupSet(): share list rewrite failed; szOldGroup=%s, "
                         "szNewGroup=%s",
                         g.name.c_str(), name.c_str());
                return -1;
            }
            acc::MemberMap descs = shares;
            descs.emplace(*key, std::nullopt);
            if (!stage_desc_rewrite(txn, descs))
                return -1;
        }
    }
    if (!txn.commit()) {
        KEMO_LOG("kemogrp: KEMOGroupSet(): commit failed; szName=%s (%X)", name.c_str(),
                 KLIBErrGet());
        return -1;
    }
    if (!lock.release()) {
        KEMO_LOG("kemogrp: KEMOGroupSet(): KLIBErrKLIBFileUnlock() failed!!");
        return -1;
    }
    return 0;
}

int delete_groups(const char *const *names, int count)
{
    acc::FileLock lock(acc::kGroupDeleteLock, acc::kGroupDeleteUnlock);
    if (!lock.held())
        return fail(-1, ERR_LOCK_FAILED);
    acc::MemberMap doomed;
    for (int i = 0; i < count; ++i) {
        if (names[i] == nullptr)
            continue;
        const auto key = acc::upper(names[i]);
        if (!key) // not UTF-8: names no group
            continue;
        if (!doomed.emplace(*key, std::nullopt).second) {
            KEMO_LOG(
                "kemogroup: KEMOGroupDelete(): SzKLIBSzHashGetValue(*pslhashDel, szNameUpper); "
                "\t\t\t\t   Duplicate group names; szNameUpper = [%s]\n",
                key->c_str());
            return fail(-1, ERR_BAD_PARAMETERS);
        }
    }

    acc::Lines file;
    if (!acc::read_lines(acc::kGroup, file))
        return -1;
    acc::Lines kept;
    int removed = 0;
    for (std::size_t i = 0; i < file.lines.size(); ++i) {
        const auto g = parse_group(file.lines[i]);
        const auto key = g ? acc::upper(g->name) : std::nullopt;
        if (!key || !doomed.contains(*key)) {
            kept.lines.push_back(std::move(file.lines[i]));
            kept.final_newline = i + 1 < file.lines.size() || file.final_newline;
            continue;
        }
        if (acc::is_system_group(g->name, g->gid) || acc::is_fixed_group(g->name)) {
            KEMO_LOG("kemogroup: KEMOGroupDelete(): group [%s] may not be deleted", g->name.c_str());
            return fail(-1, ERR_ACCESS_DENIED);
        }
        if ((g->flags & kMirrorFlag) != 0) {
            KEMO_LOG(
                "kemogroup: SDKIModifyGroupFile(): Can't delete domain group; [szName] == [%s]\n",
                g->name.c_str());
            return fail(-1, ERR_ACCESS_DENIED);
        }
        ++removed;
    }
    KEMO_LOG("kemogroup: iNumDel = [%d]\n", removed);

    acc::Transaction txn;
    if (removed > 0)
        txn.stage(acc::kGroup, acc::join_lines(kept));
    if (!acc::stage_list_rewrite(txn, doomed, "@", false)) {
        KEMO_LOG("kemogroup: KEMOGroupDelete(): SDKIDelGrpInSmbConf() returned -1!\n");
        return -1;
    }
    if (!stage_desc_rewrite(txn, doomed))
        return -1;
    if (!txn.empty() && !txn.commit()) {
        KEMO_LOG("kemgroup: KEMOGroupDelete(): SDKIDelRenameTmpFile() returned -1!\n");
        return -1;
    }
    return lock.release() ? 0 : -1;
}

// The /etc/passwd entries: name and primary gid.
struct PasswdEntry {
    std::string name;
    int gid;
};
bool read_passwd(std::vector<PasswdEntry> &out)
{
    return kemo::for_each_line(acc::kPasswd, [&](std::string_view line) {
               line = kemo::chomp(line);
               if (line.empty() || line.front() == '#')
                   return 1;
               const auto fields = acc::split(line, ':');
               int gid = 0;
               if (fields.size() >= 4 && !fields[0].empty() && to_number(fields[3], gid))
                   out.push_back({std::string(fields[0]), gid});
               return 1;
           }) == 0;
}

} // namespace

extern "C" {

// ------------------------------------------------------ low-level readers

KEMO_API int KLIBIGrpStart(void)
{
    return kemo::edge(-1, [] {
        Scanner &s = scanner();
        s.close();
        s.file = kemo::open_file(acc::kGroup, "r");
        if (!s.file)
            return fail(-1, ERR_OPEN_FAILED);
        s.reader = std::make_unique<kemo::LineReader>(s.file.get());
        return 0;
    });
}

// Enumeration (search 0) passes over "wheel", the system's group of
// administrators allowed to switch user, which is none of the appliance's
// groups; a lookup by name or gid finds it like any other.
KEMO_API int KLIBIGrpScan1(int search, const char *name, int gid)
{
    if (search < 0 || search > 2 || (search == 1 && name == nullptr))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        Scanner &s = scanner();
        if (!s.reader && KLIBIGrpStart() < 0)
            return -1;
        const auto key = search == 1 ? acc::upper(name) : std::nullopt;
        if (search == 1 && !key)
            return 0;
        std::string_view line;
        while (s.reader->next(line)) {
            auto g = parse_group(line);
            if (!g)
                continue;
            const bool match = search == 0   ? !is_wheel(g->name)
                               : search == 1 ? acc::upper(g->name) == key
                                             : g->gid == gid;
            if (match) {
                publish(std::move(*g));
                return 1;
            }
        }
        return s.reader->failed() ? fail(-1, ERR_READ_FAILED) : 0;
    });
}

KEMO_API PKLIBGROUP PgrpKLIBGetLocalGrEnt(void)
{
    return KLIBIGrpScan1(0, nullptr, 0) == 1 ? &record().group : nullptr;
}

KEMO_API PKLIBGROUP PgrpKLIBGetLocalGrNam(const char *name)
{
    if (name == nullptr)
        return fail<PKLIBGROUP>(nullptr, ERR_BAD_PARAMETERS);
    return kemo::edge<PKLIBGROUP>(nullptr, [&]() -> PKLIBGROUP {
        Group g;
        const int found = find_local(name, g);
        if (found <= 0)
            return found < 0 ? nullptr : fail<PKLIBGROUP>(nullptr, ERR_NO_SUCH_GROUP);
        return publish(std::move(g));
    });
}

KEMO_API PKLIBGROUP PgrpKLIBGetLocalGrGid(int gid)
{
    return kemo::edge<PKLIBGROUP>(nullptr, [&]() -> PKLIBGROUP {
        Group g;
        const int found = scan_file([&](const Group &e) { return e.gid == gid; }, g);
        if (found <= 0)
            return found < 0 ? nullptr : fail<PKLIBGROUP>(nullptr, ERR_NO_SUCH_GROUP);
        return publish(std::move(g));
    });
}

// A domain group's record carries gid -1: the domain lists hold names and
// members only.
KEMO_API PKLIBGROUP KLIBGetGrNam(const char *name)
{
    if (name == nullptr)
        return fail<PKLIBGROUP>(nullptr, ERR_BAD_PARAMETERS);
    if (IsDomainUG(name) != 2)
        return PgrpKLIBGetLocalGrNam(name);
    return kemo::edge<PKLIBGROUP>(nullptr, [&]() -> PKLIBGROUP {
        OwnedList list(1024);
        if (list.p == nullptr)
            return nullptr;
        if (KEMOGetDGRPMem(name, &list.p) < 0)
            return fail<PKLIBGROUP>(nullptr, ERR_NO_SUCH_GROUP);
        Group g;
        g.name = name;
        g.passwd = "x";
        g.gid = -1;
        for (int i = 0; i < list.p->nItem; ++i)
            if (!is_sentinel(list.p->pszItem[i]))
                g.members.emplace_back(list.p->pszItem[i]);
        return publish(std::move(g));
    });
}

KEMO_API void KLIBEndGrEnt(void)
{
    scanner().close();
}

// ------------------------------------------------------ groups

KEMO_API int KEMOGroupGet(int flags, int type, const char *name, char **out, int size, int *needed)
{
    if (flags < 0 || (flags != 0 && (flags & (KEMO_GROUP_LOCAL | KEMO_GROUP_DOMAIN)) == 0) ||
        type != KEMO_ACCOUNT_LOCAL || name == nullptr || *name == '\0' || needed == nullptr ||
        size < 0 || (out == nullptr && size != 0))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        acc::FileLock lock(acc::kGroupReadLock, acc::kGroupReadUnlock);
        if (!lock.held())
            return fail(-1, ERR_LOCK_FAILED);
        std::vector<std::string> texts;
        Group g;
        const int found = find_local(name, g);
        if (found < 0)
            return -1;
        if (found == 1) {
            texts.push_back(std::move(g.name));
            for (std::string &m : g.members)
                texts.push_back(std::move(m));
        } else if (flags == 0 || (flags & KEMO_GROUP_DOMAIN) != 0) {
            OwnedList list(1024);
            if (list.p == nullptr)
                return -1;
            if (KEMOGetDGRPMem(name, &list.p) >= 0) {
                texts.emplace_back(name);
                for (int i = 0; i < list.p->nItem; ++i)
                    if (!is_sentinel(list.p->pszItem[i]))
                        texts.emplace_back(list.p->pszItem[i]);
            }
        }
        if (texts.empty())
            return fail(-1, ERR_NO_SUCH_GROUP);
        if (!lock.release())
            return -1;
        const long long total = acc::packed_size(texts);
        if (total < 0)
            return fail(-1, ERR_OUT_OF_MEMORY);
        *needed = static_cast<int>(total);
        if (out == nullptr)
            return 0;
        if (total > size)
            return fail(0, ERR_NOT_ENOUGH_MEMORY);
        acc::pack(texts, out, size);
        return 1;
    });
}

KEMO_API int KEMOGroupEnum(int flags, char **out, int size, int *needed)
{
    if (flags < 0 || flags > 3 || !acc::enum_arguments_ok(out, size, needed))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        std::vector<std::string> names;
        return read_names(flags, names) ? acc::store_names(names, out, size, needed) : -1;
    });
}

KEMO_API int KEMOGroupTotalNum(int flags)
{
    if (flags < 0 || flags > 3)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        std::vector<std::string> names;
        return read_names(flags, names) ? static_cast<int>(names.size()) : -1;
    });
}

KEMO_API int KEMOGroupSet(int flags, int type, const char *oldName, const char *const *group)
{
    if (flags < 0 || flags > 3 || type != KEMO_ACCOUNT_LOCAL || group == nullptr ||
        group[0] == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return set_group(oldName, group); });
}

KEMO_API int KEMOGroupDelete(const char *const *names, int count)
{
    if (names == nullptr || count <= 0) {
        KEMO_LOG("kemogroup: KEMOGroupDelete(): Bad arguments; nItem = [%d], pszList = [%p]\n",
                 count, static_cast<const void *>(names));
        return fail(-1, ERR_BAD_PARAMETERS);
    }
    return kemo::edge(-1, [&] { return delete_groups(names, count); });
}

KEMO_API int KEMOGroupGetDesc(const char *name, char *out, int size, int *needed)
{
    if (name == nullptr || needed == nullptr || size < 0 || (out == nullptr && size != 0))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        acc::FileLock lock(acc::kGroupDescLock, acc::kGroupDescUnlock);
        if (!lock.held())
            return fail(-1, ERR_LOCK_FAILED);
        const auto key = acc::upper(name);
        std::string stored;
        bool found = false;
        const int read = kemo::for_each_line(acc::kGroupDesc, [&](std::string_view line) {
            line = kemo::chomp(line);
            if (acc::upper(line.substr(0, line.find(':'))) != key)
                return 1;
            stored = line;
            found = true;
            return 0;
        });
        if (read < 0)
            return -1;
        if (!key || !found)
            return fail(-1, ERR_KEY_NOT_FOUND);
        const auto fields = acc::split(stored, ':');
        if (fields.size() != 2)
            return fail(-1, ERR_FORMAT_ERROR);
        const std::string encoded(fields[1]);
        std::string text(encoded.size() + 1, '\0');
        const int length =
            KLIBStrDecodeColon(encoded.c_str(), text.data(), static_cast<int>(encoded.size()));
        if (length < 0) {
            KEMO_LOG("%d: KLIBStrDecodeColon failed.(%X)", __LINE__, KLIBErrGet());
            text = encoded;
        } else {
            text.resize(static_cast<std::size_t>(length));
        }
        if (!lock.release())
            return -1;
        *needed = static_cast<int>(text.size() + 1);
        if (out == nullptr)
            return 0;
        if (*needed > size)
            return fail(-1, ERR_NOT_ENOUGH_MEMORY);
        std::memcpy(out, text.c_str(), text.size() + 1);
        return 1;
    });
}

KEMO_API int KEMOGroupSetDesc(const char *name, const char *desc)
{
    if (name == nullptr || desc == nullptr || *name == '\0' ||
        std::strpbrk(name, ":\n\r") != nullptr || std::strpbrk(desc, "\n\r") != nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        const auto key = acc::upper(name);
        if (!key)
            return fail(-1, ERR_BAD_PARAMETERS);
        const std::size_t length = std::strlen(desc);
        std::string encoded(2 * length + 1, '\0');
        const int written = KLIBStrEncodeColon(desc, encoded.data(), static_cast<int>(2 * length));
        if (written < 0) {
            KEMO_LOG("(%d) KLIBStrEncodeColon failed\n", __LINE__);
            return -1;
        }
        encoded.resize(static_cast<std::size_t>(written));

        acc::FileLock lock(kGroupDescWriteLock, acc::kGroupDescUnlock);
        if (!lock.held())
            return fail(-1, ERR_LOCK_FAILED);
        acc::Transaction txn;
        // The group's old lines go, its new line goes to the end.
        if (!stage_desc_rewrite(txn, acc::MemberMap{{*key, std::nullopt}})) {
            KEMO_LOG("%d: %s can not delete line (szNameKey=%s) (%X)", __LINE__, acc::kGroupDesc,
                     name, KLIBErrGet());
            return -1;
        }
        std::string content;
        if (!txn.current(acc::kGroupDesc, content, true))
            return -1;
        if (!content.empty() && content.back() != '\n')
            content += '\n';
        const std::string line = std::string(name) + ':' + encoded;
        content += line + '\n';
        txn.stage(acc::kGroupDesc, std::move(content));
        if (!txn.commit()) {
            KEMO_LOG("%d: %s can not add line (szLine=%s)(%X)", __LINE__, acc::kGroupDesc,
                     line.c_str(), KLIBErrGet());
            return -1;
        }
        return lock.release() ? 0 : -1;
    });
}

KEMO_API int GROUPParseCreateParam(const char *text, char ***group)
{
    if (text == nullptr || group == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        const std::string_view all(text);
        const auto colon = all.find(':');
        if (colon == std::string_view::npos) {
            KEMO_LOG("kemogrp: GROUPParseCreateParam(): bad parameters: ':' not found!");
            return fail(-1, ERR_BAD_PARAMETERS);
        }
        std::vector<std::string_view> texts{all.substr(0, colon)};
        for (const std::string_view member : acc::split(all.substr(colon + 1), ','))
            if (!member.empty())
                texts.push_back(member);
        // One block: the NULL-ended pointer array, then the texts.
        std::size_t bytes = (texts.size() + 1) * sizeof(char *);
        for (const std::string_view t : texts)
            bytes += t.size() + 1;
        auto **array = static_cast<char **>(std::malloc(bytes));
        if (array == nullptr) {
            KEMO_LOG("kemogrp: GROUPParseCreateParam(): KEMOMAlloc() failed");
            return fail(-1, ERR_OUT_OF_MEMORY);
        }
        char *cursor = reinterpret_cast<char *>(array + texts.size() + 1);
        for (std::size_t i = 0; i < texts.size(); ++i) {
            std::memcpy(cursor, texts[i].data(), texts[i].size());
            cursor[texts[i].size()] = '\0';
            array[i] = cursor;
            cursor += texts[i].size() + 1;
        }
        array[texts.size()] = nullptr;
        *group = array;
        return static_cast<int>(texts.size() - 1);
    });
}

KEMO_API int GROUPIGetFreeGid(void)
{
    return kemo::edge(-1, [] {
        acc::Lines file;
        if (!acc::read_lines(acc::kGroup, file))
            return -1;
        const int gid = take_gid(file);
        if (gid < 0)
            return fail(-1, ERR_TOO_MANY_GROUPS);
        acc::Transaction txn;
        txn.stage(acc::kGroup, acc::join_lines(file));
        return txn.commit() ? gid : -1;
    });
}

KEMO_API int GROUPIListMember(const char *name, PKLIBSZLIST *list, const KLIBGROUP *entry)
{
    if (name == nullptr || list == nullptr || *list == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        Group g;
        if (entry != nullptr) {
            g.name = entry->gr_name != nullptr ? entry->gr_name : name;
            g.gid = entry->gr_gid;
            for (char **m = entry->gr_mem; m != nullptr && *m != nullptr; ++m)
                if (!is_sentinel(*m))
                    g.members.emplace_back(*m);
        } else {
            const int found = find_local(name, g);
            if (found <= 0)
                return found < 0 ? -1 : fail(-1, ERR_NO_SUCH_GROUP);
        }
        std::vector<PasswdEntry> accounts;
        if (!read_passwd(accounts))
            return fail(-1, ERR_OPEN_FAILED);
        std::unordered_map<std::string, std::size_t> by_key;
        for (std::size_t i = 0; i < accounts.size(); ++i)
            if (const auto key = acc::upper(accounts[i].name))
                by_key.emplace(*key, i);

        // Each account once, under the spelling of /etc/passwd: the users
        // whose primary group this is, then the listed members.
        std::vector<bool> taken(accounts.size());
        std::vector<std::size_t> result;
        const auto take = [&](std::size_t i) {
            if (!taken[i]) {
                taken[i] = true;
                result.push_back(i);
            }
        };
        if (acc::same_name(g.name, "users")) {
            const bool hide_guest = !acc::guest_support();
            for (std::size_t i = 0; i < accounts.size(); ++i)
                if (accounts[i].gid == g.gid &&
                    !(hide_guest && acc::same_name(accounts[i].name, "guest")))
                    take(i);
        }
        for (const std::string &member : g.members) {
            const auto key = acc::upper(member);
            const auto hit = key ? by_key.find(*key) : by_key.end();
            if (hit != by_key.end())
                take(hit->second);
        }
        if (result.empty())
            return fail(-1, ERR_NO_SUCH_USER);
        for (const std::size_t i : result)
            if (KLIBSzListPush(list, accounts[i].name.c_str()) < 0)
                return -1;
        return static_cast<int>(result.size());
    });
}

} // extern "C"
