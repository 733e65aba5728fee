// Unicode text handling on ICU: code-page conversion through converters
// cached per code-page index, counting, cutting and upper-casing UTF-8 by
// characters, case-insensitive comparison through a cached collator, and
// the code-page settings of /etc/kemoinfo.conf.
#include "kemounicode.hpp"
#include "kemo_internal.hpp"
#include "kemofile.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include <unicode/ucnv.h>
#include <unicode/ucol.h>
#include <unicode/utf8.h>
#include <unicode/ustring.h>

namespace {

constexpr const char *kSettingsFile = "/etc/kemoinfo.conf";
constexpr const char *kSmbConf = "/usr/kemo/etc/smb.conf";

// ICU converter of each converter index.  The indexes 1..32 follow the
// settings values of rgszSysConfCPValues; several settings share one table
// (every Mac western value uses Mac Roman with the euro sign, for example).
// ICU has no Mac Japanese, Mac Korean or Mac Chinese converters; those Mac
// encodings are extensions of Shift_JIS, EUC-KR, EUC-CN (GB 2312) and Big5,
// so these standard converters stand in for them.  Canonical ICU names are
// used because several common aliases (windows-1252, Shift_JIS) are
// ambiguous in ICU's alias table.
constexpr std::array<const char *, KLIB_CONVERTER_COUNT> kConverterNames = {
    "UTF-8",                     //  0 "8"
    "ibm-437_P100-1995",         //  1 "437"   DOS US (cp437)
    "ibm-737_P100-1997",         //  2 "737"   DOS Greek
    "ibm-850_P100-1995",         //  3 "850"   DOS Western Europe
    "ibm-852_P100-1995",         //  4 "852"   DOS Latin 2
    "ibm-861_P100-1995",         //  5 "861"   DOS Icelandic
    "ibm-866_P100-1995",         //  6 "866"   DOS Cyrillic
    "ibm-943_P15A-2003",         //  7 "932"   Windows Japanese (cp932)
    "windows-936-2000",          //  8 "936"   Windows Simplified Chinese (GBK)
    "windows-949-2000",          //  9 "949"   Windows Korean (UHC)
    "windows-950-2000",          // 10 "950"   Windows Traditional Chinese (Big5)
    "ibm-5346_P100-1998",        // 11 "1250"  windows-1250
    "ibm-5347_P100-1998",        // 12 "1251"  windows-1251
    "ibm-5348_P100-1997",        // 13 "1252"  windows-1252
    "ibm-5349_P100-1998",        // 14 "1253"  windows-1253
    "macos-0_2-10.2",            // 15 "1437"  Mac Roman (with euro)
    "macos-6_2-10.4",            // 16 "1737"  Mac Greek
    "macos-0_2-10.2",            // 17 "1850"  Mac Roman
    "macos-0_2-10.2",            // 18 "1852"  Mac Roman
    "macos-0_2-10.2",            // 19 "1861"  Mac Roman
    "macos-7_3-10.2",            // 20 "1866"  Mac Cyrillic
    "ibm-943_P15A-2003",         // 21 "1932"  Mac Japanese: Shift_JIS stands in
    "ibm-1383_P110-1999",        // 22 "1936"  Mac Simplified Chinese: EUC-CN stands in
    "ibm-970_P110_P110-2006_U2", // 23 "1949"  Mac Korean: EUC-KR stands in
    "windows-950-2000",          // 24 "1950"  Mac Traditional Chinese: Big5 stands in
    "macos-0_2-10.2",            // 25 "11250" Mac Roman
    "macos-7_3-10.2",            // 26 "11251" Mac Cyrillic
    "macos-0_2-10.2",            // 27 "11252" Mac Roman
    "macos-6_2-10.4",            // 28 "11253" Mac Greek
    "euc-jp-2007",               // 29 "2932"  EUC-JP
    "ibm-1383_P110-1999",        // 30 "2936"  EUC-CN
    "ibm-970_P110_P110-2006_U2", // 31 "2949"  EUC-KR
    "euc-tw-2014",               // 32 "2950"  EUC-TW
    "UTF-16",                    // 33
};

constexpr std::array<std::string_view, 11> kLocales = {
    "", "de_DE", "en_US", "es_ES", "fr_FR", "it_IT", "ja_JP", "ko_KR", "pt_BR", "zh__PINYIN", "zh_TW_STROKE",
};

// Process caches: converters and the collator live until exit.
struct Caches {
    std::array<UConverter *, KLIB_CONVERTER_COUNT> converters{};
    UCollator *collator = nullptr;
    std::string locale; // empty: ICU's root locale
    bool locale_checked = false;

