// kemoctl - the appliance's command-line tool over libkemo.
//
//   kemoctl version                       library version
//   kemoctl errors                        the error table: index, code, name
//   kemoctl error CODE                    the name of one code (0x2000, 8192)
//   kemoctl list [--sort none|byte|case] [--at INDEX TEXT]... [--find TEXT] ITEM...
//   kemoctl setop or|and|sub [--sort byte|case] A1,A2,... B1,B2,...
//   kemoctl hash [--get KEY] [--remove KEY] KEY=VALUE...
//   kemoctl get FILE KEY [--last]         the value of a key in a settings file
//   kemoctl set FILE KEY VALUE [--quote]  sets a key (replaced in place or added)
//   kemoctl unset FILE KEY                removes every line of a key
//   kemoctl sections FILE                 the section names of a [section] file
//   kemoctl section FILE NAME             the keys of one section
//   kemoctl section-set FILE NAME KEY=VALUE...   sets keys (adds the section)
//   kemoctl section-remove FILE NAME      removes a section (its comments stay)
//
//   kemoctl user list|show|add|modify|rename|delete|password|add-batch ...
//   kemoctl group list|show|add|modify|rename|delete|members|desc ...
//   kemoctl share list|show|access ...    ('kemoctl help' lists their arguments)
//
//   kemoctl log add|show|size|connections ...   event logs
//   kemoctl backup export|check|import|list ... configuration backup files
//   kemoctl hostname [NAME]               the host name, or sets it
//
// Changes to a file are made under its lock: the file-sharing lock for
// /usr/kemo/etc/smb.conf, the settings lock for every other file.  The
// account and share commands leave locking to the library.
//
// Exit status: 0 on success, 1 when the library reports a failure (its error
// name is printed on standard error), 2 on a usage error.
#include "kemo.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Args = std::vector<std::string_view>;

struct ListDeleter {
    void operator()(KLIBSZLIST *l) const { KLIBSzListFree(l); }
};
struct HashDeleter {
    void operator()(KLIBSZHASH *h) const { KLIBSzHashFree(h); }
};
using ListPtr = std::unique_ptr<KLIBSZLIST, ListDeleter>;
using HashPtr = std::unique_ptr<KLIBSZHASH, HashDeleter>;

// Runs a library call that takes the address of a list or hash pointer
// because it may move the block, and keeps the owner pointing at the block.
template <class Owner, class Call>
int growing(Owner &owner, Call call)
{
    auto *raw = owner.release();
    const int result = call(&raw);
    owner.reset(raw);
    return result;
}

const char *error_name(int code)
{
    if (code >= 0 && (code & 0xFF) == 0 && (code >> 8) < KEMO_ERR_TABLE_SIZE && rgszErrMsg[code >> 8] &&
        rgszErrMsg[code >> 8][0] != '\0')
        return rgszErrMsg[code >> 8];
    if (code == KEMO_ERR_CROSS_DUP_NAME) // the table leaves this account code unnamed
        return "KEMO_ERR_CROSS_DUP_NAME";
    return "(no name)";
}

int library_failure(std::string_view what)
{
    const int code = KLIBErrGet();
    std::fprintf(stderr, "kemoctl: %.*s failed: %s (0x%X)\n", static_cast<int>(what.size()), what.data(),
                 error_name(code), static_cast<unsigned>(code));
    return 1;
}

int usage_error(std::string_view message)
{
    std::fprintf(stderr, "kemoctl: %.*s (try 'kemoctl help')\n", static_cast<int>(message.size()),
                 message.data());
    return 2;
}

std::optional<int> parse_sort(std::string_view s)
{
    if (s == "none")
        return KLIB_SZLIST_UNSORTED;
    if (s == "byte")
        return KLIB_SZLIST_SORTED;
    if (s == "case")
        return KLIB_SZLIST_CASESORT;
    return std::nullopt;
}

void print_list(const KLIBSZLIST *list)
{
    for (int i = 0; i < list->nItem; ++i)
        std::printf("  [%d] %s\n", i, list->pszItem[i] == list->pszEmpty ? "(gap)" : list->pszItem[i]);
    std::printf("  (%d items, mode %d, %d of %d bytes free)\n", list->nItem, list->fMode, list->nFree,
                list->nSize);
}

// Builds a list of the given mode from items; null on failure.
ListPtr make_list(int mode, const std::vector<std::string> &items)
{
    ListPtr list(PslKLIBSzListAlloc(0));
    if (!list || KLIBSzListSortItems(list.get(), mode) != 0)
        return nullptr;
    for (const auto &item : items) {
        if (growing(list, [&](PKLIBSZLIST *l) { return KLIBSzListPush(l, item.c_str()); }) < 0)
            return nullptr;
    }
    return list;
}

