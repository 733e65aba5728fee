// Internal interface of the string hash beyond its exported containers
// functions: copying pairs between tables and writing a table as a section
// of a settings file.
#pragma once

#include "kemo.h"

#include <cstdio>

namespace kemo::szhash {

// Every pair of src set into dst without growing it: 0, or -1 with
// ERR_NOT_ENOUGH_SPACE when dst has no room left (dst then holds the
// pairs copied so far).
int copy(const KLIBSZHASH &src, KLIBSZHASH &dst);

// "[section]\n" (none when section is null), then each pair in slot order
// in format (null: "%s=%s\n"): 0, or -1 with ERR_BAD_PARAMETERS for a bad
// format or ERR_WRITE_FAILED.  Throws std::bad_alloc.
int write_section(FILE *stream, const char *section, const KLIBSZHASH &hash, const char *format);

} // namespace kemo::szhash
