// Internal interface of the storage modules: the disk layer
// (kemoraiddisk.cpp, kemoraiddisk_status.cpp) and the array layer
// (kemoraidvol.cpp).  The exported functions are shims over these; the
// modules call each other only through this header, so the error words are
// set exactly once per failure and no public entry point is re-entered.
#pragma once

#include "kemo.h"
#include "kemo_internal.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The storage modules' diagnostics carry their own prefixes ("%s(%d)...",
// "%s (%d) ..."): the format names them and this fills in file and line.
#define KEMO_RAID_LOG(fmt, ...) ::kemo::log(fmt, __FILE__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

namespace kemo::raid {

constexpr int kMaxDisks = 4;    // name tables: /dev/sda../dev/sdd
constexpr int kMaxParts = 4;    // partition indexes 0..3
constexpr int kMaxMd = 5;       // /dev/md0../dev/md5
constexpr int kMaxMembers = 27; // member slots asked of the md driver

constexpr const char *kPartitionTool = "/sbin/sfdisk";
constexpr const char *kInfoDefaults = "/etc.defaults/kemoinfo.conf";

// ---- module error words ------------------------------------------------
// Each sets its module's word and the library's error code that matches.
void set_disk_error(uint32_t code) noexcept;
uint32_t disk_error() noexcept;
void set_vol_error(uint32_t code) noexcept;
uint32_t vol_error() noexcept;

// ---- names -------------------------------------------------------------
bool disk_valid(long n) noexcept; // 0..3
bool part_valid(long n) noexcept; // 0..3
const char *disk_name(int disk) noexcept;     // "/dev/sda", null when invalid
const char *part_name(int disk, int part) noexcept;
const char *disk_proc(int disk) noexcept;     // "/sys/block/sda"

// ---- model limits --------------------------------------------------------
// "maxdisks" of the defaults file, read in this process (the exported
// KEMOMaxDiskGet runs /bin/get_key_value for the same value); 0 when absent.
int max_disks() noexcept;
// max_disks() + 1: the highest array number (md0, md1 and one data array per
// slot), as KEMORaidMaxMDIDGet.
int max_md_id() noexcept;
// The same count as the exported KEMOMaxDiskGet reads it: through
// "/bin/get_key_value"; 0 (logged) when that fails.
int max_disks_by_pipe();

// ---- sizes ---------------------------------------------------------------
uint32_t partition_size_from_disk(uint32_t disk_sectors) noexcept;
uint32_t md_size_from_partition(uint32_t part_sectors) noexcept;
// part -1 for the whole disk.  0, or 1 with the disk error set.
int disk_size(int disk, int part, uint32_t *sectors) noexcept;
int usable_size_from_partition(int disk, int part, uint32_t *sectors) noexcept;
int usable_size_from_disk(int disk, uint32_t *sectors) noexcept;
// The smallest disk of the mask less the reserve, rounded to a cylinder.
uint32_t min_partition_size(uint32_t disk_mask) noexcept;
int disk_model(const char *device, char *buf, int len) noexcept;

// ---- layout ----------------------------------------------------------------
struct PartitionEntry {
    uint32_t start = 0;
    uint32_t size = 0;
    uint32_t type = 0;
};
// Partition number (1-based) of device as the partitioning tool lists it.
std::optional<PartitionEntry> partition_entry(int number, std::string_view device);
bool layout_ok(const char *device);
int disk_clean(int disk, int type);
int disk_init(int disk, int type);
// Logs a failed command as KEMOErrLogShellCmd does.
void log_command_failure(int status, const char *source, int line, const char *command) noexcept;

// ---- status ----------------------------------------------------------------
int disk_status(int disk, KEMORAIDDISK &record);
int system_status(int disk, int &status);
int data_status(int disk, int &status, uint32_t &volumes);
int map_status(int sys, int data, int &status) noexcept;
int disk_of_device(int kind, int major, int minor);

// ---- arrays ----------------------------------------------------------------
// 0, or 1 with the array error set (KEMO_RAID_ERR_INACTIVE for an array the
// md driver does not know: nothing is logged then).
int vol_status(int md, KEMORAIDVOL &record);
int decide_members(int md, const KEMORAIDMEMBER *members, int count, KEMORAIDVOL &masks);
int decide_volume(int level, const KEMORAIDVOL &masks) noexcept;
int component_size(int md, int64_t &kib);

// The array size limit a root-owned "/tmp/volume.<GiB>" sets, in KiB: 0, or
// 1 (kib 0) when there is none.
int size_limit_kib(uint64_t &kib);
// /proc/mdstat, read bounded; false when it cannot be read.
bool read_mdstat(std::string &text);
// A number the md driver shows in /sys/block/md<md>/md/<attribute>
// ("chunk_size", "dev-sda3/offset" ...), or -1.
int64_t md_number(int md, const std::string &attribute);
// The md driver's view of one member partition of array md through sysfs
// (/sys/block/md<md>/md/dev-<partition name>): whether it is listed, its
// data offset in sectors (-1 unknown), its state written ("faulty",
// "remove"), and the partition names of every listed member.
bool member_listed(int md, const char *partition);
int64_t member_offset(int md, const char *partition);
bool set_member_state(int md, const char *partition, const char *state);
std::vector<std::string> listed_members(int md);
// The mount directory of a device ("" when it is not mounted); false when
// the mount table cannot be read.
bool mount_point(const std::string &device, std::string &dir);

// Administration (kemoraidvol_admin.cpp).  0, or 1 with the array error set
// and a line logged.
int dev_create(uint32_t disk_mask, int part, int level, int count, int &md);
int dev_disk_add(int md, int disk, int part);
int dev_disk_remove(int md, int disk, int part);
int dev_enum(uint32_t *data_mask, int *first, int *count);
int find_unused_md(int &md);
int vol_destroy(int md);
int system_init();

// Growing and counting (kemoraidvol_grow.cpp).
// 1 expansible to new_kib, 0 not, -1 failure (array error set).
int vol_expansible(int md, uint64_t &new_kib);
int vol_expand(int md);
int vol_disk_count_change(int md, int count);
int repair_min_disk(const KEMORAIDVOL &record, uint64_t &min_sectors);
int vol_count(int &count);
int disk_count(uint32_t mask) noexcept;
int system_rebuilding();

} // namespace kemo::raid
