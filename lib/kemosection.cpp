// Sectioned settings files: "[name]" header lines, each followed by
// "key=value" lines up to the next header.  Sections are enumerated, read
// into a hash, added, replaced and removed; single lines are found, read and
// replaced by a text pattern.
#include "kemosection.hpp"
#include "kemo_io.hpp"
#include "kemohash.hpp"
#include "kemounicode.hpp"

#include <cctype>
#include <cstring>
#include <string>

namespace {

using kemo::fail;

bool is_comment(std::string_view line) noexcept
{
    return !line.empty() && (line[0] == '#' || line[0] == ';');
}

bool is_space(char c) noexcept
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// "[...]" with only white space after the closing bracket.
bool is_section(std::string_view line) noexcept
{
    if (line.empty() || line[0] != '[')
        return false;
    std::size_t end = line.size();
    while (end > 0 && is_space(line[end - 1]))
        --end;
    return end >= 2 && line[end - 1] == ']';
}

// The header of exactly name (byte for byte).
bool matches_section(std::string_view line, std::string_view name) noexcept
{
    if (line.size() < name.size() + 2 || line[0] != '[' || line.substr(1, name.size()) != name ||
        line[name.size() + 1] != ']')
        return false;
    for (char c : line.substr(name.size() + 2))
        if (!is_space(c))
            return false;
    return true;
}

// A section name that can be written as a header and read back.
bool writable_name(const char *name) noexcept
{
    return name != nullptr && kemo::fits_on_line(name) && std::strchr(name, ']') == nullptr;
}

// Upper-cases for case-insensitive matching; text that is not valid UTF-8
// is upper-cased byte by byte in ASCII so that it can still match.
std::string upper(std::string_view text)
{
    if (auto up = kemo::unicode::upper(text))
        return *std::move(up);
    std::string in(text);
    for (char &c : in)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return in;
}

bool line_match(std::string_view line, std::string_view pattern, int flags)
{
    if (flags < 0 || is_comment(line))
        return false;
    // The suffix rule looks at the text right before the newline; a line
    // without one (the file's unterminated last line) never matches it.
    if ((flags & KLIB_MATCH_SUFFIX) != 0) {
        if (line.empty() || line.back() != '\n')
            return false;
        line.remove_suffix(1);
    }
    std::string up_line, up_pattern;
    if ((flags & KLIB_MATCH_NOCASE) != 0) {
        up_line = upper(line);
        up_pattern = upper(pattern);
        line = up_line;
        pattern = up_pattern;
    }
    const bool prefix = (flags & KLIB_MATCH_PREFIX) != 0;
    const bool suffix = (flags & KLIB_MATCH_SUFFIX) != 0;
    if (!prefix && !suffix)
        return line.find(pattern) != std::string_view::npos;
    return (!prefix || line.starts_with(pattern)) && (!suffix || line.ends_with(pattern));
}

// "[name]\n" and the pairs of hash (none when null) in slot order, in the
// layout ErrKLIBIFileHash2File writes; nullopt with the error code set.
std::optional<std::string> render_section(const char *name, PKLIBSZHASH hash, const char *format)
{
    if (hash == nullptr) {
        kemo::PairFormat fmt;
        if (!fmt.parse_or_default(format))
            return fail(std::optional<std::string>(), ERR_BAD_PARAMETERS);
        std::string header;
        header.append("[").append(name).append("]\n");
        return header;
    }
    char *data = nullptr;
    std::size_t size = 0;
    FILE *memory = ::open_memstream(&data, &size);
    if (memory == nullptr)
        throw std::bad_alloc();
    int written = -1;
    try {
        written = kemo::szhash::write_section(memory, name, *hash, format);
    } catch (...) {
        std::fclose(memory);
        std::free(data);
        throw;
    }
    std::fclose(memory);
    std::optional<std::string> text;
    if (written == 0)
        text.emplace(data, size);
    std::free(data);
    return text;
}

// Index (0-based) of the first or, with KLIB_MATCH_LAST, the last line of
// in matching pattern; -1 when none does, -2 on a read error.
int find_line(FILE *in, std::string_view pattern, int flags)
{
    kemo::LineReader reader(in);
    std::string_view line;
    int index = 0, found = -1;
    for (; reader.next(line); ++index) {
        if (!line_match(line, pattern, flags))
            continue;
        found = index;
        if ((flags & KLIB_MATCH_LAST) == 0)
            break;
    }
    return reader.failed() ? -2 : found;
}

// Puts `text` in place of line `target` (replace) or after it (insert), or
// at the end when target is -1.  A missing file is created holding text.
int put_line(const char *path, const char *pattern, const std::string &text, int flags, bool replace)
{
    kemo::FilePtr in;
    const int opened = kemo::open_or_create(path, "r", text, in);
    if (opened <= 0)
        return opened == 0 ? 1 : -1;
    const int target = pattern != nullptr ? find_line(in.get(), pattern, flags) : -1;
    if (target == -2)
        return fail(-1, ERR_READ_FAILED);
    if (target == -1 && replace)
        return fail(0, ERR_KEY_NOT_FOUND);
    std::rewind(in.get());
    int index = 0;
    return kemo::rewrite_file(
        in.get(), path,
        [&](std::string_view line, kemo::Twin &twin) {
            const bool here = index++ == target;
            if (!(here && replace))
                twin.write(line);
            if (here) {
                if (line.back() != '\n')
                    twin.write("\n");
                twin.write(text);
            }
            return true;
        },
        [&](kemo::Twin &twin, bool ended) {
            if (target == -1) {
                if (!ended)
                    twin.write("\n");
                twin.write(text);
            }
            return 1;
        },
        ERR_READ_FAILED);
}

} // namespace

