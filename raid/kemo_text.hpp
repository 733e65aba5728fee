// Parsers of the texts the storage modules read from the kernel and from
// other processes: /proc/mdstat, /proc/mounts, and the progress files the
// file-system tools write.  They work on buffers only (no I/O), so that any
// bytes at all can be fed to them: a missing, empty, partial or garbage
// text gives "nothing known", never a crash.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kemo::text {

// The sync state of one array as /proc/mdstat shows it.
struct MdSync {
    enum State : uint32_t { none = 0, running = 1, waiting = 2 };
    State state = none;
    float percent = 0;   // done, 0..100, while running
    bool recovery = false; // a member is being rebuilt (not a first sync or a check)
    bool verify = false;   // a check or repair of an array already in sync
};

// True when /proc/mdstat lists array md ("md<md> : ...").
bool mdstat_lists(std::string_view mdstat, int md) noexcept;
// The resync / recovery / reshape / check of array md.
MdSync mdstat_sync(std::string_view mdstat, int md) noexcept;

// One entry of a mount table, its octal escapes (\040 ...) decoded.
struct MountEntry {
    std::string device, dir, type, options;
};
// One line of /proc/mounts; nullopt for a line with fewer than four fields.
std::optional<MountEntry> mount_line(std::string_view line);

// The volume id of a mount directory "/volume<digit>...", or -1.
int volume_id_of_dir(std::string_view dir) noexcept;

// A file-system maker's progress line "done/total" (blanks around the
// numbers allowed): the percent done (99 when one unit is left), or nullopt
// for anything else (also for total 0, negative numbers or done > total).
std::optional<int> fraction_percent(std::string_view line) noexcept;

// The decimal number at the start of a progress file's first bytes, as atoi
// reads it (blanks and a sign allowed, digits up to the first non-digit,
// clamped to the int range); nullopt when there is no digit at all.
std::optional<int> leading_number(std::string_view bytes) noexcept;

// The RAID level of a sysfs "level" text ("raid5\n" -> 5), or -1.
int sysfs_level(std::string_view text) noexcept;

} // namespace kemo::text
