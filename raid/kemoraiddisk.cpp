// The internal disks: their names, sizes and models, the size arithmetic
// of the partition layout, laying the layout on a disk and wiping it again.
// Statuses are in kemoraiddisk_status.cpp.
#include "kemo_raid.hpp"

#include "kemo_io.hpp"
#include "kemofile.hpp"
#include "kemomisc.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

namespace kemo::raid {

namespace {

uint32_t g_disk_error = 0;

constexpr const char *kDiskNames[kMaxDisks] = {"/dev/sda", "/dev/sdb", "/dev/sdc", "/dev/sdd"};
constexpr const char *kPartNames[kMaxDisks][kMaxParts] = {
    {"/dev/sda1", "/dev/sda2", "/dev/sda3", "/dev/sda4"},
    {"/dev/sdb1", "/dev/sdb2", "/dev/sdb3", "/dev/sdb4"},
    {"/dev/sdc1", "/dev/sdc2", "/dev/sdc3", "/dev/sdc4"},
    {"/dev/sdd1", "/dev/sdd2", "/dev/sdd3", "/dev/sdd4"},
};
constexpr const char *kDiskProcs[kMaxDisks] = {"/sys/block/sda", "/sys/block/sdb", "/sys/block/sdc",
                                               "/sys/block/sdd"};

// The partitions a clean type covers, as 1-based numbers first..last.
std::pair<int, int> clean_range(int type) noexcept
{
    switch (type) {
    case KEMO_RAID_DISK_INIT_ALL: return {1, 4};
    case KEMO_RAID_DISK_INIT_SYS: return {1, 2};
    case KEMO_RAID_DISK_INIT_DATA: return {3, 3};
    default: return {1, 1};
    }
}

// Runs a partitioning command of this module; a failure (a non-zero exit,
// a signal, or no shell) is logged with the caller's line and leaves the
// disk error KEMO_RAID_DISK_ERR_RESET.  True when it succeeded.
bool run_logged(const std::optional<std::string> &command, int line)
{
    const int status = command ? shell_run(*command) : -1;
    if (exit_code(status) == 0)
        return true;
    log_command_failure(status, __FILE__, line, command ? command->c_str() : "");
    set_disk_error(KEMO_RAID_DISK_ERR_RESET);
    return false;
}

// Words 27..46 of an IDENTIFY DEVICE block: each word holds two characters,
// the high byte first; leading blanks skipped, a zero word ends the text.
std::string identify_model(const unsigned char *identify)
{
    std::string model;
    for (int word = 27; word <= 46; ++word) {
        const unsigned char hi = identify[2 * word + 1];
        const unsigned char lo = identify[2 * word];
        if (hi == 0 && lo == 0)
            break;
        for (const unsigned char c : {hi, lo}) {
            if (model.empty() && c == ' ')
                continue;
            if (c != 0)
                model.push_back(static_cast<char>(c));
        }
    }
    return model;
}

// True when a running array (or anything else the kernel knows) holds
// partition number (1-based) of disk.
bool partition_busy(int disk, int number)
{
    const std::string dir = std::string(disk_proc(disk)) + "/" + (disk_name(disk) + 5) + std::to_string(number) +
                            "/holders";
    DIR *holders = ::opendir(dir.c_str());
    if (holders == nullptr)
        return false;
    bool busy = false;
    while (const dirent *entry = ::readdir(holders))
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            busy = true;
    ::closedir(holders);
    return busy;
}

void copy_bounded(std::string_view text, char *buf, int len) noexcept
{
    const std::size_t n = std::min(text.size(), static_cast<std::size_t>(len) - 1);
    std::memcpy(buf, text.data(), n);
    buf[n] = '\0';
}

} // namespace

// ---- error word ------------------------------------------------------------

void set_disk_error(uint32_t code) noexcept
{
    g_disk_error = code;
    switch (code) {
    case 0: break; // a reset, not a failure
    case KEMO_RAID_DISK_ERR_PARAM: KLIBErrSet(ERR_BAD_PARAMETERS); break;
    case KEMO_RAID_DISK_ERR_MODEL:
    case KEMO_RAID_DISK_ERR_SIZE: KLIBErrSet(ERR_DISK_IO_FAILED); break;
    case KEMO_RAID_DISK_ERR_STATE: KLIBErrSet(ERR_BROKEN_RAID_CONF); break;
    default: KLIBErrSet(ERR_OP_FAILURE); break;
    }
}

uint32_t disk_error() noexcept
{
    return g_disk_error;
}

// ---- names -------------------------------------------------------------------

bool disk_valid(long n) noexcept
{
    return n >= 0 && n < kMaxDisks;
}

bool part_valid(long n) noexcept
{
    return n >= 0 && n < kMaxParts;
}

const char *disk_name(int disk) noexcept
{
    return disk_valid(disk) ? kDiskNames[disk] : nullptr;
}

const char *part_name(int disk, int part) noexcept
{
    return disk_valid(disk) && part_valid(part) ? kPartNames[disk][part] : nullptr;
}

const char *disk_proc(int disk) noexcept
{
    return disk_valid(disk) ? kDiskProcs[disk] : nullptr;
}

int max_disks() noexcept
{
    try {
        const auto value = settings::get_value(kInfoDefaults, "maxdisks");
        if (!value)
            return 0;
        return std::atoi(value->c_str());
    } catch (...) {
        return 0;
    }
}

int max_md_id() noexcept
{
    return max_disks() + 1;
}

int max_disks_by_pipe()
{
    const auto command = shell_command("/bin/get_key_value %s %s", {kInfoDefaults, "maxdisks"});
    if (!command)
        return 0;
    const ShellOutput out = shell_read(*command, Output::first_line);
    if (!out.started || out.text.empty()) {
        const int err = errno;
        if (!out.started)
            KEMO_RAID_LOG("%s(%d) Failed to popen cmd = '%s', errno=%s/%d.", command->c_str(), std::strerror(err),
                          err);
        else
            KEMO_RAID_LOG("%s(%d) Failed to fgets cmd = '%s', errno=%s/%d.", command->c_str(), std::strerror(err),
                          err);
        return 0;
    }
    return std::atoi(out.text.substr(0, 63).c_str());
}

// ---- sizes -------------------------------------------------------------------

uint32_t partition_size_from_disk(uint32_t disk_sectors) noexcept
{
    if (disk_sectors < KEMO_RAID_DISK_RESERVE)
        return 0;
    return (disk_sectors - KEMO_RAID_DISK_RESERVE) / KEMO_RAID_CYLINDER * KEMO_RAID_CYLINDER;
}

uint32_t md_size_from_partition(uint32_t part_sectors) noexcept
{
    return (part_sectors & ~uint32_t {127}) - 128;
}

int disk_size(int disk, int part, uint32_t *sectors) noexcept
{
    if (!disk_valid(disk) || sectors == nullptr || part < -1 || (part != -1 && !part_valid(part))) {
        set_disk_error(KEMO_RAID_DISK_ERR_PARAM);
        return 1;
    }
    const char *device = part == -1 ? disk_name(disk) : part_name(disk, part);
    Fd fd(::open(device, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) {
        const int err = errno;
        KEMO_RAID_LOG("%s(%d)Failed to open device = %s , errno = %d , strerrno = %s", device, err,
                      std::strerror(err));
        set_disk_error(KEMO_RAID_DISK_ERR_SIZE);
        return 1;
    }
    unsigned long size = 0;
    if (::ioctl(fd.get(), BLKGETSIZE, &size) != 0) {
        const int err = errno;
        KEMO_RAID_LOG("%s(%d)Failed to get size of device : %s , errno = %d , strerrno = %s", device, err,
                      std::strerror(err));
        set_disk_error(KEMO_RAID_DISK_ERR_SIZE);
        return 1;
    }
    // Sizes are counted in 32 bits: a disk above 2 TiB is used up to 2 TiB
    // (which is all a DOS label can address) rather than wrapped to a small
    // number.
    *sectors = size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size);
    return 0;
}

int usable_size_from_partition(int disk, int part, uint32_t *sectors) noexcept
{
    uint32_t size = 0;
    if (sectors == nullptr) {
        set_disk_error(KEMO_RAID_DISK_ERR_PARAM);
        return 1;
    }
    if (disk_size(disk, part, &size) != 0)
        return 1;
    *sectors = md_size_from_partition(size);
    return 0;
}

int usable_size_from_disk(int disk, uint32_t *sectors) noexcept
{
    uint32_t size = 0;
    if (sectors == nullptr) {
        set_disk_error(KEMO_RAID_DISK_ERR_PARAM);
        return 1;
    }
    if (disk_size(disk, -1, &size) != 0)
        return 1;
    *sectors = md_size_from_partition(partition_size_from_disk(size));
    return 0;
}

uint32_t min_partition_size(uint32_t disk_mask) noexcept
{
    const int disks = std::min(max_disks(), kMaxDisks);
    uint32_t smallest = 0;
    for (int disk = 0; disk < disks; ++disk) {
        uint32_t size = 0;
        if ((disk_mask & (1u << disk)) == 0 || disk_size(disk, -1, &size) != 0)
            continue;
        if (smallest == 0 || size < smallest)
            smallest = size;
    }
    // With no disk measured this wraps to a huge size, which every later
    // check of the disks themselves refuses.
    return (smallest - KEMO_RAID_DISK_RESERVE) / KEMO_RAID_CYLINDER * KEMO_RAID_CYLINDER;
}

int disk_model(const char *device, char *buf, int len) noexcept
{
    if (device == nullptr || buf == nullptr || len <= 0) {
        KEMO_RAID_LOG("%s (%d) Bad parameters.");
        set_disk_error(KEMO_RAID_DISK_ERR_PARAM);
        return -1;
    }
    Fd fd(::open(device, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) {
        const int err = errno;
        KEMO_RAID_LOG("%s(%d) Failed to open %s. %d (%s)", device, err, std::strerror(err));
        set_disk_error(KEMO_RAID_DISK_ERR_MODEL);
        return -1;
    }
    // IDENTIFY DEVICE: command 0xEC, one sector of answer after the 4-byte
    // argument block.
    std::array<unsigned char, 4 + 512> args {0xEC, 0, 0, 1};
    if (::ioctl(fd.get(), HDIO_DRIVE_CMD, args.data()) == 0) {
        copy_bounded(identify_model(args.data() + 4), buf, len);
        return 0;
    }
    // Not an ATA disk (or the request is not passed on): the kernel's idea
    // of the model, as the first line of its sysfs attribute.
    const char *slash = std::strrchr(device, '/');
    const std::string path =
        std::string("/sys/block/") + (slash != nullptr ? slash + 1 : device) + "/device/model";
    FilePtr in = open_file(path.c_str(), "r");
    if (!in) {
        KEMO_RAID_LOG("%s (%d) Failed to open %s", path.c_str());
        set_disk_error(KEMO_RAID_DISK_ERR_MODEL);
        return -1;
    }
    if (std::fgets(buf, len, in.get()) == nullptr) {
        buf[0] = '\0';
        KEMO_RAID_LOG("%s (%d) Failed get disk model");
        set_disk_error(KEMO_RAID_DISK_ERR_MODEL);
        return -1;
    }
    return 0;
}

// ---- layout ------------------------------------------------------------------

void log_command_failure(int status, const char *source, int line, const char *command) noexcept
{
    if (status == -1)
        kemo::log("%s(%d)Failed to fork : status = -1", source, line);
    else
        kemo::log("%s(%d)Failed to execute cmd : %s , status = %d , WEXITSTATUS(status) = %d", source, line,
                  command, status, WEXITSTATUS(status));
}

std::optional<PartitionEntry> partition_entry(int number, std::string_view device)
{
    if (number <= 0)
        return std::nullopt;
    if (device.starts_with("/dev/"))
        device.remove_prefix(5);
    const auto command = shell_command(std::string(kPartitionTool) + " -l -uS -N" + std::to_string(number) +
                                           " /dev/%s",
                                       {device});
    if (!command)
        return std::nullopt;
    const ShellOutput out = shell_read(*command, Output::first_line);
    if (!out.started)
        return std::nullopt;
    // "device start size type": blank- or tab-separated, at most 64 bytes.
    std::string_view line = std::string_view(out.text).substr(0, 63);
    std::array<std::string_view, 4> fields;
    std::size_t found = 0;
    while (found < fields.size()) {
        const std::size_t begin = line.find_first_not_of(" \t");
        if (begin == std::string_view::npos)
            break;
        line.remove_prefix(begin);
        const std::size_t end = std::min(line.find_first_of(" \t"), line.size());
        fields[found++] = line.substr(0, end);
        line.remove_prefix(end);
    }
    if (found < fields.size())
        return std::nullopt;
    PartitionEntry entry;
    const auto number_of = [](std::string_view text, uint32_t &value, int base) {
        const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
        return ec == std::errc() && end == text.data() + text.size();
    };
    if (!number_of(fields[1], entry.start, 10) || !number_of(fields[2], entry.size, 10) ||
        !number_of(fields[3], entry.type, 16))
        return std::nullopt;
    return entry;
}

bool layout_ok(const char *device)
{
    if (device == nullptr)
        return false;
    struct Expected {
        int number;
        uint32_t start;
        uint32_t size;
        bool exact;
    };
    static constexpr Expected kExpected[] = {
        {1, 63, KEMO_RAID_DISK_SYS_SECTORS, true},
        {2, KEMO_RAID_DISK_SWAP_START, KEMO_RAID_DISK_SWAP_SECTORS, true},
        {3, 0, 0, false},
    };
    constexpr uint32_t kType = 0xfd;
    for (const Expected &want : kExpected) {
        const auto entry = partition_entry(want.number, device);
        if (!entry) {
            kemo::log("%s:%d(%s) %s: dont contain partition [%d]\n", __FILE__, __LINE__, __func__, device,
                      want.number);
            return false;
        }
        if (entry->type != kType) {
            kemo::log("%s:%d(%s) %s%d: ulFsType=[0x%lX] not match [0x%X]\n", __FILE__, __LINE__, __func__,
                      device, want.number, static_cast<unsigned long>(entry->type), kType);
            return false;
        }
        if (!want.exact)
            continue;
        if (entry->start != want.start) {
            kemo::log("%s:%d(%s) %s%d: ulStartOffset=[%lu] not match [%ul]\n", __FILE__, __LINE__, __func__,
                      device, want.number, static_cast<unsigned long>(entry->start), want.start);
            return false;
        }
        if (entry->size != want.size) {
            kemo::log("%s:%d(%s) %s%d: ulSize=[%lu] not match [%ul]\n", __FILE__, __LINE__, __func__, device,
                      want.number, static_cast<unsigned long>(entry->size), want.size);
            return false;
        }
    }
    return true;
}

int disk_clean(int disk, int type)
{
    const char *device = disk_name(disk);
    if (device == nullptr) {
        set_disk_error(KEMO_RAID_DISK_ERR_PARAM);
        return 1;
    }
    const auto [first, last] = clean_range(type);
    bool reset = type == KEMO_RAID_DISK_INIT_ALL || type == KEMO_RAID_DISK_INIT_SYS;
    // Wiping the system partitions resets the whole table only when that
    // loses nothing else: a data partition (3 or 4) keeps its entry, and
    // entries 1 and 2 are deleted one by one instead.
    if (type == KEMO_RAID_DISK_INIT_SYS && (partition_entry(3, device) || partition_entry(4, device)))
        reset = false;
    // Partitions that a running array uses are never wiped under it.
    for (int number = reset ? 1 : first; number <= (reset ? kMaxParts : last); ++number) {
        if (partition_busy(disk, number)) {
            KEMO_RAID_LOG("%s(%d): Partition %s is in use by a running array\n", part_name(disk, number - 1));
            set_disk_error(KEMO_RAID_DISK_ERR_STATE);
            return 1;
        }
    }
    if (reset) {
        const auto command = shell_command("%s -M1 %s", {kPartitionTool, device});
        const int status = command ? shell_run(*command) : -1;
        if (exit_code(status) != 0) {
            log_command_failure(status, __FILE__, __LINE__, command ? command->c_str() : "");
            set_disk_error(KEMO_RAID_DISK_ERR_RESET);
            return 1;
        }
    }
    // Clearing a superblock that is not there, or deleting an entry that is
    // already gone, fails harmlessly: the results are not judged.
    for (int number = first; number <= last; ++number) {
        const std::string digit(1, static_cast<char>('0' + number));
        if (const auto zero = shell_command("%s --zero-superblock %s > /dev/null 2>&1",
                                            {"mdadm", part_name(disk, number - 1)}))
            shell_run(*zero);
        if (const auto remove = shell_command("%s -N" + digit + " -q -f --no-reread -o0 -z0 -t0 -F -D %s > /dev/null 2>&1",
                                              {kPartitionTool, device}))
            shell_run(*remove);
    }
    return 0;
}

int disk_init(int disk, int type)
{
    if (!disk_valid(disk) || (type & ~KEMO_RAID_DISK_INIT_ALL) != 0) {
        set_disk_error(KEMO_RAID_DISK_ERR_PARAM);
        return 1;
    }
    const char *device = disk_name(disk);
    KEMORAIDDISK record {};
    if (disk_status(disk, record) != 0) {
        KEMO_RAID_LOG("%s(%d): Failed to get RAID disk status : disk %d \n", disk);
        set_disk_error(KEMO_RAID_DISK_ERR_STATE);
    }
    // A request for nothing would still clean partition 1 below: refused
    // whatever the disk's state.
    if ((type & KEMO_RAID_DISK_INIT_ALL) == 0) {
        KEMO_RAID_LOG("%s(%d): Parameter error : disk %d ,status = %d, init_type=%d \n", disk,
                      static_cast<int>(record.status), type);
        set_disk_error(KEMO_RAID_DISK_ERR_STATE);
        return 1;
    }
    if ((type & KEMO_RAID_DISK_INIT_SYS) != 0 && !layout_ok(device)) {
        // A foreign layout is wiped whole, but a data partition that the
        // request does not replace keeps its entry.
        const int wipe = (type & KEMO_RAID_DISK_INIT_DATA) == 0 && partition_entry(3, device)
                             ? KEMO_RAID_DISK_INIT_SYS
                             : KEMO_RAID_DISK_INIT_ALL;
        if (disk_clean(disk, wipe) != 0) {
            KEMO_RAID_LOG("%s(%d): Failed to clean partition of disk %d : type = RAID_DISK_INIT_ALL\n", disk);
            return 1;
        }
    } else {
        kemo::log_at(LOG_INFO, "%s(%d): Clean partition of disk %d : type = %d\n", __FILE__, __LINE__, disk,
                     type);
        if (disk_clean(disk, type) != 0) {
            KEMO_RAID_LOG("%s(%d): Failed to clean partition of disk %d : type = %d\n", disk, type);
            return 1;
        }
    }
    if ((type & KEMO_RAID_DISK_INIT_SYS) != 0) {
        if (!run_logged(shell_command("%s -N1 -uS -q -f -j63 -z" + std::to_string(KEMO_RAID_DISK_SYS_SECTORS) +
                                          " -tfd -F %s > /dev/null 2>&1",
                                      {kPartitionTool, device}),
                        __LINE__) ||
            !run_logged(shell_command("%s -N2 -uS -q -f -j0 -z" + std::to_string(KEMO_RAID_DISK_SWAP_SECTORS) +
                                          " -tfd -F %s > /dev/null 2>&1",
                                      {kPartitionTool, device}),
                        __LINE__))
            return 1;
    }
    if ((type & KEMO_RAID_DISK_INIT_DATA) != 0) {
        if (!run_logged(shell_command("%s -N3 -uS -q -f -j" + std::to_string(KEMO_RAID_DISK_GAP_SECTORS) +
                                          " -z-1 -tfd -F %s >/dev/null 2>&1",
                                      {kPartitionTool, device}),
                        __LINE__))
            return 1;
        // dd would create a plain file where the kernel has not made the
        // partition's device.
        struct stat st {};
        if (::stat(part_name(disk, 2), &st) != 0 || !S_ISBLK(st.st_mode)) {
            KEMO_RAID_LOG("%s(%d): %s is not a block device\n", part_name(disk, 2));
            set_disk_error(KEMO_RAID_DISK_ERR_RESET);
            return 1;
        }
        if (!run_logged(shell_command("dd if=/dev/zero of=%s count=16 > /dev/null 2>&1", {part_name(disk, 2)}),
                        __LINE__))
            return 1;
    }
    return 0;
}

} // namespace kemo::raid

namespace raid = kemo::raid;

extern "C" {

KEMO_API int KEMORaidIDiskNumValid(unsigned int n)
{
    return n <= 3 ? 1 : 0;
}

KEMO_API int KEMORaidIPartNumValid(unsigned int n)
{
    return n <= 3 ? 1 : 0;
}

KEMO_API const char *KEMORaidIDiskName(int disk)
{
    return raid::disk_name(disk);
}

KEMO_API const char *KEMORaidIPartName(int disk, int part)
{
    return raid::part_name(disk, part);
}

KEMO_API const char *KEMORaidIDiskProc(int disk)
{
    return raid::disk_proc(disk);
}

KEMO_API int KEMOMaxDiskGet(void)
{
    return kemo::edge(0, [] { return raid::max_disks_by_pipe(); });
}

KEMO_API uint32_t KEMOMaxDiskMaskGet(void)
{
    const int n = kemo::edge(0, [] { return raid::max_disks_by_pipe(); });
    if (n >= 32)
        return UINT32_MAX;
    if (n <= 0)
        return 0;
    return (uint32_t {1} << n) - 1;
}

KEMO_API int KEMOLnxDiskSize(int disk, int part, uint32_t *sectors)
{
    return raid::disk_size(disk, part, sectors);
}

KEMO_API int KEMOLnxDiskGetModel(const char *devicePath, char *buf, int len)
{
    return raid::disk_model(devicePath, buf, len);
}

KEMO_API int KEMOLnxDiskProc(const char *path, int *status)
{
    if (path == nullptr || status == nullptr) {
        raid::set_disk_error(KEMO_RAID_DISK_ERR_PARAM);
        return 1;
    }
    struct stat st {};
    if (::stat(path, &st) == 0)
        return 0;
    if (errno == ENOENT)
        *status = KEMO_DISK_NONE;
    return 1;
}

KEMO_API uint32_t KEMORaidDiskPartitionSizeFromDiskSize(uint32_t diskSectors)
{
    return raid::partition_size_from_disk(diskSectors);
}

KEMO_API uint32_t KEMORaidDiskMDSizeFromPartitionSize(uint32_t partSectors)
{
    return raid::md_size_from_partition(partSectors);
}

KEMO_API int KEMORaidDiskUsableSizeFromDisk(int disk, uint32_t *sectors)
{
    return raid::usable_size_from_disk(disk, sectors);
}

KEMO_API int KEMORaidDiskUsableSizeFromPartition(int disk, int part, uint32_t *sectors)
{
    return raid::usable_size_from_partition(disk, part, sectors);
}

KEMO_API int KEMORaidDiskMinSizeGet(int diskMask, uint32_t *sectors)
{
    if (diskMask <= 0 || sectors == nullptr) {
        raid::set_disk_error(KEMO_RAID_DISK_ERR_PARAM);
        return 1;
    }
    *sectors = raid::min_partition_size(static_cast<uint32_t>(diskMask));
    return 0;
}

KEMO_API int KEMORaidDiskInit(int disk, int initType)
{
    return kemo::edge(1, [&] { return raid::disk_init(disk, initType); });
}

KEMO_API int KEMORaidDiskClean(int disk, int cleanType)
{
    return kemo::edge(1, [&] { return raid::disk_clean(disk, cleanType); });
}

KEMO_API long long RCRaiddiskPartitionConfigs(int part, const char *device, uint32_t *start, uint32_t *type)
{
    if (part <= 0 || device == nullptr)
        return -1;
    return kemo::edge(-1LL, [&]() -> long long {
        const auto entry = raid::partition_entry(part, device);
        if (!entry)
            return -1;
        if (start != nullptr)
            *start = entry->start;
        if (type != nullptr)
            *type = entry->type;
        return entry->size;
    });
}

KEMO_API int BlKEMORaidDiskCheckPartitions(const char *device)
{
    return kemo::edge(0, [&] { return raid::layout_ok(device) ? 1 : 0; });
}

KEMO_API void KEMOErrLogShellCmd(int status, const char *source, int line, const char *command)
{
    raid::log_command_failure(status, source != nullptr ? source : "", line, command != nullptr ? command : "");
}

KEMO_API void KEMORaidIDiskSetErr(uint32_t code)
{
    raid::set_disk_error(code);
}

KEMO_API uint32_t KEMORaidDiskGetErr(void)
{
    return raid::disk_error();
}

} // extern "C"
