// Internal interface of the string module: the validators of names and the
// colon encoding of descriptions, for modules that must not set the error
// code of their own caller through an exported function.
#pragma once

#include "kemo.h"

#include <string>
#include <string_view>

namespace kemo::strings {

// Account names: letters, digits, ".", "-", "_" and inner spaces, any
// non-ASCII text counted in UTF-8 characters, not starting with "-" or a
// space, not ending with a space; at most 64 (user), 15 (group) or 32
// (share) characters.  Non-ASCII text that is not valid UTF-8 is refused
// with ERR_UNKNOWN set.  Throw std::bad_alloc.
bool is_user_name(std::string_view name);
bool is_group_name(std::string_view name);
bool is_share_name(std::string_view name);

// At most 15 letters, digits, "-" and "_", starting with a letter or "_".
bool is_hostname(std::string_view name) noexcept;

// Printable text without "*+,/:;<=>?[\]| and without outer spaces.
bool is_workgroup_name(std::string_view name) noexcept;

// ":" written as ";," and ";" as ";;", so that the text fits in one field
// of a colon-separated file; decode_colon reverses it (a ";" followed by
// neither is copied as it is).
std::string encode_colon(std::string_view text);
std::string decode_colon(std::string_view text);

// The next non-empty token of *cursor split at any of delimiters (the
// delimiter after it overwritten with NUL, *cursor moved past it), or null
// when none is left.
char *next_token(char **cursor, const char *delimiters) noexcept;

// text inserted at pos of the string in buf of size bytes (pos within the
// string): the new length, or -1 with ERR_NOT_ENOUGH_MEMORY when it does
// not fit (buf unchanged).  Throws std::bad_alloc.
int insert(char *buf, int size, int pos, std::string_view text);

// The bodies of KLIBStrSepPair, KLIBStringToHexCode, KLIBStrHexCodeToString
// and KLIBStrReplace (length: the length of the string in buf) once their
// arguments are checked; same results and error codes.  Throw
// std::bad_alloc.
int split_pair(const char *line, PKLIBSZLIST *plist);
int to_hex(const char *src, char *dst, int size);
int from_hex(const char *src, char *dst, int size);
int replace(char *buf, int size, int length, const char *from, const char *to);

} // namespace kemo::strings
