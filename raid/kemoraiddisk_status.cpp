// A disk's RAID status: which arrays list its partitions, and whether they
// flag it, condensed into one status value.
#include "kemo_raid.hpp"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstring>

namespace kemo::raid {

namespace {

constexpr int kSysHealthy = 0;
constexpr int kSysMissing = 1;
constexpr int kSysPartial = 2;
constexpr int kDataHealthy = 0;
constexpr int kDataNone = 1;
constexpr int kDataFlagged = 2;

} // namespace

int map_status(int sys, int data, int &status) noexcept
{
    if (sys == kSysMissing && data == kDataNone)
        status = KEMO_DISK_UNINITIALIZED;
    else if (data == kDataFlagged)
        status = KEMO_DISK_DATA_FAULTY;
    else if (sys == kSysHealthy && data == kDataNone)
        status = KEMO_DISK_SYSTEM_ONLY;
    else if (sys == kSysPartial && data == kDataNone)
        status = KEMO_DISK_SYSTEM_PARTIAL;
    else if ((sys == kSysMissing || sys == kSysPartial) && data == kDataHealthy)
        status = KEMO_DISK_SYSTEM_MISSING;
    else if (sys == kSysHealthy && data == kDataHealthy)
        status = KEMO_DISK_NORMAL;
    else {
        set_disk_error(KEMO_RAID_DISK_ERR_STATE);
        return 1;
    }
    return 0;
}

int system_status(int disk, int &status)
{
    if (!disk_valid(disk)) {
        set_disk_error(KEMO_RAID_DISK_ERR_PARAM);
        return 1;
    }
    const uint32_t bit = 1u << disk;
    int member_of = 0;
    bool flagged = false;
    for (int md = 0; md <= 1; ++md) {
        KEMORAIDVOL vol {};
        if (vol_status(md, vol) != 0) {
            if (vol_error() == KEMO_RAID_ERR_INACTIVE)
                continue;
            return 1;
        }
        if ((vol.memberMask & bit) != 0)
            ++member_of;
        if ((vol.faultyMask & bit) != 0)
            flagged = true;
    }
    if (member_of == 2 && !flagged)
        status = kSysHealthy;
    else if (member_of == 1 || flagged)
        status = kSysPartial;
    else
        status = kSysMissing;
    return 0;
}

int data_status(int disk, int &status, uint32_t &volumes)
{
    if (!disk_valid(disk)) {
        set_disk_error(KEMO_RAID_DISK_ERR_PARAM);
        return 1;
    }
    int last = max_md_id();
    if (last == 1) {
        kemo::log("(%s)%s(%d):Failed to get Max volume ID, give default value %d", __func__, __FILE__, __LINE__, 2);
        last = 2;
    }
    last = std::min(last, kMaxMd);
    const uint32_t bit = 1u << disk;
    status = kDataNone;
    for (int md = 2; md <= last; ++md) {
        KEMORAIDVOL vol {};
        if (vol_status(md, vol) != 0) {
            if (vol_error() == KEMO_RAID_ERR_INACTIVE)
                continue;
            return 1;
        }
        if ((vol.memberMask & bit) == 0)
            continue;
        volumes |= 1u << (md - 2);
        status = ((vol.faultyMask | vol.failedMask) & bit) != 0 ? kDataFlagged : kDataHealthy;
        break;
    }
    return 0;
}

int disk_status(int disk, KEMORAIDDISK &record)
{
    if (!disk_valid(disk)) {
        set_disk_error(KEMO_RAID_DISK_ERR_PARAM);
        return 1;
    }
    struct stat st {};
    if (::stat(disk_proc(disk), &st) != 0) {
        if (errno != ENOENT)
            return 1;
        record.status = KEMO_DISK_NONE;
        return 0;
    }
    const char *device = disk_name(disk);
    std::strncpy(record.device, device, sizeof record.device - 1);
    uint32_t sectors = 0;
    if (disk_size(disk, -1, &sectors) != 0) {
        KEMO_RAID_LOG("%s(%d)[%d]Failed to get device's size : %s", disk, device);
        set_disk_error(KEMO_RAID_DISK_ERR_SIZE);
        return 1;
    }
    record.sizeGiB = static_cast<float>(sectors) / static_cast<float>(1u << 21);
    // The model field of IDENTIFY holds 40 characters; one byte more keeps
    // the last of them.
    char model[41] = {};
    if (disk_model(device, model, sizeof model) != 0) {
        KEMO_RAID_LOG("%s(%d)[%d]Failed to open device's model : %s", disk, device);
        set_disk_error(KEMO_RAID_DISK_ERR_MODEL);
        return 1;
    }
    std::strncpy(record.model, model, sizeof record.model - 1);
    int sys = -1;
    int data = -1;
    if (system_status(disk, sys) != 0 || data_status(disk, data, record.dataVolumeMask) != 0) {
        KEMO_RAID_LOG("%s(%d)[%d]Failed to get status of RAID : %s , disknum = %d , system status = %d, data vol "
                      "status = %d",
                      disk, device, disk, sys, data);
        set_disk_error(KEMO_RAID_DISK_ERR_STATE);
        return 1;
    }
    int status = 0;
    if (map_status(sys, data, status) != 0) {
        KEMO_RAID_LOG("%s(%d)[%d]Failed to get status of RAID  : %s , disknum = %d , system status = %d, data vol "
                      "status = %d",
                      disk, device, disk, sys, data);
        set_disk_error(KEMO_RAID_DISK_ERR_STATE);
        return 1;
    }
    record.status = static_cast<uint32_t>(status);
    return 0;
}

int disk_of_device(int kind, int major, int minor)
{
    if (kind < 0 || kind > 5 || major <= 0 || minor <= 0) {
        KEMO_RAID_LOG("%s(%d)Bad parameter");
        return -1;
    }
    const int part = kind < 2 ? kind : 2;
    for (int disk = 0; disk < kMaxDisks; ++disk) {
        struct stat st {};
        if (::stat(part_name(disk, part), &st) != 0) {
            KEMO_RAID_LOG("%s(%d)failed to stat %s, errno=%s", disk_name(disk), std::strerror(errno));
            continue;
        }
        if (S_ISBLK(st.st_mode) && static_cast<int>(::major(st.st_rdev)) == major &&
            static_cast<int>(::minor(st.st_rdev)) == minor)
            return disk + 1;
    }
    return -1;
}

} // namespace kemo::raid