std::vector<std::string> split_commas(std::string_view text)
{
    std::vector<std::string> out;
    while (!text.empty()) {
        const auto comma = text.find(',');
        out.emplace_back(text.substr(0, comma));
        if (comma == std::string_view::npos)
            break;
        text.remove_prefix(comma + 1);
    }
    return out;
}

int cmd_version(const Args &)
{
    std::printf("libkemo %s\n", SzKEMOLibVersion());
    return 0;
}

int cmd_errors(const Args &)
{
    for (int i = 0; i < KEMO_ERR_TABLE_SIZE; ++i)
        if (rgszErrMsg[i] != nullptr)
            std::printf("%3d  0x%04X  %s\n", i, static_cast<unsigned>(KEMO_ERR_CODE(i)), rgszErrMsg[i]);
    return 0;
}

int cmd_error(const Args &args)
{
    if (args.size() != 1)
        return usage_error("error needs one CODE");
    char *end = nullptr;
    const std::string text(args[0]);
    errno = 0;
    const long code = std::strtol(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || *end != '\0')
        return usage_error("CODE must be a number");
    std::printf("0x%lX  %s\n", code, error_name(static_cast<int>(code)));
    return 0;
}

// A command's arguments split into options ("--name" followed by a fixed
// number of values, in the order given) and the remaining words.
struct Parsed {
    std::vector<std::pair<std::string_view, std::vector<std::string_view>>> options;
    std::vector<std::string_view> words;
    std::string error;
};

Parsed parse_args(const Args &args, std::initializer_list<std::pair<std::string_view, std::size_t>> known)
{
    Parsed p;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const auto *option = std::find_if(known.begin(), known.end(),
                                        [&](const auto &k) { return k.first == args[i]; });
        if (option == known.end()) {
            p.words.push_back(args[i]);
            continue;
        }
        if (i + option->second >= args.size()) {
            p.error = std::string(option->first) + " needs " + std::to_string(option->second) + " value(s)";
            return p;
        }
        p.options.emplace_back(option->first, Args(args.begin() + i + 1, args.begin() + i + 1 + option->second));
        i += option->second;
    }
    return p;
}

// The list mode chosen with --sort (unsorted without it); nullopt when the
// value is not a mode.
std::optional<int> sort_option(const Parsed &p)
{
    int mode = KLIB_SZLIST_UNSORTED;
    for (const auto &[name, values] : p.options)
        if (name == "--sort") {
            const auto m = parse_sort(values[0]);
            if (!m)
                return std::nullopt;
            mode = *m;
        }
    return mode;
}

int cmd_list(const Args &args)
{
    const Parsed p = parse_args(args, {{"--sort", 1}, {"--find", 1}, {"--at", 2}});
    if (!p.error.empty())
        return usage_error(p.error);
    const auto mode = sort_option(p);
    if (!mode)
        return usage_error("--sort takes none, byte or case");
    ListPtr list = make_list(*mode, std::vector<std::string>(p.words.begin(), p.words.end()));
    if (!list)
        return library_failure("building the list");
    for (const auto &[name, values] : p.options) {
        if (name != "--at")
            continue;
        const std::string text(values[1]);
        const int index = std::atoi(std::string(values[0]).c_str());
        if (growing(list, [&](PKLIBSZLIST *l) { return KLIBSzListInsert(l, index, text.c_str()); }) < 0)
            return library_failure("inserting " + text);
    }
    print_list(list.get());
    for (const auto &[name, values] : p.options) {
        if (name != "--find")
            continue;
        const std::string find(values[0]);
        const int at = *mode == KLIB_SZLIST_CASESORT ? KLIBSzListCaseFind(list.get(), find.c_str())
                                                     : KLIBSzListFind(list.get(), find.c_str());
        if (at < 0)
            std::printf("  \"%s\" not found\n", find.c_str());
        else
            std::printf("  \"%s\" found at [%d]\n", find.c_str(), at);
    }
    return 0;
}

