// Arrays that lost disks, as found at start-up: a data array with no member
// left is unmounted and its services and shares go away; an array that
// lost more members than its level can carry (RAID 5 two or more, RAID 0
// any) keeps its file system mounted, read-only, so what is still readable
// can be copied off.  Healthy and merely degraded arrays are left alone.
#include "kemo_vol.hpp"

#include "kemo_io.hpp"
#include "kemo_raid.hpp"
#include "kemo_share.hpp"
#include "kemo_service.hpp"
#include "kemo_text.hpp"
#include "kemomisc.hpp"

#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstring>
#include <string>
#include <vector>

namespace kemo::vol {

namespace {

// The paths a glob pattern matches, sorted; none when nothing matches.
std::vector<std::string> matches(const std::string &pattern)
{
    std::vector<std::string> found;
    glob_t g {};
    if (::glob(pattern.c_str(), 0, nullptr, &g) == 0)
        for (std::size_t i = 0; i < g.gl_pathc; ++i)
            found.emplace_back(g.gl_pathv[i]);
    ::globfree(&g);
    return found;
}

// A decimal sysfs attribute, or -1.
int sysfs_number(const std::string &path)
{
    const auto bytes = read_small_file(path.c_str(), 64);
    const auto number = bytes ? text::leading_number(*bytes) : std::nullopt;
    return number.value_or(-1);
}

// The members of an array that still stand for a disk: listed under its
// md directory, not marked faulty, and with their disk still there (a disk
// that went away stays listed until it is removed from the array: faulty
// in a redundant array, as it was in a RAID 0, its block link dangling).
int present_members(const std::string &block)
{
    int present = 0;
    for (const std::string &member : matches(block + "/md/dev-sd??")) {
        const auto state = read_small_file((member + "/state").c_str(), 256);
        struct stat st {};
        if (state && state->find("faulty") == std::string::npos && ::stat((member + "/block").c_str(), &st) == 0)
            ++present;
    }
    return present;
}

// Takes the shares off data volume index: all of them in one change.
void remove_shares(int index)
{
    int needed = 0;
    if (share::enum_by_volume(index, nullptr, 0, &needed) < 0 || needed <= 0) {
        if (needed < 0)
            KEMO_RAID_LOG("%s (%d) Failed to enum shares on volume%d.", index + 1);
        return;
    }
    std::vector<char *> buffer((static_cast<std::size_t>(needed) + sizeof(char *) - 1) / sizeof(char *) + 1);
    const int count = share::enum_by_volume(index, buffer.data(), needed, &needed);
    if (count < 0) {
        KEMO_RAID_LOG("%s (%d) Failed to enum shares on volume%d.", index + 1);
        return;
    }
    std::vector<std::string> names;
    for (int i = 0; i < count && buffer[static_cast<std::size_t>(i)] != nullptr; ++i)
        names.emplace_back(buffer[static_cast<std::size_t>(i)]);
    if (!names.empty() && share::remove(names) != 0)
        KEMO_RAID_LOG("%s(%d): Failed to delete %d shares in volume %d (%x)", static_cast<int>(names.size()),
                      index + 1, static_cast<unsigned>(kemoerrno));
}

} // namespace

int remount_crash_ro(const char *device)
{
    constexpr const char *table = "/proc/mounts";
    FilePtr in = open_file(table, "r");
    if (!in) {
        KEMO_RAID_LOG("%s(%d) open %s error", table);
        return -1;
    }
    std::optional<text::MountEntry> found;
    LineReader reader(in.get());
    std::string_view line;
    while (!found && reader.next(line)) {
        auto entry = text::mount_line(line);
        if (entry && entry->device == device)
            found = std::move(entry);
    }
    // Not mounted, or already read-only ("ro" anywhere in the options, so
    // errors=remount-ro counts too: such a file system goes read-only by
    // itself at the first error).
    if (!found || found->options.find("ro") != std::string::npos)
        return -1;
    const auto command = shell_command("mount -o remount,ro %s %s", {device, found->dir});
    if (!command)
        return -1;
    service::on_off_all(1);
    int status = shell_run(*command);
    if (exit_code(status) != 0) {
        // Making the file system read-only writes its superblock, which an
        // array that lost too many members refuses.  The mount itself can
        // still be made read-only without a write, so that nothing more
        // is written to what is left.
        KEMO_RAID_LOG("%s (%d) Failed to run [%s]", command->c_str());
        const auto mount_only = shell_command("mount -o remount,bind,ro %s", {found->dir});
        status = mount_only ? shell_run(*mount_only) : -1;
    }
    service::on_off_all(2);
    KEMO_RAID_LOG("%s(%d) mount -o remount,ro %s %s", device, found->dir.c_str());
    return exit_code(status) == 0 ? 0 : -1;
}

int remove_stale_volumes()
{
    int removed = 0;
    bool stopped = false;
    for (const std::string &block : matches("/sys/block/md?")) {
        const char digit = block.back();
        if (digit < '0' || digit > '9')
            continue;
        const int md = digit - '0';
        const std::string device = "/dev/md" + std::to_string(md);
        const int present = present_members(block);
        if (present == 0) {
            if (md < 2) {
                KEMO_RAID_LOG("%s (%d) System partition(%d) removed? Do nothing.", md);
                continue;
            }
            // An inactive array (a bare node) is nothing to clean up.
            if (md > raid::kMaxMd ||
                exit_code(shell_run("/usr/kemo/bin/mdadm -D " + device + " > /dev/null 2>&1")) != 0)
                continue;
            if (!stopped) {
                KEMO_RAID_LOG("%s (%d) Stopping services.");
                service::on_off_all(1);
                ::sleep(1);
                stopped = true;
            }
            KEMO_RAID_LOG("%s (%d) Unmounting /dev/md%d", md);
            const std::string umount = "/bin/umount -f " + device;
            if (exit_code(shell_run(umount + " > /dev/null 2>&1")) != 0)
                KEMO_RAID_LOG("%s (%d) Failed to run [%s]", umount.c_str());
            const int id = md - 1;
            if (service::remove_by_volume(id) != 0)
                KEMO_RAID_LOG("%s(%d): Failed to disable services on volume %d (%X)", id,
                              static_cast<unsigned>(kemoerrno));
            remove_shares(md - 2);
            ++removed;
            continue;
        }
        const auto level_text = read_small_file((block + "/md/level").c_str(), 64);
        const int level = level_text ? text::sysfs_level(*level_text) : -1;
        const int design = sysfs_number(block + "/md/raid_disks");
        const int missing = design - present;
        if (design > 0 && ((level == 5 && missing > 1) || (level == 0 && missing > 0)))
            remount_crash_ro(device.c_str());
    }
    if (stopped) {
        KEMO_RAID_LOG("%s (%d) Starting services.");
        service::on_off_all(2);
    }
    return removed;
}

} // namespace kemo::vol

namespace vol = kemo::vol;

extern "C" {

KEMO_API int KEMORemountCrashRaidRo(const char *device)
{
    if (!vol::device_ok(device))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return vol::remount_crash_ro(device); });
}

KEMO_API int KEMOVolRemoveStaleVolumes(void)
{
    return kemo::edge(0, [] { return vol::remove_stale_volumes(); });
}

} // extern "C"
