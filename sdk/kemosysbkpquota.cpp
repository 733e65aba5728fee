// The user-quota section of the configuration backup: the quota settings
// keys, then the users' own limits on the data volumes.
//
// Body (typed values, in this order):
//   long count, then count pairs (string key, string value): the settings
//        keys "userquota" and "userquota_default" that are set;
//   long n, then n limit entries, each three values:
//        string name    a local user, as its /etc/passwd line spells it
//        long   volume  the volume id 1..4 ("/volume<id>")
//        string blocks  the block limit in 1 KiB quota blocks, in decimal
//                       digits without sign or leading zero, at least 1
// The exporter writes an entry for every local user that is no system
// account and has a limit on a mounted volume whose quotas are on, users
// in /etc/passwd order within each volume, volumes by id.
//
// The importer reads the whole body and refuses it (changing nothing) when
// any value is not of that form or an entry repeats a user and volume.
// Applied, it sets the keys, then the limits of the users that exist here
// on the volumes that are mounted here (other entries are logged and left
// out); should the kernel refuse one limit, the limits already set are put
// back as they were.
#include "kemo_quota.hpp"
#include "kemo_accounts.hpp"
#include "kemo_io.hpp"
#include "kemo_records.hpp"
#include "kemo_sysbackup.hpp"
#include "kemostr.hpp"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kemo::sysbackup {

namespace {

namespace acc = kemo::accounts;

constexpr uint32_t kUserQuotaId = 0x1000000;
// The exporter shares its failure event with the user exporter.
constexpr uint32_t kExportFailed = 0x12100011;
constexpr uint32_t kImportFailed = 0x12100116;
// More entries than four volumes of the most accounts a uid range holds
// cannot come from an exporter.
constexpr int32_t kMaxEntries = 4 * 65536;
constexpr std::size_t kMaxBlockDigits = 19;

struct Entry {
    std::string name;
    int32_t volume = 0;
    uint64_t blocks = 0;
};

struct LocalUser {
    std::string name;
    uid_t uid;
};

// Local users that are no system accounts, in /etc/passwd order.
bool local_users(std::vector<LocalUser> &out)
{
    auto lock = acc::account_lock(acc::kUserReadLock, acc::kUserReadUnlock);
    if (!lock.held())
        return false;
    return kemo::for_each_line(acc::kPasswd, [&](std::string_view line) {
        const auto entry = kemo::records::parse_passwd(kemo::chomp(line));
        if (entry && !acc::is_system_user(entry->uid))
            out.push_back({std::string(entry->name), static_cast<uid_t>(entry->uid)});
        return 1;
    }) == 0;
}

// The limits on every mounted volume whose quotas are on.
bool collect_limits(const char *fn, std::vector<Entry> &out)
{
    std::vector<LocalUser> users;
    std::vector<kemo::quota::MountedVolume> volumes;
    if (!local_users(users) || !kemo::quota::mounted_volumes(volumes)) {
        BKP_LOG(fn, "fail to list users or volumes (%X)", KLIBErrGet());
        return false;
    }
    std::map<int, std::string> by_id;
    for (const auto &v : volumes)
        by_id.emplace(v.id, v.device);
    for (const auto &[id, device] : by_id)
        for (const LocalUser &user : users) {
            uint64_t blocks = 0;
            if (kemo::quota::read_limit(user.uid, device.c_str(), blocks) != 0) {
                if (KLIBErrGet() == KEMO_ERR_QUOTA_OFF)
                    break; // no quotas on this volume: no limits to carry
                BKP_LOG(fn, "fail to read the quota of %s on %s (%X)", user.name.c_str(),
                        device.c_str(), KLIBErrGet());
                return false;
            }
            if (blocks != 0)
                out.push_back({user.name, id, blocks});
        }
    return true;
}

int export_user_quota(const char *fn, int fd)
{
    std::vector<Entry> entries;
    if (!collect_limits(fn, entries)) {
        report(kExportFailed);
        return -1;
    }
    return write_section(fn, fd, kUserQuotaId, [&] {
        if (!write_user_quota_settings(fn, fd))
            return false;
        if (write_long(fd, static_cast<int32_t>(entries.size())) < 0) {
            BKP_LOG(fn, "fail to write count");
            return false;
        }
        for (const Entry &e : entries)
            if (write_string(fd, e.name) < 0 || write_long(fd, e.volume) < 0 ||
                write_string(fd, std::to_string(e.blocks)) < 0) {
                BKP_LOG(fn, "fail to write the limit of %s", e.name.c_str());
                return false;
            }
        return true;
    }, kExportFailed);
}

// A block count as the exporter writes it; 0 for anything else.
uint64_t parse_blocks(std::string_view text) noexcept
{
    if (text.empty() || text.size() > kMaxBlockDigits || text[0] == '0')
        return 0;
    uint64_t n = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return 0;
        n = n * 10 + static_cast<uint64_t>(c - '0');
    }
    return n;
}

