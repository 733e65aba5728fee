// Key/value settings files ("key=value" lines): reading single values and
// whole files, and changing them through a twin that replaces the file only
// once it is complete on disk.  Lines a function does not own are copied
// byte for byte.
#include "kemofile.hpp"
#include "kemo_io.hpp"
#include "kemosection.hpp"

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_set>
#include <vector>

namespace {

using kemo::fail;

bool is_comment(std::string_view line) noexcept
{
    return !line.empty() && (line[0] == '#' || line[0] == ';');
}

// The key as it stands in the line: the first non-empty token between "="
// signs (a line beginning with "=" takes its key from the text after it; a
// line without "=" is all key).
std::string_view raw_key(std::string_view line) noexcept
{
    const auto start = line.find_first_not_of('=');
    if (start == std::string_view::npos)
        return {};
    const auto end = line.find('=', start);
    return line.substr(start, end == std::string_view::npos ? end : end - start);
}

std::string_view line_key(std::string_view line) noexcept
{
    return kemo::trimmed(raw_key(line));
}

bool key_matches(std::string_view line, std::string_view key) noexcept
{
    // Most lines of a file hold other keys: when the key begins with an
    // ordinary byte, a line whose first byte past blanks, "=" and quotes
    // differs cannot hold it.
    constexpr std::string_view skipped = " \t\r\n=\"";
    if (!key.empty() && skipped.find(key[0]) == std::string_view::npos) {
        const auto first = line.find_first_not_of(skipped);
        if (first == std::string_view::npos || line[first] != key[0])
            return false;
    }
    return !is_comment(line) && line_key(line) == key;
}

// The value of a line: the text after its first "=" up to the newline,
// trimmed.  nullopt when there is nothing at all after the "=": such a key
// reads as absent, while blanks after it read as the empty string.
std::optional<std::string_view> line_value(std::string_view line) noexcept
{
    const auto eq = line.find('=');
    if (eq == std::string_view::npos)
        return std::nullopt;
    std::string_view raw = line.substr(eq + 1);
    if (!raw.empty() && raw.back() == '\n')
        raw.remove_suffix(1);
    if (raw.empty())
        return std::nullopt;
    return kemo::trimmed(raw);
}

std::string_view without_newline(std::string_view line) noexcept
{
    if (!line.empty() && line.back() == '\n')
        line.remove_suffix(1);
    return line;
}

// A line that is about to be written after the file's last line: a last
// line without its newline gets one first, so the two do not run together.
void append_after(kemo::Twin &twin, bool ended, std::string_view text)
{
    if (!ended)
        twin.write("\n");
    twin.write(text);
}

// A setter's result when open_or_create did not open a file: 1 when it
// created one, else -1; a place where no file can be created at all is a
// bad path.
int created_result(int opened)
{
    if (opened == 0)
        return 1;
    if (opened == -2 && KLIBErrGet() == ERR_OPEN_FAILED)
        return fail(-1, ERR_BAD_PARAMETERS);
    return -1;
}

// Shared by the setters of one key: the first line of key is replaced by
// replacement(line), later ones are dropped, and fresh_line is appended when
// none matched.  A missing file is created holding fresh_line.
template <class Replace>
int set_by_key(const char *path, std::string_view key, const std::string &fresh_line,
               Replace &&replacement)
{
    kemo::FilePtr in;
    const int opened = kemo::open_or_create(path, "r", fresh_line, in);
    if (opened <= 0)
        return created_result(opened);
    bool matched = false;
    return kemo::rewrite_file(
        in.get(), path,
        [&](std::string_view line, kemo::Twin &twin) {
            if (!key_matches(line, key))
                return twin.write(line), true;
            if (!matched)
                twin.write(replacement(line));
            matched = true;
            return true;
        },
        [&](kemo::Twin &twin, bool ended) {
            if (!matched)
                append_after(twin, ended, fresh_line);
            return 1;
        });
}

// Writes every pair of hash into the file at path: the first line of each
// key is replaced, the keys the file lacks are appended in slot order.
// Returns the number of keys written (the file is left alone when none);
// with consume, the keys found in the file (not the appended ones) leave the
// hash.
int write_keys(const char *path, PKLIBSZHASH hash, const char *format, bool consume)
{
    kemo::PairFormat fmt;
    if (!fmt.parse_or_default(format))
        return fail(-1, ERR_BAD_PARAMETERS);
    std::unordered_set<std::string> written;
    std::vector<std::string> in_file;
    std::string key;
    const int result = kemo::rewrite_file(
        path,
        [&](std::string_view line, kemo::Twin &twin) {
            const std::string_view t = kemo::trimmed(line);
            if (!t.empty() && t[0] != '#' && t[0] != ';') {
                key.assign(line_key(line));
                const char *value = SzKLIBSzHashGetValue(hash, key.c_str());
                if (value != nullptr && written.insert(key).second) {
                    in_file.push_back(key);
                    return twin.write(fmt.line(key, value)), true;
                }
            }
            return twin.write(line), true;
        },
        [&](kemo::Twin &twin, bool ended) {
            for (int i = 0; i < hash->nSlot; ++i) {
                const KLIBSZHASHSLOT &slot = hash->rgSlot[i];
                if (slot.pszKey == nullptr || *slot.pszKey == '\0' || written.count(slot.pszKey))
                    continue;
                append_after(twin, ended, fmt.line(slot.pszKey, slot.pszValue));
                ended = true;
                written.insert(slot.pszKey);
            }
            return written.empty() ? 0 : 1;
        });
    if (result < 0)
        return -1;
    if (consume)
        for (const std::string &k : in_file)
            SzKLIBSzHashRemoveKey(hash, k.c_str());
    return static_cast<int>(written.size());
}

} // namespace

