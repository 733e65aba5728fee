// String utilities (trimming, tokenising, "key=value" splitting, colon and
// hex encodings, in-buffer edits) and the validators of names and addresses.
#include "kemostr.hpp"
#include "kemo_internal.hpp"
#include "kemounicode.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace {

// Pushes the tokens of str; empty ones only when keep_empty.
int split(const char *str, const char *delimiters, PKLIBSZLIST *plist, bool keep_empty)
{
    if (str == nullptr || delimiters == nullptr || plist == nullptr || *plist == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        std::string copy(str);
        char *cursor = copy.data();
        int count = 0;
        while (cursor != nullptr) {
            char *token =
                keep_empty ? strsep(&cursor, delimiters) : kemo::strings::next_token(&cursor, delimiters);
            if (token == nullptr)
                break;
            if (KLIBSzListPush(plist, token) < 0)
                return -1;
            ++count;
        }
        return count;
    });
}

// Length of the string in buf of size bytes, or -1 when buf, size or the
// terminator within size is missing.
int buffer_length(const char *buf, int size)
{
    if (buf == nullptr || size <= 0)
        return -1;
    const size_t length = strnlen(buf, static_cast<size_t>(size));
    return length < static_cast<size_t>(size) ? static_cast<int>(length) : -1;
}

// Copies text into buf of capacity bytes (text plus NUL must fit), else
// leaves buf alone.  The new length, or -1 with ERR_NOT_ENOUGH_MEMORY.
int store(char *buf, size_t capacity, const std::string &text)
{
    if (text.size() >= capacity)
        return kemo::fail(-1, ERR_NOT_ENOUGH_MEMORY);
    std::memcpy(buf, text.c_str(), text.size() + 1);
    return static_cast<int>(text.size());
}

// Inserts text before (after = false) or after the first anchor in buf.
int insert_at_anchor(char *buf, int size, const char *anchor, const char *text, bool after)
{
    const int length = buffer_length(buf, size);
    if (length < 0 || anchor == nullptr || *anchor == '\0' || text == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    const char *hit = std::strstr(buf, anchor);
    if (hit == nullptr)
        return kemo::fail(-1, ERR_KEY_NOT_FOUND);
    const auto pos = hit - buf + (after ? static_cast<ptrdiff_t>(std::strlen(anchor)) : 0);
    return kemo::strings::insert(buf, size, static_cast<int>(pos), text);
}

// Writes the encoding or decoding of src to dst (size + 1 bytes).
template <class Code>
int colon_code(const char *src, char *dst, int size, Code code)
{
    if (src == nullptr || dst == nullptr || src == dst || size < 0)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        return store(dst, static_cast<size_t>(size) + 1, code(std::string_view(src)));
    });
}

constexpr std::string_view hex_digits = "0123456789ABCDEF";

int hex_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

// ----------------------------------------------------------- validators