    void drop_collator()
    {
        if (collator != nullptr)
            ucol_close(collator);
        collator = nullptr;
    }
    Caches() = default;
    Caches(const Caches &) = delete;
    Caches &operator=(const Caches &) = delete;
    ~Caches()
    {
        drop_collator();
        for (UConverter *&c : converters) {
            if (c != nullptr)
                ucnv_close(c);
            c = nullptr;
        }
    }
};
Caches g_cache;

bool accepted_locale(std::string_view name)
{
    return std::find(kLocales.begin(), kLocales.end(), name) != kLocales.end();
}

// The current locale name after the one-time check; nullptr (code set)
// when it is not an accepted name.
const char *checked_locale(bool force)
{
    if (force || !g_cache.locale_checked) {
        if (!accepted_locale(g_cache.locale))
            return kemo::fail<const char *>(nullptr, ERR_KEY_NOT_FOUND);
        g_cache.locale_checked = true;
    }
    return g_cache.locale.c_str();
}

UCollator *cached_collator()
{
    if (g_cache.collator == nullptr) {
        const char *locale = checked_locale(false);
        if (locale == nullptr)
            return nullptr;
        UErrorCode status = U_ZERO_ERROR;
        UCollator *c = ucol_open(locale, &status);
        if (U_FAILURE(status)) {
            if (c != nullptr)
                ucol_close(c);
            return kemo::fail<UCollator *>(nullptr, ERR_OPEN_FAILED);
        }
        g_cache.collator = c;
    }
    return g_cache.collator;
}

UConverter *cached_converter(int index)
{
    if (index < 0 || index >= KLIB_CONVERTER_COUNT)
        return kemo::fail<UConverter *>(nullptr, ERR_BAD_PARAMETERS);
    UConverter *&slot = g_cache.converters[static_cast<std::size_t>(index)];
    if (slot == nullptr) {
        UErrorCode status = U_ZERO_ERROR;
        UConverter *c = ucnv_open(kConverterNames[static_cast<std::size_t>(index)], &status);
        if (U_FAILURE(status) || c == nullptr) {
            if (c != nullptr)
                ucnv_close(c);
            return kemo::fail<UConverter *>(nullptr, ERR_OPEN_FAILED);
        }
        slot = c;
    }
    return slot;
}

int32_t as_length(std::size_t n)
{
    if (n >= static_cast<std::size_t>(INT32_MAX))
        throw std::bad_alloc(); // beyond the int32_t lengths of ICU
    return static_cast<int32_t>(n);
}

// Runs an ICU function that fills a buffer of a given capacity, growing the
// buffer once to the length ICU asks for.  nullopt on ICU failure.
template <class Text, class Fill>
std::optional<Text> fill_buffer(std::size_t first_capacity, Fill &&fill)
{
    Text out(first_capacity, typename Text::value_type{});
    for (int attempt = 0; attempt < 2; ++attempt) {
        UErrorCode status = U_ZERO_ERROR;
        const int32_t n = fill(out.data(), as_length(out.size()), &status);
        if (status == U_BUFFER_OVERFLOW_ERROR || status == U_STRING_NOT_TERMINATED_WARNING) {
            out.assign(static_cast<std::size_t>(n) + 1, typename Text::value_type{});
            continue;
        }
        if (U_FAILURE(status))
            return std::nullopt;
        out.resize(static_cast<std::size_t>(n));
        return out;
    }
    return std::nullopt;
}

// UTF-8 to UTF-16; nullopt when the input is not valid UTF-8.
std::optional<std::u16string> utf8_to_utf16(std::string_view utf8)
{
    return fill_buffer<std::u16string>(utf8.size() + 1, [&](UChar *buf, int32_t cap, UErrorCode *st) {
        int32_t n = 0;
        u_strFromUTF8(buf, cap, &n, utf8.data(), as_length(utf8.size()), st);
        return n;
    });
}

// UTF-16 to UTF-8; nullopt for unpaired surrogates.
std::optional<std::string> utf16_to_utf8(std::u16string_view text)
{
    return fill_buffer<std::string>(6 * text.size() + 1, [&](char *buf, int32_t cap, UErrorCode *st) {
        int32_t n = 0;
        u_strToUTF8(buf, cap, &n, text.data(), as_length(text.size()), st);
        return n;
    });
}

std::optional<std::u16string> codepage_to_utf16(UConverter *conv, std::string_view bytes)
{
    return fill_buffer<std::u16string>(2 * bytes.size() + 1, [&](UChar *buf, int32_t cap, UErrorCode *st) {
        return ucnv_toUChars(conv, buf, cap, bytes.data(), as_length(bytes.size()), st);
    });
}

std::optional<std::string> utf16_to_codepage(UConverter *conv, std::u16string_view text)
{
    // One more character's worth for a byte order mark.
    const std::size_t capacity = (text.size() + 1) * static_cast<std::size_t>(ucnv_getMaxCharSize(conv)) + 1;
    return fill_buffer<std::string>(capacity, [&](char *buf, int32_t cap, UErrorCode *st) {
        return ucnv_fromUChars(conv, buf, cap, text.data(), as_length(text.size()), st);
    });
}

// Full upper-case mapping in the current locale (one code point may become
// several, as sharp s becomes SS).
std::optional<std::u16string> to_upper(std::u16string_view text)
{
    const std::string &locale = g_cache.locale;
    return fill_buffer<std::u16string>(text.size() + 8, [&](UChar *buf, int32_t cap, UErrorCode *st) {
        return u_strToUpper(buf, cap, text.data(), as_length(text.size()), locale.c_str(), st);
    });
}

// Hands a result to the caller: its length is returned; it is copied with
// its terminator only when length < size, otherwise dst becomes "" (size 0
// only measures and leaves dst alone).
int deliver(const std::optional<std::string> &result, char *dst, int size)
{
    if (!result)
        return kemo::fail(-1, ERR_UNKNOWN);
    const std::size_t length = result->size();
    if (length > static_cast<std::size_t>(INT32_MAX))
        return kemo::fail(-1, ERR_OUT_OF_MEMORY);
    if (size > 0) {
        if (length < static_cast<std::size_t>(size)) {
            std::memcpy(dst, result->data(), length);
            dst[length] = '\0';
        } else {
            dst[0] = '\0';
        }
    }
    return static_cast<int>(length);
}

bool bad_buffer(const void *src, const char *dst, int size)
{
    return src == nullptr || size < 0 || (dst == nullptr && size > 0);
}

// Settings key of a code-page kind; nullptr for an unknown kind.
const char *codepage_key(int kind)
{
    switch (kind) {
    case KLIB_CP_KIND_SMB:
        return "codepage";
    case KLIB_CP_KIND_APPLE:
        return "codepage_apple";
    case KLIB_CP_KIND_MEDIASERVICE:
        return "codepage_mediaservice";
    default:
        return nullptr;
    }
}

} // namespace