namespace kemo::sections {

bool is_section(std::string_view line) noexcept
{
    return ::is_section(line);
}

bool matches_section(std::string_view line, std::string_view name) noexcept
{
    return ::matches_section(line, name);
}

bool line_matches(std::string_view line, std::string_view pattern, int flags)
{
    return line_match(line, pattern, flags);
}

int enum_sections(const char *path, PKLIBSZLIST *plist)
{
    std::string name;
    if (kemo::for_each_line(path, [&](std::string_view line) {
            if (!::is_section(line))
                return 1;
            // Header lines are read into a buffer of 1024 bytes.
            if (line.size() > 1023)
                return fail(-1, ERR_NOT_ENOUGH_MEMORY);
            const std::string_view header = kemo::trimmed(line);
            name.assign(header.substr(1, header.rfind(']') - 1));
            return KLIBSzListPush(plist, name.c_str()) < 0 ? -1 : 1;
        }) < 0)
        return -1;
    return (*plist)->nItem;
}

int get_section(const char *path, std::string_view name, PKLIBSZHASH *phash)
{
    bool inside = false;
    std::string scratch;
    if (kemo::for_each_line(path, [&](std::string_view line) {
            if (!inside) {
                inside = ::matches_section(line, name);
                return 1;
            }
            // Any line that begins with "[" ends the body.
            if (line[0] == '[')
                return 0;
            const auto pair = is_comment(line) ? std::nullopt : kemo::split_pair(line);
            return !pair ? 1 : kemo::set_pair(phash, *pair, scratch) < 0 ? -1 : 1;
        }) < 0)
        return -1;
    return KLIBSzHashPairNum(*phash);
}

int add_section(const char *path, const char *name, PKLIBSZHASH hash, const char *format)
{
    const auto section = render_section(name, hash, format);
    if (!section)
        return -1;
    kemo::FilePtr f = kemo::open_file(path, "r+");
    if (!f)
        return fail(-1, ERR_OPEN_FAILED);
    kemo::LineReader reader(f.get());
    std::string_view line;
    bool ended = true;
    while (reader.next(line)) {
        if (::matches_section(line, name))
            return 0;
        ended = line.back() == '\n';
    }
    if (reader.failed())
        return fail(-1, ERR_READ_FAILED);
    if (!kemo::append_in_place(f.get(), ended ? *section : "\n" + *section))
        return -1;
    if (std::fclose(f.release()) != 0)
        return fail(-1, ERR_WRITE_FAILED);
    return 1;
}

int modify_section(const char *path, const char *name, const char *new_name, PKLIBSZHASH hash,
                   bool replace, const char *format)
{
    std::optional<std::string> section;
    if (replace && !(section = render_section(new_name != nullptr ? new_name : name, hash, format)))
        return -1;
    bool inside = false, found = false;
    const int result = kemo::rewrite_file(
        path,
        [&](std::string_view line, kemo::Twin &twin) {
            if (::is_section(line)) {
                inside = ::matches_section(line, name);
                if (inside) {
                    found = true;
                    if (replace)
                        twin.write(*section);
                    return true;
                }
            }
            // Comments inside a dropped section stay where they were.
            if (!inside || is_comment(line))
                twin.write(line);
            return true;
        },
        [](kemo::Twin &, bool) { return 1; }, ERR_READ_FAILED);
    return result < 0 ? -1 : (found ? 1 : 0);
}

// Sets one key of a section: an absent section is first added (its header
// alone), then the section is read, changed and written back whole.
int set_section_key(const char *path, const char *section, const char *key, const char *value,
                    const char *format)
{
    std::unique_ptr<KLIBSZHASH, void (*)(PKLIBSZHASH)> hash(PshKLIBSzHashAlloc(1024), KLIBSzHashFree);
    if (!hash)
        return fail(-1, ERR_OUT_OF_MEMORY);
    const int added = add_section(path, section, hash.get(), format);
    if (added < 0)
        return -1;
    PKLIBSZHASH h = hash.release();
    const bool filled = (added == 1 || get_section(path, section, &h) >= 0) &&
                        KLIBSzHashSetValue(&h, key, value) >= 0;
    hash.reset(h);
    if (!filled)
        return -1;
    return modify_section(path, section, nullptr, hash.get(), true, format);
}

int get_line(const char *path, std::string_view pattern, char *buf, int size, int flags)
{
    std::optional<std::string> found;
    if (kemo::for_each_line(path, [&](std::string_view line) {
            if (!line_match(line, pattern, flags))
                return 1;
            found.emplace(line.substr(0, line.back() == '\n' ? line.size() - 1 : line.size()));
            return (flags & KLIB_MATCH_LAST) != 0 ? 1 : 0;
        }) < 0)
        return -1;
    if (!found)
        return fail(0, ERR_KEY_NOT_FOUND);
    const int needed = static_cast<int>(found->size()) + 1;
    if (needed > size)
        return fail(-1, ERR_NOT_ENOUGH_MEMORY);
    std::memcpy(buf, found->c_str(), static_cast<std::size_t>(needed));
    return needed;
}

int set_line(const char *path, const char *pattern, std::string_view line, int flags)
{
    if (!kemo::is_single_line(line) || kemo::is_directory(path))
        return fail(-1, ERR_BAD_PARAMETERS);
    // Changes of the default file system are traced on purpose.
    if (std::strstr(pattern, "defaultfs") != nullptr) {
        const std::string text(line);
        KEMO_LOG("szKey=%s, szLine=%s", pattern, text.c_str());
    }
    return put_line(path, pattern, kemo::with_newline(line), flags, true);
}

int add_line(const char *path, const char *pattern, std::string_view line, int flags)
{
    return put_line(path, pattern, kemo::with_newline(line), flags, false);
}

} // namespace kemo::sections

