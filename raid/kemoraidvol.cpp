// The md arrays: their state as the md driver reports it, condensed into a
// volume status, and the limits the model sets on their number and size.
#include "kemo_raid.hpp"

#include "kemo_io.hpp"
#include "kemomisc.hpp"

#include <fcntl.h>
#include <glob.h>
#include <linux/fs.h>
#include <linux/major.h>
#include <linux/raid/md_p.h>
#include <linux/raid/md_u.h>
#include <mntent.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace kemo::raid {

namespace {

uint32_t g_vol_error = 0;

constexpr int kStateFaulty = 1 << MD_DISK_FAULTY;
constexpr int kStateActive = 1 << MD_DISK_ACTIVE;
constexpr int kStateSync = 1 << MD_DISK_SYNC;
constexpr int kStateRemoved = 1 << MD_DISK_REMOVED;

std::string md_device(int md)
{
    return "/dev/md" + std::to_string(md);
}

// The rebuild of an array is not followed here: state and progress are 0.
int rebuild_info(int /*md*/, uint32_t &state, float &progress) noexcept
{
    state = 0;
    progress = 0;
    return 0;
}

// The per-member size in KiB that the driver reports as -1 when it does not
// fit its 32-bit field: then the size in sysfs.
int64_t member_kib(int md, int reported)
{
    if (reported >= 0)
        return reported;
    const std::string path = "/sys/block/md" + std::to_string(md) + "/md/component_size";
    FilePtr in = open_file(path.c_str(), "r");
    long long kib = -1;
    if (!in || std::fscanf(in.get(), "%lld", &kib) != 1)
        return reported;
    return kib;
}

// The mount point of device in the mount table, if it is mounted.
bool mount_point(const std::string &device, std::string &dir)
{
    FilePtr table(::setmntent("/proc/mounts", "r"));
    if (!table)
        return false;
    struct mntent entry {};
    std::vector<char> buf(8192);
    while (::getmntent_r(table.get(), &entry, buf.data(), static_cast<int>(buf.size())) != nullptr) {
        if (device == entry.mnt_fsname) {
            dir = entry.mnt_dir;
            return true;
        }
    }
    dir.clear();
    return true;
}

// The members of the array behind fd, removed slots left out.
bool read_members(int fd, std::vector<KEMORAIDMEMBER> &members)
{
    for (int slot = 0; slot < kMaxMembers; ++slot) {
        mdu_disk_info_t info {};
        info.number = slot;
        if (::ioctl(fd, GET_DISK_INFO, &info) != 0) {
            KEMO_RAID_LOG("%s(%d)failed to get RAID disk %d, errno=%s", slot, std::strerror(errno));
            continue;
        }
        if ((info.major == 0 && info.minor == 0) || (info.state & kStateRemoved) != 0)
            continue;
        if (members.size() == kMaxDisks) {
            KEMO_RAID_LOG("%s(%d)The RAID volume has too much disks: %d disks, MAX disk = %d",
                          static_cast<int>(members.size()) + 1, kMaxDisks);
            return false;
        }
        members.push_back({info.major, info.minor, info.state});
    }
    return true;
}

} // namespace

void set_vol_error(uint32_t code) noexcept
{
    g_vol_error = code;
    switch (code) {
    case 0: break; // a reset, not a failure
    case KEMO_RAID_ERR_PARAM: KLIBErrSet(ERR_BAD_PARAMETERS); break;
    case KEMO_RAID_ERR_INACTIVE: KLIBErrSet(ERR_DEV_UNCONFIG); break;
    default: KLIBErrSet(ERR_OP_FAILURE); break;
    }
}

uint32_t vol_error() noexcept
{
    return g_vol_error;
}

int decide_members(int md, const KEMORAIDMEMBER *members, int count, KEMORAIDVOL &masks)
{
    int active = 0;
    for (int i = 0; i < count; ++i) {
        const KEMORAIDMEMBER &m = members[i];
        const int disk = disk_of_device(md, m.major, m.minor);
        if (disk < 1) {
            KEMO_RAID_LOG("%s(%d) failed to get disk device name for major=%d, minor=%d\n", m.major, m.minor);
            return 1;
        }
        const uint32_t bit = 1u << (disk - 1);
        masks.memberMask |= bit;
        if ((m.state & kStateFaulty) != 0) {
            masks.faultyMask |= bit;
        } else if ((m.state & kStateActive) == 0 && (m.state & (kStateSync | kStateRemoved)) != 0) {
            KEMO_RAID_LOG("%s(%d) unknown status: disk %d, status=%d\n", disk - 1, m.state);
            return 1;
        } else {
            masks.activeMask |= bit;
            ++active;
        }
    }
    masks.activeDisks = active;
    masks.workingDisks = active;
    return 0;
}

