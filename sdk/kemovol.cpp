// The data volumes by volume id (1..4, mounted at /volume<id>): which are
// mounted, how full and whether writeable, and the volume a path lies in.
// These report through the library's error state.
#include "kemo_vol.hpp"

#include "kemo_io.hpp"
#include "kemo_raid.hpp"
#include "kemo_share.hpp"
#include "kemo_text.hpp"
#include "kemofile.hpp"
#include "kemomisc.hpp"

#include <strings.h>
#include <sys/statfs.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace kemo::vol {

namespace {

constexpr const char *kMounts = "/proc/mounts";

// The first mount option is exactly "ro".
bool read_only(std::string_view options)
{
    return options.substr(0, options.find(',')) == "ro";
}

} // namespace

int id_parse(const char *path)
{
    if (path == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    const std::string_view text(path);
    constexpr std::string_view prefix = "/volume";
    if (text.size() <= 7 || text.size() >= 486 || !text.starts_with(prefix))
        return fail(-1, ERR_BAD_PARAMETERS);
    // "/volume<N>/<something>": digits, a slash and a component after it.
    const char *const begin = path + prefix.size();
    const char *const end = path + text.size();
    int id = 0;
    if (*begin < '0' || *begin > '9')
        return fail(-1, KEMO_ERR_VOL_PATH);
    const auto [stop, ec] = std::from_chars(begin, end, id);
    if (ec != std::errc() || stop == end || *stop != '/' || stop + 1 == end ||
        std::strchr(" \t\n\r\v\f", stop[1]) != nullptr)
        return fail(-1, KEMO_ERR_VOL_PATH);
    return id;
}

int info_get(int id, KEMOVOLINFO &record)
{
    const std::string dir = "/volume" + std::to_string(id);
    const ShellOutput out = shell_read("grep " + dir + " " + kMounts);
    if (!out.started) {
        KLIBErrSet(ERR_OPEN_FAILED);
        KEMO_RAID_LOG("%s(%d)[%X]Failed to open /proc/mounts", static_cast<unsigned>(kemoerrno));
        return -1;
    }
    record.svi_id = id;
    record.svi_status = 0;
    // grep matches /volume1 in /volume10 too: the entry whose directory is
    // the volume's is the one.
    std::size_t pos = 0;
    const std::string &lines = out.text;
    while (pos < lines.size()) {
        const std::size_t nl = std::min(lines.find('\n', pos), lines.size());
        const auto entry = text::mount_line(std::string_view(lines).substr(pos, nl - pos));
        pos = nl + 1;
        if (!entry || entry->dir != dir)
            continue;
        record.svi_status = 1;
        std::snprintf(record.svi_device, sizeof record.svi_device, "%s", entry->device.c_str());
        std::snprintf(record.svi_mount_point, sizeof record.svi_mount_point, "%s", entry->dir.c_str());
        record.svi_writeable = read_only(entry->options) ? 0 : 1;
        if (!fill_sizes(record.svi_mount_point, record)) {
            KLIBErrSet(ERR_READ_FAILED);
            KEMO_RAID_LOG("%s(%d)[%X]Failed to statfs mount point : %s", static_cast<unsigned>(kemoerrno),
                          record.svi_mount_point);
            return -1;
        }
        return 0;
    }
    return 0;
}

void free_list(KEMOVOLINFO *list) noexcept
{
    while (list != nullptr) {
        KEMOVOLINFO *next = list->next;
        std::free(list);
        list = next;
    }
}

KEMOVOLINFO *sort_list(KEMOVOLINFO *list) noexcept
{
    // Insertion into a new chain: stable, ascending by id.
    KEMOVOLINFO *sorted = nullptr;
    while (list != nullptr) {
        KEMOVOLINFO *node = list;
        list = list->next;
        KEMOVOLINFO **at = &sorted;
        while (*at != nullptr && (*at)->svi_id <= node->svi_id)
            at = &(*at)->next;
        node->next = *at;
        *at = node;
    }
    return sorted;
}

KEMOVOLINFO *mounted_list(bool first_only)
{
    FilePtr in = open_file(kMounts, "r");
    if (!in) {
        KLIBErrSet(ERR_OPEN_FAILED);
        KEMO_RAID_LOG("%s(%d) open %s error", kMounts);
        return nullptr;
    }
    KEMOVOLINFO *list = nullptr;
    const auto give_up = [&](int code) -> KEMOVOLINFO * {
        free_list(list);
        if (code != 0)
            KLIBErrSet(code);
        return nullptr;
    };
    LineReader reader(in.get());
    std::string_view line;
    while (reader.next(line)) {
        const auto entry = text::mount_line(line);
        if (!entry)
            continue;
        const int id = text::volume_id_of_dir(entry->dir);
        if (id < 0)
            continue;
        auto *record = static_cast<KEMOVOLINFO *>(std::calloc(1, sizeof(KEMOVOLINFO)));
        if (record == nullptr) {
            KEMO_RAID_LOG("%s(%d) Failed to malloc KEMOVOLINFOLIST");
            return give_up(ERR_OUT_OF_MEMORY);
        }
        record->next = list;
        list = record;
        record->svi_id = id;
        record->svi_status = 1;
        if (entry->device.size() >= sizeof record->svi_device || entry->dir.size() >= sizeof record->svi_mount_point) {
            KEMO_RAID_LOG("%s(%d) Buffer too small. ");
            return give_up(ERR_NOT_ENOUGH_MEMORY);
        }
        std::memcpy(record->svi_device, entry->device.c_str(), entry->device.size() + 1);
        std::memcpy(record->svi_mount_point, entry->dir.c_str(), entry->dir.size() + 1);
        record->svi_writeable = read_only(entry->options) ? 0 : 1;
        if (!fill_sizes(record->svi_mount_point, *record)) {
            KLIBErrSet(ERR_READ_FAILED);
            KEMO_RAID_LOG("%s(%d)[%X]Failed to statfs mount point : %s", static_cast<unsigned>(kemoerrno),
                          record->svi_mount_point);
            return give_up(0);
        }
        if (first_only)
            break;
    }
    if (reader.failed())
        return give_up(ERR_READ_FAILED);
    return sort_list(list);
}

int health(int id, int &value)
{
    KEMOVOLINFO info {};
    if (info_get(id, info) != 0) {
        KEMO_RAID_LOG("%s(%d)[%X] : failed to get volume %d 's info", static_cast<unsigned>(kemoerrno), id);
        return -1;
    }
    if (info.svi_status == 0) {
        value = KEMO_VOL_UNMOUNTED;
        return 0;
    }
    if (info.svi_writeable != 0 && info.svi_writeable != 1) {
        KEMO_RAID_LOG("%s(%d) : volume %d svi_writeable is out of range", id);
        return -1;
    }
    value = info.svi_writeable == 0 ? KEMO_VOL_READONLY : KEMO_VOL_WRITEABLE;
    return 0;
}

int writeable_id()
{
    for (int id = 1; id <= kMaxVolumes; ++id) {
        int value = 0;
        if (health(id, value) == 0 && value == KEMO_VOL_WRITEABLE)
            return id;
    }
    return 0;
}

int all_volume_scan(const char *relative)
{
    KEMOVOLINFO *list = mounted_list(false);
    if (list == nullptr) {
        KEMO_RAID_LOG("%s(%d) : no volume exist");
        return 0;
    }
    int found = 0;
    for (const KEMOVOLINFO *v = list; v != nullptr && found == 0; v = v->next) {
        if (v->svi_writeable == 0)
            continue;
        const std::string path = "/volume" + std::to_string(v->svi_id) + relative;
        if (share::folder_state(path.c_str()) > 0)
            found = v->svi_id;
    }
    free_list(list);
    return found;
}

bool support_raid()
{
    const auto value = settings::get_value(raid::kInfoDefaults, "supportraid");
    return value && ::strcasecmp(value->c_str(), "yes") == 0;
}

int is_non_raid(const KEMORAIDVOL &status)
{
    switch (status.level) {
    case 5: return 0;
    case 0: return status.designDisks <= 1 ? 1 : 0;
    case 1:
        if (status.designDisks == 1)
            return 2;
        break;
    default: break;
    }
    if (status.volStatus == 0 || status.mdId < 0 || status.mdId > raid::kMaxMd)
        return 0;
    constexpr const char *info = "/etc/kemoinfo.conf";
    const std::string key = "md" + std::to_string(status.mdId) + "_level";
    const auto value = settings::get_value(info, key);
    if (!value) {
        KEMO_RAID_LOG("%s(%d)  Failed to get %s from %s", key.c_str(), info);
        return 0;
    }
    return *value == "99" ? 3 : 0;
}

} // namespace kemo::vol