namespace kemo::unicode {

int case_compare(std::string_view a, std::string_view b)
{
    const auto ua = utf8_to_utf16(a);
    const auto ub = utf8_to_utf16(b);
    if (!ua || !ub)
        return kemo::fail(-2, ERR_UNKNOWN);
    const auto upper_a = to_upper(*ua);
    const auto upper_b = to_upper(*ub);
    if (!upper_a || !upper_b)
        return kemo::fail(-2, ERR_UNKNOWN);
    UCollator *collator = cached_collator();
    if (collator == nullptr)
        return -2;
    switch (ucol_strcoll(collator, upper_a->data(), as_length(upper_a->size()), upper_b->data(),
                         as_length(upper_b->size()))) {
    case UCOL_LESS:
        return -1;
    case UCOL_GREATER:
        return 1;
    default:
        return 0;
    }
}

int count_chars(std::string_view s)
{
    const auto text = utf8_to_utf16(s);
    if (!text)
        return kemo::fail(-1, ERR_UNKNOWN);
    return static_cast<int>(u_countChar32(text->data(), as_length(text->size())));
}

std::optional<std::string> upper(std::string_view s)
{
    const auto text = utf8_to_utf16(s);
    const auto up = text ? to_upper(*text) : std::nullopt;
    auto result = up ? utf16_to_utf8(*up) : std::nullopt;
    return result ? result : kemo::fail(std::optional<std::string>(), ERR_UNKNOWN);
}

std::optional<std::size_t> prefix_bytes(std::string_view s, int n)
{
    if (s.size() > static_cast<std::size_t>(INT32_MAX))
        return kemo::fail(std::optional<std::size_t>(), ERR_BAD_PARAMETERS);
    const auto length = static_cast<int32_t>(s.size());
    int32_t offset = 0;
    for (int i = 0; i < n && offset < length; ++i) {
        UChar32 c = 0;
        U8_NEXT(s.data(), offset, length, c);
        if (c < 0)
            return kemo::fail(std::optional<std::size_t>(), ERR_UNKNOWN);
    }
    return static_cast<std::size_t>(offset);
}

int shorten(std::string_view src, int max_chars, std::string_view suffix, char *dst)
{
    const int count = count_chars(src);
    if (count < 0)
        return -1;
    if (count <= max_chars)
        return 0;
    const auto kept = prefix_bytes(src, max_chars);
    if (!kept) {
        const std::string name(src);
        KEMO_LOG("failed to shorten name = %s, errno=[%X]", name.c_str(), static_cast<unsigned>(KLIBErrGet()));
        return -1;
    }
    // max_chars characters take at most 4 bytes each, so this fits.
    std::memcpy(dst, src.data(), *kept);
    std::memcpy(dst + *kept, suffix.data(), suffix.size());
    dst[*kept + suffix.size()] = '\0';
    return 1;
}

int get_codepage(int kind, int *index)
{
    const auto value = kemo::settings::get_value(kSettingsFile, codepage_key(kind));
    if (!value)
        return -1;
    // A value too long for the 32-byte buffer it was once read into is not
    // one of the table's.
    if (value->size() >= 32)
        return kemo::fail(-1, ERR_KEY_NOT_FOUND);
    for (int i = 0; i < KLIB_CODEPAGE_COUNT; ++i) {
        if (*value == rgszSysConfCPValues[i]) {
            *index = i;
            return 1;
        }
    }
    return kemo::fail(-1, ERR_KEY_NOT_FOUND);
}

int set_codepage(int kind, int index)
{
    if (kemo::settings::set_value(kSettingsFile, codepage_key(kind), rgszSysConfCPValues[index],
                                  "%s=\"%s\"\n") < 0)
        return -1;
    return 1;
}

bool is_double_byte()
{
    const auto value = kemo::settings::get_value(kSmbConf, "client code page");
    if (!value)
        return false;
    if (value->size() >= 32)
        return kemo::fail(false, ERR_NOT_ENOUGH_MEMORY);
    for (const char *cp : {"932", "936", "949", "950"})
        if (*value == cp)
            return true;
    return false;
}

// Text between the code page of index (0: none, the bytes are kept) and
// UTF-8, in either direction, handed to the caller as deliver() does.
static int convert(int index, std::string_view src, char *dst, int size, bool to_utf8)
{
    if (index == 0)
        return deliver(std::string(src), dst, size);
    UConverter *conv = cached_converter(index);
    if (conv == nullptr)
        return -1;
    if (to_utf8) {
        const auto text = codepage_to_utf16(conv, src);
        return deliver(text ? utf16_to_utf8(*text) : std::nullopt, dst, size);
    }
    const auto text = utf8_to_utf16(src);
    return deliver(text ? utf16_to_codepage(conv, *text) : std::nullopt, dst, size);
}

int codepage_to_utf8(int index, std::string_view src, char *dst, int size)
{
    return convert(index, src, dst, size, true);
}

int utf8_to_codepage(int index, std::string_view src, char *dst, int size)
{
    return convert(index, src, dst, size, false);
}

int utf16_upper(const uint16_t *src, int n, uint16_t **pdst)
{
    const auto *text = reinterpret_cast<const UChar *>(src);
    const int32_t length = n < 0 ? u_strlen(text) : n;
    // First attempt in a buffer of the input's size; grown once to what
    // ICU reports when the mapping is longer.
    int32_t capacity = length + 1;
    for (int attempt = 0; attempt < 2; ++attempt) {
        auto *out = static_cast<UChar *>(std::malloc(static_cast<std::size_t>(capacity) * sizeof(UChar)));
        if (out == nullptr)
            return kemo::fail(-1, ERR_OUT_OF_MEMORY);
        UErrorCode status = U_ZERO_ERROR;
        const int32_t needed = u_strToUpper(out, capacity, text, length, g_cache.locale.c_str(), &status);
        if (status == U_BUFFER_OVERFLOW_ERROR || status == U_STRING_NOT_TERMINATED_WARNING) {
            std::free(out);
            capacity = needed + 1;
            continue;
        }
        if (U_FAILURE(status)) {
            std::free(out);
            return kemo::fail(-1, ERR_UNKNOWN);
        }
        *pdst = reinterpret_cast<uint16_t *>(out);
        return static_cast<int>(needed);
    }
    return kemo::fail(-1, ERR_UNKNOWN);
}

} // namespace kemo::unicode

