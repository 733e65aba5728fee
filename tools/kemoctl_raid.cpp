// kemoctl commands for the RAID arrays, the volumes on them and users'
// quotas there.  Disk slots are numbered from 1 (slot 1 is /dev/sda),
// arrays by their md number (md0 system, md1 swap, md2.. data; "2", "md2"
// and "/dev/md2" all name /dev/md2), volumes by their id 1..4 (volume N is
// /dev/md<N+1> mounted at /volume<N>).
#include "kemoctl.hpp"

#include <unistd.h>

#include <cstdio>
#include <string>

namespace kemoctl {

namespace {

// The words of a command's arguments ("--" honoured; the commands here have
// no options).
Args words_of(const Args &args)
{
    return parse_args(args, {}).words;
}

// "1,2,3" to a disk mask; each slot once.
std::optional<int> slots_of(std::string_view text)
{
    int mask = 0;
    while (true) {
        const auto comma = text.find(',');
        const auto disk = slot_of(text.substr(0, comma));
        if (!disk || (mask & (1 << *disk)) != 0)
            return std::nullopt;
        mask |= 1 << *disk;
        if (comma == std::string_view::npos)
            return mask;
        text.remove_prefix(comma + 1);
    }
}

// "2", "md2" or "/dev/md2" to the array number 0..5.
std::optional<int> array_of(std::string_view word)
{
    if (word.starts_with("/dev/md"))
        word.remove_prefix(7);
    else if (word.starts_with("md"))
        word.remove_prefix(2);
    const auto n = parse_u32(word, false);
    if (!n || *n > 5)
        return std::nullopt;
    return static_cast<int>(*n);
}

// A volume id 1..4.
std::optional<int> volume_of(std::string_view word)
{
    const auto n = parse_u32(word, false);
    if (!n || *n < 1 || *n > 4)
        return std::nullopt;
    return static_cast<int>(*n);
}

std::string volume_device(int id)
{
    return "/dev/md" + std::to_string(id + 1);
}

// The slots (1-4) of a disk mask, or "-".
std::string slot_list(uint32_t mask)
{
    const std::string slots = bit_numbers(mask, 4);
    return slots.empty() ? "-" : slots;
}

std::string gib(uint64_t bytes)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f GiB", static_cast<double>(bytes) / (1u << 30));
    return text;
}

const char *volume_status_words(int status)
{
    switch (status) {
    case 0: return "normal";
    case 1: return "degraded";
    case 2: return "crashed";
    default: return "unknown";
    }
}

// Clears the error state and the storage modules' error words, so that a
// failure shows its own codes.
void clear_errors()
{
    KLIBErrSet(0);
    KEMORaidISetErr(0);
    KEMOVolISetErr(0);
}

int array_failure(std::string_view what)
{
    std::fprintf(stderr, "kemoctl: %.*s failed: array error %u, %s\n", static_cast<int>(what.size()), what.data(),
                 KEMORaidGetErr(), error_name(KLIBErrGet()));
    return 1;
}

int volume_failure(std::string_view what)
{
    std::fprintf(stderr, "kemoctl: %.*s failed: volume error %u, %s\n", static_cast<int>(what.size()), what.data(),
                 KEMOVolGetErr(), error_name(KLIBErrGet()));
    return 1;
}

// The quota functions' own codes have no names in the error table.
int quota_failure(std::string_view what)
{
    const int code = KLIBErrGet();
    const char *name = error_name(code);
    switch (code) {
    case KEMO_ERR_QUOTA_OFF: name = "quotas are off on the volume"; break;
    case KEMO_ERR_QUOTA_INVALID: name = "the kernel refused the request"; break;
    case KEMO_ERR_QUOTA_REMOUNT: name = "remounting with quotas failed"; break;
    case KEMO_ERR_QUOTA_CHECK: name = "the quota check failed"; break;
    case KEMO_ERR_QUOTA_ON: name = "switching quotas on failed"; break;
    case KEMO_ERR_QUOTA_SHELL: name = "a command could not be run"; break;
    case KEMO_ERR_QUOTA_ENUM: name = "the volumes could not be listed"; break;
    default: break;
    }
    std::fprintf(stderr, "kemoctl: %.*s failed: %s (0x%X)\n", static_cast<int>(what.size()), what.data(), name,
                 static_cast<unsigned>(code));
    return 1;
}

// 0 with the record, 1 for an array that is not active, -1 on failure.
int read_array(int md, KEMORAIDVOL &record)
{
    record = {};
    clear_errors();
    if (KEMORaidVolStatus(md, &record) == 0)
        return 0;
    return KEMORaidGetErr() == KEMO_RAID_ERR_INACTIVE ? 1 : -1;
}

void print_array(int md, const KEMORAIDVOL &r)
{
    field("array", "/dev/md" + std::to_string(md));
    field("level", "RAID " + std::to_string(r.level));
    field("status", volume_status_words(r.volStatus));
    field("members", std::to_string(r.activeDisks) + " of " + std::to_string(r.designDisks) + " active (slots " +
                         slot_list(r.memberMask) + ")");
    if (r.faultyMask != 0)
        field("faulty", "slots " + slot_list(r.faultyMask));
    field("size", gib(r.totalBytes) + " (" + std::to_string(r.componentKiB) + " KiB a member)");
    field("mounted", r.mounted ? std::string(r.mountPoint) : "no");
}

} // namespace

