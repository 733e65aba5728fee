// The data volumes by index (0..3 = /dev/md2../dev/md5 at /volume1..4):
// their mount state and sizes, making, mounting and unmounting their file
// systems, growing a file system into its grown array, and the module's
// error word.
#include "kemo_vol.hpp"

#include "kemo_io.hpp"
#include "kemo_raid.hpp"
#include "kemomisc.hpp"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace kemo::vol {

namespace {

uint32_t g_error = 0;

} // namespace

bool fill_sizes(const char *dir, KEMOVOLINFO &record)
{
    struct statfs st {};
    if (::statfs(dir, &st) != 0) {
        record.svi_avail_bytes = record.svi_total_bytes = 0;
        return false;
    }
    record.svi_avail_bytes = static_cast<uint64_t>(st.f_bavail) * static_cast<uint64_t>(st.f_bsize);
    record.svi_total_bytes = static_cast<uint64_t>(st.f_blocks) * static_cast<uint64_t>(st.f_bsize);
    return true;
}

void set_error(uint32_t code) noexcept
{
    g_error = code;
    switch (code) {
    case 0: break; // a reset, not a failure
    case KEMO_VOL_ERR_PARAM: KLIBErrSet(ERR_BAD_PARAMETERS); break;
    case KEMO_VOL_ERR_NOT_MOUNTED: KLIBErrSet(ERR_DEV_UNMOUNTED); break;
    default: KLIBErrSet(ERR_OP_FAILURE); break;
    }
}

uint32_t error() noexcept
{
    return g_error;
}

bool index_valid(long index) noexcept
{
    return index >= 0 && index < kMaxVolumes;
}

bool id_valid(long id) noexcept
{
    return id >= 1 && id <= kMaxVolumes;
}

int raid_get_info(int index, KEMOVOLINFO &record)
{
    if (!index_valid(index)) {
        set_error(KEMO_VOL_ERR_PARAM);
        return -1;
    }
    record.svi_id = index;
    std::snprintf(record.svi_device, sizeof record.svi_device, "/dev/md%d", index + 2);
    std::snprintf(record.svi_mount_point, sizeof record.svi_mount_point, "/volume%d", index + 1);
    // Any mount whose line names the mount point counts (so /volume1 also
    // matches /volume10): the mount table is the truth of the command.
    char command[96];
    std::snprintf(command, sizeof command, "grep /volume%d /proc/mounts |awk '{ print $1 }'", index + 1);
    const ShellOutput out = shell_read(command, Output::first_line);
    if (!out.started) {
        set_error(KEMO_VOL_ERR_COMMAND);
        return -1;
    }
    record.svi_status = out.text.empty() ? 0 : 1;
    if (record.svi_status == 0)
        return 0;
    if (!fill_sizes(record.svi_mount_point, record)) {
        set_error(KEMO_VOL_ERR_STATFS);
        return -1;
    }
    return 0;
}

int raid_enum(uint32_t *mask, int *first, int *count)
{
    if (mask == nullptr && first == nullptr && count == nullptr) {
        set_error(KEMO_VOL_ERR_PARAM);
        return -1;
    }
    int max = raid::max_disks();
    if (max <= 0) {
        log("(%s)%s(%d):Failed to get Max volume number, give default value 1", __FILE__, __func__,
            __LINE__);
        max = 1;
    }
    uint32_t found = 0;
    int n = 0;
    int lowest = -1;
    for (int index = 0; index < max && index < kMaxVolumes; ++index) {
        KEMOVOLINFO info {};
        if (raid_get_info(index, info) != 0) {
            set_error(KEMO_VOL_ERR_COMMAND);
            return -1;
        }
        if (info.svi_status == 0)
            continue;
        found |= 1u << index;
        if (lowest < 0)
            lowest = index;
        ++n;
    }
    if (mask != nullptr)
        *mask = found;
    if (first != nullptr)
        *first = lowest;
    if (count != nullptr)
        *count = n;
    return 0;
}

