// Unicode text handling on ICU: case-insensitive comparison of UTF-8 names
// through a collator that is opened once and cached for the process.
#include "kemo_internal.hpp"

#include <optional>
#include <string>

#include <unicode/ucol.h>
#include <unicode/ustring.h>

namespace {

// The library's current locale; empty is ICU's root locale.
std::string g_locale;
UCollator *g_collator = nullptr;

UCollator *cached_collator()
{
    if (g_collator == nullptr) {
        UErrorCode status = U_ZERO_ERROR;
        UCollator *c = ucol_open(g_locale.c_str(), &status);
        if (U_FAILURE(status)) {
            if (c != nullptr)
                ucol_close(c);
            KLIBErrSet(ERR_OPEN_FAILED);
            return nullptr;
        }
        g_collator = c;
    }
    return g_collator;
}

// UTF-8 to UTF-16; nullopt when the input is not valid UTF-8.
std::optional<std::u16string> to_utf16(const char *utf8)
{
    UErrorCode status = U_ZERO_ERROR;
    int32_t needed = 0;
    u_strFromUTF8(nullptr, 0, &needed, utf8, -1, &status);
    if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status))
        return std::nullopt;
    std::u16string out(static_cast<std::size_t>(needed), u'\0');
    status = U_ZERO_ERROR;
    u_strFromUTF8(out.data(), needed, nullptr, utf8, -1, &status);
    if (U_FAILURE(status))
        return std::nullopt;
    return out;
}

// Full upper-case mapping in the current locale (one code point may become
// several, as sharp s becomes SS).
std::optional<std::u16string> to_upper(const std::u16string &text)
{
    std::u16string out(text.size() + 8, u'\0');
    for (int attempt = 0; attempt < 2; ++attempt) {
        UErrorCode status = U_ZERO_ERROR;
        const int32_t n = u_strToUpper(out.data(), static_cast<int32_t>(out.size()), text.data(),
                                       static_cast<int32_t>(text.size()), g_locale.c_str(), &status);
        if (status == U_BUFFER_OVERFLOW_ERROR) {
            out.assign(static_cast<std::size_t>(n), u'\0');
            continue;
        }
        if (U_FAILURE(status))
            return std::nullopt;
        out.resize(static_cast<std::size_t>(n));
        return out;
    }
    return std::nullopt;
}

} // namespace

extern "C" {

KEMO_API int KLIBUnicodeUTF8StrCaseCmp(const char *a, const char *b)
{
    return kemo::edge(-2, [&] {
        if (a == nullptr || b == nullptr)
            return kemo::fail(-2, ERR_BAD_PARAMETERS);
        const auto ua = to_utf16(a);
        const auto ub = to_utf16(b);
        if (!ua || !ub)
            return kemo::fail(-2, ERR_UNKNOWN);
        const auto upper_a = to_upper(*ua);
        const auto upper_b = to_upper(*ub);
        if (!upper_a || !upper_b)
            return kemo::fail(-2, ERR_UNKNOWN);
        UCollator *collator = cached_collator();
        if (collator == nullptr)
            return -2;
        switch (ucol_strcoll(collator, upper_a->data(), static_cast<int32_t>(upper_a->size()),
                             upper_b->data(), static_cast<int32_t>(upper_b->size()))) {
        case UCOL_LESS:
            return -1;
        case UCOL_GREATER:
            return 1;
        default:
            return 0;
        }
    });
}

KEMO_API int KLIBUnicodeOpenCollator(void)
{
    return 1;
}

KEMO_API int KLIBUnicodeCloseCollator(void)
{
    return 1;
}

} // extern "C"