int cmd_setop(const Args &args)
{
    const Parsed p = parse_args(args, {{"--sort", 1}});
    if (!p.error.empty())
        return usage_error(p.error);
    const auto mode = sort_option(p);
    if (!mode)
        return usage_error("--sort takes none, byte or case");
    const auto &rest = p.words;
    if (rest.size() != 3)
        return usage_error("setop needs or|and|sub and two comma-separated lists");
    using Op = PKLIBSZLIST (*)(PKLIBSZLIST *, PKLIBSZLIST, int);
    Op op = rest[0] == "or" ? PslKLIBSzListOr : rest[0] == "and" ? PslKLIBSzListAnd
                            : rest[0] == "sub" ? PslKLIBSzListSub : nullptr;
    if (op == nullptr)
        return usage_error("setop takes or, and or sub");
    ListPtr a = make_list(*mode, split_commas(rest[1]));
    ListPtr b = make_list(*mode, split_commas(rest[2]));
    if (!a || !b)
        return library_failure("building the lists");
    PKLIBSZLIST raw_a = a.get();
    ListPtr result(op(&raw_a, b.get(), KLIB_SZLIST_NEWLIST));
    if (!result)
        return library_failure("the set operation");
    print_list(result.get());
    return 0;
}

int cmd_hash(const Args &args)
{
    const Parsed p = parse_args(args, {{"--get", 1}, {"--remove", 1}});
    if (!p.error.empty())
        return usage_error(p.error);
    HashPtr hash(PshKLIBSzHashAlloc(0));
    if (!hash)
        return library_failure("allocating the hash");
    for (const auto word : p.words) {
        const auto eq = word.find('=');
        if (eq == std::string_view::npos)
            return usage_error("hash items are KEY=VALUE");
        const std::string key(word.substr(0, eq));
        const std::string value(word.substr(eq + 1));
        if (growing(hash, [&](PKLIBSZHASH *h) { return KLIBSzHashSetValue(h, key.c_str(), value.c_str()); }) < 0)
            return library_failure("setting " + key);
    }
    for (const auto &[name, values] : p.options) {
        const std::string key(values[0]);
        if (name == "--remove") {
            const char *old = SzKLIBSzHashRemoveKey(hash.get(), key.c_str());
            std::printf("removed %s%s%s\n", key.c_str(), old ? " = " : " (absent)", old ? old : "");
        } else {
            const char *value = SzKLIBSzHashGetValue(hash.get(), key.c_str());
            std::printf("%s %s%s\n", key.c_str(), value ? "= " : "is absent", value ? value : "");
        }
    }
    std::printf("%d pairs in %d slots, %d of %d pool bytes free:\n", KLIBSzHashPairNum(hash.get()),
                hash->nSlot, hash->nPoolFree, hash->nPoolSize);
    if (ErrKLIBIFileHash2File(stdout, nullptr, hash.get(), "  %s = %s\n") != 0)
        return library_failure("writing the hash");
    return 0;
}

int cmd_help(const Args &);


// The configuration lock that guards a settings file.
int lock_mask_for(std::string_view path)
{
    return path == "/usr/kemo/etc/smb.conf" ? KLIB_LOCK_SMB : KLIB_LOCK_KEMOINFO;
}

// Runs change() with the file's lock held exclusively.
template <class Change>
int locked(std::string_view path, Change change)
{
    const int mask = lock_mask_for(path);
    if (ErrKLIBFileLock(mask | KLIB_LOCK_EX, 10) != 0)
        return -1;
    const int result = change();
    const int code = KLIBErrGet();
    ErrKLIBFileUnlock(mask);
    KLIBErrSet(code);
    return result;
}

int cmd_get(const Args &args)
{
    const Parsed p = parse_args(args, {{"--last", 0}});
    if (!p.error.empty() || p.words.size() != 2)
        return usage_error("get needs FILE KEY");
    const std::string path(p.words[0]), key(p.words[1]);
    const int flags = p.options.empty() ? 0 : 1;
    const int size = KLIBFileGetKeyValue(path.c_str(), key.c_str(), nullptr, 0, flags);
    if (size == 0 && KLIBErrGet() == ERR_KEY_NOT_FOUND) {
        std::fprintf(stderr, "kemoctl: %s: no value for %s\n", path.c_str(), key.c_str());
        return 1;
    }
    std::vector<char> value(size > 0 ? static_cast<std::size_t>(size) : 1);
    if (size <= 0 || KLIBFileGetKeyValue(path.c_str(), key.c_str(), value.data(), size, flags) <= 0)
        return library_failure("reading " + path);
    std::printf("%s\n", value.data());
    return 0;
}