int statfs_of(int index, struct statfs &out)
{
    KEMOVOLINFO info {};
    if (raid_get_info(index, info) != 0)
        return -1;
    if (info.svi_status == 0) {
        set_error(KEMO_VOL_ERR_NOT_MOUNTED);
        return -1;
    }
    if (::statfs(info.svi_mount_point, &out) != 0) {
        set_error(KEMO_VOL_ERR_STATFS);
        return -1;
    }
    return 0;
}

int init(int index, int fs_kind, const char *option)
{
    if (!index_valid(index) || (fs_kind != 3 && fs_kind != 4)) {
        set_error(KEMO_VOL_ERR_PARAM);
        return -1;
    }
    KEMOVOLINFO info {};
    if (raid_get_info(index, info) != 0)
        return -1;
    if (info.svi_status != 0) {
        set_error(KEMO_VOL_ERR_MOUNTED);
        return -1;
    }
    const std::string md = std::to_string(index + 2);
    const auto make = shell_command(fs_kind == 3 ? "mke2fs -P %s /dev/md%s > /dev/null 2>&1"
                                                 : "mkfs.ext3 -P %s /dev/md%s > /dev/null 2>&1",
                                    {option, md});
    if (!make) {
        set_error(KEMO_VOL_ERR_PARAM);
        return -1;
    }
    const int made = shell_run(*make);
    if (made == -1) {
        set_error(KEMO_VOL_ERR_COMMAND);
        return -1;
    }
    if (exit_code(made) != 0) {
        set_error(KEMO_VOL_ERR_MKFS);
        return -1;
    }

    const std::string dir = "/volume" + std::to_string(index + 1);
    struct stat st {};
    if (::stat(dir.c_str(), &st) != 0) {
        if (errno != ENOENT) {
            set_error(KEMO_VOL_ERR_STAT);
            return -1;
        }
        if (::mkdir(dir.c_str(), 0777) != 0) {
            set_error(errno == ENOSPC ? KEMO_VOL_ERR_NO_SPACE : KEMO_VOL_ERR_MKDIR);
            return -1;
        }
    }

    const std::string mount = "mount /dev/md" + md + " " + dir;
    const int mounted = shell_run(mount);
    if (mounted == -1) {
        KEMO_RAID_LOG("%s(%d) Failed to do the cmd %s, fork error", mount.c_str());
        set_error(KEMO_VOL_ERR_COMMAND);
        return -1;
    }
    if (exit_code(mounted) != 0) {
        KEMO_RAID_LOG("%s(%d) Failed to do the cmd %s, fork error, WEXITSTATUS(r)=%d", mount.c_str(),
                      exit_code(mounted));
        set_error(KEMO_VOL_ERR_MOUNT);
        return -1;
    }
    return 0;
}

int stop(int index)
{
    if (!index_valid(index)) {
        set_error(KEMO_VOL_ERR_PARAM);
        return -1;
    }
    if (exit_code(shell_run("umount /volume" + std::to_string(index + 1))) != 0) {
        set_error(KEMO_VOL_ERR_COMMAND);
        return -1;
    }
    return 0;
}

bool plain_path_below(const char *path, std::string_view root) noexcept
{
    if (path == nullptr)
        return false;
    const std::string_view text(path);
    if (!text.starts_with(root) || text.size() == root.size() || text.size() > 255 || text.back() == '/')
        return false;
    for (const char c : text) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                           c == '.' || c == '_' || c == '-' || c == '+' || c == ':' || c == '/';
        if (!plain)
            return false;
    }
    // No way out of root: no "." or ".." component, no empty one.
    std::size_t at = root.size();
    while (at <= text.size()) {
        const std::size_t end = std::min(text.find('/', at), text.size());
        const std::string_view part = text.substr(at, end - at);
        if (part.empty() || part == "." || part == "..")
            return false;
        at = end + 1;
    }
    return true;
}

bool device_ok(const char *device) noexcept
{
    return plain_path_below(device, "/dev/");
}

