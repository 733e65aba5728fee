// kemoctl list, setop and hash: the library's string lists and string
// hashes, built from the command line and printed with their bookkeeping.
#include "kemoctl.hpp"

#include <cstdio>
#include <cstdlib>

namespace kemoctl {
namespace {

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

} // namespace

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
        const auto pair = key_value(word);
        if (!pair)
            return usage_error("hash items are KEY=VALUE");
        const std::string &key = pair->first, &value = pair->second;
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

} // namespace kemoctl
