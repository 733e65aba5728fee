// The gid allocator of new groups: gids 65536 to 196607 handed out in
// turn, its position kept in an index line of /etc/group.
#include "kemogrp_internal.hpp"

namespace kemo::groups {

namespace {
constexpr std::string_view kIndexTag = "_@GID__INDEX@_";

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

} // namespace

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


} // namespace kemo::groups

using namespace kemo::groups;
using kemo::fail;

extern "C" {

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

} // extern "C"
