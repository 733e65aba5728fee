// Internal interface of the volume modules: the file systems on the data
// arrays (raid/kemovol*.cpp by volume index, sdk/kemovol*.cpp by volume id).
// Exported functions are shims over these; other modules (quotas, the
// stale-volume scan) call these, never the exported names.
#pragma once

#include "kemo.h"
#include "kemo_internal.hpp"

#include <sys/statfs.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kemo::vol {

constexpr int kMaxVolumes = 4; // /volume1../volume4

// The volume module's error word; each code also sets the library's error
// code that matches (0 resets the word only).
void set_error(uint32_t code) noexcept;
uint32_t error() noexcept;

bool index_valid(long index) noexcept; // 0..3

// The sizes of the file system mounted at dir into record; false (both
// zeroed) when statfs fails.
bool fill_sizes(const char *dir, KEMOVOLINFO &record);
bool id_valid(long id) noexcept;       // 1..4

// ---- by volume index (error word set on failure) ---------------------------
// KEMOVolRaidGetInfo: 0, or -1 with the error word set.
int raid_get_info(int index, KEMOVOLINFO &record);
// KEMOVolRaidEnum: 0, or -1 with the error word set.
int raid_enum(uint32_t *mask, int *first, int *count);
int statfs_of(int index, struct statfs &out);
// Makes the file system (fs_kind 3 ext2, 4 ext3) and mounts it.  option is
// the progress prefix handed to the maker, already checked.
int init(int index, int fs_kind, const char *option);
int stop(int index);

// ---- by device (checked with device_ok) -------------------------------------
// A caller's path that stays below root ("/dev/", "/tmp/"): root and a
// plain path after it (letters, digits and "._-+:/"; no ".", ".." or empty
// component; at most 255 bytes), so it can be neither an option of a tool
// nor a way out of root.
bool plain_path_below(const char *path, std::string_view root) noexcept;
// A block device path a caller may name: plain_path_below "/dev/".
bool device_ok(const char *device) noexcept;
int dev_size(const char *device, uint64_t &sectors);
int expansible(const char *device);
int expand(const char *device);

// ---- progress files ------------------------------------------------------------
// The value of the first "key=value" line of text with that key (blanks
// and one pair of quotes around it dropped), as the settings files hold it.
std::optional<std::string> value_of(std::string_view text, std::string_view key);
// A progress name ("md2"): a plain file-name part, no "/", not "." or "..".
bool progress_name_ok(const char *name) noexcept;

int fs_init_status(int index);
int expand_progress(const char *name, int &percent);
// 0 filled, -1 failure, -2 no volume being created.
int init_status(KEMOVOLINITSTATUS &status);
// The three job tests: kind 0 add, 1 repair, 2 expand.  name may be null.
int applying(int kind, const char *process);
int md_sync_progress(int md, float &percent);

// ---- crashed and stale arrays ------------------------------------------------
int remount_crash_ro(const char *device);
int remove_stale_volumes();

// ---- by volume id (library error state) ------------------------------------
int id_parse(const char *path);
int info_get(int id, KEMOVOLINFO &record);
// The mounted /volume<digit> file systems, sorted; null when none (error
// code untouched) or on failure (error code set).
KEMOVOLINFO *mounted_list(bool first_only);
KEMOVOLINFO *sort_list(KEMOVOLINFO *list) noexcept;
void free_list(KEMOVOLINFO *list) noexcept;
int health(int id, int &value);
int writeable_id();
int all_volume_scan(const char *relative);
bool support_raid();
int is_non_raid(const KEMORAIDVOL &status);

} // namespace kemo::vol
