// kemoctl user, group and share: local accounts and share definitions.
// These commands leave locking to the library.
#include "kemoctl.hpp"

#include <pwd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace kemoctl {
namespace {

// ---- Accounts and shares --------------------------------------------------

// A buffer for the library's two-call getters and enumerators, aligned for
// the record or pointer array they write at its start.  Not copyable: the
// texts it holds are pointed to from inside it.
class Block {
public:
    explicit Block(int size)
        : words_(static_cast<std::size_t>(size) / sizeof(std::max_align_t) + 1), size_(size)
    {
    }
    Block(Block &&) = default;
    Block &operator=(Block &&) = default;
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;
    void *data() { return words_.data(); }
    int size() const { return size_; }
    template <class T>
    T *as() { return static_cast<T *>(data()); }

private:
    std::vector<std::max_align_t> words_;
    int size_;
};

// Runs fill(out, size, &needed) the library's two-call way: a size query
// without a buffer, then again with a buffer of that size.  When the data
// grew between the two calls the size is asked again.  nullopt when the
// library fails (its error code stays set).
template <class Fill>
std::optional<Block> two_call(Fill fill)
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        int needed = 0;
        if (fill(nullptr, 0, &needed) < 0)
            return std::nullopt;
        Block block(needed);
        int needed_now = needed;
        const int result = fill(block.data(), block.size(), &needed_now);
        if (result >= 0 && needed_now <= needed)
            return std::optional<Block>(std::move(block));
        if (result < 0 && KLIBErrGet() != ERR_NOT_ENOUGH_MEMORY)
            return std::nullopt;
    }
    KLIBErrSet(ERR_NOT_ENOUGH_MEMORY);
    return std::nullopt;
}

// The texts of a NULL-terminated pointer array at the start of a block.
std::vector<std::string> texts_of(Block &block)
{
    std::vector<std::string> texts;
    for (char **p = block.as<char *>(); *p != nullptr; ++p)
        texts.emplace_back(*p);
    return texts;
}

// "YYYY-MM-DD" as a day number (days since 1970-01-01); "never" is 0.
std::optional<int32_t> parse_day(std::string_view text)
{
    if (text == "never")
        return 0;
    if (text.size() != 10 || text[4] != '-' || text[7] != '-')
        return std::nullopt;
    const auto number = [&](std::size_t at, std::size_t length) -> std::optional<unsigned> {
        unsigned value = 0;
        for (const char c : text.substr(at, length)) {
            if (c < '0' || c > '9')
                return std::nullopt;
            value = value * 10 + static_cast<unsigned>(c - '0');
        }
        return value;
    };
    const auto y = number(0, 4), m = number(5, 2), d = number(8, 2);
    if (!y || !m || !d)
        return std::nullopt;
    const std::chrono::year_month_day date{std::chrono::year(static_cast<int>(*y)), std::chrono::month(*m),
                                           std::chrono::day(*d)};
    if (!date.ok())
        return std::nullopt;
    const auto day = std::chrono::sys_days(date).time_since_epoch().count();
    if (day <= 0)
        return std::nullopt;
    return static_cast<int32_t>(day);
}

std::string day_text(int32_t day)
{
    if (day <= 0)
        return "never";
    const std::chrono::year_month_day date{std::chrono::sys_days(std::chrono::days(day))};
    char text[16];
    std::snprintf(text, sizeof text, "%04d-%02u-%02u", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
    return text;
}
// A user as stored, copied out of the library's record.
struct StoredUser {
    std::string name, hash, desc, mail;
    int32_t expire = 0;
};

std::optional<StoredUser> stored_user(const std::string &name)
{
    auto block = two_call([&](void *out, int size, int *needed) {
        return KEMOUserGet(0, KEMO_ACCOUNT_LOCAL, name.c_str(), static_cast<PKEMOUSER>(out), size, needed);
    });
    if (!block)
        return std::nullopt;
    const KEMOUSER *user = block->as<KEMOUSER>();
    return StoredUser{text_or_empty(user->szName), text_or_empty(user->szPasswd), text_or_empty(user->szDesc),
                      text_or_empty(user->szEmail), user->expire};
}

// Creates, modifies or renames accounts in one transaction.
int set_users(const KEMOUSERSET *users, int count, const std::string &what)
{
    return KEMOUserSet(KEMO_ACCOUNT_LOCAL, users, count) == 0 ? 0 : library_failure(what);
}

// What the options of user add / modify / password change.
struct UserChange {
    std::optional<std::string> password, desc, mail;
    std::optional<int32_t> expire;
};

Parsed parse_user_args(const Args &args)
{
    return parse_args(args, {{"--password", 1}, {"--password-stdin", 0}, {"--desc", 1}, {"--mail", 1},
                             {"--expire", 1}});
}

// Fills change from the options; an error text when one is wrong.
std::string read_user_change(const Parsed &p, UserChange &change)
{
    for (const auto &[name, values] : p.options) {
        if (name == "--password") {
            change.password = std::string(values[0]);
        } else if (name == "--password-stdin") {
            change.password = stdin_line();
            if (!change.password)
                return "no password on standard input";
            if (has_line_break(*change.password))
                return line_break_message("the password on standard input");
        } else if (name == "--desc") {
            change.desc = std::string(values[0]);
        } else if (name == "--mail") {
            change.mail = std::string(values[0]);
        } else if (name == "--expire") {
            change.expire = parse_day(values[0]);
            if (!change.expire)
                return "--expire takes YYYY-MM-DD (1970-01-02 or later) or never";
        }
    }
    return {};
}

} // namespace