bool is_letter(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_digit(unsigned char c)
{
    return c >= '0' && c <= '9';
}

bool is_atom(std::string_view s)
{
    constexpr std::string_view specials = "\"(),.:;<>[\\]";
    if (s.empty())
        return false;
    for (const char ch : s) {
        const auto c = static_cast<unsigned char>(ch);
        if (c < 127 && (c <= 32 || specials.find(ch) != std::string_view::npos))
            return false;
    }
    return true;
}

bool is_domain(std::string_view s)
{
    s = s.substr(0, 512);
    for (;;) {
        const auto dot = s.find('.');
        if (!is_atom(s.substr(0, dot)))
            return false;
        if (dot == std::string_view::npos)
            return true;
        s.remove_prefix(dot + 1);
    }
}

// One number in C notation: "0x"/"0X" and hexadecimal digits, "0" and octal
// digits, or decimal digits; nothing else (no sign, no blanks).  Values
// above INT_MAX are refused.
std::optional<long> parse_number(std::string_view t)
{
    int base = 10;
    if (t.size() > 1 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) {
        base = 16;
        t.remove_prefix(2);
    } else if (t.size() > 1 && t[0] == '0') {
        base = 8;
        t.remove_prefix(1);
    }
    if (t.empty())
        return std::nullopt;
    long value = 0;
    for (const char c : t) {
        const int digit = hex_value(c);
        if (digit < 0 || digit >= base)
            return std::nullopt;
        value = value * base + digit;
        if (value > INT_MAX)
            return std::nullopt;
    }
    return value;
}

using Quad = std::array<long, 4>;

// Four numbers separated by ".", the fourth ending the text.
std::optional<Quad> parse_quad(std::string_view t)
{
    Quad quad{};
    for (size_t i = 0; i < quad.size(); ++i) {
        const auto dot = i + 1 < quad.size() ? t.find('.') : std::string_view::npos;
        if (i + 1 < quad.size() && dot == std::string_view::npos)
            return std::nullopt;
        const auto number = parse_number(t.substr(0, dot));
        if (!number)
            return std::nullopt;
        quad[i] = *number;
        t.remove_prefix(dot == std::string_view::npos ? t.size() : dot + 1);
    }
    return quad;
}

bool bytes_at_most(const Quad &quad, long top)
{
    for (const long n : quad)
        if (n > top)
            return false;
    return true;
}

// The four numbers, each at most 255, as one 32-bit value.
uint32_t to_u32(const Quad &quad)
{
    uint32_t v = 0;
    for (const long n : quad)
        v = v << 8 | static_cast<uint32_t>(n);
    return v;
}

// A non-zero mask of contiguous leading one bits.
bool contiguous(uint32_t mask)
{
    const uint32_t hosts = ~mask;
    return mask != 0 && (hosts & (hosts + 1)) == 0;
}

uint32_t prefix_mask(long prefix)
{
    return prefix >= 32 ? 0xFFFFFFFFu : ~(0xFFFFFFFFu >> prefix);
}

std::string dotted(uint32_t v)
{
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", v >> 24, v >> 16 & 0xFF, v >> 8 & 0xFF,
                  v & 0xFF);
    return text;
}

// Rewrites s in place with its canonical form, which is never longer than
// the form it was parsed from.
int rewrite(char *s, const std::string &canonical)
{
    if (canonical.size() > std::strlen(s))
        return kemo::fail(0, ERR_INVALID_NETNAME);
    std::memcpy(s, canonical.c_str(), canonical.size() + 1);
    return 1;
}

// "address/mask" or "address/prefix" split at "/", at most 64 bytes read.
std::optional<std::pair<std::string_view, std::string_view>> split_slash(const char *src)
{
    const std::string_view text(src, strnlen(src, 64));
    const auto slash = text.find('/');
    if (slash == std::string_view::npos)
        return std::nullopt;
    return std::pair{text.substr(0, slash), text.substr(slash + 1)};
}

// The common rule of user, group and share names, at most limit UTF-8
// characters.
bool is_account_name(std::string_view name, int limit)
{
    if (name.empty() || name.front() == ' ' || name.front() == '-' || name.back() == ' ')
        return false;
    bool ascii = true;
    for (const char ch : name) {
        const auto c = static_cast<unsigned char>(ch);
        if (c >= 128)
            ascii = false;
        else if (!is_letter(c) && !is_digit(c) && c != '.' && c != '-' && c != '_' && c != ' ')
            return false;
    }
    // Pure ASCII counts one character per byte; anything else must be
    // valid UTF-8 to be counted at all.
    const int count = ascii ? static_cast<int>(name.size()) : kemo::unicode::count_chars(name);
    return count > 0 && count <= limit;
}

} // namespace

namespace kemo::strings {

bool is_user_name(std::string_view name)
{
    return is_account_name(name, 64);
}

bool is_group_name(std::string_view name)
{
    return is_account_name(name, 15);
}

bool is_share_name(std::string_view name)
{
    return is_account_name(name, 32);
}

bool is_hostname(std::string_view name) noexcept
{
    if (name.empty() || name.size() > 15)
        return false;
    if (!is_letter(static_cast<unsigned char>(name[0])) && name[0] != '_')
        return false;
    for (const char ch : name.substr(1)) {
        const auto c = static_cast<unsigned char>(ch);
        if (!is_letter(c) && !is_digit(c) && c != '-' && c != '_')
            return false;
    }
    return true;
}

bool is_workgroup_name(std::string_view name) noexcept
{
    constexpr std::string_view refused = "\"*+,/:;<=>?[\\]|";
    if (name.empty() || name.front() == ' ' || name.back() == ' ')
        return false;
    for (const char ch : name) {
        const auto c = static_cast<unsigned char>(ch);
        if (c < 32 || c == 127 || refused.find(ch) != std::string_view::npos)
            return false;
    }
    return true;
}

std::string encode_colon(std::string_view text)
{
    std::string out;
    for (const char c : text) {
        if (c == ':')
            out += ";,";
        else if (c == ';')
            out += ";;";
        else
            out += c;
    }
    return out;
}

std::string decode_colon(std::string_view text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == ';' && i + 1 < text.size() && (text[i + 1] == ',' || text[i + 1] == ';'))
            out += text[++i] == ',' ? ':' : ';';
        else
            out += text[i];
    }
    return out;
}