extern "C" {

const char *const rgszSysConfCPValues[KLIB_CODEPAGE_COUNT] = {
    "8",    "437",  "737",  "850",  "852",  "861",   "866",   "932",   "936",   "949",   "950",
    "1250", "1251", "1252", "1253", "1437", "1737",  "1850",  "1852",  "1861",  "1866",  "1932",
    "1936", "1949", "1950", "11250", "11251", "11252", "11253", "2932", "2936", "2949", "2950",
};

KEMO_API int KLIBUnicodeUTF8StrCaseCmp(const char *a, const char *b)
{
    if (a == nullptr || b == nullptr)
        return kemo::fail(-2, ERR_BAD_PARAMETERS);
    return kemo::edge(-2, [&] { return kemo::unicode::case_compare(a, b); });
}

KEMO_API int KLIBUnicodeUTF8StrCountChar(const char *s)
{
    if (s == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::unicode::count_chars(s); });
}

KEMO_API int KLIBUnicodeUTF8StrUpper(const char *src, char *dst, int size)
{
    if (bad_buffer(src, dst, size))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return deliver(kemo::unicode::upper(src), dst, size); });
}

KEMO_API int KLIBUnicodeIUTF16StrUpper(const uint16_t *src, int n, uint16_t **pdst)
{
    if (pdst != nullptr)
        *pdst = nullptr;
    if (src == nullptr || pdst == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::unicode::utf16_upper(src, n, pdst); });
}

