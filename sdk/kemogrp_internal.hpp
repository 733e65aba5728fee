// Internal helpers of the group modules (kemogrp*.cpp): the entries of
// /etc/group (members between two "nobody" sentinels, the tail of groups
// that mirror a Windows group), lookups by name, and the gid allocator.
#pragma once

#include "kemo_accounts.hpp"
#include "kemo_io.hpp"

#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <strings.h>
#include <vector>

namespace kemo::groups {

namespace acc = kemo::accounts;

// Gids handed out to new groups.
inline constexpr int kFirstGid = 65536;
inline constexpr int kLastGid = 196607;
// Tail flags: the group mirrors a Windows (NT) group; it was written back
// under its own name.
inline constexpr int kMirrorFlag = 0x2;
inline constexpr int kOwnNameFlag = 0x1;

inline bool equals_ascii_nocase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// The sentinel member that keeps a member field non-empty; never returned.
inline bool is_sentinel(std::string_view member)
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
inline std::optional<Group> parse_group(std::string_view line)
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
inline std::string group_line(std::string_view name, int gid, const std::vector<std::string> &members,
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

// The line index and entry of group `key` (upper-cased name) in `file`.
struct Found {
    std::size_t at;
    Group group;
};
inline std::optional<Found> find_in(const acc::Lines &file, std::string_view key)
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
inline int find_local(std::string_view name, Group &out)
{
    const auto key = acc::upper(name);
    if (!key)
        return 0;
    return scan_file([&](const Group &g) { return acc::upper(g.name) == key; }, out);
}

inline bool is_wheel(std::string_view name)
{
    return equals_ascii_nocase(name, "wheel");
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


// Takes the next free gid for the group file in `file`: probing from the
// index line's position (65536 without one) upwards, wrapping after
// 196607, and advancing the index line (appended when missing).  -1 when
// every gid of the range is in use.
int take_gid(acc::Lines &file);

} // namespace kemo::groups