char *next_token(char **cursor, const char *delimiters) noexcept
{
    while (*cursor != nullptr) {
        char *token = strsep(cursor, delimiters);
        if (*token != '\0')
            return token;
    }
    return nullptr;
}

int insert(char *buf, int size, int pos, std::string_view text)
{
    const auto length = std::strlen(buf);
    std::string out(buf, length);
    out.insert(static_cast<size_t>(pos), text);
    return store(buf, static_cast<size_t>(size), out);
}

int split_pair(const char *line, PKLIBSZLIST *plist)
{
    // The key is pushed even when the line has no "=".
    const std::string_view text(line);
    const auto eq = text.find('=');
    const std::string key(kemo::trimmed(text.substr(0, eq)));
    if (key.empty())
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    if (KLIBSzListPush(plist, key.c_str()) < 0)
        return -1;
    if (eq == std::string_view::npos)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    const std::string value(kemo::trimmed(text.substr(eq + 1)));
    return KLIBSzListPush(plist, value.c_str()) < 0 ? -1 : 0;
}

int to_hex(const char *src, char *dst, int size)
{
    std::string out;
    for (const char ch : std::string_view(src)) {
        const auto c = static_cast<unsigned char>(ch);
        out += hex_digits[c >> 4];
        out += hex_digits[c & 0x0F];
    }
    return store(dst, static_cast<size_t>(size), out);
}

int from_hex(const char *src, char *dst, int size)
{
    const std::string_view text(src);
    if (text.size() % 2 != 0)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    std::string out;
    for (size_t i = 0; i < text.size(); i += 2) {
        const int high = hex_value(text[i]);
        const int low = hex_value(text[i + 1]);
        if (high < 0 || low < 0)
            return kemo::fail(-1, ERR_BAD_PARAMETERS);
        out += static_cast<char>(high << 4 | low);
    }
    return store(dst, static_cast<size_t>(size), out);
}

int replace(char *buf, int size, int length, const char *from, const char *to)
{
    const std::string_view text(buf, static_cast<size_t>(length));
    const std::string_view pattern(from);
    std::string out;
    size_t start = 0;
    for (auto hit = text.find(pattern); hit != std::string_view::npos;
         hit = text.find(pattern, start)) {
        out.append(text.substr(start, hit - start)).append(to);
        start = hit + pattern.size();
    }
    out.append(text.substr(start));
    return store(buf, static_cast<size_t>(size), out);
}

} // namespace kemo::strings

extern "C" {

KEMO_API int KLIBStrTrimSpace(char *src, char *dst)
{
    if (src == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    const std::string_view t = kemo::trimmed(src);
    char *out = dst != nullptr ? dst : src;
    if (!t.empty()) // an all-blank text gives an empty view without data
        std::memmove(out, t.data(), t.size());
    out[t.size()] = '\0';
    return static_cast<int>(t.size());
}

KEMO_API char *KLIBIStrTok(char **cursor, const char *delimiters)
{
    if (cursor == nullptr || delimiters == nullptr)
        return nullptr;
    return kemo::strings::next_token(cursor, delimiters);
}

KEMO_API int KLIBStrTok(const char *str, const char *delimiters, PKLIBSZLIST *plist)
{
    return split(str, delimiters, plist, false);
}

KEMO_API int KLIBStrSep(const char *str, const char *delimiters, PKLIBSZLIST *plist)
{
    return split(str, delimiters, plist, true);
}

KEMO_API int KLIBStrSepPair(const char *line, PKLIBSZLIST *plist)
{
    if (line == nullptr || plist == nullptr || *plist == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::strings::split_pair(line, plist); });
}

// ------------------------------------------------------------ encodings

KEMO_API int KLIBStrEncodeColon(const char *src, char *dst, int size)
{
    return colon_code(src, dst, size, kemo::strings::encode_colon);
}

KEMO_API int KLIBStrDecodeColon(const char *src, char *dst, int size)
{
    return colon_code(src, dst, size, kemo::strings::decode_colon);
}

KEMO_API int KLIBStringToHexCode(const char *src, char *dst, int size)
{
    if (src == nullptr || dst == nullptr || size < 0)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::strings::to_hex(src, dst, size); });
}

