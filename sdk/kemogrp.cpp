// Local groups, read side: the static-record readers of /etc/group, one
// group's members in the two-call layout, the enumeration filter, member
// lists, descriptions, and the creation parameter parser.  Changes are in
// kemogrp_set.cpp, the gid allocator in kemogrp_gid.cpp.
#include "kemogrp_internal.hpp"
#include "kemostr.hpp"

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

namespace kemo::groups {

namespace {

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
        if (list.p == nullptr || kemo::domain::push_groups(&list.p) < 0)
            return false;
        for (int i = 0; i < list.p->nItem; ++i)
            names.emplace_back(list.p->pszItem[i]);
    }
    return true;
}

// The same, read under the group readers' lock.
bool read_names(int flags, std::vector<std::string> &names)
{
    auto lock = acc::account_lock(acc::kGroupReadLock, acc::kGroupReadUnlock);
    if (!lock.held())
        return fail(false, ERR_LOCK_FAILED);
    return collect_names(flags, names) && lock.release();
}

// The /etc/passwd entries: name and primary gid.
struct PasswdEntry {
    std::string name;
    int gid;
};
bool read_passwd(std::vector<PasswdEntry> &out)
{
    return kemo::for_each_line(acc::kPasswd, [&](std::string_view line) {
               if (const auto entry = records::parse_passwd(kemo::chomp(line));
                   entry && entry->gid >= INT_MIN && entry->gid <= INT_MAX)
                   out.push_back({std::string(entry->name), static_cast<int>(entry->gid)});
               return 1;
           }) == 0;
}

// Opens /etc/group for the entry-by-entry readers.
int start_scan()
{
    Scanner &s = scanner();
    s.close();
    s.file = kemo::open_file(acc::kGroup, "r");
    if (!s.file)
        return fail(-1, ERR_OPEN_FAILED);
    s.reader = std::make_unique<kemo::LineReader>(s.file.get());
    return 0;
}

// The next entry of the open scan (opened when it is not) that the search
// accepts, published: 1, 0 at the end, -1 with the error set.
int scan_next(int search, const char *name, int gid)
{
    Scanner &s = scanner();
    if (!s.reader && start_scan() < 0)
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
}

// The local group of that name as the static record; null with
// ERR_NO_SUCH_GROUP or the read error set.
PKLIBGROUP local_record(const char *name)
{
    Group g;
    const int found = find_local(name, g);
    if (found <= 0)
        return found < 0 ? nullptr : fail<PKLIBGROUP>(nullptr, ERR_NO_SUCH_GROUP);
    return publish(std::move(g));
}

} // namespace

PKLIBGROUP local_group_record(const char *name)
{
    return local_record(name);
}

bool group_names(int flags, std::vector<std::string> &names)
{
    return read_names(flags, names);
}

// A local group's record, or a domain group's (gid -1: the domain lists
// hold names and members only).
PKLIBGROUP group_record(const char *name)
{
    if (kemo::domain::name_kind(name) != 2)
        return local_record(name);
    OwnedList list(1024);
    if (list.p == nullptr)
        return nullptr;
    if (kemo::domain::push_group_members(name, &list.p) < 0)
        return fail<PKLIBGROUP>(nullptr, ERR_NO_SUCH_GROUP);
    Group g;
    g.name = name;
    g.passwd.push_back('x'); // (assigning the literal trips a false -Wrestrict of g++ 12 at -O2)
    g.gid = -1;
    for (int i = 0; i < list.p->nItem; ++i)
        if (!is_sentinel(list.p->pszItem[i]))
            g.members.emplace_back(list.p->pszItem[i]);
    return publish(std::move(g));
}