namespace vol = kemo::vol;

extern "C" {

KEMO_API int KEMOVolIDCheck(int id)
{
    return vol::id_valid(id) ? 1 : 0;
}

KEMO_API int KEMOVolIDParse(const char *path)
{
    return kemo::edge(-1, [&] { return vol::id_parse(path); });
}

KEMO_API int KEMOVolInfoGet(int id, PKEMOVOLINFO record)
{
    if (record == nullptr || !vol::id_valid(id))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return vol::info_get(id, *record); });
}

KEMO_API PKEMOVOLINFOLIST KEMOMountVolInfoGet(int firstOnly)
{
    return kemo::edge<PKEMOVOLINFOLIST>(nullptr, [&] { return vol::mounted_list(firstOnly != 0); });
}

KEMO_API PKEMOVOLINFOLIST KEMOMountVolInfoSort(PKEMOVOLINFOLIST list)
{
    return vol::sort_list(list);
}

KEMO_API void KEMOMountVolInfoFree(PKEMOVOLINFOLIST list)
{
    vol::free_list(list);
}

KEMO_API int KEMOVolHealthCheck(int id, int *health)
{
    if (health == nullptr || !vol::id_valid(id))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return vol::health(id, *health); });
}

KEMO_API int KEMOVolGetWriteableVolID(void)
{
    return kemo::edge(0, [] { return vol::writeable_id(); });
}

KEMO_API int KEMOVolNoVolume(void)
{
    return kemo::edge(1, [] { return vol::writeable_id() == 0 ? 1 : 0; });
}

KEMO_API int KEMOVolAllVolumeScan(const char *relativePath)
{
    // A place inside a volume: no line break, no way out through "..".
    if (relativePath == nullptr || relativePath[0] != '/' || !kemo::fits_on_line(relativePath) ||
        std::strlen(relativePath) > 4000)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    const std::string_view path(relativePath);
    if (path.find("/../") != std::string_view::npos || path.ends_with("/.."))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return vol::all_volume_scan(relativePath); });
}

KEMO_API int KEMOSupportRAID(void)
{
    return kemo::edge(0, [] { return vol::support_raid() ? 1 : 0; });
}

KEMO_API int KEMOVolIsNonRAID(const KEMORAIDVOL *status)
{
    if (status == nullptr)
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return kemo::edge(0, [&] { return vol::is_non_raid(*status); });
}

} // extern "C"