// Accepts either letter case.  A "00" pair ends the string early; the
// returned length counts every decoded byte.
KEMO_API int KLIBStrHexCodeToString(const char *src, char *dst, int size)
{
    if (src == nullptr || dst == nullptr || size < 0)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::strings::from_hex(src, dst, size); });
}

// ------------------------------------------------------- in-buffer edits

KEMO_API char *SzKLIBStrCaseLower(char *s)
{
    if (s == nullptr)
        return kemo::fail<char *>(nullptr, ERR_BAD_PARAMETERS);
    for (char *p = s; *p != '\0'; ++p)
        if (*p >= 'A' && *p <= 'Z')
            *p = static_cast<char>(*p - 'A' + 'a');
    return s;
}

// Occurrences are found left to right without overlap; replaced text is not
// searched again.  No occurrence leaves buf as it is.
KEMO_API int KLIBStrReplace(char *buf, int size, const char *from, const char *to)
{
    const int length = buffer_length(buf, size);
    if (length < 0 || from == nullptr || *from == '\0' || to == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::strings::replace(buf, size, length, from, to); });
}

KEMO_API int KLIBStrInsert(char *buf, int size, int pos, const char *text)
{
    const int length = buffer_length(buf, size);
    if (length < 0 || text == nullptr || pos < 0 || pos > length)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::strings::insert(buf, size, pos, text); });
}

KEMO_API int KLIBStrInsertBefore(char *buf, int size, const char *anchor, const char *text)
{
    return insert_at_anchor(buf, size, anchor, text, false);
}

KEMO_API int KLIBStrInsertAfter(char *buf, int size, const char *anchor, const char *text)
{
    return insert_at_anchor(buf, size, anchor, text, true);
}

KEMO_API int KLIBStrDelete(char *buf, int pos, int count)
{
    if (buf == nullptr || pos < 0 || count < 0)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    const size_t length = std::strlen(buf);
    const auto at = static_cast<size_t>(pos);
    if (at > length)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    const size_t gone = std::min(static_cast<size_t>(count), length - at);
    std::memmove(buf + at, buf + at + gone, length - at - gone + 1);
    return static_cast<int>(length - gone);
}

// ----------------------------------------------------------- validators

KEMO_API int BlKLIBIsAtom(const char *s)
{
    if (s == nullptr)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return is_atom(s) ? 1 : 0;
}

KEMO_API int BlKLIBIsDomain(const char *s)
{
    if (s == nullptr)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return is_domain(s) ? 1 : 0;
}

// The part after the first "@" may hold further at signs: they are atom
// characters.
KEMO_API int BlKLIBIsMailbox(const char *s)
{
    if (s == nullptr)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    const std::string_view text(s, strnlen(s, 512));
    const auto at = text.find('@');
    if (at == std::string_view::npos)
        return 0;
    return is_domain(text.substr(0, at)) && is_domain(text.substr(at + 1)) ? 1 : 0;
}

KEMO_API int BlKLIBIsIpAddr(char *s)
{
    if (s == nullptr)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    const auto quad = parse_quad(s);
    if (!quad)
        return kemo::fail(0, ERR_INVALID_NETNAME);
    const auto [a, b, c, d] = *quad;
    if (a < 1 || a > 223 || a == 127 || b > 255 || c > 255 || d < 1)
        return kemo::fail(0, ERR_INVALID_NETNAME);
    return kemo::edge(0, [&, &q = *quad] {
        return rewrite(s, std::to_string(q[0]) + '.' + std::to_string(q[1]) + '.' +
                              std::to_string(q[2]) + '.' + std::to_string(q[3]));
    });
}

