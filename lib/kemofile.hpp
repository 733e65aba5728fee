// Internal interface of the key/value settings files ("key=value" lines),
// for modules that read or change settings without going through the
// exported functions (which would set the error code of the outer call and
// check again what was already checked).
//
// Every function sets the error code when it fails and throws
// std::bad_alloc when memory runs out.  Where a function says "checked",
// it refuses keys and values that do not fit on one line, and a path that
// is a directory, with ERR_BAD_PARAMETERS before it touches any file;
// otherwise its caller has checked them.
#pragma once

#include "kemo.h"

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace kemo::settings {

// A line of a settings file holds key: not a comment ("#", ";"), and its
// text before the first "=" (quotes and blanks set aside) is key.
bool key_matches(std::string_view line, std::string_view key) noexcept;

// Finds the first (flags bit 0: the last) line of key.  With whole_line,
// found is that line without its newline; else its value, trimmed and
// unquoted (a key with nothing after its "=" reads as absent).  1 when
// found, 0 with ERR_KEY_NOT_FOUND, -1 when the file cannot be read.
int find_key(const char *path, std::string_view key, int flags, bool whole_line,
             std::optional<std::string> &found);

// The value (get_value) or the whole line (get_key_line) of key, as
// find_key finds it; nullopt when absent (ERR_KEY_NOT_FOUND) or unreadable.
std::optional<std::string> get_value(const char *path, std::string_view key, int flags = 0);
std::optional<std::string> get_key_line(const char *path, std::string_view key, int flags = 0);

// find_key copied into buf of size bytes with its terminator, as
// KLIBFileGetKeyValue and KLIBFileGetLineByKey return it: the size needed
// (buf may be null to measure), 0 when absent, -1 with
// ERR_NOT_ENOUGH_MEMORY when buf is too small.
int copy_found(const char *path, std::string_view key, char *buf, int size, int flags, bool whole_line);

// Checked.  The first line of key becomes "key=value" in format (null:
// "%s=%s\n"), later lines of key are dropped, an absent key is appended
// and a missing file created: 1, or -1.
int set_value(const char *path, std::string_view key, std::string_view value,
              const char *format = nullptr);

// set_value unchecked.
int set_key_value(const char *path, std::string_view key, std::string_view value, const char *format);

// Appends "key=value" unless the file holds key: 1, 0 with ERR_KEY_EXISTS,
// or -1.  Unchecked.
int append_key(const char *path, std::string_view key, std::string_view value, const char *format);

// set_key_value, then append_key when it changed nothing.  Unchecked.
int set_or_append(const char *path, std::string_view key, std::string_view value, const char *format);

// The first line of key replaced by line (given a newline), later ones
// dropped, line appended when none matched: 1 or -1.  Unchecked.
int set_line_by_key(const char *path, std::string_view key, std::string_view line);

// line appended unless key is present: 1, 0 with ERR_KEY_EXISTS, -1.
// Unchecked.
int add_line_by_key(const char *path, std::string_view key, std::string_view line);

// Every line of key dropped: how many, 0 with ERR_KEY_NOT_FOUND, or -1.
int remove_key(const char *path, std::string_view key);

// Every line of key commented out with "#": how many, 0 with
// ERR_KEY_NOT_FOUND, or -1.
int comment_key(const char *path, std::string_view key);

// The pairs of the file set into *phash (which may be moved): the number
// of pairs of the hash, or -1.
int get_pairs(const char *path, PKLIBSZHASH *phash);

// Writes line's key with its value from hash in format to stream and
// removes the key from hash: 1, 0 when line holds no key of hash, -1.
int move_key_line(FILE *stream, std::string_view line, PKLIBSZHASH hash, const char *format);

// Every pair of hash written into the file (first line of each key
// replaced, missing keys appended); the keys found in the file leave the
// hash.  The number of keys written, or -1.  Unchecked.
int set_keys(const char *path, PKLIBSZHASH hash, const char *format);

// Checked (the pairs of hash too).  Every pair of hash written into the
// file, which is created when missing; hash unchanged.  0 or -1.
int set_pairs(const char *path, PKLIBSZHASH hash, const char *format);

// The pairs of src whose keys dst lacks appended to dst (created when
// missing): how many, or -1 (ERR_BAD_PARAMETERS for a pair of src that
// does not fit on one line).
int merge_pairs(const char *dst, const char *src, const char *format);

// Every from in lines other than comments replaced by to: how many, or -1.
int replace_substring(const char *path, std::string_view from, std::string_view to);

// The lines of the file in reverse order: how many, or -1.
int reverse_lines(const char *path);

// Each line of the file pushed onto *plist without its newline: how many,
// or -1.
int read_lines(const char *path, PKLIBSZLIST *plist);

// The 1-based number of the first (KLIB_MATCH_LAST: last) line matching
// pattern under the KLIB_MATCH_* flags, 0 with ERR_KEY_NOT_FOUND, or -1.
int match_line_number(const char *path, std::string_view pattern, int flags);

// The entries of dir ("dir/name"; flags KLIB_ENUM_FILES or KLIB_ENUM_DIRS
// keep only those) pushed onto *plist in byte order: how many, or -1.
int enum_dir(const char *dir, PKLIBSZLIST *plist, int flags);

// format follows the rules of the pair writers.
bool format_is_valid(std::string_view format);

// kemo::unique_name(prefix) copied into buf of size bytes: 0, or -1 with
// ERR_NOT_ENOUGH_MEMORY.
int temp_name(std::string_view prefix, char *buf, int size);

} // namespace kemo::settings