extern "C" {

KEMO_API int KLIBIFileIsSection(const char *line, int length)
{
    if (line == nullptr || length < 0)
        return 0;
    return kemo::sections::is_section(std::string_view(line, static_cast<std::size_t>(length))) ? 1 : 0;
}

KEMO_API int KLIBIFileMatchSection(const char *line, int length, const char *name)
{
    if (line == nullptr || name == nullptr || length < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::sections::matches_section(std::string_view(line, static_cast<std::size_t>(length)), name)
               ? 1
               : 0;
}

KEMO_API int KLIBILineMatch(const char *line, const char *pattern, int flags)
{
    if (line == nullptr || pattern == nullptr || flags < 0)
        return 0;
    return kemo::edge(0, [&] { return kemo::sections::line_matches(line, pattern, flags) ? 1 : 0; });
}

KEMO_API int KLIBFileEnumSection(const char *path, PKLIBSZLIST *plist)
{
    if (path == nullptr || plist == nullptr || *plist == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::sections::enum_sections(path, plist); });
}
KEMO_API int KLIBFileGetSection(const char *path, const char *name, PKLIBSZHASH *phash)
{
    if (path == nullptr || name == nullptr || phash == nullptr || *phash == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::sections::get_section(path, name, phash); });
}

KEMO_API int ErrKLIBFileAddSection(const char *path, const char *name, PKLIBSZHASH hash,
                                   const char *format)
{
    if (path == nullptr || !writable_name(name) || !kemo::hash_fits_on_lines(hash))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::sections::add_section(path, name, hash, format); });
}

