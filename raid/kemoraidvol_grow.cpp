// Growing the md arrays (member size and member count), the arithmetic of
// replacement disks, and the counts callers show: arrays present, disks in
// a mask, whether a system array is being rebuilt.
#include "kemo_raid.hpp"

#include "kemomisc.hpp"

#include <algorithm>
#include <bit>
#include <string>

namespace kemo::raid {

namespace {

int part_of_md(int md) noexcept
{
    return md < 2 ? md : 2;
}

// The largest size in sectors a member of array md on disk can have: the
// partition less the md superblock's reserve at its end, and, for
// superblocks at the start, less the data offset the member was given.
bool member_capacity(int md, int disk, uint64_t &sectors)
{
    const int part = part_of_md(md);
    uint32_t usable = 0;
    uint32_t whole = 0;
    if (usable_size_from_partition(disk, part, &usable) != 0 || disk_size(disk, part, &whole) != 0)
        return false;
    sectors = usable;
    const int64_t offset = member_offset(md, part_name(disk, part));
    if (offset > 0)
        sectors = std::min<uint64_t>(sectors, whole > static_cast<uint64_t>(offset) ? whole - offset : 0);
    return true;
}

} // namespace

int vol_expansible(int md, uint64_t &new_kib)
{
    KEMORAIDVOL record {};
    if (vol_status(md, record) != 0)
        return -1;
    if (record.level != 1 && record.level != 5) {
        kemo::log("%s(%s:%d): volume %d is not RAID1/5\n", __func__, __FILE__, __LINE__, md);
        set_vol_error(KEMO_RAID_ERR_NO_ID);
        return -1;
    }
    int64_t in_use = 0;
    if (component_size(md, in_use) != 0) {
        kemo::log("%s(%s:%d): cannot get disk %d size in use\n", __func__, __FILE__, __LINE__, 0);
        return -1;
    }
    uint64_t smallest = UINT64_MAX;
    for (int disk = 0; disk < kMaxDisks; ++disk) {
        if ((record.memberMask & (1u << disk)) == 0)
            continue;
        uint64_t sectors = 0;
        if (!member_capacity(md, disk, sectors)) {
            kemo::log("%s(%s:%d): cannot get disk %d max usable size\n", __func__, __FILE__, __LINE__, disk);
            continue;
        }
        smallest = std::min(smallest, sectors);
    }
    // With no member measured there is nothing to grow into (the all-ones
    // start value is no size).
    if (smallest == UINT64_MAX) {
        set_vol_error(KEMO_RAID_ERR_PART_SIZE);
        return -1;
    }
    if (in_use < 0) {
        kemo::log("%s(%s:%d): cannot get disk %d size in use\n", __func__, __FILE__, __LINE__, 0);
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        return -1;
    }
    uint64_t kib = smallest / 2;
    uint64_t limit = 0;
    if (size_limit_kib(limit) == 0)
        kib = std::min(kib, limit);
    // RAID 5 members are whole chunks: mdadm rounds a size down to them,
    // and an array grown that far must not count as expansible again.
    const int64_t chunk = record.level == 5 ? md_number(md, "chunk_size") / 1024 : 0;
    if (chunk > 0)
        kib -= kib % static_cast<uint64_t>(chunk);
    new_kib = kib;
    return static_cast<uint64_t>(in_use) >= kib ? 0 : 1;
}

int vol_expand(int md)
{
    uint64_t kib = 0;
    const int verdict = vol_expansible(md, kib);
    if (verdict < 0) {
        kemo::log("%s(%s:%d): precondition check failed\n", __func__, __FILE__, __LINE__);
        return 1;
    }
    if (verdict == 0) {
        kemo::log("%s(%s:%d): Volume %d is not expansible\n", __func__, __FILE__, __LINE__, md);
        return 1;
    }
    const auto command = shell_command("%s --grow /dev/md" + std::to_string(md) + " -z " + std::to_string(kib) +
                                           " >/dev/null 2>&1\n",
                                       {"mdadm"});
    const int status = command ? shell_run(*command) : -1;
    if (status == -1) {
        kemo::log("%s(%s:%d): fork failed\n", __func__, __FILE__, __LINE__);
        set_vol_error(KEMO_RAID_ERR_GROW);
        return 1;
    }
    if (exit_code(status) != 0) {
        kemo::log("%s(%s:%d): mdadm failed to grow volume %d\n", __func__, __FILE__, __LINE__, md);
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        return 1;
    }
    return 0;
}

int vol_disk_count_change(int md, int count)
{
    if (md < 0 || md > kMaxMd || count < 1 || count > kMaxDisks) {
        set_vol_error(KEMO_RAID_ERR_PARAM);
        return 1;
    }
    const auto command = shell_command("mdadm --grow /dev/md" + std::to_string(md) +
                                           " --raid-disk=" + std::to_string(count) + " >/dev/null 2>&1\n",
                                       {});
    const int status = command ? shell_run(*command) : -1;
    if (status == -1) {
        kemo::log("%s(%s:%d): fork failed\n", __func__, __FILE__, __LINE__);
        set_vol_error(KEMO_RAID_ERR_GROW);
        return 1;
    }
    if (exit_code(status) != 0) {
        // The volume printed is md - 1 and the last number the whole wait
        // status, as the administration logs have always shown them.
        kemo::log("%s(%s:%d): mdadm failed to grow volume %d, disk count=%d, errno=%d\n", __func__, __FILE__,
                  __LINE__, md - 1, count, status);
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        return 1;
    }
    return 0;
}

int repair_min_disk(const KEMORAIDVOL &record, uint64_t &min_sectors)
{
    if (record.level != 1 && record.level != 5)
        return 1;
    // The reserve before the data partition, its first sectors, and the
    // member size in sectors.
    min_sectors = 2634916ull + 2ull * static_cast<uint64_t>(std::max<int64_t>(record.componentKiB, 0));
    return 0;
}

int vol_count(int &count)
{
    int arrays = max_disks() + 2;
    if (arrays <= 2) {
        kemo::log("(%s)%s(%d):Failed to get Max volume number, give default value %d", __func__, __FILE__, __LINE__,
                  3);
        arrays = 3;
    }
    arrays = std::min(arrays, kMaxMd + 1);
    int found = 0;
    for (int md = 0; md < arrays; ++md) {
        const auto command = shell_command(std::string("grep md") + static_cast<char>('0' + md) +
                                               " /proc/mdstat > /dev/null 2>&1",
                                           {});
        const int status = command ? shell_run(*command) : -1;
        if (status == -1) {
            log_command_failure(status, __FILE__, __LINE__, command ? command->c_str() : "");
            set_vol_error(KEMO_RAID_ERR_COMMAND);
            return 1;
        }
        if (exit_code(status) == 0)
            ++found;
    }
    count = found;
    return 0;
}

int disk_count(uint32_t mask) noexcept
{
    return std::popcount(mask & 0xFu);
}

int system_rebuilding()
{
    KEMORAIDVOL system {};
    KEMORAIDVOL swap {};
    if (vol_status(0, system) != 0 || vol_status(1, swap) != 0)
        return 0;
    return system.rebuildState != 0 || swap.rebuildState != 0 ? 1 : 0;
}

} // namespace kemo::raid

