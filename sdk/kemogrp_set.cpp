// Changes of local groups: creation, change of members, renames that carry
// over to the share lists and descriptions, deletion, and descriptions.
// Each change is one account transaction.
#include "kemogrp_internal.hpp"
#include "kemostr.hpp"

#include <cstring>
#include <unordered_map>

namespace kemo::groups {

namespace {

// Descriptions are rewritten under an exclusive lock of the group file.
constexpr int kGroupDescWriteLock = KLIB_LOCK_GR | KLIB_LOCK_EX | KLIB_LOCK_NB;

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

} // namespace

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

    auto lock = acc::account_lock(acc::kAccountWriteLock, acc::kAccountWriteUnlock);
    if (!lock.held()) {
        KEMO_LOG("kemogrp: KEMOGroupSet(): ErrKLIBFileLock() failed");
        return fail(-1, ERR_LOCK_FAILED);
    }
    const auto key = acc::upper(name);
    if (!kemo::strings::is_group_name(name) || !key) {
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
    auto lock = acc::account_lock(acc::kGroupDeleteLock, acc::kGroupDeleteUnlock);
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

int set_desc(const char *name, const char *desc)
{
    const auto key = acc::upper(name);
    if (!key)
        return fail(-1, ERR_BAD_PARAMETERS);
    const std::string encoded = kemo::strings::encode_colon(desc);

    auto lock = acc::account_lock(kGroupDescWriteLock, acc::kGroupDescUnlock);
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
}

} // namespace kemo::groups

using namespace kemo::groups;
using kemo::fail;

extern "C" {

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

KEMO_API int KEMOGroupSetDesc(const char *name, const char *desc)
{
    if (!desc_arguments_ok(name, desc))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return set_desc(name, desc); });
}

} // extern "C"