KEMO_API int BlKLIBIsIpMask(char *s)
{
    if (s == nullptr)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    const auto quad = parse_quad(s);
    if (!quad || !bytes_at_most(*quad, 255))
        return kemo::fail(0, ERR_INVALID_NETNAME);
    const uint32_t mask = to_u32(*quad);
    if (mask == 0)
        return 0;
    if (!contiguous(mask))
        return kemo::fail(0, ERR_INVALID_NETNAME);
    return rewrite(s, dotted(mask));
}

KEMO_API int BlKLIBIsSubNet(char *s)
{
    if (s == nullptr)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    const std::string_view text(s);
    const auto slash = text.find('/');
    if (slash == std::string_view::npos)
        return kemo::fail(0, ERR_INVALID_NETNAME);
    const auto quad = parse_quad(text.substr(0, slash));
    const auto prefix = parse_number(text.substr(slash + 1));
    if (!quad || !bytes_at_most(*quad, 255) || !prefix || *prefix < 1 || *prefix > 32)
        return kemo::fail(0, ERR_INVALID_NETNAME);
    const uint32_t address = to_u32(*quad);
    if ((address & ~prefix_mask(*prefix)) != 0)
        return kemo::fail(0, ERR_INVALID_NETNAME);
    return kemo::edge(0, [&] {
        return rewrite(s, dotted(address) + '/' + std::to_string(*prefix));
    });
}

KEMO_API int ErrKLIBIpMaskToSubnet(char *src, char *dst)
{
    if (src == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    const auto parts = split_slash(src);
    if (!parts)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    const auto quad = parse_quad(parts->first);
    const auto mask_quad = parse_quad(parts->second);
    if (!quad || !bytes_at_most(*quad, 254) || !mask_quad || !bytes_at_most(*mask_quad, 255) ||
        !contiguous(to_u32(*mask_quad)))
        return kemo::fail(-1, ERR_INVALID_NETNAME);
    const uint32_t mask = to_u32(*mask_quad);
    return kemo::edge(-1, [&] {
        const std::string out =
            dotted(to_u32(*quad) & mask) + '/' + std::to_string(std::popcount(mask));
        std::memcpy(dst != nullptr ? dst : src, out.c_str(), out.size() + 1);
        return 0;
    });
}

KEMO_API int ErrKLIBSubnetToIpMask(char *src, char *dst)
{
    if (src == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    const auto parts = split_slash(src);
    if (!parts)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    const auto quad = parse_quad(parts->first);
    const auto prefix = parse_number(parts->second);
    if (!quad || !bytes_at_most(*quad, 254) || !prefix || *prefix < 1 || *prefix > 32)
        return kemo::fail(-1, ERR_INVALID_NETNAME);
    const uint32_t mask = prefix_mask(*prefix);
    return kemo::edge(-1, [&] {
        const std::string out = dotted(to_u32(*quad) & mask) + '/' + dotted(mask);
        std::memcpy(dst != nullptr ? dst : src, out.c_str(), out.size() + 1);
        return 0;
    });
}

// The empty name is refused: a host needs a name.
KEMO_API int BlKLIBIsHostname(const char *s)
{
    if (s == nullptr)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return kemo::strings::is_hostname(s) ? 1 : 0;
}

KEMO_API int BlKLIBIsUserName(const char *s)
{
    if (s == nullptr)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return kemo::edge(0, [&] { return kemo::strings::is_user_name(s) ? 1 : 0; });
}

KEMO_API int BlKLIBIsGroupName(const char *s)
{
    if (s == nullptr)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return kemo::edge(0, [&] { return kemo::strings::is_group_name(s) ? 1 : 0; });
}

KEMO_API int BlKLIBIsShareName(const char *s)
{
    if (s == nullptr)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return kemo::edge(0, [&] { return kemo::strings::is_share_name(s) ? 1 : 0; });
}

KEMO_API int BlKLIBIsWorkGroupName(const char *s)
{
    if (s == nullptr)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return kemo::strings::is_workgroup_name(s) ? 1 : 0;
}

} // extern "C"