int cmd_user_list(const Args &args)
{
    const Parsed p = parse_args(args, {{"--domain", 0}, {"--domain-used", 0}});
    if (!p.error.empty() || !p.words.empty())
        return usage_error("user list takes only --domain or --domain-used");
    int flags = KEMO_USER_LOCAL;
    for (const auto &option : p.options)
        flags |= option.first == "--domain" ? KEMO_USER_DOMAIN_ALL : KEMO_USER_DOMAIN_USED;
    auto block = two_call([&](void *out, int size, int *needed) {
        return KEMOUserEnum(flags, static_cast<char **>(out), size, needed);
    });
    return block ? print_lines(texts_of(*block)) : library_failure("listing users");
}

int cmd_user_show(const Args &args)
{
    if (args.size() != 1)
        return usage_error("user show needs one NAME");
    const std::string name(args[0]);
    const auto user = stored_user(name);
    if (!user)
        return library_failure("reading user " + name);
    const struct passwd *entry = KLIBGetPwNam(user->name.c_str());
    if (entry == nullptr)
        return library_failure("reading the uid of " + name);
    field("name", user->name);
    field("description", user->desc);
    field("mail", user->mail);
    field("expires", day_text(user->expire));
    field("uid", std::to_string(entry->pw_uid));
    return 0;
}

int cmd_user_add(const Args &args)
{
    const Parsed p = parse_user_args(args);
    if (!p.error.empty())
        return usage_error(p.error);
    if (p.words.size() != 1)
        return usage_error("user add needs one NAME");
    UserChange change;
    if (const auto error = read_user_change(p, change); !error.empty())
        return usage_error(error);
    const std::string name(p.words[0]), password = change.password.value_or(""), desc = change.desc.value_or("");
    const KEMOUSERSET user{KEMO_ACCOUNT_LOCAL, nullptr, name.c_str(), password.c_str(), desc.c_str(),
                           change.expire.value_or(0), c_str_or_null(change.mail)};
    if (set_users(&user, 1, "adding user " + name) != 0)
        return 1;
    const struct passwd *entry = KLIBGetPwNam(name.c_str());
    if (entry != nullptr)
        std::printf("added user %s (uid %d)\n", name.c_str(), static_cast<int>(entry->pw_uid));
    else
        std::printf("added user %s\n", name.c_str());
    return 0;
}

// Everything not given keeps its stored value; the stored hash handed back
// as the password tells the library to keep the password.
int cmd_user_modify(const Args &args)
{
    const Parsed p = parse_user_args(args);
    if (!p.error.empty())
        return usage_error(p.error);
    if (p.words.size() != 1)
        return usage_error("user modify needs one NAME");
    UserChange change;
    if (const auto error = read_user_change(p, change); !error.empty())
        return usage_error(error);
    const std::string name(p.words[0]);
    const auto stored = stored_user(name);
    if (!stored)
        return library_failure("reading user " + name);
    const std::string password = change.password.value_or(stored->hash), desc = change.desc.value_or(stored->desc);
    const KEMOUSERSET user{KEMO_ACCOUNT_LOCAL, stored->name.c_str(), stored->name.c_str(), password.c_str(),
                           desc.c_str(), change.expire.value_or(stored->expire), c_str_or_null(change.mail)};
    if (set_users(&user, 1, "modifying user " + name) != 0)
        return 1;
    std::printf("modified user %s\n", stored->name.c_str());
    return 0;
}

