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
// Changes to a file are made under its lock: the file-sharing lock for
// /usr/kemo/etc/smb.conf, the settings lock for every other file.
//
// Exit status: 0 on success, 1 when the library reports a failure (its error
// name is printed on standard error), 2 on a usage error.
#include "kemo.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
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
    if (code >= 0 && (code & 0xFF) == 0 && (code >> 8) < KEMO_ERR_TABLE_SIZE && rgszErrMsg[code >> 8])
        return rgszErrMsg[code >> 8];
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
    const std::string_view name = argv[1];
    const Args args(argv + 2, argv + argc);
    for (const auto &c : kCommands)
        if (c.name == name)
            return c.run(args);
    return usage_error("unknown command '" + std::string(name) + "'");
}