namespace raid = kemo::raid;

extern "C" {

KEMO_API int KEMORaidVolExpansible(int md, uint64_t *newKiB)
{
    if (newKiB == nullptr) {
        raid::set_vol_error(KEMO_RAID_ERR_PARAM);
        return -1;
    }
    return kemo::edge(-1, [&] { return raid::vol_expansible(md, *newKiB); });
}

KEMO_API int KEMORaidVolExpand(int md)
{
    return kemo::edge(1, [&] { return raid::vol_expand(md); });
}

KEMO_API int KEMORaidVolDiskCountChange(int md, int count)
{
    return kemo::edge(1, [&] { return raid::vol_disk_count_change(md, count); });
}

KEMO_API int KEMORaidVolRepairMinDisk(const KEMORAIDVOL *record, uint64_t *minSectors)
{
    if (record == nullptr || minSectors == nullptr) {
        raid::set_vol_error(KEMO_RAID_ERR_PARAM);
        return 1;
    }
    return raid::repair_min_disk(*record, *minSectors);
}

KEMO_API int KEMORaidVolCount(int *count)
{
    if (count == nullptr) {
        raid::set_vol_error(KEMO_RAID_ERR_PARAM);
        return 1;
    }
    return kemo::edge(1, [&] { return raid::vol_count(*count); });
}

KEMO_API int KEMORaidVolDiskCount(uint32_t mask)
{
    return raid::disk_count(mask);
}

KEMO_API int KEMORaidSystemRebuilding(void)
{
    return kemo::edge(0, [] { return raid::system_rebuilding(); });
}

} // extern "C"