int cmd_user_rename(const Args &args)
{
    if (args.size() != 2)
        return usage_error("user rename needs OLD NEW");
    const std::string old_name(args[0]), new_name(args[1]);
    const auto stored = stored_user(old_name);
    if (!stored)
        return library_failure("reading user " + old_name);
    // The mail address moves to the new name only when it is handed over.
    const KEMOUSERSET user{KEMO_ACCOUNT_LOCAL, stored->name.c_str(), new_name.c_str(), stored->hash.c_str(),
                           stored->desc.c_str(), stored->expire,
                           stored->mail.empty() ? nullptr : stored->mail.c_str()};
    if (set_users(&user, 1, "renaming user " + old_name) != 0)
        return 1;
    std::printf("renamed user %s to %s\n", stored->name.c_str(), new_name.c_str());
    return 0;
}

int cmd_user_delete(const Args &args)
{
    if (args.empty())
        return usage_error("user delete needs NAME...");
    const std::vector<std::string> names(args.begin(), args.end());
    const auto pointers = c_strings(names);
    const int deleted = KEMOUserDelete(pointers.data(), static_cast<int>(pointers.size()));
    if (deleted <= 0)
        return library_failure("deleting " + joined(names));
    std::printf("deleted %d user(s)\n", deleted);
    return 0;
}

// Without --password the new password is the first line of standard input.
int cmd_user_password(const Args &args)
{
    const Parsed p = parse_args(args, {{"--password", 1}, {"--password-stdin", 0}});
    if (!p.error.empty())
        return usage_error(p.error);
    if (p.words.size() != 1)
        return usage_error("user password needs one NAME");
    UserChange change;
    if (const auto error = read_user_change(p, change); !error.empty())
        return usage_error(error);
    if (!change.password && !(change.password = stdin_line()))
        return usage_error("no password on standard input");
    if (has_line_break(*change.password))
        return usage_error(line_break_message("the password on standard input"));
    const std::string name(p.words[0]);
    const auto stored = stored_user(name);
    if (!stored)
        return library_failure("reading user " + name);
    const KEMOUSERSET user{KEMO_ACCOUNT_LOCAL, stored->name.c_str(), stored->name.c_str(), change.password->c_str(),
                           stored->desc.c_str(), stored->expire, nullptr};
    if (set_users(&user, 1, "changing the password of " + name) != 0)
        return 1;
    std::printf("changed the password of %s\n", stored->name.c_str());
    return 0;
}

// "name:password[:description]" lines from standard input, created in one
// transaction; blank lines and lines starting with "#" are skipped.  The
// transaction is called directly because only it hands back the names that
// made it refuse.
int cmd_user_add_batch(const Args &args)
{
    if (!args.empty())
        return usage_error("user add-batch reads name:password[:description] lines from standard input");
    struct Line {
        std::string name, password, desc;
    };
    std::vector<Line> lines;
    int number = 0;
    while (const auto text = stdin_line()) {
        ++number;
        if (text->empty() || (*text)[0] == '#')
            continue;
        if (has_line_break(*text))
            return usage_error(line_break_message("line " + std::to_string(number)));
        const auto colon = text->find(':');
        if (colon == std::string::npos)
            return usage_error("line " + std::to_string(number) + ": name:password[:description] expected");
        const auto colon2 = text->find(':', colon + 1);
        lines.push_back({text->substr(0, colon), text->substr(colon + 1, colon2 - colon - 1),
                         colon2 == std::string::npos ? "" : text->substr(colon2 + 1)});
    }
    if (lines.empty())
        return usage_error("no users on standard input");
    std::vector<KEMOUSERSET> users;
    for (const auto &line : lines)
        users.push_back({KEMO_ACCOUNT_LOCAL, nullptr, line.name.c_str(), line.password.c_str(), line.desc.c_str(),
                         0, nullptr});
    ListPtr refused(PslKLIBSzListAlloc(0));
    if (!refused)
        return library_failure("allocating a list");
    const int result = growing(refused, [&](PKLIBSZLIST *l) {
        return KEMOUserSetLocal(users.data(), static_cast<int>(users.size()), l);
    });
    if (result != 0) {
        library_failure("adding users");
        const auto names = refused ? list_texts(refused.get()) : std::vector<std::string>();
        if (!names.empty())
            std::fprintf(stderr, "kemoctl: refused: %s\n", joined(names).c_str());
        return 1;
    }
    std::vector<std::string> names;
    for (const auto &line : lines)
        names.push_back(line.name);
    std::printf("added %zu user(s): %s\n", names.size(), joined(names).c_str());
    return 0;
}

