// kemoctl commands for the internal disks.  Slots are numbered from 1 as
// the appliance's front panel numbers them: slot 1 is /dev/sda.
#include "kemoctl.hpp"

#include <cstdio>
#include <cstring>
#include <string>

namespace kemoctl {

namespace {

const char *status_words(uint32_t status)
{
    switch (status) {
    case KEMO_DISK_NORMAL: return "normal";
    case KEMO_DISK_NONE: return "no disk";
    case KEMO_DISK_UNINITIALIZED: return "not initialised";
    case KEMO_DISK_SYSTEM_ONLY: return "initialised, in no data volume";
    case KEMO_DISK_DATA_FAULTY: return "failed in its data volume";
    case KEMO_DISK_SYSTEM_PARTIAL: return "system partitions incomplete";
    case KEMO_DISK_SYSTEM_MISSING: return "data volume member, system partitions missing";
    default: return "unknown";
    }
}

// "system", "data", "all" to an init or clean type.
std::optional<int> kind_of(std::string_view word)
{
    if (word == "system")
        return KEMO_RAID_DISK_INIT_SYS;
    if (word == "data")
        return KEMO_RAID_DISK_INIT_DATA;
    if (word == "all")
        return KEMO_RAID_DISK_INIT_ALL;
    return std::nullopt;
}

std::string trimmed_model(const char *model)
{
    std::string text = model;
    const auto end = text.find_last_not_of(" \n");
    text.erase(end == std::string::npos ? 0 : end + 1);
    return text;
}

int disk_failure(std::string_view what)
{
    std::fprintf(stderr, "kemoctl: %.*s failed: disk error %u, %s\n", static_cast<int>(what.size()), what.data(),
                 KEMORaidDiskGetErr(), error_name(kemoerrno));
    return 1;
}

// One slot's status; false (and a message) when it cannot be read.
bool read_status(int disk, KEMORAIDDISK &record)
{
    record = {};
    KEMORaidIDiskSetErr(0);
    return KEMORaidDiskStatus(disk, &record) == 0;
}

} // namespace

std::optional<int> slot_of(std::string_view word)
{
    const auto n = parse_u32(word, false);
    if (!n || *n < 1 || *n > 4)
        return std::nullopt;
    return static_cast<int>(*n) - 1;
}

std::string bit_numbers(uint32_t mask, int bits)
{
    std::string out;
    for (int bit = 0; bit < bits && bit < 32; ++bit) {
        if ((mask & (1u << bit)) == 0)
            continue;
        if (!out.empty())
            out.push_back(',');
        out += std::to_string(bit + 1);
    }
    return out;
}

int cmd_disk_list(const Args &args)
{
    if (!args.empty())
        return usage_error("disk list takes no arguments");
    int slots = KEMOMaxDiskGet();
    if (slots <= 0 || slots > 4)
        slots = 4;
    std::printf("%-4s  %-8s  %-40s  %9s  %s\n", "SLOT", "DEVICE", "MODEL", "SIZE", "STATUS");
    int failed = 0;
    for (int disk = 0; disk < slots; ++disk) {
        KEMORAIDDISK r {};
        if (!read_status(disk, r)) {
            std::printf("%-4d  %-8s  %-40s  %9s  %s\n", disk + 1, KEMORaidIDiskName(disk), "?", "?",
                        "status unreadable");
            ++failed;
            continue;
        }
        if (r.status == KEMO_DISK_NONE) {
            std::printf("%-4d  %-8s  %-40s  %9s  %s\n", disk + 1, KEMORaidIDiskName(disk), "-", "-", "no disk");
            continue;
        }
        char size[32];
        std::snprintf(size, sizeof size, "%.1f GiB", static_cast<double>(r.sizeGiB));
        std::string status = status_words(r.status);
        if (r.dataVolumeMask != 0)
            status += " (volume " + bit_numbers(r.dataVolumeMask, 32) + ")";
        std::printf("%-4d  %-8s  %-40s  %9s  %s\n", disk + 1, r.device, trimmed_model(r.model).c_str(), size,
                    status.c_str());
    }
    return failed == 0 ? 0 : 1;
}

int cmd_disk_status(const Args &args)
{
    if (args.size() != 1)
        return usage_error("disk status needs SLOT (1-4)");
    const auto disk = slot_of(args[0]);
    if (!disk)
        return usage_error("SLOT is 1, 2, 3 or 4");
    KEMORAIDDISK r {};
    if (!read_status(*disk, r))
        return disk_failure("reading the status of slot " + std::string(args[0]));
    field("slot", args[0]);
    field("status", std::to_string(r.status) + " (" + status_words(r.status) + ")");
    if (r.status == KEMO_DISK_NONE)
        return 0;
    field("device", r.device);
    field("model", trimmed_model(r.model));
    char size[32];
    std::snprintf(size, sizeof size, "%.2f GiB", static_cast<double>(r.sizeGiB));
    field("size", size);
    field("data volumes", bit_numbers(r.dataVolumeMask, 32));
    field("layout", BlKEMORaidDiskCheckPartitions(r.device) == 1 ? "appliance layout" : "other");
    return 0;
}

namespace {

// "disk init|clean SLOT system|data|all" through the library function that
// does it.
int change_disk(const Args &args, std::string_view verb, int (*change)(int, int))
{
    const std::string what = "disk " + std::string(verb);
    if (args.size() != 2)
        return usage_error(what + " needs SLOT system|data|all");
    const auto disk = slot_of(args[0]);
    const auto kind = kind_of(args[1]);
    if (!disk || !kind)
        return usage_error(what + " needs SLOT (1-4) and system, data or all");
    KEMORaidIDiskSetErr(0);
    if (change(*disk, *kind) != 0)
        return disk_failure(std::string(verb == "init" ? "initialising" : "cleaning") + " slot " +
                            std::string(args[0]));
    return 0;
}

} // namespace

int cmd_disk_init(const Args &args)
{
    return change_disk(args, "init", KEMORaidDiskInit);
}

int cmd_disk_clean(const Args &args)
{
    return change_disk(args, "clean", KEMORaidDiskClean);
}

int cmd_disk_check_layout(const Args &args)
{
    if (args.size() != 1)
        return usage_error("disk check-layout needs SLOT (1-4)");
    const auto disk = slot_of(args[0]);
    if (!disk)
        return usage_error("SLOT is 1, 2, 3 or 4");
    const char *device = KEMORaidIDiskName(*disk);
    for (int number = 1; number <= 4; ++number) {
        uint32_t start = 0, type = 0;
        const long long size = RCRaiddiskPartitionConfigs(number, device, &start, &type);
        if (size >= 0)
            std::printf("%s%d  start %u  size %lld  type %x\n", device, number, start, size, type);
    }
    if (BlKEMORaidDiskCheckPartitions(device) != 1) {
        std::printf("%s: not the appliance layout (the system log says where it differs)\n", device);
        return 1;
    }
    std::printf("%s: appliance layout\n", device);
    return 0;
}

} // namespace kemoctl