namespace raid = kemo::raid;

extern "C" {

KEMO_API int KEMORaidDiskStatus(int disk, PKEMORAIDDISK record)
{
    if (record == nullptr) {
        raid::set_disk_error(KEMO_RAID_DISK_ERR_PARAM);
        return 1;
    }
    return kemo::edge(1, [&] { return raid::disk_status(disk, *record); });
}

KEMO_API int KEMORAIDStatusGetSYS(int *sysStatus, int disk)
{
    if (sysStatus == nullptr) {
        raid::set_disk_error(KEMO_RAID_DISK_ERR_PARAM);
        return 1;
    }
    return kemo::edge(1, [&] { return raid::system_status(disk, *sysStatus); });
}

KEMO_API int KEMORAIDStatusGetDATA(int *dataStatus, uint32_t *dataVolumeMask, int disk)
{
    if (dataStatus == nullptr || dataVolumeMask == nullptr) {
        raid::set_disk_error(KEMO_RAID_DISK_ERR_PARAM);
        return 1;
    }
    return kemo::edge(1, [&] { return raid::data_status(disk, *dataStatus, *dataVolumeMask); });
}

KEMO_API int KEMORAIDStatusGet(int sysStatus, int dataStatus, int *diskStatus)
{
    if (diskStatus == nullptr) {
        raid::set_disk_error(KEMO_RAID_DISK_ERR_PARAM);
        return 1;
    }
    return raid::map_status(sysStatus, dataStatus, *diskStatus);
}

KEMO_API int KEMORaidDiskUnused(void)
{
    return kemo::edge(0, [] {
        const int disks = std::min(raid::max_disks(), raid::kMaxDisks);
        int unused = 0;
        for (int disk = 0; disk < disks; ++disk) {
            KEMORAIDDISK record {};
            if (raid::disk_status(disk, record) == 0 &&
                (record.status == KEMO_DISK_UNINITIALIZED || record.status == KEMO_DISK_SYSTEM_ONLY))
                ++unused;
        }
        return unused;
    });
}

KEMO_API int KEMORaidDiskIDGet(int kind, int major, int minor)
{
    return kemo::edge(-1, [&] { return raid::disk_of_device(kind, major, minor); });
}

} // extern "C"