int cmd_set(const Args &args)
{
    const Parsed p = parse_args(args, {{"--quote", 0}});
    if (!p.error.empty() || p.words.size() != 3)
        return usage_error("set needs FILE KEY VALUE");
    const std::string path(p.words[0]), key(p.words[1]), value(p.words[2]);
    const char *format = p.options.empty() ? nullptr : "%s=\"%s\"\n";
    if (locked(path, [&] { return KLIBFileSetKeyValue(path.c_str(), key.c_str(), value.c_str(), format); }) != 1)
        return library_failure("setting " + key);
    return 0;
}

int cmd_unset(const Args &args)
{
    if (args.size() != 2)
        return usage_error("unset needs FILE KEY");
    const std::string path(args[0]), key(args[1]);
    const int removed = locked(path, [&] { return KLIBFileRemoveKey(path.c_str(), key.c_str()); });
    if (removed <= 0)
        return library_failure("removing " + key);
    std::printf("%d line(s) removed\n", removed);
    return 0;
}

int cmd_sections(const Args &args)
{
    if (args.size() != 1)
        return usage_error("sections needs FILE");
    const std::string path(args[0]);
    ListPtr list(PslKLIBSzListAlloc(0));
    if (!list || growing(list, [&](PKLIBSZLIST *l) { return KLIBFileEnumSection(path.c_str(), l); }) < 0)
        return library_failure("reading " + path);
    for (int i = 0; i < list->nItem; ++i)
        std::printf("%s\n", list->pszItem[i]);
    return 0;
}

int cmd_section(const Args &args)
{
    if (args.size() != 2)
        return usage_error("section needs FILE NAME");
    const std::string path(args[0]), name(args[1]);
    HashPtr hash(PshKLIBSzHashAlloc(0));
    if (!hash || growing(hash, [&](PKLIBSZHASH *h) { return KLIBFileGetSection(path.c_str(), name.c_str(), h); }) < 0)
        return library_failure("reading " + path);
    if (KLIBSzHashPairNum(hash.get()) == 0) {
        std::fprintf(stderr, "kemoctl: %s: no section [%s] (or it is empty)\n", path.c_str(), name.c_str());
        return 1;
    }
    // Sorted by key, so that the output does not depend on hash slots.
    std::vector<std::pair<std::string, std::string>> pairs;
    for (int i = 0; i < hash->nSlot; ++i)
        if (hash->rgSlot[i].pszKey != nullptr)
            pairs.emplace_back(hash->rgSlot[i].pszKey, hash->rgSlot[i].pszValue);
    std::sort(pairs.begin(), pairs.end());
    std::printf("[%s]\n", name.c_str());
    for (const auto &[key, value] : pairs)
        std::printf("%s = %s\n", key.c_str(), value.c_str());
    return 0;
}

int cmd_section_set(const Args &args)
{
    if (args.size() < 3)
        return usage_error("section-set needs FILE NAME KEY=VALUE...");
    const std::string path(args[0]), name(args[1]);
    for (std::size_t i = 2; i < args.size(); ++i) {
        const auto eq = args[i].find('=');
        if (eq == std::string_view::npos || eq == 0)
            return usage_error("'" + std::string(args[i]) + "' is not KEY=VALUE");
    }
    const int result = locked(path, [&] {
        for (std::size_t i = 2; i < args.size(); ++i) {
            const auto eq = args[i].find('=');
            const std::string key(args[i].substr(0, eq)), value(args[i].substr(eq + 1));
            if (ErrSetSecKeyVal(path.c_str(), name.c_str(), key.c_str(), value.c_str(), "\t%s=%s\n") < 0)
                return -1;
        }
        return 0;
    });
    return result < 0 ? library_failure("setting section " + name) : 0;
}

int cmd_section_remove(const Args &args)
{
    if (args.size() != 2)
        return usage_error("section-remove needs FILE NAME");
    const std::string path(args[0]), name(args[1]);
    const int found = locked(path, [&] { return ErrKLIBFileRemoveSection(path.c_str(), name.c_str()); });
    if (found < 0)
        return library_failure("removing section " + name);
    if (found == 0) {
        std::fprintf(stderr, "kemoctl: %s: no section [%s]\n", path.c_str(), name.c_str());
        return 1;
    }
    return 0;
}

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

int print_lines(const std::vector<std::string> &lines)
{
    for (const auto &line : lines)
        std::printf("%s\n", line.c_str());
    return 0;
}

std::string joined(const std::vector<std::string> &items, std::string_view separator = ", ")
{
    std::string out;
    for (const auto &item : items)
        out += (out.empty() ? "" : std::string(separator)) + item;
    return out;
}

// One "label: value" line of a record; an empty value shows as "(empty)".
void field(const char *label, std::string_view value)
{
    if (value.empty())
        value = "(empty)";
    std::printf("%s: %.*s\n", label, static_cast<int>(value.size()), value.data());
}