// ---- raid --------------------------------------------------------------------

int cmd_raid_create(const Args &args)
{
    const Args w = words_of(args);
    if (w.size() < 2 || w.size() > 3)
        return usage_error("raid create needs LEVEL SLOTS [COUNT]");
    const auto level = parse_u32(w[0], false);
    if (!level || (*level != 0 && *level != 1 && *level != 5))
        return usage_error("LEVEL is 0, 1 or 5");
    const auto mask = slots_of(w[1]);
    if (!mask)
        return usage_error("SLOTS are slot numbers 1-4, each once, separated by commas (1,2,3)");
    const int given = KEMORaidVolDiskCount(static_cast<uint32_t>(*mask));
    int count = given;
    if (w.size() == 3) {
        const auto n = parse_u32(w[2], false);
        if (!n || *n < static_cast<uint32_t>(given) || *n > 4)
            return usage_error("COUNT is the member count: at least the number of SLOTS, at most 4");
        count = static_cast<int>(*n);
    }
    // Members left out are made "missing": RAID 0 has no room for one, and
    // RAID 5 works with at most one missing of at least three.
    if (*level == 0 && count != given)
        return usage_error("a RAID 0 array has no missing members: COUNT must equal the number of SLOTS");
    if (*level == 5 && (count < 3 || count - given > 1))
        return usage_error("a RAID 5 array has at least 3 members, at most one of them missing");
    clear_errors();
    int md = -1;
    if (KEMORaidVolCreate(*mask, static_cast<int>(*level), count, &md) != 0)
        return array_failure("creating the array");
    std::printf("/dev/md%d\n", md);
    return 0;
}

int cmd_raid_status(const Args &args)
{
    const Args w = words_of(args);
    if (w.size() > 1)
        return usage_error("raid status takes at most one ARRAY");
    if (w.size() == 1) {
        const auto md = array_of(w[0]);
        if (!md)
            return usage_error("ARRAY is an array number 0-5 (2, md2 or /dev/md2)");
        KEMORAIDVOL r;
        const int read = read_array(*md, r);
        if (read < 0)
            return array_failure("reading /dev/md" + std::to_string(*md));
        if (read > 0) {
            std::printf("/dev/md%d: not active\n", *md);
            return 1;
        }
        print_array(*md, r);
        return 0;
    }
    std::printf("%-8s  %-6s  %-8s  %-13s  %-7s  %10s  %s\n", "ARRAY", "LEVEL", "STATUS", "ACTIVE", "SLOTS", "SIZE",
                "MOUNTED");
    int failed = 0;
    for (int md = 0; md <= 5; ++md) {
        KEMORAIDVOL r;
        const int read = read_array(md, r);
        if (read > 0)
            continue;
        if (read < 0) {
            std::printf("/dev/md%d  status unreadable (array error %u)\n", md, KEMORaidGetErr());
            ++failed;
            continue;
        }
        const std::string active = std::to_string(r.activeDisks) + " of " + std::to_string(r.designDisks);
        std::printf("/dev/md%d  RAID %-1d  %-8s  %-13s  %-7s  %10s  %s\n", md, r.level,
                    volume_status_words(r.volStatus), active.c_str(), slot_list(r.memberMask).c_str(),
                    gib(r.totalBytes).c_str(), r.mounted ? r.mountPoint : "-");
    }
    return failed == 0 ? 0 : 1;
}

