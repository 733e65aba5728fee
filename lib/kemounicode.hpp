// Internal interface of the Unicode module: UTF-8 counting, cutting,
// upper-casing and case-insensitive comparison in the current locale, for
// modules that must not set the error code of their own caller through an
// exported function.  Each function sets the error code when it fails and
// throws std::bad_alloc when memory runs out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kemo::unicode {

// Compares a and b after upper-casing both: -1, 0 or 1; -2 with
// ERR_UNKNOWN when either is not valid UTF-8 or the collator fails.
int case_compare(std::string_view a, std::string_view b);

// The number of characters of the UTF-8 text s; -1 with ERR_UNKNOWN when s
// is not valid UTF-8.
int count_chars(std::string_view s);

// s upper-cased (one character may become several); nullopt with
// ERR_UNKNOWN when s is not valid UTF-8.
std::optional<std::string> upper(std::string_view s);

// The number of bytes of the first n characters of s (all of s when it has
// fewer); nullopt with ERR_UNKNOWN at invalid UTF-8 within them.
std::optional<std::size_t> prefix_bytes(std::string_view s, int n);

// src converted from the code page of index to UTF-8, or back, into dst of
// size bytes: its length (dst holds it only when it is shorter than size,
// else ""; size 0 only measures), or -1 with the error code set.
int codepage_to_utf8(int index, std::string_view src, char *dst, int size);
int utf8_to_codepage(int index, std::string_view src, char *dst, int size);

// The body of KLIBUnicodeIUTF16StrUpper (pdst already checked).
int utf16_upper(const uint16_t *src, int n, uint16_t **pdst);

// The bodies of KLIBUnicodeUTF8ShortenStr (dst large enough),
// KLIBUnicodeGetCodePage (index not null), KLIBUnicodeSetCodePage (kind and
// index valid) and BlKLIBIsDByte.
int shorten(std::string_view src, int max_chars, std::string_view suffix, char *dst);
int get_codepage(int kind, int *index);
int set_codepage(int kind, int index);
bool is_double_byte();

} // namespace kemo::unicode