const char *text_or_empty(const char *text)
{
    return text != nullptr ? text : "";
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

// The first line of standard input without its line end; nullopt at the end.
std::optional<std::string> stdin_line()
{
    std::string line;
    if (!std::getline(std::cin, line))
        return std::nullopt;
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

const char *c_str_or_null(const std::optional<std::string> &text)
{
    return text ? text->c_str() : nullptr;
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
    std::vector<const char *> pointers;
    for (const auto &name : names)
        pointers.push_back(name.c_str());
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
        std::vector<std::string> names;
        for (int i = 0; refused && i < refused->nItem; ++i)
            names.emplace_back(refused->pszItem[i]);
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

// A group as stored: its name, then its members.
std::optional<std::vector<std::string>> stored_group(const std::string &name)
{
    auto block = two_call([&](void *out, int size, int *needed) {
        return KEMOGroupGet(KEMO_GROUP_LOCAL, KEMO_ACCOUNT_LOCAL, name.c_str(), static_cast<char **>(out), size,
                            needed);
    });
    if (!block)
        return std::nullopt;
    return texts_of(*block);
}

// Writes group (name, then members) as a new group or over old_name.
int set_group(const char *old_name, const std::vector<std::string> &group, const std::string &what)
{
    std::vector<const char *> pointers;
    for (const auto &text : group)
        pointers.push_back(text.c_str());
    pointers.push_back(nullptr);
    if (KEMOGroupSet(KEMO_GROUP_LOCAL, KEMO_ACCOUNT_LOCAL, old_name, pointers.data()) != 0)
        return library_failure(what);
    return 0;
}

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
    if (!group || group->empty())
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
    if (!stored || stored->empty())
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
    if (!group || group->empty())
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
    std::vector<const char *> pointers;
    for (const auto &name : names)
        pointers.push_back(name.c_str());
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
    ListPtr list(PslKLIBSzListAlloc(0));
    if (!list || growing(list, [&](PKLIBSZLIST *l) { return GROUPIListMember(name.c_str(), l, nullptr); }) < 0)
        return library_failure("listing the members of " + name);
    for (int i = 0; i < list->nItem; ++i)
        std::printf("%s\n", list->pszItem[i]);
    return 0;
}

int cmd_group_desc(const Args &args)
{
    if (args.empty() || args.size() > 2)
        return usage_error("group desc needs NAME [TEXT]");
    const std::string name(args[0]);
    if (args.size() == 2) {
        // Only an existing group gets a description, under its stored name.
        const auto stored = stored_group(name);
        if (!stored || stored->empty())
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

// ---- Event logs, configuration backup, host name --------------------------

// A 32-bit decimal number, or hexadecimal with or without "0x"; nullopt for
// anything else (signs, blanks, trailing text, overflow).
std::optional<uint32_t> parse_u32(std::string_view text, bool hex)
{
    if (hex && text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        text.remove_prefix(2);
    uint32_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, hex ? 16 : 10);
    if (ec != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

// The log and backup calls report some failures only in the system log,
// without an error code: the name is shown when there is one.  Callers
// clear the code before the call.
int logged_failure(std::string_view what, std::string_view why = "see the system log")
{
    if (KLIBErrGet() != ERR_SUCCESS)
        return library_failure(what);
    std::fprintf(stderr, "kemoctl: %.*s failed (%.*s)\n", static_cast<int>(what.size()), what.data(),
                 static_cast<int>(why.size()), why.data());
    return 1;
}

// An open descriptor, closed at the end of its scope.
class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// A private file made by mkstemp, removed at the end of its scope.
class TempFile {
public:
    explicit TempFile(std::string pattern) : path_(std::move(pattern)), fd_(mkstemp(path_.data())) {}
    ~TempFile()
    {
        if (fd_.get() >= 0)
            unlink(path_.c_str());
    }
    TempFile(const TempFile &) = delete;
    TempFile &operator=(const TempFile &) = delete;
    bool ok() const { return fd_.get() >= 0; }
    int fd() const { return fd_.get(); }
    const char *path() const { return path_.c_str(); }

private:
    std::string path_;
    Fd fd_;
};

int cmd_log_add(const Args &args)
{
    if (args.size() < 3 || args.size() > 7)
        return usage_error("log add needs CLASS TYPE ID [ARG1 [ARG2 [ARG3 [ARG4]]]]");
    const auto log_class = parse_u32(args[0], false), type = parse_u32(args[1], false);
    const auto id = parse_u32(args[2], true);
    if (!log_class || !type || !id)
        return usage_error("CLASS and TYPE are decimal numbers, ID a hexadecimal one");
    // Arguments not given are stored empty.
    std::string texts[4];
    const char *arg[4] = {};
    for (std::size_t i = 3; i < args.size(); ++i) {
        texts[i - 3] = args[i];
        arg[i - 3] = texts[i - 3].c_str();
    }
    KLIBErrSet(ERR_SUCCESS);
    if (KEMOLogSet1(*log_class, *type, *id, arg[0], arg[1], arg[2], arg[3]) != 0)
        return logged_failure("writing to log class " + std::string(args[0]));
    return 0;
}

// The library writes the text form of a log to a file: a private temporary
// one here, copied to standard output.
int cmd_log_show(const Args &args)
{
    if (args.empty() || args.size() > 2)
        return usage_error("log show needs CLASS [LANGUAGE]");
    const auto log_class = parse_u32(args[0], false);
    if (!log_class)
        return usage_error("CLASS is a decimal number");
    const std::string language = args.size() == 2 ? std::string(args[1]) : "";
    TempFile out("/tmp/kemoctl-log.XXXXXX");
    if (!out.ok()) {
        std::perror("kemoctl: making a temporary file");
        return 1;
    }
    KLIBErrSet(ERR_SUCCESS);
    if (KEMOLogGet1(*log_class, out.path(), language.empty() ? nullptr : language.c_str()) != 0)
        return logged_failure("reading log class " + std::string(args[0]),
                              "no such log, or see the system log");
    char buffer[8192];
    ssize_t n = 0;
    while ((n = read(out.fd(), buffer, sizeof buffer)) > 0)
        std::fwrite(buffer, 1, static_cast<std::size_t>(n), stdout);
    if (n < 0) {
        std::perror("kemoctl: reading the log text");
        return 1;
    }
    return 0;
}

int cmd_log_size(const Args &args)
{
    if (args.size() != 2)
        return usage_error("log size needs CLASS BYTES");
    const auto log_class = parse_u32(args[0], false), bytes = parse_u32(args[1], false);
    if (!log_class || !bytes || *log_class > INT32_MAX || *bytes > INT32_MAX)
        return usage_error("CLASS and BYTES are decimal numbers");
    KLIBErrSet(ERR_SUCCESS);
    if (KEMOLogSetSize(static_cast<int>(*bytes), static_cast<int>(*log_class)) != 0)
        return logged_failure("setting the size of log class " + std::string(args[0]));
    return 0;
}

int cmd_log_connections(const Args &args)
{
    if (!args.empty())
        return usage_error("log connections takes no arguments");
    ListPtr list(PslKLIBSzListAlloc(0));
    KLIBErrSet(ERR_SUCCESS);
    if (!list || growing(list, [](PKLIBSZLIST *l) { return KEMOLogGet(2, 1, l, nullptr); }) < 0)
        return logged_failure("listing the connections");
    for (int i = 0; i < list->nItem; ++i)
        std::printf("%s\n", list->pszItem[i]);
    return 0;
}

// The registry entry of a section id, or null.
const KEMOSYSBKPROUTINE *backup_entry(uint32_t id)
{
    for (const KEMOSYSBKPROUTINE *r = grgSysRoutine; r->id != 0; ++r)
        if (r->id == id)
            return r;
    return nullptr;
}

// What a backup file's headers say: the mask it was written for and its
// sections (id, body size) in file order.  Like the import, reading stops
// at the first id the registry does not know (that one is listed).
struct BackupContents {
    uint32_t mask = 0;
    std::vector<std::pair<uint32_t, uint32_t>> sections;
    std::string error; // empty when the file reads to its end
};

BackupContents read_backup(const std::string &path)
{
    BackupContents c;
    const Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    char magic[4];
    uint32_t words[3];
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0) {
        c.error = std::strerror(errno);
        return c;
    }
    if (read(fd.get(), magic, 4) != 4 || std::string_view(magic, 4) != "KEMO" ||
        KEMOSysbkpRawIntRead(fd.get(), words, 8) != 8 || words[0] != 1) {
        c.error = "not a configuration backup";
        return c;
    }
    c.mask = words[1];
    // The words come back in host order: id, version, body size.
    for (int got; (got = KEMOSysbkpRawIntRead(fd.get(), words, 12)) != 0;) {
        if (got != 12) {
            c.error = "a cut section header at the end";
            return c;
        }
        c.sections.emplace_back(words[0], words[2]);
        if (backup_entry(words[0]) == nullptr) {
            c.error = "unknown section id";
            return c;
        }
        const off_t end = lseek(fd.get(), static_cast<off_t>(words[2]), SEEK_CUR);
        if (end < 0 || end > st.st_size) {
            c.error = "a section runs past the end of the file";
            return c;
        }
    }
    return c;
}

std::optional<uint32_t> backup_mask(const Args &args)
{
    return args.size() == 2 ? parse_u32(args[1], true) : std::optional<uint32_t>(KEMO_SYSBKP_ALL);
}

int cmd_backup_export(const Args &args)
{
    if (args.empty() || args.size() > 2)
        return usage_error("backup export needs FILE [MASK]");
    const auto mask = backup_mask(args);
    if (!mask)
        return usage_error("MASK is a hexadecimal number");
    const std::string path(args[0]);
    KLIBErrSet(ERR_SUCCESS);
    if (KEMOSysbkpExport(path.c_str(), *mask, 0600) != 0)
        return logged_failure("exporting to " + path);
    struct stat st {};
    if (stat(path.c_str(), &st) == 0)
        std::printf("wrote %s: %zu section(s), %lld bytes\n", path.c_str(), read_backup(path).sections.size(),
                    static_cast<long long>(st.st_size));
    return 0;
}

// Check (apply 0) or restore; then one line per selected section the file
// holds, by the import status.
int backup_import(const Args &args, int apply)
{
    const char *verb = apply ? "import" : "check";
    if (args.empty() || args.size() > 2)
        return usage_error(std::string("backup ") + verb + " needs FILE [MASK]");
    const auto mask = backup_mask(args);
    if (!mask)
        return usage_error("MASK is a hexadecimal number");
    const std::string path(args[0]);
    const BackupContents contents = read_backup(path);
    KLIBErrSet(ERR_SUCCESS);
    const int result = KEMOSysbkpImport(path.c_str(), *mask, apply);
    const int code = KLIBErrGet();
    KEMOSysbkpFinishImport(-1, 1, 1); // frees the user map unless the import's own last entry did
    for (const KEMOSYSBKPROUTINE *r = grgSysRoutine; r->id != 0; ++r) {
        if (r->szDesc == nullptr || r->szDesc[0] == '\0' || (r->id & *mask) == 0 ||
            std::none_of(contents.sections.begin(), contents.sections.end(),
                         [&](const auto &s) { return s.first == r->id; }))
            continue;
        std::printf("  %-24s %s\n", r->szDesc,
                    (gimp_status & r->id) == 0 ? "failed" : apply ? "restored" : "checked");
    }
    if (result != 0) {
        KLIBErrSet(code);
        return logged_failure(std::string(apply ? "importing " : "checking ") + path,
                              contents.error.empty() ? "see the system log" : contents.error);
    }
    return 0;
}

int cmd_backup_check(const Args &args)
{
    return backup_import(args, 0);
}

int cmd_backup_import(const Args &args)
{
    return backup_import(args, 1);
}

int cmd_backup_list(const Args &args)
{
    if (args.size() != 1)
        return usage_error("backup list needs FILE");
    const std::string path(args[0]);
    const BackupContents contents = read_backup(path);
    if (contents.sections.empty() && !contents.error.empty()) {
        std::fprintf(stderr, "kemoctl: %s: %s\n", path.c_str(), contents.error.c_str());
        return 1;
    }
    std::printf("mask 0x%X, %zu section(s)\n", contents.mask, contents.sections.size());
    for (const auto &[id, size] : contents.sections) {
        const KEMOSYSBKPROUTINE *entry = backup_entry(id);
        std::printf("  0x%08X  %-24s %6u bytes\n", id, entry != nullptr ? entry->szDesc : "(unknown)", size);
    }
    if (!contents.error.empty()) {
        std::fprintf(stderr, "kemoctl: %s: %s\n", path.c_str(), contents.error.c_str());
        return 1;
    }
    return 0;
}

int cmd_hostname(const Args &args)
{
    if (args.size() > 1)
        return usage_error("hostname takes at most one NAME");
    if (args.size() == 1) {
        const std::string name(args[0]);
        if (KEMOLnxSetHostname(name.c_str()) != 0)
            return library_failure("setting the host name to " + name);
        return 0;
    }
    char name[256];
    if (KEMOLnxGetHostname(name, sizeof name) != 0)
        return library_failure("reading the host name");
    std::printf("%s\n", name);
    return 0;
}

struct Command {
    std::string_view name;
    std::string_view usage;
    int (*run)(const Args &);
};

constexpr Command kCommands[] = {
    {"version", "version", cmd_version},
    {"errors", "errors", cmd_errors},
    {"error", "error CODE", cmd_error},
    {"list", "list [--sort none|byte|case] [--at INDEX TEXT]... [--find TEXT] ITEM...", cmd_list},
    {"setop", "setop or|and|sub [--sort none|byte|case] A1,A2,... B1,B2,...", cmd_setop},
    {"hash", "hash [--get KEY]... [--remove KEY]... KEY=VALUE...", cmd_hash},
    {"get", "get FILE KEY [--last]", cmd_get},
    {"set", "set FILE KEY VALUE [--quote]", cmd_set},
    {"unset", "unset FILE KEY", cmd_unset},
    {"sections", "sections FILE", cmd_sections},
    {"section", "section FILE NAME", cmd_section},
    {"section-set", "section-set FILE NAME KEY=VALUE...", cmd_section_set},
    {"section-remove", "section-remove FILE NAME", cmd_section_remove},
    {"user list", "user list [--domain|--domain-used]", cmd_user_list},
    {"user show", "user show NAME", cmd_user_show},
    {"user add", "user add NAME [--password P|--password-stdin] [--desc D] [--mail M] [--expire YYYY-MM-DD]",
     cmd_user_add},
    {"user modify",
     "user modify NAME [--password P|--password-stdin] [--desc D] [--mail M] [--expire YYYY-MM-DD|never]",
     cmd_user_modify},
    {"user rename", "user rename OLD NEW", cmd_user_rename},
    {"user delete", "user delete NAME...", cmd_user_delete},
    {"user password", "user password NAME [--password P|--password-stdin]", cmd_user_password},
    {"user add-batch", "user add-batch < name:password[:description] lines", cmd_user_add_batch},
    {"group list", "group list [--domain]", cmd_group_list},
    {"group show", "group show NAME", cmd_group_show},
    {"group add", "group add NAME [MEMBER...]", cmd_group_add},
    {"group modify", "group modify NAME [MEMBER...]", cmd_group_modify},
    {"group rename", "group rename OLD NEW", cmd_group_rename},
    {"group delete", "group delete NAME...", cmd_group_delete},
    {"group members", "group members NAME", cmd_group_members},
    {"group desc", "group desc NAME [TEXT]", cmd_group_desc},
    {"share list", "share list [--usb|--sata|--all]", cmd_share_list},
    {"share show", "share show NAME", cmd_share_show},
    {"share access", "share access NAME USER", cmd_share_access},
    {"log add", "log add CLASS TYPE ID [ARG1 [ARG2 [ARG3 [ARG4]]]]   (ID hexadecimal)", cmd_log_add},
    {"log show", "log show CLASS [LANGUAGE]", cmd_log_show},
    {"log size", "log size CLASS BYTES", cmd_log_size},
    {"log connections", "log connections", cmd_log_connections},
    {"backup export", "backup export FILE [MASK]   (MASK hexadecimal, default 37FFFFB: all)", cmd_backup_export},
    {"backup check", "backup check FILE [MASK]", cmd_backup_check},
    {"backup import", "backup import FILE [MASK]", cmd_backup_import},
    {"backup list", "backup list FILE", cmd_backup_list},
    {"hostname", "hostname [NAME]", cmd_hostname},
    {"help", "help", cmd_help},
};

int cmd_help(const Args &)
{
    std::printf("usage: kemoctl COMMAND [ARG...]\n");
    for (const auto &c : kCommands)
        std::printf("  kemoctl %.*s\n", static_cast<int>(c.usage.size()), c.usage.data());
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        cmd_help({});
        return 2;
    }
    // A command is one word, or a family word and a command word ("user add").
    const std::string_view name = argv[1];
    const std::string_view sub = argc > 2 ? argv[2] : "";
    bool family = false;
    for (const auto &c : kCommands) {
        const auto space = c.name.find(' ');
        if (space == std::string_view::npos) {
            if (c.name == name)
                return c.run(Args(argv + 2, argv + argc));
        } else if (c.name.substr(0, space) == name) {
            family = true;
            if (c.name.substr(space + 1) == sub)
                return c.run(Args(argv + 3, argv + argc));
        }
    }
    if (family)
        return usage_error(sub.empty() ? std::string(name) + " needs a command"
                                       : "unknown " + std::string(name) + " command '" + std::string(sub) + "'");
    return usage_error("unknown command '" + std::string(name) + "'");
}