bool read_entries(const char *fn, int fd, std::vector<Entry> &out)
{
    int32_t count = 0;
    if (read_long(fd, count) < 0 || count < 0 || count > kMaxEntries) {
        BKP_LOG(fn, "fail to read the number of limits");
        return false;
    }
    std::set<std::pair<std::string, int32_t>> seen;
    std::string name, blocks;
    for (int32_t i = 0; i < count; ++i) {
        Entry e;
        if (!read_text(fd, name) || read_long(fd, e.volume) < 0 || !read_text(fd, blocks)) {
            BKP_LOG(fn, "fail to read limit %d of %d", i + 1, count);
            return false;
        }
        e.blocks = parse_blocks(blocks);
        if (!kemo::strings::is_user_name(name) || e.volume < 1 || e.volume > 4 || e.blocks == 0 ||
            !seen.emplace(acc::upper(name).value_or(name), e.volume).second) {
            BKP_LOG(fn, "invalid limit %d of %d", i + 1, count);
            return false;
        }
        e.name = name;
        out.push_back(std::move(e));
    }
    return true;
}

// What one entry changes: the uid on a device, from old to new blocks.
struct Change {
    uid_t uid;
    std::string device;
    uint64_t old_blocks = 0, new_blocks = 0;
};

// Sets every limit, or puts back those already set and fails.
bool apply_limits(const char *fn, const std::vector<Entry> &entries)
{
    std::vector<kemo::quota::MountedVolume> volumes;
    if (!kemo::quota::mounted_volumes(volumes)) {
        BKP_LOG(fn, "fail to read the mount table (%X)", KLIBErrGet());
        return false;
    }
    std::vector<Change> changes;
    for (const Entry &e : entries) {
        const std::string *device = nullptr;
        for (const auto &v : volumes)
            if (v.id == e.volume)
                device = &v.device;
        const auto uid = device ? kemo::quota::local_uid(e.name.c_str()) : std::nullopt;
        if (!uid) {
            BKP_LOG(fn, "limit of %s on volume %d left out: %s", e.name.c_str(), e.volume,
                    device ? "no such user" : "volume not mounted");
            continue;
        }
        Change c{*uid, *device, 0, e.blocks};
        if (kemo::quota::read_limit(c.uid, device->c_str(), c.old_blocks) != 0) {
            BKP_LOG(fn, "fail to read the quota of %s on %s (%X)", e.name.c_str(), device->c_str(),
                    KLIBErrGet());
            return false;
        }
        changes.push_back(std::move(c));
    }
    for (std::size_t i = 0; i < changes.size(); ++i) {
        if (kemo::quota::write_limit(changes[i].uid, changes[i].device.c_str(), changes[i].new_blocks) == 0)
            continue;
        BKP_LOG(fn, "fail to set the quota of uid %u on %s (%X)", static_cast<unsigned>(changes[i].uid),
                changes[i].device.c_str(), KLIBErrGet());
        for (std::size_t j = 0; j < i; ++j)
            kemo::quota::write_limit(changes[j].uid, changes[j].device.c_str(), changes[j].old_blocks);
        return false;
    }
    return true;
}

bool import_user_quota_body(const char *fn, int fd, uint32_t version, int apply)
{
    if (version != kVersion) {
        BKP_LOG(fn, "unsupported version %u", version);
        return false;
    }
    SettingPairs pairs;
    std::vector<Entry> entries;
    if (!read_user_quota_settings(fn, fd, pairs) || !read_entries(fn, fd, entries))
        return false;
    if (!apply)
        return true;
    return store_user_quota_settings(fn, pairs) && apply_limits(fn, entries);
}

} // namespace
} // namespace kemo::sysbackup

extern "C" {

KEMO_API int KEMOSysbkpUserQuotaExport(int fd)
{
    const char *const fn = __func__;
    return kemo::edge(-1, [&] { return kemo::sysbackup::export_user_quota(fn, fd); });
}

KEMO_API int KEMOSysbkpUserQuotaImport(int fd, uint32_t version, int apply)
{
    const char *const fn = __func__;
    return kemo::edge(-1, [&] {
        if (kemo::sysbackup::import_user_quota_body(fn, fd, version, apply))
            return 0;
        kemo::sysbackup::report(kemo::sysbackup::kImportFailed);
        return -1;
    });
}

} // extern "C"