namespace {

// "raid add|remove ARRAY SLOT": the system and swap arrays take the slot's
// partitions 1 and 2, the data arrays its partition 3.
int change_member(const Args &args, bool add)
{
    const std::string what = add ? "raid add" : "raid remove";
    const Args w = words_of(args);
    if (w.size() != 2)
        return usage_error(what + " needs ARRAY SLOT");
    const auto md = array_of(w[0]);
    const auto disk = slot_of(w[1]);
    if (!md || !disk)
        return usage_error(what + " needs ARRAY (0-5) and SLOT (1-4)");
    clear_errors();
    int result = 0;
    if (add)
        result = *md == 0 ? KEMORaidVolDiskAddSys(*disk)
                 : *md == 1 ? KEMORaidVolDiskAddSwap(*disk)
                            : KEMORaidVolDiskAdd(*md, *disk);
    else
        result = *md <= 1 ? KEMORaidDevDiskRemove(*md, *disk, *md, 0) : KEMORaidVolDiskRemove(*md, *disk, 0);
    if (result != 0)
        return array_failure(std::string(add ? "adding slot " : "removing slot ") + std::string(w[1]) +
                             (add ? " to" : " from") + " /dev/md" + std::to_string(*md));
    return 0;
}

} // namespace

int cmd_raid_add(const Args &args)
{
    return change_member(args, true);
}

int cmd_raid_remove(const Args &args)
{
    return change_member(args, false);
}

int cmd_raid_destroy(const Args &args)
{
    const Args w = words_of(args);
    if (w.size() != 1)
        return usage_error("raid destroy needs ARRAY");
    const auto md = array_of(w[0]);
    if (!md)
        return usage_error("ARRAY is an array number 0-5 (2, md2 or /dev/md2)");
    clear_errors();
    if (KEMORaidVolDestroy(*md) != 0)
        return array_failure("destroying /dev/md" + std::to_string(*md));
    return 0;
}

int cmd_raid_grow(const Args &args)
{
    const Args w = words_of(args);
    if (w.size() != 1)
        return usage_error("raid grow needs ARRAY");
    const auto md = array_of(w[0]);
    if (!md)
        return usage_error("ARRAY is an array number 0-5 (2, md2 or /dev/md2)");
    clear_errors();
    uint64_t kib = 0;
    const int room = KEMORaidVolExpansible(*md, &kib);
    if (room < 0)
        return array_failure("checking whether /dev/md" + std::to_string(*md) + " can grow");
    if (room == 0) {
        std::printf("/dev/md%d: its members already use all the room their disks have\n", *md);
        return 0;
    }
    if (KEMORaidVolExpand(*md) != 0)
        return array_failure("growing /dev/md" + std::to_string(*md));
    std::printf("/dev/md%d: members grown to %llu KiB\n", *md, static_cast<unsigned long long>(kib));
    return 0;
}

int cmd_raid_expand(const Args &args)
{
    const Args w = words_of(args);
    if (w.size() != 2)
        return usage_error("raid expand needs ARRAY COUNT");
    const auto md = array_of(w[0]);
    const auto count = parse_u32(w[1], false);
    if (!md || !count || *count < 1 || *count > 4)
        return usage_error("raid expand needs ARRAY (0-5) and the new member COUNT (1-4)");
    clear_errors();
    if (KEMORaidVolDiskCountChange(*md, static_cast<int>(*count)) != 0)
        return array_failure("changing the member count of /dev/md" + std::to_string(*md));
    return 0;
}

int cmd_raid_progress(const Args &args)
{
    if (!words_of(args).empty())
        return usage_error("raid progress takes no arguments");
    static const char *const steps[] = {"started", "finished", "failed", "initialising disks",
                                        "synchronising the array", "making the file system", "final settings"};
    KEMOVOLINITSTATUS s {};
    clear_errors();
    const int got = VolInitStatusGet(&s);
    int failed = 0;
    if (got == -2) {
        std::printf("volume creation: none under way\n");
    } else if (got != 0) {
        failed = volume_failure("reading the volume creation progress");
    } else if (s.step >= 0 && s.step <= KEMO_INIT_DEFINIT) {
        std::printf("volume creation: %s (disks %d%%, sync %.1f%%, file system %d%%, final %.1f%%)\n",
                    steps[s.step], s.diskPercent, static_cast<double>(s.syncPercent), s.fsPercent,
                    static_cast<double>(s.finalPercent));
    } else {
        std::printf("volume creation: step %d\n", s.step);
    }
    for (int md = 0; md <= 5; ++md) {
        KEMORAIDVOL r;
        if (read_array(md, r) != 0)
            continue;
        float percent = 0;
        if (MDSyncProgress(md, &percent) != 0) {
            failed = array_failure("reading the sync progress of /dev/md" + std::to_string(md));
            continue;
        }
        if (percent >= 100.0f)
            std::printf("/dev/md%d: in sync\n", md);
        else if (percent == -1.0f)
            std::printf("/dev/md%d: waiting to resynchronise\n", md);
        else if (percent == -2.0f)
            std::printf("/dev/md%d: %s, not rebuilding\n", md, volume_status_words(r.volStatus));
        else
            std::printf("/dev/md%d: %.1f%% synchronised\n", md, static_cast<double>(percent));
    }
    return failed;
}