namespace {

// A group as stored: its name, then its members; nullopt when the library
// fails or hands back nothing.
std::optional<std::vector<std::string>> stored_group(const std::string &name)
{
    auto block = two_call([&](void *out, int size, int *needed) {
        return KEMOGroupGet(KEMO_GROUP_LOCAL, KEMO_ACCOUNT_LOCAL, name.c_str(), static_cast<char **>(out), size,
                            needed);
    });
    if (!block)
        return std::nullopt;
    auto texts = texts_of(*block);
    if (texts.empty())
        return std::nullopt;
    return texts;
}

// Writes group (name, then members) as a new group or over old_name.
int set_group(const char *old_name, const std::vector<std::string> &group, const std::string &what)
{
    auto pointers = c_strings(group);
    pointers.push_back(nullptr);
    if (KEMOGroupSet(KEMO_GROUP_LOCAL, KEMO_ACCOUNT_LOCAL, old_name, pointers.data()) != 0)
        return library_failure(what);
    return 0;
}

} // namespace

int cmd_group_list(const Args &args)
{
    const Parsed p = parse_args(args, {{"--domain", 0}});
    if (!p.error.empty() || !p.words.empty())
        return usage_error("group list takes only --domain");
    const int flags = KEMO_GROUP_LOCAL | (p.options.empty() ? 0 : KEMO_GROUP_DOMAIN);
    auto block = two_call([&](void *out, int size, int *needed) {
        return KEMOGroupEnum(flags, static_cast<char **>(out), size, needed);
    });
    return block ? print_lines(texts_of(*block)) : library_failure("listing groups");
}

int cmd_group_show(const Args &args)
{
    if (args.size() != 1)
        return usage_error("group show needs one NAME");
    const std::string name(args[0]);
    auto group = stored_group(name);
    if (!group)
        return library_failure("reading group " + name);
    field("name", group->front());
    group->erase(group->begin());
    field("members", joined(*group, ","));
    return 0;
}

int cmd_group_add(const Args &args)
{
    if (args.empty())
        return usage_error("group add needs NAME [MEMBER...]");
    const std::vector<std::string> group(args.begin(), args.end());
    if (set_group(nullptr, group, "adding group " + group[0]) != 0)
        return 1;
    std::printf("added group %s\n", group[0].c_str());
    return 0;
}

// The stored spelling of the name is written back, so that a name typed in
// other letter case does not rename the group.
int cmd_group_modify(const Args &args)
{
    if (args.empty())
        return usage_error("group modify needs NAME [MEMBER...]");
    const std::string name(args[0]);
    const auto stored = stored_group(name);
    if (!stored)
        return library_failure("reading group " + name);
    std::vector<std::string> group{stored->front()};
    group.insert(group.end(), args.begin() + 1, args.end());
    if (set_group(stored->front().c_str(), group, "modifying group " + name) != 0)
        return 1;
    std::printf("modified group %s\n", group[0].c_str());
    return 0;
}

int cmd_group_rename(const Args &args)
{
    if (args.size() != 2)
        return usage_error("group rename needs OLD NEW");
    const std::string old_name(args[0]);
    auto group = stored_group(old_name);
    if (!group)
        return library_failure("reading group " + old_name);
    const std::string stored_name = group->front();
    group->front() = std::string(args[1]);
    if (set_group(stored_name.c_str(), *group, "renaming group " + old_name) != 0)
        return 1;
    std::printf("renamed group %s to %s\n", stored_name.c_str(), group->front().c_str());
    return 0;
}

int cmd_group_delete(const Args &args)
{
    if (args.empty())
        return usage_error("group delete needs NAME...");
    const std::vector<std::string> names(args.begin(), args.end());
    const auto pointers = c_strings(names);
    // The library does not tell how many of the names existed.
    if (KEMOGroupDelete(pointers.data(), static_cast<int>(pointers.size())) != 0)
        return library_failure("deleting " + joined(names));
    return 0;
}