namespace kemo::settings {

bool key_matches(std::string_view line, std::string_view key) noexcept
{
    return ::key_matches(line, key);
}

int find_key(const char *path, std::string_view key, int flags, bool whole_line,
             std::optional<std::string> &found)
{
    const bool last = (flags & 1) != 0;
    found.reset();
    if (kemo::for_each_line(path, [&](std::string_view line) {
            if (!::key_matches(line, key))
                return 1;
            const std::optional<std::string_view> answer =
                whole_line ? std::optional(without_newline(line)) : line_value(line);
            found = answer ? std::optional<std::string>(*answer) : std::nullopt;
            return last ? 1 : 0;
        }) < 0)
        return -1;
    return found ? 1 : fail(0, ERR_KEY_NOT_FOUND);
}

std::optional<std::string> get_value(const char *path, std::string_view key, int flags)
{
    std::optional<std::string> found;
    find_key(path, key, flags, false, found);
    return found;
}

std::optional<std::string> get_key_line(const char *path, std::string_view key, int flags)
{
    std::optional<std::string> found;
    find_key(path, key, flags, true, found);
    return found;
}

int copy_found(const char *path, std::string_view key, char *buf, int size, int flags, bool whole_line)
{
    std::optional<std::string> found;
    const int result = find_key(path, key, flags, whole_line, found);
    if (result <= 0)
        return result;
    const int needed = static_cast<int>(found->size()) + 1;
    if (buf != nullptr) {
        if (needed > size)
            return fail(-1, ERR_NOT_ENOUGH_MEMORY);
        std::memcpy(buf, found->c_str(), static_cast<std::size_t>(needed));
    }
    return needed;
}

int set_key_value(const char *path, std::string_view key, std::string_view value, const char *format)
{
    kemo::PairFormat fmt;
    if (!fmt.parse_or_default(format))
        return fail(-1, ERR_BAD_PARAMETERS);
    // With the caller's format the line keeps its own key text as it stood
    // before its "=" (spacing included); the default format writes the key
    // as given.
    return set_by_key(path, key, fmt.line(key, value), [&](std::string_view line) {
        if (format == nullptr)
            return fmt.line(key, value);
        const auto eq = line.find('=');
        return fmt.line(eq == std::string_view::npos ? without_newline(line) : line.substr(0, eq), value);
    });
}

int set_value(const char *path, std::string_view key, std::string_view value, const char *format)
{
    if (!kemo::fits_on_line(key) || !kemo::fits_on_line(value))
        return fail(-1, ERR_BAD_PARAMETERS);
    // Changes of the default file system are traced on purpose.
    if (key == "defaultfs") {
        const std::string k(key), v(value);
        KEMO_LOG("szKey=%s, szValue=%s", k.c_str(), v.c_str());
    }
    if (kemo::is_directory(path))
        return fail(-1, ERR_BAD_PARAMETERS);
    return set_key_value(path, key, value, format);
}

int append_key(const char *path, std::string_view key, std::string_view value, const char *format)
{
    kemo::PairFormat fmt;
    if (!fmt.parse_or_default(format))
        return fail(-1, ERR_BAD_PARAMETERS);
    const std::string fresh = fmt.line(key, value);
    kemo::FilePtr f;
    const int opened = kemo::open_or_create(path, "r+", fresh, f);
    if (opened <= 0)
        return created_result(opened);
    kemo::LineReader reader(f.get());
    std::string_view line;
    bool ended = true;
    while (reader.next(line)) {
        if (::key_matches(line, key))
            return fail(0, ERR_KEY_EXISTS);
        ended = line.back() == '\n';
    }
    if (reader.failed())
        return fail(-1, ERR_READ_FAILED);
    if (!kemo::append_in_place(f.get(), ended ? fresh : "\n" + fresh))
        return -1;
    if (std::fclose(f.release()) != 0)
        return fail(-1, ERR_WRITE_FAILED);
    return 1;
}

int set_or_append(const char *path, std::string_view key, std::string_view value, const char *format)
{
    const int result = set_key_value(path, key, value, format);
    return result == 0 ? append_key(path, key, value, format) : result;
}

int set_line_by_key(const char *path, std::string_view key, std::string_view line)
{
    const std::string text = kemo::with_newline(line);
    return set_by_key(path, key, text, [&](std::string_view) { return text; });
}

int add_line_by_key(const char *path, std::string_view key, std::string_view line)
{
    const std::string text = kemo::with_newline(line);
    if (::access(path, F_OK) != 0 && errno == ENOENT)
        return kemo::create_file(path, text) ? 1 : -1;
    bool exists = false;
    const int result = kemo::rewrite_file(
        path,
        [&](std::string_view l, kemo::Twin &twin) {
            exists = exists || ::key_matches(l, key);
            return twin.write(l), true;
        },
        [&](kemo::Twin &twin, bool ended) {
            if (exists)
                return 0;
            append_after(twin, ended, text);
            return 1;
        });
    return result == 0 ? fail(0, ERR_KEY_EXISTS) : result;
}

int remove_key(const char *path, std::string_view key)
{
    int removed = 0;
    const int result = kemo::rewrite_file(
        path,
        [&](std::string_view line, kemo::Twin &twin) {
            if (::key_matches(line, key))
                ++removed;
            else
                twin.write(line);
            return true;
        },
        [&](kemo::Twin &, bool) { return removed > 0 ? 1 : 0; });
    if (result < 0)
        return -1;
    return removed > 0 ? removed : fail(0, ERR_KEY_NOT_FOUND);
}

int get_pairs(const char *path, PKLIBSZHASH *phash)
{
    std::string scratch;
    if (kemo::for_each_line(path, [&](std::string_view line) {
            const auto pair = kemo::split_pair(line);
            return !pair ? 1 : kemo::set_pair(phash, *pair, scratch) < 0 ? -1 : 1;
        }) < 0)
        return -1;
    return KLIBSzHashPairNum(*phash);
}

int move_key_line(FILE *stream, std::string_view line, PKLIBSZHASH hash, const char *format)
{
    kemo::PairFormat fmt;
    if (!fmt.parse_or_default(format))
        return fail(-1, ERR_BAD_PARAMETERS);
    const std::string_view t = kemo::trimmed(line);
    if (t.empty() || t[0] == '#' || t[0] == ';')
        return 0;
    const std::string key(line_key(line));
    const char *value = SzKLIBSzHashGetValue(hash, key.c_str());
    if (value == nullptr)
        return 0;
    if (!kemo::fits_on_line(value))
        return fail(-1, ERR_BAD_PARAMETERS);
    const std::string text = fmt.line(key, value);
    if (std::fwrite(text.data(), 1, text.size(), stream) != text.size())
        return fail(-1, ERR_WRITE_FAILED);
    if (SzKLIBSzHashRemoveKey(hash, key.c_str()) == nullptr) {
        kemo::log("KLIBILineKeyMoveHash2File(): SzKLIBSzHashRemoveKey(pshHash, szKey) \t\t\t   "
                  "szKey=%s",
                  key.c_str());
        return -1;
    }
    return 1;
}

int set_keys(const char *path, PKLIBSZHASH hash, const char *format)
{
    return write_keys(path, hash, format, true);
}

int set_pairs(const char *path, PKLIBSZHASH hash, const char *format)
{
    if (!kemo::hash_fits_on_lines(hash) || kemo::is_directory(path))
        return fail(-1, ERR_BAD_PARAMETERS);
    if (::access(path, F_OK) != 0 && errno == ENOENT && !kemo::create_file(path, ""))
        return -1;
    return write_keys(path, hash, format, false) < 0 ? -1 : 0;
}

int merge_pairs(const char *dst, const char *src, const char *format)
{
    kemo::PairFormat fmt;
    if (!fmt.parse_or_default(format))
        return fail(-1, ERR_BAD_PARAMETERS);
    // The pairs of src in file order, first occurrence of each key.
    std::vector<std::pair<std::string, std::string>> pairs;
    std::unordered_set<std::string> seen;
    if (kemo::for_each_line(src, [&](std::string_view line) {
            const auto pair = is_comment(line) ? std::nullopt : kemo::split_pair(line);
            if (!pair)
                return 1;
            // A stray CR inside a pair would become a line break of dst.
            if (!kemo::fits_on_line(pair->key) || !kemo::fits_on_line(pair->value))
                return fail(-1, ERR_BAD_PARAMETERS);
            if (seen.emplace(pair->key).second)
                pairs.emplace_back(pair->key, pair->value);
            return 1;
        }) < 0)
        return -1;
    if (::access(dst, F_OK) != 0 && errno == ENOENT && !kemo::create_file(dst, ""))
        return -1;
    int added = 0;
    const int result = kemo::rewrite_file(
        dst,
        [&](std::string_view line, kemo::Twin &twin) {
            if (!is_comment(line))
                seen.erase(std::string(line_key(line)));
            return twin.write(line), true;
        },
        [&](kemo::Twin &twin, bool ended) {
            for (const auto &[key, value] : pairs) {
                if (!seen.count(key))
                    continue;
                append_after(twin, ended, fmt.line(key, value));
                ended = true;
                ++added;
            }
            return added > 0 ? 1 : 0;
        });
    return result < 0 ? -1 : added;
}

int replace_substring(const char *path, std::string_view from, std::string_view to)
{
    int replaced = 0;
    std::string out;
    const int result = kemo::rewrite_file(
        path,
        [&](std::string_view line, kemo::Twin &twin) {
            if (is_comment(line) || line.find(from) == std::string_view::npos)
                return twin.write(line), true;
            out.clear();
            std::size_t at = 0;
            for (auto hit = line.find(from); hit != std::string_view::npos; hit = line.find(from, at)) {
                out.append(line.substr(at, hit - at)).append(to);
                at = hit + from.size();
                ++replaced;
            }
            out.append(line.substr(at));
            return twin.write(out), true;
        },
        [&](kemo::Twin &, bool) { return replaced > 0 ? 1 : 0; });
    return result < 0 ? -1 : replaced;
}

int comment_key(const char *path, std::string_view key)
{
    int count = 0;
    const int result = kemo::rewrite_file(
        path,
        [&](std::string_view line, kemo::Twin &twin) {
            if (::key_matches(line, key)) {
                twin.write("#");
                ++count;
            }
            return twin.write(line), true;
        },
        [&](kemo::Twin &, bool) { return count > 0 ? 1 : 0; });
    if (result < 0)
        return -1;
    return count > 0 ? count : fail(0, ERR_KEY_NOT_FOUND);
}

int reverse_lines(const char *path)
{
    std::vector<std::string> lines;
    const int result = kemo::rewrite_file(
        path,
        [&](std::string_view line, kemo::Twin &) {
            lines.emplace_back(without_newline(line));
            return true;
        },
        [&](kemo::Twin &twin, bool) {
            for (auto it = lines.rbegin(); it != lines.rend(); ++it)
                twin.write(*it), twin.write("\n");
            return 1;
        });
    if (result < 0) {
        kemo::log("%s line %d: fail to rename errno=%d", __FILE__, __LINE__, errno);
        return -1;
    }
    return static_cast<int>(lines.size());
}

int read_lines(const char *path, PKLIBSZLIST *plist)
{
    int count = 0;
    std::string text;
    const int result = kemo::for_each_line(path, [&](std::string_view line) {
        text.assign(without_newline(line));
        return KLIBSzListPush(plist, text.c_str()) < 0 ? -1 : (++count, 1);
    });
    return result < 0 ? -1 : count;
}

int match_line_number(const char *path, std::string_view pattern, int flags)
{
    int number = 0, found = 0;
    if (kemo::for_each_line(path, [&](std::string_view line) {
            ++number;
            // As a C string the line would end at its first NUL byte.
            const std::string_view text = line.substr(0, line.find('\0'));
            if (!kemo::sections::line_matches(text, pattern, flags))
                return 1;
            found = number;
            return (flags & KLIB_MATCH_LAST) != 0 ? 1 : 0;
        }) < 0)
        return -1;
    return found > 0 ? found : fail(0, ERR_KEY_NOT_FOUND);
}

int enum_dir(const char *dir, PKLIBSZLIST *plist, int flags)
{
    std::unique_ptr<DIR, int (*)(DIR *)> d(::opendir(dir), ::closedir);
    if (!d)
        return fail(-1, ERR_OPEN_FAILED);
    std::vector<std::string> paths;
    while (const dirent *entry = ::readdir(d.get())) {
        const std::string_view name(entry->d_name);
        if (name == "." || name == "..")
            continue;
        std::string full = std::string(dir) + "/" + std::string(name);
        struct stat st;
        if (flags != 0 && (::stat(full.c_str(), &st) != 0 ||
                           (flags == KLIB_ENUM_FILES && !S_ISREG(st.st_mode)) ||
                           (flags == KLIB_ENUM_DIRS && !S_ISDIR(st.st_mode))))
            continue;
        paths.push_back(std::move(full));
    }
    std::sort(paths.begin(), paths.end());
    for (const std::string &p : paths)
        if (KLIBSzListPush(plist, p.c_str()) < 0)
            return -1;
    return static_cast<int>(paths.size());
}

bool format_is_valid(std::string_view format)
{
    kemo::PairFormat fmt;
    return fmt.parse(format);
}

int temp_name(std::string_view prefix, char *buf, int size)
{
    const std::string name = kemo::unique_name(prefix);
    if (name.size() >= static_cast<std::size_t>(size))
        return fail(-1, ERR_NOT_ENOUGH_MEMORY);
    std::memcpy(buf, name.c_str(), name.size() + 1);
    return 0;
}

} // namespace kemo::settings