int decide_volume(int level, const KEMORAIDVOL &masks) noexcept
{
    if (level != 0 && level != 1 && level != 5) {
        KEMO_RAID_LOG("%s(%d)bad param");
        return 0;
    }
    const int design = masks.designDisks;
    const int active = masks.activeDisks;
    if (design == active)
        return 0;
    if (design < active) {
        KEMO_RAID_LOG("%s(%d)unknown volume status = -1");
        return 0;
    }
    if (level != 0 && masks.memberMask != 0 && design - 1 == active)
        return 1;
    return 2;
}

int vol_status(int md, KEMORAIDVOL &record)
{
    if (md < 0 || md > kMaxMd) {
        set_vol_error(KEMO_RAID_ERR_PARAM);
        return 1;
    }
    const std::string device = md_device(md);
    Fd fd(::open(device.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) {
        std::fprintf(stderr, ": failed to open %s: %s\n", device.c_str(), std::strerror(errno));
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        return 1;
    }
    if (rebuild_info(md, record.rebuildState, record.rebuildProgress) != 0) {
        KEMO_RAID_LOG("%s(%d) cannot get sync info of /dev/md%d\n", md);
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        return 1;
    }
    mdu_array_info_t info {};
    uint64_t bytes = 0;
    const auto detail_failed = [&](bool size_query) {
        const int err = errno;
        if (err == ENODEV) {
            set_vol_error(KEMO_RAID_ERR_INACTIVE);
            return 1;
        }
        if (size_query)
            KEMO_RAID_LOG("%s(%d): failed to ioctl for raid total size, errno=%s", std::strerror(err));
        else
            KEMO_RAID_LOG("%s(%d): failed to ioctl for raid status, errno=%s", std::strerror(err));
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        KEMO_RAID_LOG("%s(%d) cannot get array detail for /dev/md%d, errno=%s\n", md, std::strerror(err));
        return 1;
    };
    if (::ioctl(fd.get(), GET_ARRAY_INFO, &info) != 0)
        return detail_failed(false);
    if (::ioctl(fd.get(), BLKGETSIZE64, &bytes) != 0)
        return detail_failed(true);

    std::vector<KEMORAIDMEMBER> members;
    if (!read_members(fd.get(), members)) {
        KEMO_RAID_LOG("%s(%d) failed to get disk info for /dev/md%d\n", md);
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        return 1;
    }
    std::string dir;
    if (!mount_point(device, dir)) {
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        return 1;
    }
    record.mdId = md;
    record.level = info.level;
    record.designDisks = info.raid_disks;
    record.totalBytes = bytes;
    record.componentKiB = member_kib(md, info.size);
    std::snprintf(record.device, sizeof record.device, "%s", device.c_str());
    record.mounted = dir.empty() ? 0 : 1;
    // The mount point field keeps at most 15 characters.
    std::snprintf(record.mountPoint, 16, "%s", dir.c_str());
    if (decide_members(md, members.data(), static_cast<int>(members.size()), record) != 0) {
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        return 1;
    }
    record.volStatus = decide_volume(record.level, record);
    return 0;
}

int component_size(int md, int64_t &kib)
{
    if (md < 0 || md > kMaxMd) {
        kemo::log("%s(%s:%d): parameter error\n", __func__, __FILE__, __LINE__);
        set_vol_error(KEMO_RAID_ERR_PARAM);
        return 1;
    }
    const std::string device = md_device(md);
    Fd fd(::open(device.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) {
        const int err = errno;
        kemo::log("%s(%s:%d): failed to open md device %s, errno=%s(%d)\n", __func__, __FILE__, __LINE__,
                  device.c_str(), std::strerror(err), err);
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        return 1;
    }
    mdu_array_info_t info {};
    if (::ioctl(fd.get(), GET_ARRAY_INFO, &info) != 0) {
        const int err = errno;
        if (err == ENODEV) {
            kemo::log("(%s:%d): md device %s does not appear to be active.\n", __FILE__, __LINE__, device.c_str());
            set_vol_error(KEMO_RAID_ERR_INACTIVE);
        } else {
            kemo::log("(%s:%d): cannot get array detail for %s: %s\n", __FILE__, __LINE__, device.c_str(),
                      std::strerror(err));
            set_vol_error(KEMO_RAID_ERR_COMMAND);
        }
        return 1;
    }
    kib = member_kib(md, info.size);
    return 0;
}

} // namespace kemo::raid

namespace raid = kemo::raid;

extern "C" {

KEMO_API int KEMORaidVolStatus(int md, PKEMORAIDVOL record)
{
    if (record == nullptr) {
        raid::set_vol_error(KEMO_RAID_ERR_PARAM);
        return 1;
    }
    return kemo::edge(1, [&] { return raid::vol_status(md, *record); });
}

KEMO_API int DecideRAIDDiskStatus(int md, const KEMORAIDMEMBER *members, int count, PKEMORAIDVOL masks)
{
    if (masks == nullptr || count < 0 || (members == nullptr && count > 0)) {
        raid::set_vol_error(KEMO_RAID_ERR_PARAM);
        return 1;
    }
    return kemo::edge(1, [&] { return raid::decide_members(md, members, count, *masks); });
}

KEMO_API int DecideRAIDVolStatus(int level, const KEMORAIDVOL *masks)
{
    if (masks == nullptr) {
        KEMO_RAID_LOG("%s(%d)bad param");
        return 0;
    }
    return raid::decide_volume(level, *masks);
}

KEMO_API int KEMORaidComponentSize(int md, int64_t *kib)
{
    if (kib == nullptr) {
        kemo::log("%s(%s:%d): parameter error\n", __func__, __FILE__, __LINE__);
        raid::set_vol_error(KEMO_RAID_ERR_PARAM);
        return 1;
    }
    return kemo::edge(1, [&] { return raid::component_size(md, *kib); });
}

KEMO_API int KEMOMaxVolGet(void)
{
    return kemo::edge(0, [] { return raid::max_disks_by_pipe(); });
}

KEMO_API int KEMORaidMaxMDGet(void)
{
    return kemo::edge(0, [] { return raid::max_disks_by_pipe(); }) + 2;
}

KEMO_API int KEMORaidMaxMDIDGet(void)
{
    return kemo::edge(0, [] { return raid::max_disks_by_pipe(); }) + 1;
}

KEMO_API int KEMORaidIVolNumValid(int md)
{
    return md >= 0 && md <= raid::kMaxMd ? 1 : 0;
}

KEMO_API int KEMORaidVolDiskReserveSizeGet(uint32_t *sectors)
{
    if (sectors == nullptr) {
        raid::set_vol_error(KEMO_RAID_ERR_PARAM);
        return 1;
    }
    *sectors = KEMO_RAID_DISK_RESERVE;
    return 0;
}

KEMO_API int KEMORaidIDiskSizeLimitGet(uint64_t *kib)
{
    if (kib == nullptr) {
        raid::set_vol_error(KEMO_RAID_ERR_PARAM);
        return 1;
    }
    *kib = 0;
    return kemo::edge(1, [&] {
        glob_t found {};
        const int rc = ::glob("/tmp/volume.*", 0, nullptr, &found);
        std::string first = rc == 0 && found.gl_pathc > 0 ? found.gl_pathv[0] : "";
        ::globfree(&found);
        // /tmp is writable by everyone: only a limit that root set counts.
        struct stat st {};
        if (first.empty() || ::lstat(first.c_str(), &st) != 0 || st.st_uid != 0 || !S_ISREG(st.st_mode))
            return 1;
        const std::string_view digits = std::string_view(first).substr(first.rfind('.') + 1);
        uint64_t gib = 0;
        const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), gib);
        if (ec != std::errc() || end != digits.data() + digits.size() || gib > (UINT64_MAX >> 20))
            return 1;
        *kib = gib << 20;
        return 0;
    });
}

KEMO_API void KEMORaidISetErr(uint32_t code)
{
    raid::set_vol_error(code);
}

KEMO_API uint32_t KEMORaidGetErr(void)
{
    return raid::vol_error();
}

} // extern "C"