int dev_size(const char *device, uint64_t &sectors)
{
    if (!device_ok(device)) {
        set_error(KEMO_VOL_ERR_PARAM);
        return -1;
    }
    Fd fd(::open(device, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0) {
        set_error(KEMO_VOL_ERR_COMMAND);
        return -1;
    }
    uint64_t bytes = 0;
    if (!S_ISBLK(st.st_mode)) {
        set_error(KEMO_VOL_ERR_PARAM);
        return -1;
    }
    if (::ioctl(fd.get(), BLKGETSIZE64, &bytes) != 0) {
        set_error(KEMO_VOL_ERR_COMMAND);
        return -1;
    }
    sectors = bytes / 512;
    return 0;
}

// The grow tool of the appliance: "-M" answers whether the file system can
// grow into its device (0 yes, 1 no), "-fpF" grows it and writes its
// progress files.
int expansible(const char *device)
{
    const auto command = shell_command("/sbin/resize2fs -M %s > /dev/null 2>&1", {device});
    if (!command)
        return -1;
    const int code = exit_code(shell_run(*command));
    if (code == 0)
        return 0;
    if (code != 1)
        log("(%s)%s(%d):Failed to '%s', WEXITSTATUS(r) = %d", __FILE__, __func__, __LINE__, command->c_str(), 0);
    return -1;
}

int expand(const char *device)
{
    const auto command = shell_command("/sbin/resize2fs -fpF %s > /dev/null 2>&1", {device});
    if (!command)
        return -1;
    const int code = exit_code(shell_run(*command));
    if (code == 0)
        return 0;
    log("(%s)%s(%d):Failed to '%s', WEXITSTATUS(r) = %d", __FILE__, __func__, __LINE__, command->c_str(), code);
    return -1;
}

} // namespace kemo::vol

namespace vol = kemo::vol;

extern "C" {

KEMO_API int KEMOVolIVolIDValid(int index)
{
    return vol::index_valid(index) ? 1 : 0;
}

KEMO_API int KEMOVolRaidGetInfo(int index, PKEMOVOLINFO record)
{
    if (record == nullptr) {
        vol::set_error(KEMO_VOL_ERR_PARAM);
        return -1;
    }
    return kemo::edge(-1, [&] { return vol::raid_get_info(index, *record); });
}

KEMO_API int KEMOVolRaidEnum(uint32_t *mask, int *first, int *count)
{
    return kemo::edge(-1, [&] { return vol::raid_enum(mask, first, count); });
}

KEMO_API int KEMOVolStatfs(int index, struct statfs *out)
{
    if (out == nullptr) {
        vol::set_error(KEMO_VOL_ERR_PARAM);
        return -1;
    }
    return kemo::edge(-1, [&] { return vol::statfs_of(index, *out); });
}

KEMO_API int KEMOVolInit(int index, int fsKind, const char *option)
{
    // The maker writes its progress at option + ".md<N>": only a plain
    // path under /tmp, never an option of the tool, never a way out.
    if (!vol::plain_path_below(option, "/tmp/")) {
        vol::set_error(KEMO_VOL_ERR_PARAM);
        return -1;
    }
    return kemo::edge(-1, [&] { return vol::init(index, fsKind, option); });
}

KEMO_API int KEMOVolStop(int index)
{
    return kemo::edge(-1, [&] { return vol::stop(index); });
}

KEMO_API int KEMOVolDevSize(const char *device, uint64_t *sectors)
{
    if (sectors == nullptr) {
        vol::set_error(KEMO_VOL_ERR_PARAM);
        return -1;
    }
    return kemo::edge(-1, [&] { return vol::dev_size(device, *sectors); });
}

KEMO_API int KEMOVolExpansible(const char *device)
{
    if (!vol::device_ok(device))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return vol::expansible(device); });
}

KEMO_API int KEMOVolExpand(const char *device)
{
    if (!vol::device_ok(device))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return vol::expand(device); });
}

KEMO_API void KEMOVolISetErr(uint32_t code)
{
    vol::set_error(code);
}

KEMO_API uint32_t KEMOVolGetErr(void)
{
    return vol::error();
}

} // extern "C"