// ---- volume ------------------------------------------------------------------

int cmd_volume_list(const Args &args)
{
    if (!words_of(args).empty())
        return usage_error("volume list takes no arguments");
    clear_errors();
    PKEMOVOLINFOLIST list = KEMOMountVolInfoGet(0);
    if (list == nullptr && KLIBErrGet() != 0)
        return library_failure("listing the mounted volumes");
    std::printf("%-6s  %-9s  %-9s  %10s  %10s  %s\n", "VOLUME", "DEVICE", "MOUNTED", "SIZE", "FREE", "ACCESS");
    for (const KEMOVOLINFO *v = list; v != nullptr; v = v->next)
        std::printf("%-6d  %-9s  %-9s  %10s  %10s  %s\n", v->svi_id, v->svi_device, v->svi_mount_point,
                    gib(v->svi_total_bytes).c_str(), gib(v->svi_avail_bytes).c_str(),
                    v->svi_writeable ? "read-write" : "read-only");
    KEMOMountVolInfoFree(list);
    return 0;
}

int cmd_volume_info(const Args &args)
{
    const Args w = words_of(args);
    if (w.size() != 1)
        return usage_error("volume info needs VOLUME_ID (1-4)");
    const auto id = volume_of(w[0]);
    if (!id)
        return usage_error("VOLUME_ID is 1, 2, 3 or 4");
    KEMOVOLINFO v {};
    clear_errors();
    if (KEMOVolInfoGet(*id, &v) != 0)
        return library_failure("reading volume " + std::to_string(*id));
    field("volume", std::to_string(*id));
    if (!v.svi_status) {
        field("mounted", "no");
        return 0;
    }
    field("device", v.svi_device);
    field("mounted", v.svi_mount_point);
    field("access", v.svi_writeable ? "read-write" : "read-only");
    field("size", gib(v.svi_total_bytes));
    field("free", gib(v.svi_avail_bytes));
    return 0;
}

int cmd_volume_health(const Args &args)
{
    const Args w = words_of(args);
    if (w.size() != 1)
        return usage_error("volume health needs VOLUME_ID (1-4)");
    const auto id = volume_of(w[0]);
    if (!id)
        return usage_error("VOLUME_ID is 1, 2, 3 or 4");
    int health = -1;
    clear_errors();
    if (KEMOVolHealthCheck(*id, &health) != 0)
        return library_failure("checking volume " + std::to_string(*id));
    static const char *const words[] = {"not mounted", "mounted read-only", "mounted read-write"};
    std::printf("volume %d: %s\n", *id, health >= 0 && health <= 2 ? words[health] : "unknown");
    return 0;
}

int cmd_volume_init(const Args &args)
{
    const Args w = words_of(args);
    if (w.empty() || w.size() > 2)
        return usage_error("volume init needs VOLUME_ID [ext3|ext2]");
    const auto id = volume_of(w[0]);
    if (!id)
        return usage_error("VOLUME_ID is 1, 2, 3 or 4");
    const std::string_view kind = w.size() == 2 ? w[1] : "ext3";
    if (kind != "ext3" && kind != "ext2")
        return usage_error("the file system is ext3 or ext2");
    clear_errors();
    if (KEMOVolInit(*id - 1, kind == "ext3" ? 4 : 3, "/tmp/mkfs.progress") != 0)
        return volume_failure("making volume " + std::to_string(*id));
    std::printf("volume %d: %.*s on %s, mounted at /volume%d\n", *id, static_cast<int>(kind.size()), kind.data(),
                volume_device(*id).c_str(), *id);
    return 0;
}