KEMO_API int KLIBUnicodeOpenCollator(void)
{
    return 1;
}

KEMO_API int KLIBUnicodeCloseCollator(void)
{
    return 1;
}

KEMO_API int KLIBUnicodeGetCodePage(int kind, int *index)
{
    const char *key = codepage_key(kind);
    if (key == nullptr || index == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::unicode::get_codepage(kind, index); });
}

KEMO_API int KLIBUnicodeSetCodePage(int kind, int index)
{
    if (index < 0 || index >= KLIB_CODEPAGE_COUNT ||
        (kind != KLIB_CP_KIND_SMB && kind != KLIB_CP_KIND_APPLE))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::unicode::set_codepage(kind, index); });
}

KEMO_API struct UConverter *PuconvKLIBUnicodeIOpenConvertor(int index)
{
    return cached_converter(index);
}

KEMO_API int KLIBUnicodeOpenConvertor(void)
{
    return 1;
}

KEMO_API int KLIBUnicodeCloseConvertor(void)
{
    return 1;
}

KEMO_API int KLIBUnicodeStrCPToUTF8(int index, const char *src, char *dst, int size)
{
    if (bad_buffer(src, dst, size))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::unicode::codepage_to_utf8(index, src, dst, size); });
}

KEMO_API int KLIBUnicodeStrUTF8ToCP(int index, const char *src, char *dst, int size)
{
    if (bad_buffer(src, dst, size))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::unicode::utf8_to_codepage(index, src, dst, size); });
}