extern "C" {

KEMO_API int KLIBILineKeyMatch(const char *line, const char *key)
{
    if (key == nullptr)
        return fail(0, ERR_BAD_PARAMETERS);
    return line != nullptr && kemo::settings::key_matches(line, key) ? 1 : 0;
}

KEMO_API int KLIBFileGetKeyValue(const char *path, const char *key, char *buf, int size, int flags)
{
    if (path == nullptr || key == nullptr || size < 0 || (buf == nullptr && size != 0) || flags < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::copy_found(path, key, buf, size, flags, false); });
}

KEMO_API int KLIBFileGetLineByKey(const char *path, const char *key, char *buf, int size, int flags)
{
    if (path == nullptr || key == nullptr || size < 0 || (buf == nullptr && size != 0) || flags < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::copy_found(path, key, buf, size, flags, true); });
}

KEMO_API int KLIBFileSetKeyValue(const char *path, const char *key, const char *value,
                                 const char *format)
{
    if (path == nullptr || key == nullptr || value == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::set_value(path, key, value, format); });
}

KEMO_API int KLIBFileSetLineByKey(const char *path, const char *key, const char *line)
{
    if (path == nullptr || key == nullptr || line == nullptr || !kemo::fits_on_line(key) ||
        !kemo::is_single_line(line) || kemo::is_directory(path))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::set_line_by_key(path, key, line); });
}