int cmd_volume_expand(const Args &args)
{
    const Args w = words_of(args);
    if (w.size() != 1)
        return usage_error("volume expand needs VOLUME_ID (1-4)");
    const auto id = volume_of(w[0]);
    if (!id)
        return usage_error("VOLUME_ID is 1, 2, 3 or 4");
    const std::string device = volume_device(*id);
    clear_errors();
    if (KEMOVolExpansible(device.c_str()) != 0) {
        std::fprintf(stderr, "kemoctl: the file system on %s cannot grow: its array has no room beyond it (or "
                             "the check failed; the system log says)\n",
                     device.c_str());
        return 1;
    }
    if (KEMOVolExpand(device.c_str()) != 0)
        return library_failure("growing the file system on " + device);
    KEMOVOLINFO v {};
    if (KEMOVolInfoGet(*id, &v) == 0 && v.svi_status)
        std::printf("volume %d: %s, %s free\n", *id, gib(v.svi_total_bytes).c_str(),
                    gib(v.svi_avail_bytes).c_str());
    return 0;
}

// ---- quota -------------------------------------------------------------------

namespace {

// A limit in MB: digits with at most two decimals, below 4 TiB (the kernel
// record holds it as a 32-bit count of KiB).
std::optional<float> megabytes_of(std::string_view text)
{
    const auto dot = text.find('.');
    const auto whole = parse_u32(text.substr(0, dot), false);
    if (!whole || *whole >= 4u * 1024 * 1024)
        return std::nullopt;
    double value = *whole;
    if (dot != std::string_view::npos) {
        const std::string_view fraction = text.substr(dot + 1);
        const auto digits = parse_u32(fraction, false);
        if (fraction.empty() || fraction.size() > 2 || !digits)
            return std::nullopt;
        value += *digits / (fraction.size() == 1 ? 10.0 : 100.0);
    }
    return static_cast<float>(value);
}

} // namespace

int cmd_quota_on(const Args &args)
{
    const Args w = words_of(args);
    if (w.size() != 1)
        return usage_error("quota on needs VOLUME_ID (1-4)");
    const auto id = volume_of(w[0]);
    if (!id)
        return usage_error("VOLUME_ID is 1, 2, 3 or 4");
    clear_errors();
    if (KEMOQuotaInit(*id) != 0)
        return quota_failure("switching quotas on for volume " + std::to_string(*id));
    return 0;
}

int cmd_quota_get(const Args &args)
{
    const Args w = words_of(args);
    if (w.size() != 2)
        return usage_error("quota get needs USER VOLUME_ID");
    const auto id = volume_of(w[1]);
    if (w[0].empty() || !id)
        return usage_error("quota get needs a USER name and VOLUME_ID (1-4)");
    const std::string user(w[0]);
    KEMOQUOTA q {};
    clear_errors();
    if (KEMOQuotaGet(user.c_str(), volume_device(*id).c_str(), &q) != 0)
        return quota_failure("reading the quota of " + user + " on volume " + std::to_string(*id));
    char limit[32];
    if (q.limitMB == 0.0f)
        std::snprintf(limit, sizeof limit, "none");
    else
        std::snprintf(limit, sizeof limit, "%.2f MB", static_cast<double>(q.limitMB));
    std::printf("%s on volume %d: limit %s, used %.2f MB\n", user.c_str(), *id, limit,
                static_cast<double>(q.usedMB));
    return 0;
}

int cmd_quota_set(const Args &args)
{
    const Args w = words_of(args);
    if (w.size() != 3)
        return usage_error("quota set needs USER VOLUME_ID MB");
    const auto id = volume_of(w[1]);
    const auto mb = megabytes_of(w[2]);
    if (w[0].empty() || !id)
        return usage_error("quota set needs a USER name and VOLUME_ID (1-4)");
    if (!mb)
        return usage_error("MB is a limit in megabytes below 4194304 (at most two decimals; 0 removes it)");
    const std::string user(w[0]);
    clear_errors();
    if (KEMOQuotaSet(user.c_str(), volume_device(*id).c_str(), &*mb) != 0)
        return quota_failure("setting the quota of " + user + " on volume " + std::to_string(*id));
    return 0;
}

int cmd_quota_clear(const Args &args)
{
    const Args w = words_of(args);
    if (w.empty())
        return usage_error("quota clear needs USER...");
    ListPtr list(PslKLIBSzListAlloc(0));
    if (!list)
        return library_failure("making the user list");
    for (const auto user : w) {
        if (user.empty())
            return usage_error("an empty USER name");
        const std::string name(user);
        if (growing(list, [&](KLIBSZLIST **l) { return KLIBSzListPush(l, name.c_str()); }) < 0)
            return library_failure("making the user list");
    }
    clear_errors();
    if (KEMOQuotaCleanRAID(list.get()) != 0)
        return quota_failure("clearing the quotas");
    return 0;
}

} // namespace kemoctl
