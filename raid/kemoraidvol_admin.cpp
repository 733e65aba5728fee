// Administration of the md arrays with mdadm: creating them, adding and
// removing members, finding free array numbers, enumerating the data
// arrays, destroying an array and laying out the system arrays.
//
// Every number is checked before a command runs, and the partitions handed
// to mdadm come from the disk layer's fixed name tables, so no caller text
// ever reaches the shell.  Arrays are numbered by what they hold: md0 the
// system partitions, md1 the swap partitions, md2 upward the data
// partitions; an array is never made or changed against that numbering.
#include "kemo_raid.hpp"

#include "kemomisc.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <string>

namespace kemo::raid {

namespace {

constexpr const char *kMdadm = "mdadm";

char md_char(int md) noexcept
{
    return static_cast<char>('0' + md);
}

// The partition index an array of number md is made of.
int part_of_md(int md) noexcept
{
    return md < 2 ? md : 2;
}

bool md_valid(int md) noexcept
{
    return md >= 0 && md <= kMaxMd;
}

int refuse(int line, const char *what, long value)
{
    kemo::log("%s(%d) Bad parameter: %s = %ld", __FILE__, line, what, value);
    set_vol_error(KEMO_RAID_ERR_PARAM);
    return 1;
}

// The disk slots of the model; 0 (not known) is logged and taken as 1.
int slots(const char *func, int line)
{
    int n = max_disks();
    if (n <= 0) {
        kemo::log("(%s)%s(%d):Failed to get Max volume number, give default value %d", func, __FILE__, line, 1);
        n = 1;
    }
    return std::min(n, kMaxDisks);
}

// Runs a command built by shell_command; its wait status, or -1 when it
// could not be built or started.
int run(const std::optional<std::string> &command)
{
    return command ? shell_run(*command) : -1;
}

// The lowest array number from first to last that the md driver reports as
// not active, or -1.
int first_inactive(int first, int last)
{
    for (int md = first; md <= last && md <= kMaxMd; ++md) {
        KEMORAIDVOL record {};
        if (vol_status(md, record) != 0 && vol_error() == KEMO_RAID_ERR_INACTIVE)
            return md;
    }
    return -1;
}

// Stops array md after a failed creation, but only when every partition it
// holds is one the creation was given: an array someone else made under
// the same number in the meantime is left alone.
void stop_half_made(int md, const std::vector<std::string> &ours)
{
    const std::vector<std::string> held = listed_members(md);
    if (held.empty())
        return;
    for (const std::string &name : held) {
        if (std::find(ours.begin(), ours.end(), name) == ours.end()) {
            KEMO_RAID_LOG("%s(%d) /dev/md%d holds %s: not stopped\n", md, name.c_str());
            return;
        }
    }
    const auto stop = shell_command(std::string("%s -S /dev/md") + md_char(md), {kMdadm});
    const int status = run(stop);
    if (exit_code(status) != 0)
        log_command_failure(status, __FILE__, __LINE__, stop ? stop->c_str() : "");
}

} // namespace

int find_unused_md(int &md)
{
    int highest = max_md_id();
    if (highest <= 1) {
        kemo::log("(%s)%s(%d):Failed to get Max MD ID, give default value %d", __func__, __FILE__, __LINE__, 2);
        highest = 2;
    }
    const int found = first_inactive(0, highest);
    if (found < 0) {
        set_vol_error(KEMO_RAID_ERR_NO_ID);
        return 1;
    }
    md = found;
    return 0;
}

int dev_create(uint32_t disk_mask, int part, int level, int count, int &md)
{
    const int disks = slots(__func__, __LINE__);
    if (disk_mask == 0 || disk_mask >= (1u << disks))
        return refuse(__LINE__, "disk mask", static_cast<long>(disk_mask));
    if (part < 0 || part > 2)
        return refuse(__LINE__, "part", part);
    if (level != 0 && level != 1 && level != 5)
        return refuse(__LINE__, "level", level);
    const int selected = std::popcount(disk_mask);
    // RAID 0 cannot run with a member missing, RAID 5 with two.
    const int missing = count - selected;
    if (count < selected || count > kMaxDisks || (level == 0 && missing > 0) || (level == 5 && missing > 1))
        return refuse(__LINE__, "member count", count);

    int highest = max_md_id();
    if (highest <= 1) {
        kemo::log("(%s)%s(%d):Failed to get Max volume ID, give default value %d", __func__, __FILE__, __LINE__,
                  2);
        highest = 2;
    }
    std::vector<std::string> members;
    std::string list;
    for (int disk = 0; disk < disks; ++disk) {
        if ((disk_mask & (1u << disk)) == 0)
            continue;
        uint32_t sectors = 0;
        if (disk_size(disk, part, &sectors) != 0) {
            set_vol_error(KEMO_RAID_ERR_PART_SIZE);
            return 1;
        }
        members.emplace_back(part_name(disk, part));
        list += members.back() + " ";
    }
    for (int i = 0; i < missing; ++i)
        list += "missing ";

    // The system and swap arrays have their own numbers; a data array takes
    // the lowest free number from md2 up.  (An array of data partitions at
    // md0 would be taken for the system array by every status query.)
    const int found = part == 2 ? first_inactive(2, highest) : first_inactive(part, part);
    if (found < 0) {
        kemo::log("(%s)%s(%d):Failed to get unused volume number, maxMDId=%d", __func__, __FILE__, __LINE__,
                  highest);
        set_vol_error(KEMO_RAID_ERR_NO_ID);
        return 1;
    }
    uint64_t limit = 0;
    if (part == 2)
        size_limit_kib(limit);

    std::string tmpl = std::string("%s -C /dev/md") + md_char(found) + " -amd -R -l" + std::to_string(level) +
                       (count == 1 ? " -f" : " ") + " -n" + std::to_string(count) + " " + list;
    if (limit != 0)
        tmpl += " -z " + std::to_string(limit);
    tmpl += " > /dev/null";
    const auto command = shell_command(tmpl, {kMdadm});
    const int status = run(command);
    if (status == -1) {
        log_command_failure(status, __FILE__, __LINE__, command ? command->c_str() : "");
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        return 1;
    }
    if (exit_code(status) != 0) {
        log_command_failure(status, __FILE__, __LINE__, command->c_str());
        stop_half_made(found, members);
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        return 1;
    }
    md = found;
    return 0;
}

int dev_disk_add(int md, int disk, int part)
{
    if (!md_valid(md))
        return refuse(__LINE__, "array", md);
    if (!disk_valid(disk) || disk >= slots(__func__, __LINE__))
        return refuse(__LINE__, "disk", disk);
    if (part < 0 || part > 2) {
        KEMO_RAID_LOG("%s(%d) unknown part number = %d", part);
        set_vol_error(KEMO_RAID_ERR_PARAM);
        return 1;
    }
    if (part != part_of_md(md))
        return refuse(__LINE__, "part of the array", part);
    uint32_t size = 0;
    if (disk_size(disk, part, &size) != 0) {
        KEMO_RAID_LOG("%s(%d)Failed to get part size of disk %d ,part number = %d, error : %d", disk, part,
                      static_cast<int>(disk_error()));
        set_vol_error(KEMO_RAID_ERR_PART_SIZE);
        return 1;
    }
    const uint32_t want = part == 0 ? KEMO_RAID_DISK_SYS_SECTORS : KEMO_RAID_DISK_SWAP_SECTORS;
    if (part < 2 && size != want) {
        KEMO_RAID_LOG("%s(%d)Partition size not equals : volume number = %d, part size=%lu; disk number %d ,part "
                      "number = %d, size=%lu, error : %d",
                      md, static_cast<unsigned long>(want), disk, part, static_cast<unsigned long>(size),
                      KEMO_RAID_ERR_LAYOUT);
        set_vol_error(KEMO_RAID_ERR_LAYOUT);
        return 1;
    }
    const auto command =
        shell_command(std::string("%s /dev/md") + md_char(md) + " -a %s > /dev/null 2>&1", {kMdadm, part_name(disk, part)});
    const int status = run(command);
    if (exit_code(status) != 0) {
        log_command_failure(status, __FILE__, __LINE__, command ? command->c_str() : "");
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        return 1;
    }
    return 0;
}

int dev_disk_remove(int md, int disk, int part)
{
    if (!md_valid(md))
        return refuse(__LINE__, "array", md);
    if (!disk_valid(disk))
        return refuse(__LINE__, "disk", disk);
    if (part < 0 || part > 2 || part != part_of_md(md))
        return refuse(__LINE__, "part", part);
    const char *name = part_name(disk, part);
    const auto command =
        shell_command(std::string("%s /dev/md") + md_char(md) + " -f %s -r %s > /dev/null 2>&1", {kMdadm, name, name});
    const int status = run(command);
    if (exit_code(status) != 0) {
        log_command_failure(status, __FILE__, __LINE__, command ? command->c_str() : "");
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        return 1;
    }
    // Some mdadm versions ignore the short "-r": the member is then faulty
    // but still in the array.  The md driver takes a faulty member out once
    // nothing is in flight on it, so the removal is retried for a while.
    if (member_listed(md, name)) {
        set_member_state(md, name, "faulty");
        for (int attempt = 0; attempt < 50 && member_listed(md, name); ++attempt) {
            if (set_member_state(md, name, "remove"))
                break;
            ::usleep(20 * 1000);
        }
    }
    if (member_listed(md, name)) {
        const auto again = shell_command(std::string("%s /dev/md") + md_char(md) + " --fail %s --remove %s > /dev/null 2>&1",
                                         {kMdadm, name, name});
        run(again);
    }
    if (member_listed(md, name)) {
        KEMO_RAID_LOG("%s(%d) %s is still a member of /dev/md%d\n", name, md);
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        return 1;
    }
    return 0;
}

int dev_enum(uint32_t *data_mask, int *first, int *count)
{
    if (data_mask == nullptr && first == nullptr && count == nullptr) {
        set_vol_error(KEMO_RAID_ERR_PARAM);
        return 1;
    }
    int volumes = max_disks();
    if (volumes <= 0) {
        kemo::log("(%s)%s(%d):Failed to get Max volume number, give default value 1", __func__, __FILE__, __LINE__);
        volumes = 1;
    }
    volumes = std::min(volumes, kMaxMd - 1);
    uint32_t mask = 0;
    int found = 0;
    int lowest = -1;
    for (int n = 0; n < volumes; ++n) {
        KEMORAIDVOL record {};
        if (vol_status(n + 2, record) != 0)
            continue;
        mask |= 1u << n;
        ++found;
        if (lowest < 0)
            lowest = n;
    }
    if (data_mask != nullptr)
        *data_mask = mask;
    if (first != nullptr)
        *first = lowest;
    if (count != nullptr)
        *count = found;
    return 0;
}

int vol_destroy(int md)
{
    KEMORAIDVOL record {};
    if (!md_valid(md) || vol_status(md, record) != 0) {
        set_vol_error(KEMO_RAID_ERR_PARAM);
        return 1;
    }
    // The members are those of this array as it runs now: nothing else is
    // cleared.
    const uint32_t members = record.memberMask;
    const std::string device = "/dev/md" + std::to_string(md);
    std::string dir;
    if (!mount_point(device, dir)) {
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        return 1;
    }
    if (!dir.empty()) {
        // The whole mount directory (the record keeps only 15 characters of
        // it, which could name another mount).
        const auto umount = shell_command("/bin/umount -f %s > /dev/null 2>&1", {dir});
        const int status = run(umount);
        if (status == -1 || exit_code(status) != 0) {
            log_command_failure(status, __FILE__, __LINE__, umount ? umount->c_str() : "");
            set_vol_error(status == -1 ? KEMO_RAID_ERR_COMMAND : KEMO_RAID_ERR_UNMOUNT);
            return 1;
        }
    }
    const auto stop = shell_command(std::string("%s -S /dev/md") + md_char(md) + " > /dev/null 2>&1", {kMdadm});
    const int stopped = run(stop);
    if (stopped == -1 || exit_code(stopped) != 0) {
        log_command_failure(stopped, __FILE__, __LINE__, stop ? stop->c_str() : "");
        set_vol_error(stopped == -1 ? KEMO_RAID_ERR_COMMAND : KEMO_RAID_ERR_STOP);
        return 1;
    }
    int result = 0;
    const int disks = std::min(std::max(max_disks(), 1), kMaxDisks);
    for (int disk = 0; disk < disks; ++disk) {
        if ((members & (1u << disk)) == 0)
            continue;
        const auto zero = shell_command("mdadm --zero-superblock %s > /dev/null 2>&1", {part_name(disk, part_of_md(md))});
        const int status = run(zero);
        const int code = exit_code(status);
        if (code == 0)
            continue;
        log_command_failure(status, __FILE__, __LINE__, zero ? zero->c_str() : "");
        set_vol_error(code == 1 || code == 5 || code == 6 ? KEMO_RAID_ERR_SUPERBLOCK : KEMO_RAID_ERR_COMMAND);
        result = 1;
    }
    return result;
}

int system_init()
{
    const int disks = slots(__func__, __LINE__);
    uint32_t mask = 0;
    for (int disk = 0; disk < disks; ++disk) {
        struct stat st {};
        if (::stat(disk_proc(disk), &st) != 0)
            continue;
        if (disk_init(disk, KEMO_RAID_DISK_INIT_SYS) != 0) {
            kemo::log("%s(%d)[%d]: Failed to init RAID disk %d \n", __FILE__, __LINE__, disk, disk);
            return 1;
        }
        mask |= 1u << disk;
    }
    if (mask == 0) {
        KEMO_RAID_LOG("%s(%d): No disk exist \n");
        return 1;
    }
    int md = -1;
    if (dev_create(mask, 0, 1, disks, md) != 0) {
        kemo::log("%s(%d)[%d]: Failed to create system partition: diskmask = %d \n", __FILE__, __LINE__, 0,
                  static_cast<int>(mask));
        return 1;
    }
    if (md != 0) {
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        kemo::log("%s(%d)[%d]: Failed to create system partition: diskmask = %d, volid = %d \n", __FILE__, __LINE__,
                  0, static_cast<int>(mask), md);
    }
    // A swap array that could not be made is logged, not fatal: the system
    // runs without swap.
    md = -1;
    dev_create(mask, 1, 1, disks, md);
    if (md != 1) {
        kemo::log("%s(%d)[%d]: Failed to create swap partition: diskmask = %d, volid = %d \n", __FILE__, __LINE__, 1,
                  static_cast<int>(mask), md);
        set_vol_error(KEMO_RAID_ERR_COMMAND);
    }
    return 0;
}

} // namespace kemo::raid