KEMO_API int KLIBIFileSetKeyValue(const char *path, const char *key, const char *value,
                                  const char *format)
{
    if (path == nullptr || key == nullptr || value == nullptr || !kemo::fits_on_line(key) ||
        !kemo::fits_on_line(value) || kemo::is_directory(path))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::set_or_append(path, key, value, format); });
}

KEMO_API int KLIBFileAppendKey(const char *path, const char *key, const char *value,
                               const char *format)
{
    if (path == nullptr || key == nullptr || value == nullptr || !kemo::fits_on_line(key) ||
        !kemo::fits_on_line(value) || kemo::is_directory(path))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::append_key(path, key, value, format); });
}

KEMO_API int KLIBFileAddLineByKey(const char *path, const char *key, const char *line)
{
    if (path == nullptr || key == nullptr || line == nullptr || !kemo::fits_on_line(key) ||
        !kemo::is_single_line(line) || kemo::is_directory(path))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::add_line_by_key(path, key, line); });
}

KEMO_API int KLIBFileRemoveKey(const char *path, const char *key)
{
    if (path == nullptr || key == nullptr || !kemo::fits_on_line(key))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::remove_key(path, key); });
}

KEMO_API int KLIBFileGetPair(const char *path, PKLIBSZHASH *phash)
{
    if (path == nullptr || phash == nullptr || *phash == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::get_pairs(path, phash); });
}

