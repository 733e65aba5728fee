// kemoctl get, set, unset, sections, section, section-set and
// section-remove: keys of settings files and [section] files.
//
// Changes are made under the file's configuration lock (see locked()).
#include "kemoctl.hpp"

#include <algorithm>
#include <cstdio>

namespace kemoctl {
namespace {

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

} // namespace

int cmd_get(const Args &args)
{
    const Parsed p = parse_args(args, {{"--last", 0}});
    if (!p.error.empty() || p.words.size() != 2)
        return usage_error("get needs FILE KEY");
    const std::string path(p.words[0]), key(p.words[1]);
    const int flags = p.options.empty() ? 0 : 1;
    const int size = KLIBFileGetKeyValue(path.c_str(), key.c_str(), nullptr, 0, flags);
    if (size == 0 && KLIBErrGet() == ERR_KEY_NOT_FOUND)
        return file_failure(path, "no value for " + key);
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
    const auto names = filled_list([&](PKLIBSZLIST *l) { return KLIBFileEnumSection(path.c_str(), l); });
    return names ? print_lines(*names) : library_failure("reading " + path);
}

int cmd_section(const Args &args)
{
    if (args.size() != 2)
        return usage_error("section needs FILE NAME");
    const std::string path(args[0]), name(args[1]);
    HashPtr hash(PshKLIBSzHashAlloc(0));
    if (!hash || growing(hash, [&](PKLIBSZHASH *h) { return KLIBFileGetSection(path.c_str(), name.c_str(), h); }) < 0)
        return library_failure("reading " + path);
    if (KLIBSzHashPairNum(hash.get()) == 0)
        return file_failure(path, "no section [" + name + "] (or it is empty)");
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
    std::vector<std::pair<std::string, std::string>> pairs;
    for (std::size_t i = 2; i < args.size(); ++i) {
        auto pair = key_value(args[i]);
        if (!pair || pair->first.empty())
            return usage_error(std::string(1, '\'').append(args[i]).append("' is not KEY=VALUE"));
        pairs.push_back(std::move(*pair));
    }
    const int result = locked(path, [&] {
        for (const auto &[key, value] : pairs)
            if (ErrSetSecKeyVal(path.c_str(), name.c_str(), key.c_str(), value.c_str(), "\t%s=%s\n") < 0)
                return -1;
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
    return found == 0 ? file_failure(path, "no section [" + name + "]") : 0;
}

} // namespace kemoctl
