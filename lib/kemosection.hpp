// Internal interface of the sectioned settings files ("[name]" header
// lines, each followed by "key=value" lines up to the next header), for
// modules that must not set the error code of their own caller through an
// exported function.  Every function sets the error code when it fails and
// throws std::bad_alloc when memory runs out; arguments are the caller's to
// check unless a function says otherwise.
#pragma once

#include "kemo.h"

#include <string_view>

namespace kemo::sections {

// "[...]" with only white space after the closing bracket.
bool is_section(std::string_view line) noexcept;

// The header line of exactly name (byte for byte).
bool matches_section(std::string_view line, std::string_view name) noexcept;

// The line (with its newline, if any) matches pattern under the
// KLIB_MATCH_* flags; comments never match.
bool line_matches(std::string_view line, std::string_view pattern, int flags);

// The names of the sections of the file pushed onto *plist in file order:
// the number of items of the list, or -1 (ERR_NOT_ENOUGH_MEMORY for a
// header line longer than 1023 bytes).
int enum_sections(const char *path, PKLIBSZLIST *plist);

// The pairs of section name set into *phash (which may be moved): the
// number of pairs of the hash, or -1.
int get_section(const char *path, std::string_view name, PKLIBSZHASH *phash);

// Appends section name with the pairs of hash (null: the header alone)
// unless the file has it: 1, 0 when present, -1.
int add_section(const char *path, const char *name, PKLIBSZHASH hash, const char *format);

// Section name dropped, or (replace) written anew as new_name (null: name)
// with the pairs of hash: 1, 0 when absent, -1.
int modify_section(const char *path, const char *name, const char *new_name, PKLIBSZHASH hash,
                   bool replace, const char *format);

// key=value set in section (added when absent): 1 or -1.
int set_section_key(const char *path, const char *section, const char *key, const char *value,
                    const char *format);

// The first (KLIB_MATCH_LAST: last) line matching pattern copied into buf
// of size bytes without its newline: the bytes used with the terminator, 0
// with ERR_KEY_NOT_FOUND, -1 (ERR_NOT_ENOUGH_MEMORY when buf is too small).
int get_line(const char *path, std::string_view pattern, char *buf, int size, int flags);

// The first (KLIB_MATCH_LAST: last) line matching pattern replaced by line
// (given a newline); a missing file is created holding it.  1, 0 with
// ERR_KEY_NOT_FOUND, or -1.  Refuses with ERR_BAD_PARAMETERS a line that is
// more than one line and a path that is a directory.
int set_line(const char *path, const char *pattern, std::string_view line, int flags);

// line inserted after the line matching pattern, or appended when pattern
// is null or matches nothing: 1 or -1.  Unchecked.
int add_line(const char *path, const char *pattern, std::string_view line, int flags);

} // namespace kemo::sections