KEMO_API int ErrKLIBIFileModifySection(const char *path, const char *name, const char *newName,
                                       PKLIBSZHASH hash, int flags, const char *format)
{
    if (path == nullptr || name == nullptr || !kemo::fits_on_line(name))
        return fail(-1, ERR_BAD_PARAMETERS);
    const bool replace = (flags & 1) != 0;
    if (replace && (hash == nullptr || !writable_name(newName != nullptr ? newName : name) ||
                    !kemo::hash_fits_on_lines(hash)))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        return kemo::sections::modify_section(path, name, newName, hash, replace, format);
    });
}

KEMO_API int ErrKLIBFileRemoveSection(const char *path, const char *name)
{
    if (path == nullptr || name == nullptr || !kemo::fits_on_line(name))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        return kemo::sections::modify_section(path, name, nullptr, nullptr, false, nullptr);
    });
}

KEMO_API int ErrKLIBFileSetSection(const char *path, const char *name, const char *newName,
                                   PKLIBSZHASH hash, const char *format)
{
    if (path == nullptr || name == nullptr || hash == nullptr || !kemo::fits_on_line(name) ||
        !writable_name(newName != nullptr ? newName : name) || !kemo::hash_fits_on_lines(hash))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        return kemo::sections::modify_section(path, name, newName, hash, true, format);
    });
}

KEMO_API int ErrSetSecKeyVal(const char *path, const char *section, const char *key,
                             const char *value, const char *format)
{
    // Everything is checked before the section may be added.
    if (path == nullptr || !writable_name(section) || key == nullptr || value == nullptr ||
        !kemo::fits_on_line(key) || !kemo::fits_on_line(value))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::sections::set_section_key(path, section, key, value, format); });
}

KEMO_API int KLIBFileGetLine(const char *path, const char *pattern, char *buf, int size, int flags)
{
    if (path == nullptr || pattern == nullptr || buf == nullptr || size < 1 || flags < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::sections::get_line(path, pattern, buf, size, flags); });
}

KEMO_API int KLIBFileSetLine(const char *path, const char *pattern, const char *line, int flags)
{
    if (path == nullptr || pattern == nullptr || line == nullptr || flags < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::sections::set_line(path, pattern, line, flags); });
}

KEMO_API int KLIBFileAddLine(const char *path, const char *pattern, const char *line, int flags)
{
    if (path == nullptr || line == nullptr || flags < 0 || !kemo::is_single_line(line) ||
        kemo::is_directory(path))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::sections::add_line(path, pattern, line, flags); });
}

} // extern "C"