KEMO_API int KLIBUnicodeStrUTF16ToUTF8(const uint16_t *src, char *dst, int size)
{
    return kemo::edge(-1, [&] {
        if (bad_buffer(src, dst, size))
            return kemo::fail(-1, ERR_BAD_PARAMETERS);
        return deliver(utf16_to_utf8(reinterpret_cast<const UChar *>(src)), dst, size);
    });
}

KEMO_API const char *SzKLIBUnicodeUTF8ForwardNChar(const char *s, int n)
{
    if (s == nullptr || n < 0)
        return kemo::fail<const char *>(nullptr, ERR_BAD_PARAMETERS);
    return kemo::edge<const char *>(nullptr, [&]() -> const char * {
        const auto bytes = kemo::unicode::prefix_bytes(s, n);
        return bytes ? s + *bytes : nullptr;
    });
}

KEMO_API int KLIBUnicodeUTF8ShortenStr(const char *src, int maxChars, const char *suffix, char *dst,
                                       int size)
{
    if (src == nullptr || suffix == nullptr || dst == nullptr || maxChars < 0)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    const std::size_t suffix_length = std::strlen(suffix);
    const long long needed = 6LL * maxChars + static_cast<long long>(suffix_length) + 1;
    if (size < needed) {
        KEMO_LOG("buffer size %d is smaller than max_utf8_size %lld", size, needed);
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    }
    return kemo::edge(-1, [&] { return kemo::unicode::shorten(src, maxChars, suffix, dst); });
}

KEMO_API int KLIBUnicodeIGetLocale(int force, const char **name)
{
    if (name == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    *name = g_cache.locale.c_str();
    return checked_locale(force != 0) != nullptr ? 1 : -1;
}

KEMO_API int KLIBUnicodeSetLocale(const char *name)
{
    if (name == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    if (!accepted_locale(name))
        return kemo::fail(-1, ERR_KEY_NOT_FOUND);
    return kemo::edge(-1, [&] {
        g_cache.locale = name;
        g_cache.locale_checked = true;
        g_cache.drop_collator();
        return 1;
    });
}

KEMO_API int KLIBUnicodeReInitLocale(void)
{
    g_cache.locale_checked = false;
    g_cache.drop_collator();
    return 1;
}

KEMO_API int BlKLIBIsDByte(void)
{
    return kemo::edge(0, [&] { return kemo::unicode::is_double_byte() ? 1 : 0; });
}

} // extern "C"
