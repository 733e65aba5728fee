// The md arrays: their state as the md driver reports it, condensed into a
// volume status, and the limits the model sets on their number and size.
#include "kemo_raid.hpp"

#include "kemo_io.hpp"
#include "kemo_text.hpp"
#include "kemomisc.hpp"

#include <dirent.h>
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

#include <algorithm>
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

// At most this much of a kernel text is read: /proc/mdstat of six arrays
// and a sysfs attribute are far smaller.
constexpr std::size_t kTextLimit = 64 * 1024;

// The first bytes (at most limit) of a kernel file; false when it cannot be
// opened or read.
bool read_bounded(const std::string &path, std::string &text, std::size_t limit = kTextLimit)
{
    text.clear();
    Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!fd)
        return false;
    char buf[4096];
    while (text.size() < limit) {
        const ssize_t n = ::read(fd.get(), buf, std::min(sizeof buf, limit - text.size()));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            break;
        text.append(buf, static_cast<std::size_t>(n));
    }
    return true;
}

// The resync, recovery or reshape of array md from /proc/mdstat: state 1
// with the percent done while it runs, 2 while it waits its turn, else 0.
int rebuild_info(int md, uint32_t &state, float &progress, bool &recovery)
{
    state = 0;
    progress = 0;
    recovery = false;
    std::string mdstat;
    if (!read_mdstat(mdstat))
        return 1;
    // A check or repair reads an array that is already in sync: not a rebuild.
    text::MdSync sync = text::mdstat_sync(mdstat, md);
    if (sync.verify)
        sync = {};
    state = sync.state;
    progress = sync.state == text::MdSync::running ? sync.percent : 0;
    recovery = sync.state == text::MdSync::running && sync.recovery;
    return 0;
}

std::string member_dir(int md, const char *partition)
{
    const char *slash = std::strrchr(partition, '/');
    return "/sys/block/md" + std::to_string(md) + "/md/dev-" + (slash != nullptr ? slash + 1 : partition);
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

bool read_mdstat(std::string &text)
{
    return read_bounded("/proc/mdstat", text);
}

bool member_listed(int md, const char *partition)
{
    struct stat st {};
    return partition != nullptr && ::stat(member_dir(md, partition).c_str(), &st) == 0;
}

int64_t md_number(int md, const std::string &attribute)
{
    std::string text;
    if (!read_bounded("/sys/block/md" + std::to_string(md) + "/md/" + attribute, text, 64))
        return -1;
    int64_t value = -1;
    const char *end = text.data() + text.size();
    const auto [at, ec] = std::from_chars(text.data(), end, value);
    return ec == std::errc() && (at == end || *at == '\n') && value >= 0 ? value : -1;
}

int64_t member_offset(int md, const char *partition)
{
    if (partition == nullptr)
        return -1;
    const char *slash = std::strrchr(partition, '/');
    return md_number(md, std::string("dev-") + (slash != nullptr ? slash + 1 : partition) + "/offset");
}

bool set_member_state(int md, const char *partition, const char *state)
{
    if (partition == nullptr)
        return false;
    Fd fd(::open((member_dir(md, partition) + "/state").c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd)
        return false;
    const std::size_t length = std::strlen(state);
    return ::write(fd.get(), state, length) == static_cast<ssize_t>(length);
}

std::vector<std::string> listed_members(int md)
{
    std::vector<std::string> names;
    const std::string dir = "/sys/block/md" + std::to_string(md) + "/md";
    DIR *entries = ::opendir(dir.c_str());
    if (entries == nullptr)
        return names;
    while (const dirent *entry = ::readdir(entries))
        if (std::strncmp(entry->d_name, "dev-", 4) == 0)
            names.push_back(std::string("/dev/") + (entry->d_name + 4));
    ::closedir(entries);
    return names;
}

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
    // After the array information, so that an inactive array is reported
    // as such whatever /proc/mdstat says.
    bool recovery = false;
    if (rebuild_info(md, record.rebuildState, record.rebuildProgress, recovery) != 0) {
        KEMO_RAID_LOG("%s(%d) cannot get sync info of /dev/md%d\n", md);
        set_vol_error(KEMO_RAID_ERR_COMMAND);
        return 1;
    }

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
    // A member being rebuilt is listed with state 0 and so counted as
    // active; until the rebuild ends the array has no redundancy to spare,
    // and calling it normal would invite pulling another disk.
    if (recovery && record.volStatus == 0)
        record.volStatus = 1;
    // An array without redundancy that lost a member keeps listing it as
    // active; the driver marks the whole array broken instead.
    std::string state;
    if (read_bounded("/sys/block/md" + std::to_string(md) + "/md/array_state", state, 64) &&
        state.starts_with("broken"))
        record.volStatus = 2;
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

int size_limit_kib(uint64_t &kib)
{
    kib = 0;
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
    kib = gib << 20;
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
    return kemo::edge(1, [&] { return raid::size_limit_kib(*kib); });
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
