// Internal interface of the key/value settings files, for modules that read
// or change settings without going through the exported functions (which
// would set the error code of the outer call).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kemo::settings {

// The value of the first line of key in the file at path, trimmed and
// unquoted.  nullopt when the key is absent or has nothing after its "=",
// or the file cannot be read (the error code is set in every case).
std::optional<std::string> get_value(const char *path, std::string_view key);

// KLIBFileSetKeyValue without its argument checks: 1, or -1 with the code
// set.  key and value must already be known to fit on one line.
int set_key_value(const char *path, const char *key, const char *value, const char *format);

// KLIBFileAppendKey without its argument checks: 1, 0 with ERR_KEY_EXISTS,
// or -1 with the code set.
int append_key(const char *path, const char *key, const char *value, const char *format);

} // namespace kemo::settings

namespace kemo::sections {

// KLIBILineMatch on a line of any content: the line (with its newline, if
// any) matches pattern under the KLIB_MATCH_* flags.  Throws std::bad_alloc.
bool line_matches(std::string_view line, std::string_view pattern, int flags);

} // namespace kemo::sections