int get_group(int flags, const char *name, char **out, int size, int *needed)
{
    auto lock = acc::account_lock(acc::kGroupReadLock, acc::kGroupReadUnlock);
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
        if (kemo::domain::push_group_members(name, &list.p) >= 0) {
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
}

int get_desc(const char *name, char *out, int size, int *needed)
{
    auto lock = acc::account_lock(acc::kGroupDescLock, acc::kGroupDescUnlock);
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
    const std::string text = kemo::strings::decode_colon(fields[1]);
    if (!lock.release())
        return -1;
    *needed = static_cast<int>(text.size() + 1);
    if (out == nullptr)
        return 0;
    if (*needed > size)
        return fail(-1, ERR_NOT_ENOUGH_MEMORY);
    std::memcpy(out, text.c_str(), text.size() + 1);
    return 1;
}

// The body of KEMOGroupEnum, with its arguments checked.
int enum_groups(int flags, char **out, int size, int *needed)
{
    std::vector<std::string> names;
    return read_names(flags, names) ? acc::store_names(names, out, size, needed) : -1;
}

// The body of KEMOGroupTotalNum, with its arguments checked.
int count_groups(int flags)
{
    std::vector<std::string> names;
    return read_names(flags, names) ? static_cast<int>(names.size()) : -1;
}

// The body of GROUPParseCreateParam, with its arguments checked.
int parse_create_param(const char *text, char ***group)
{
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
}

// The body of GROUPIListMember, with its arguments checked.
int list_members(const char *name, PKLIBSZLIST *list, const KLIBGROUP *entry)
{
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
}

} // namespace kemo::groups

using namespace kemo::groups;
using kemo::fail;

extern "C" {

// ------------------------------------------------------ low-level readers

KEMO_API int KLIBIGrpStart(void)
{
    return kemo::edge(-1, [] { return start_scan(); });
}

// Enumeration (search 0) passes over "wheel", the system's group of
// administrators allowed to switch user, which is none of the appliance's
// groups; a lookup by name or gid finds it like any other.
KEMO_API int KLIBIGrpScan1(int search, const char *name, int gid)
{
    if (search < 0 || search > 2 || (search == 1 && name == nullptr))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return scan_next(search, name, gid); });
}

KEMO_API PKLIBGROUP PgrpKLIBGetLocalGrEnt(void)
{
    return kemo::edge<PKLIBGROUP>(nullptr, [] {
        return scan_next(0, nullptr, 0) == 1 ? &record().group : nullptr;
    });
}

KEMO_API PKLIBGROUP PgrpKLIBGetLocalGrNam(const char *name)
{
    if (name == nullptr)
        return fail<PKLIBGROUP>(nullptr, ERR_BAD_PARAMETERS);
    return kemo::edge<PKLIBGROUP>(nullptr, [&] { return local_record(name); });
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
    return kemo::edge<PKLIBGROUP>(nullptr, [&] { return group_record(name); });
}

KEMO_API void KLIBEndGrEnt(void)
{
    scanner().close();
}

KEMO_API int KEMOGroupGet(int flags, int type, const char *name, char **out, int size, int *needed)
{
    if (flags < 0 || (flags != 0 && (flags & (KEMO_GROUP_LOCAL | KEMO_GROUP_DOMAIN)) == 0) ||
        type != KEMO_ACCOUNT_LOCAL || name == nullptr || *name == '\0' || needed == nullptr ||
        size < 0 || (out == nullptr && size != 0))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return get_group(flags, name, out, size, needed); });
}

KEMO_API int KEMOGroupEnum(int flags, char **out, int size, int *needed)
{
    if (flags < 0 || flags > 3 || !acc::enum_arguments_ok(out, size, needed))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return enum_groups(flags, out, size, needed); });
}

KEMO_API int KEMOGroupTotalNum(int flags)
{
    if (flags < 0 || flags > 3)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return count_groups(flags); });
}

KEMO_API int KEMOGroupGetDesc(const char *name, char *out, int size, int *needed)
{
    if (name == nullptr || needed == nullptr || size < 0 || (out == nullptr && size != 0))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return get_desc(name, out, size, needed); });
}

KEMO_API int GROUPParseCreateParam(const char *text, char ***group)
{
    if (text == nullptr || group == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return parse_create_param(text, group); });
}

KEMO_API int GROUPIListMember(const char *name, PKLIBSZLIST *list, const KLIBGROUP *entry)
{
    if (name == nullptr || list == nullptr || *list == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return list_members(name, list, entry); });
}

} // extern "C"
