// Internal helpers of the group modules (kemogrp*.cpp): the entries of
// /etc/group (members between two "nobody" sentinels, the tail of groups
// that mirror a Windows group), lookups by name, and the gid allocator.
#pragma once

#include "kemo_accounts.hpp"
#include "kemo_domain.hpp"
#include "kemo_io.hpp"
#include "kemo_records.hpp"

#include <charconv>
#include <climits>
#include <cstring>
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
    const auto entry = records::parse_group(kemo::chomp(line));
    if (!entry || entry->gid < INT_MIN || entry->gid > INT_MAX)
        return std::nullopt;
    Group g;
    g.name = entry->name;
    g.passwd = entry->password;
    g.gid = static_cast<int>(entry->gid);
    for (const std::string_view member : acc::split(entry->members, ','))
        if (!member.empty() && !is_sentinel(member))
            g.members.emplace_back(member);
    const auto &tail = entry->tail;
    if (!tail.empty() && !to_number(tail[0], g.flags))
        g.flags = 0;
    if (tail.size() > 1)
        g.name2 = tail[1];
    if (tail.size() > 2 && !to_number(tail[2], g.number))
        g.number = 0;
    return g;
}

// "name:x:gid:nobody,m1,m2,nobody", with ":flags:name2:number" when the
// tail is written.
inline std::string group_line(std::string_view name, int gid, const std::vector<std::string> &members,
                              const Group *tail = nullptr, int tail_flags = 0)
{
    std::string list = "nobody,";
    for (const std::string &m : members)
        list += m + ',';
    list += "nobody";
    records::Group entry{name, "x", gid, list, {}};
    const std::string flags = std::to_string(tail_flags);
    const std::string number = tail != nullptr ? std::to_string(tail->number) : std::string();
    if (tail != nullptr)
        entry.tail = {flags, tail->name2, number};
    return records::format_group(entry);
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

// The bodies of the public group functions, with checked arguments; each
// fails like its public function (error code set).
// KLIBGetGrNam: the static record of a local or domain group, or null.
PKLIBGROUP group_record(const char *name);
// A local group's record only (as PgrpKLIBGetLocalGrNam).
PKLIBGROUP local_group_record(const char *name);
// The names KEMOGroupEnum lists for flags, read under the readers' lock;
// false with the error code set.
bool group_names(int flags, std::vector<std::string> &names);
// KEMOGroupGet: the group's name and members in the two-call layout.
int get_group(int flags, const char *name, char **out, int size, int *needed);
// KEMOGroupGetDesc: the group's description (0 size query, 1 copied).
int get_desc(const char *name, char *out, int size, int *needed);
// KEMOGroupSet: creates (old_name null) or changes a local group.
int set_group(const char *old_name, const char *const *request);
// KEMOGroupDelete: deletes local groups; the number deleted, or < 0.
int delete_groups(const char *const *names, int count);
// KEMOGroupSetDesc: sets the group's description; 0, or -1.
int set_desc(const char *name, const char *desc);
// The arguments set_desc takes: a name without ":" or line breaks, a
// description without line breaks.
inline bool desc_arguments_ok(const char *name, const char *desc)
{
    return name != nullptr && desc != nullptr && *name != '\0' &&
           std::strpbrk(name, ":\n\r") == nullptr && std::strpbrk(desc, "\n\r") == nullptr;
}

} // namespace kemo::groups