KEMO_API int KLIBILineKeyMoveHash2File(FILE *stream, const char *line, PKLIBSZHASH hash,
                                       const char *format)
{
    if (stream == nullptr || line == nullptr || hash == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::move_key_line(stream, line, hash, format); });
}

KEMO_API int KLIBFileSetKeys(const char *path, PKLIBSZHASH hash, const char *format)
{
    if (path == nullptr || hash == nullptr || !kemo::hash_fits_on_lines(hash))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::set_keys(path, hash, format); });
}

KEMO_API int ErrKLIBFileSetPair(const char *path, PKLIBSZHASH hash, const char *format)
{
    if (path == nullptr || hash == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::set_pairs(path, hash, format); });
}

KEMO_API int KLIBFileMergePairs(const char *dst, const char *src, const char *format)
{
    if (dst == nullptr || src == nullptr || kemo::is_directory(dst))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::merge_pairs(dst, src, format); });
}

KEMO_API int KLIBFileReplaceSubStr(const char *path, const char *from, const char *to)
{
    if (path == nullptr || from == nullptr || to == nullptr || *from == '\0' ||
        !kemo::fits_on_line(from) || !kemo::fits_on_line(to))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::replace_substring(path, from, to); });
}

KEMO_API int KLIBFileComment(const char *path, const char *key)
{
    if (path == nullptr || key == nullptr || !kemo::fits_on_line(key))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::comment_key(path, key); });
}

