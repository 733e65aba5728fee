// The data volumes by index (0..3 = /dev/md2../dev/md5 at /volume1..4):
// their mount state and sizes, and the module's error word.
#include "kemo_vol.hpp"

#include "kemo_raid.hpp"
#include "kemomisc.hpp"

#include <sys/statfs.h>

#include <cstdio>
#include <string>

namespace kemo::vol {

namespace {

uint32_t g_error = 0;

// Sizes of the file system mounted at dir: false when statfs fails.
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

} // namespace

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

KEMO_API void KEMOVolISetErr(uint32_t code)
{
    vol::set_error(code);
}

KEMO_API uint32_t KEMOVolGetErr(void)
{
    return vol::error();
}

} // extern "C"
