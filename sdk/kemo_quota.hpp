// Internal interface of the user quota module (kemoquota.cpp): users' space
// limits on the data volumes, kept as the kernel's user quotas ("vfsv0").
// Arguments are taken as checked by the caller unless a function says
// otherwise; failures set the error code as the public functions do.
//
// A limit is stored in 1 KiB quota blocks as both the hard and the soft
// block limit.  System accounts (root, the daemons, nobody) never get one:
// a limit on them could stop the appliance itself from writing.
#pragma once

#include "kemo_internal.hpp"

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kemo::quota {

// "supportquota" of the defaults file is "yes" (any case).
bool supported();

// KEMOQuotaInit for volume number 1..4.  0, or -1 with the code set.
int init(int volume);

// The uid of a local user (as its /etc/passwd line names it) or of a
// domain user ("DOMAIN\name" of the joined domain).  nullopt with
// ERR_NO_SUCH_USER, ERR_SYS_UNKNOWN, or ERR_BAD_PARAMETERS for a system
// account or a name that cannot be an account's.
std::optional<uid_t> uid_of(const char *name);
// A local user's uid by exact name, system accounts refused as above.
std::optional<uid_t> local_uid(const char *name);

// The block hard limit (quota blocks, 0 = none) of uid on device.  0, or
// -1 with the code set (KEMO_ERR_QUOTA_OFF when quotas are off there).
int read_limit(uid_t uid, const char *device, uint64_t &blocks);
// Sets the hard and soft block limits of uid on device to blocks (inode
// limits and grace times cleared) and syncs the device's quota file.
int write_limit(uid_t uid, const char *device, uint64_t blocks);

// KEMOQuotaGet / KEMOQuotaSet with checked arguments (limit finite, not
// negative).
int get(const char *name, const char *device, KEMOQUOTA &reading);
int set(const char *name, const char *device, float limit_mb);

// Removes the limits of the named users on every device given (each name
// resolved once); all are tried.  0, or -1 with the last failure's code.
int clean(const std::vector<std::string> &names, const std::vector<std::string> &devices);
// The same on every mounted data array (/dev/md2 up).  0, or -1.
int clean_raid(const std::vector<std::string> &names);
// The same on the data partition of single-disk models.
int clean_one(const std::vector<std::string> &names);

// Quota off (always 0) and the format number of device (0 on failure).
int off(const char *device);
int format(const char *device);

double unit_trans(int kind, double value) noexcept;

// A mounted data volume: its id (1..4, "/volume<id>") and device.
struct MountedVolume {
    int id;
    std::string device;
};
// The data volumes in the mount table, by id.  false with the read error.
bool mounted_volumes(std::vector<MountedVolume> &out);

} // namespace kemo::quota

// The user-quota section of the configuration backup opens with its
// settings keys ("userquota", "userquota_default"), written and read as
// every settings section writes them (kemosysbkpsettings.cpp); the users'
// limits follow (kemosysbkpquota.cpp).
namespace kemo::sysbackup {

using SettingPairs = std::vector<std::pair<std::string, std::string>>;
// Writes the long count and the pairs of the keys that are set.
bool write_user_quota_settings(const char *fn, int fd);
// Reads them back; keys of other sections are skipped, a bad value refused.
bool read_user_quota_settings(const char *fn, int fd, SettingPairs &pairs);
// Stores them in /etc/kemoinfo.conf in one rewrite.
bool store_user_quota_settings(const char *fn, const SettingPairs &pairs);

} // namespace kemo::sysbackup