KEMO_API int KLIBFileIInverse(const char *path)
{
    if (path == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::reverse_lines(path); });
}

KEMO_API int KLIBFileReadLines(const char *path, PKLIBSZLIST *plist)
{
    if (path == nullptr || plist == nullptr || *plist == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::read_lines(path, plist); });
}

KEMO_API int KLIBFileMatchLineNo(const char *path, const char *pattern, int flags)
{
    if (path == nullptr || pattern == nullptr || flags < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::match_line_number(path, pattern, flags); });
}

KEMO_API int KLIBFileEnumDir(const char *dir, PKLIBSZLIST *plist, int flags)
{
    if (dir == nullptr || plist == nullptr || *plist == nullptr || flags < 0 || flags > 2)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::settings::enum_dir(dir, plist, flags); });
}

KEMO_API int KLIBIFileCheckFormat(const char *format)
{
    if (format == nullptr)
        return 1;
    return kemo::edge(0, [&] { return kemo::settings::format_is_valid(format) ? 1 : 0; });
}

KEMO_API int KLIBFileITmpName(const char *prefix, char *buf, int size)
{
    if (prefix == nullptr || buf == nullptr || size < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    std::memset(buf, 0, static_cast<std::size_t>(size));
    return kemo::edge(-1, [&] { return kemo::settings::temp_name(prefix, buf, size); });
}

} // extern "C"