// Every member, including the users that belong to "users" by their
// primary group.
int cmd_group_members(const Args &args)
{
    if (args.size() != 1)
        return usage_error("group members needs one NAME");
    const std::string name(args[0]);
    const auto members = filled_list([&](PKLIBSZLIST *l) { return GROUPIListMember(name.c_str(), l, nullptr); });
    return members ? print_lines(*members) : library_failure("listing the members of " + name);
}

int cmd_group_desc(const Args &args)
{
    if (args.empty() || args.size() > 2)
        return usage_error("group desc needs NAME [TEXT]");
    const std::string name(args[0]);
    if (args.size() == 2) {
        // Only an existing group gets a description, under its stored name.
        const auto stored = stored_group(name);
        if (!stored)
            return library_failure("reading group " + name);
        const std::string text(args[1]);
        if (KEMOGroupSetDesc(stored->front().c_str(), text.c_str()) != 0)
            return library_failure("setting the description of " + name);
        return 0;
    }
    auto block = two_call([&](void *out, int size, int *needed) {
        return KEMOGroupGetDesc(name.c_str(), static_cast<char *>(out), size, needed);
    });
    if (!block)
        return library_failure("reading the description of " + name);
    std::printf("%s\n", block->as<char>());
    return 0;
}

int cmd_share_list(const Args &args)
{
    const Parsed p = parse_args(args, {{"--usb", 0}, {"--sata", 0}, {"--all", 0}});
    if (!p.error.empty() || !p.words.empty())
        return usage_error("share list takes only --usb, --sata or --all");
    int kinds = p.options.empty() ? KEMO_SHARE_ORDINARY : 0;
    for (const auto &option : p.options)
        kinds |= option.first == "--usb"    ? KEMO_SHARE_USB
                 : option.first == "--sata" ? KEMO_SHARE_SATA
                                            : KEMO_SHARE_ORDINARY | KEMO_SHARE_USB | KEMO_SHARE_SATA;
    auto block = two_call([&](void *out, int size, int *needed) {
        return KEMOShareEnum1(static_cast<char **>(out), size, needed, kinds);
    });
    return block ? print_lines(texts_of(*block)) : library_failure("listing shares");
}

namespace {

std::optional<Block> stored_share(const std::string &name)
{
    return two_call([&](void *out, int size, int *needed) {
        return KEMOShareGet(KEMO_ACCOUNT_LOCAL, name.c_str(), static_cast<PKEMOSHARE>(out), size, needed);
    });
}

const char *access_text(int access)
{
    switch (access) {
    case KEMO_ACCESS_RW:
        return "rw";
    case KEMO_ACCESS_RO:
        return "ro";
    case KEMO_ACCESS_NONE:
        return "none";
    default:
        return "unknown";
    }
}
} // namespace

int cmd_share_show(const Args &args)
{
    if (args.size() != 1)
        return usage_error("share show needs one NAME");
    const std::string name(args[0]);
    auto block = stored_share(name);
    if (!block)
        return library_failure("reading share " + name);
    const KEMOSHARE *share = block->as<KEMOSHARE>();
    field("name", text_or_empty(share->szName));
    field("comment", text_or_empty(share->szComment));
    field("path", text_or_empty(share->szPath));
    field("deny", text_or_empty(share->szDenyList));
    field("read-write", text_or_empty(share->szRWList));
    field("read-only", text_or_empty(share->szROList));
    field("users access", access_text(share->usersAccess));
    field("browseable", share->browseable ? "yes" : "no");
    return 0;
}

// The user's access by the share's lists: the deny list wins, then the
// read-write list, then the read-only list.
int cmd_share_access(const Args &args)
{
    if (args.size() != 2)
        return usage_error("share access needs NAME USER");
    const std::string name(args[0]), user(args[1]);
    auto block = stored_share(name);
    if (!block)
        return library_failure("reading share " + name);
    const KEMOSHARE *share = block->as<KEMOSHARE>();
    const std::pair<const char *, const char *> levels[] = {
        {share->szDenyList, "deny"}, {share->szRWList, "rw"}, {share->szROList, "ro"}};
    for (const auto &[list, level] : levels)
        if (list != nullptr && *list != '\0' && BlSDKUserIsInList(user.c_str(), list) == 1) {
            std::printf("%s\n", level);
            return 0;
        }
    std::printf("none\n");
    return 0;
}

} // namespace kemoctl