namespace raid = kemo::raid;

extern "C" {

KEMO_API int KEMORaidDevCreate(int diskMask, int part, int level, int count, int *md)
{
    if (md == nullptr || diskMask < 1) {
        raid::set_vol_error(KEMO_RAID_ERR_PARAM);
        return 1;
    }
    return kemo::edge(1, [&] { return raid::dev_create(static_cast<uint32_t>(diskMask), part, level, count, *md); });
}

KEMO_API int KEMORaidVolCreate(int diskMask, int level, int count, int *md)
{
    if (md == nullptr || diskMask < 1) {
        raid::set_vol_error(KEMO_RAID_ERR_PARAM);
        return 1;
    }
    return kemo::edge(1, [&] { return raid::dev_create(static_cast<uint32_t>(diskMask), 2, level, count, *md); });
}

KEMO_API int KEMORaidDevDiskAdd(int md, int disk, int part)
{
    return kemo::edge(1, [&] { return raid::dev_disk_add(md, disk, part); });
}

KEMO_API int KEMORaidVolDiskAdd(int md, int disk)
{
    return kemo::edge(1, [&] { return raid::dev_disk_add(md, disk, 2); });
}

KEMO_API int KEMORaidVolDiskAddSys(int disk)
{
    return kemo::edge(1, [&] { return raid::dev_disk_add(0, disk, 0); });
}

KEMO_API int KEMORaidVolDiskAddSwap(int disk)
{
    return kemo::edge(1, [&] { return raid::dev_disk_add(1, disk, 1); });
}

KEMO_API int KEMORaidDevDiskRemove(int md, int disk, int part, int /*unused*/)
{
    return kemo::edge(1, [&] { return raid::dev_disk_remove(md, disk, part); });
}

KEMO_API int KEMORaidVolDiskRemove(int md, int disk, int /*unused*/)
{
    return kemo::edge(1, [&] { return raid::dev_disk_remove(md, disk, 2); });
}

KEMO_API int KEMORaidDevEnum(uint32_t *dataMask, int *firstIndex, int *count)
{
    return kemo::edge(1, [&] { return raid::dev_enum(dataMask, firstIndex, count); });
}

KEMO_API int KEMORaidVolFindUnusedID(int *md)
{
    if (md == nullptr) {
        raid::set_vol_error(KEMO_RAID_ERR_PARAM);
        return 1;
    }
    return kemo::edge(1, [&] { return raid::find_unused_md(*md); });
}

KEMO_API int KEMORaidVolDestroy(int md)
{
    return kemo::edge(1, [&] { return raid::vol_destroy(md); });
}

KEMO_API int KEMORaidSystemInit(void)
{
    return kemo::edge(1, [] { return raid::system_init(); });
}

} // extern "C"
