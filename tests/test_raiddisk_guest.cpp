// The disk layer on real disks, in the virtual appliance: four SATA disks
// on an AHCI controller, the md driver, real mdadm and util-linux as peers.
// Every case starts from blank disks and no arrays.
//
// usage (in the guest): test_raiddisk_guest [gtest flags] DISK_BYTES MODEL0 MODEL1 MODEL2 MODEL3
#include "guest_only.hpp"
#include "guest_util.hpp"
#include "kemo.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using kemo_guest::LogCapture;
using kemo_guest::make_array;
using kemo_guest::output_of;
using kemo_guest::read_text;
using kemo_guest::sh;


uint64_t g_disk_bytes = 0;
std::vector<std::string> g_models;

const char *const kDisks[] = {"/dev/sda", "/dev/sdb", "/dev/sdc", "/dev/sdd"};

std::string sectors_of(const std::string &device, uint64_t first, uint64_t count)
{
    std::string data(count * 512, '\0');
    const int fd = ::open(device.c_str(), O_RDONLY | O_CLOEXEC);
    // What the library wrote through a partition's device is not in the
    // whole disk's cache: read past it.
    if (fd >= 0)
        ::ioctl(fd, BLKFLSBUF, 0);
    if (fd < 0 || ::pread(fd, data.data(), data.size(), static_cast<off_t>(first * 512)) < 0)
        ADD_FAILURE() << "cannot read " << device;
    if (fd >= 0)
        ::close(fd);
    return data;
}

void write_sectors(const std::string &device, uint64_t first, const std::string &data)
{
    const int fd = ::open(device.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0) << device;
    ASSERT_EQ(::pwrite(fd, data.data(), data.size(), static_cast<off_t>(first * 512)),
              static_cast<ssize_t>(data.size()));
    ::fsync(fd);
    ::close(fd);
}

void reread(const char *disk)
{
    const int fd = ::open(disk, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        ::ioctl(fd, BLKRRPART);
        ::close(fd);
    }
}

// Blank disks, no arrays: arrays stopped, partition tables and the places
// where md superblocks of the layout live zeroed.
void blank_disks()
{
    for (int md = 0; md <= 5; ++md)
        sh("mdadm --stop /dev/md" + std::to_string(md) + " >/dev/null 2>&1");
    const std::string zeros(4096 * 512, '\0');
    for (const char *disk : kDisks) {
        for (uint64_t at : {0ull, 63ull, 1574370ull, 2634660ull})
            write_sectors(disk, at, zeros);
        reread(disk);
    }
    // The appliance's boot makes the nodes of every array number, so that an
    // array that is not running answers "not active" rather than "absent".
    for (int md = 0; md <= 5; ++md) {
        const std::string node = "/dev/md" + std::to_string(md);
        ::mknod(node.c_str(), S_IFBLK | 0600, ::makedev(9, md));
    }
}

std::string collapse_blanks(const std::string &text)
{
    std::string out;
    for (const char c : text)
        if (c != ' ' || (!out.empty() && out.back() != ' '))
            out.push_back(c);
    return out;
}

long long processes_started()
{
    std::ifstream in("/proc/stat");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("processes ", 0) == 0)
            return std::stoll(line.substr(10));
    return -1;
}

uint32_t disk_status(int disk, KEMORAIDDISK *record = nullptr)
{
    KEMORAIDDISK local {};
    KEMORAIDDISK &r = record != nullptr ? *record : local;
    EXPECT_EQ(KEMORaidDiskStatus(disk, &r), 0) << "disk " << disk << ", error " << KEMORaidDiskGetErr();
    return r.status;
}

class Disks : public ::testing::Test {
protected:
    void SetUp() override
    {
        blank_disks();
        KEMORaidIDiskSetErr(0);
        KEMORaidISetErr(0);
    }
};

TEST_F(Disks, SizesAndModelsComeFromTheDrives)
{
    for (int disk = 0; disk < 4; ++disk) {
        uint32_t sectors = 0;
        ASSERT_EQ(KEMOLnxDiskSize(disk, -1, &sectors), 0);
        EXPECT_EQ(sectors, g_disk_bytes / 512);
        char model[64];
        ASSERT_EQ(KEMOLnxDiskGetModel(kDisks[disk], model, sizeof model), 0);
        std::string trimmed = model;
        trimmed.erase(trimmed.find_last_not_of(' ') + 1);
        EXPECT_EQ(trimmed, g_models[disk]) << "IDENTIFY gives the whole model, the kernel's copy is cut short";
        EXPECT_EQ(std::strlen(model), 40u) << "trailing blanks of the model field are kept";
        char small[8];
        ASSERT_EQ(KEMOLnxDiskGetModel(kDisks[disk], small, sizeof small), 0);
        EXPECT_EQ(std::string(small), g_models[disk].substr(0, 7));

        KEMORAIDDISK record {};
        EXPECT_EQ(disk_status(disk, &record), static_cast<uint32_t>(KEMO_DISK_UNINITIALIZED));
        EXPECT_STREQ(record.device, kDisks[disk]);
        EXPECT_EQ(std::string(record.model).substr(0, g_models[disk].size()), g_models[disk]);
        EXPECT_FLOAT_EQ(record.sizeGiB, static_cast<float>(g_disk_bytes) / (1u << 30));
        EXPECT_EQ(record.dataVolumeMask, 0u);
    }
    // Not an ATA disk and no model in sysfs.
    char model[64];
    EXPECT_EQ(KEMOLnxDiskGetModel("/dev/null", model, sizeof model), -1);
    EXPECT_EQ(KEMORaidDiskGetErr(), static_cast<uint32_t>(KEMO_RAID_DISK_ERR_MODEL));

    int absent = 0;
    EXPECT_EQ(KEMOLnxDiskProc("/sys/block/sdd", &absent), 0);
    EXPECT_EQ(KEMOLnxDiskProc("/sys/block/sde", &absent), 1);
    EXPECT_EQ(absent, KEMO_DISK_NONE);
    uint32_t usable = 0;
    ASSERT_EQ(KEMORaidDiskUsableSizeFromDisk(1, &usable), 0);
    EXPECT_EQ(usable, KEMORaidDiskMDSizeFromPartitionSize(
                          KEMORaidDiskPartitionSizeFromDiskSize(static_cast<uint32_t>(g_disk_bytes / 512))));
    uint32_t smallest = 0;
    ASSERT_EQ(KEMORaidDiskMinSizeGet(0xF, &smallest), 0);
    EXPECT_EQ(smallest, KEMORaidDiskPartitionSizeFromDiskSize(static_cast<uint32_t>(g_disk_bytes / 512)));
    EXPECT_EQ(KEMORaidDiskUnused(), 4);
}

TEST_F(Disks, InitialisationLaysTheLayoutThatUtilLinuxAndTheKernelRead)
{
    std::vector<std::string> others;
    for (int disk = 1; disk < 4; ++disk)
        others.push_back(sectors_of(kDisks[disk], 0, 4096));

    ASSERT_EQ(KEMORaidDiskInit(0, KEMO_RAID_DISK_INIT_ALL), 0) << "error " << KEMORaidDiskGetErr();
    EXPECT_EQ(BlKEMORaidDiskCheckPartitions("/dev/sda"), 1);
    const uint64_t total = g_disk_bytes / 512;
    const uint64_t data_size = total - KEMO_RAID_DISK_DATA_START;
    uint32_t start = 0, type = 0;
    EXPECT_EQ(RCRaiddiskPartitionConfigs(1, "/dev/sda", &start, &type), 1574307);
    EXPECT_EQ(start, 63u);
    EXPECT_EQ(type, 0xfdu);
    EXPECT_EQ(RCRaiddiskPartitionConfigs(2, "sda", &start, &type), 787185);
    EXPECT_EQ(start, 1574370u);
    EXPECT_EQ(RCRaiddiskPartitionConfigs(3, "/dev/sda", &start, &type), static_cast<long long>(data_size));
    EXPECT_EQ(start, 2634660u);
    EXPECT_EQ(RCRaiddiskPartitionConfigs(4, "/dev/sda", &start, &type), -1);

    // util-linux reads the same entries back.
    const std::string dump = collapse_blanks(output_of("/usr/sbin/sfdisk --dump /dev/sda"));
    EXPECT_NE(dump.find("label: dos"), std::string::npos) << dump;
    EXPECT_NE(dump.find("/dev/sda1 : start= 63, size= 1574307, type=fd"), std::string::npos) << dump;
    EXPECT_NE(dump.find("/dev/sda2 : start= 1574370, size= 787185, type=fd"), std::string::npos) << dump;
    EXPECT_NE(dump.find("/dev/sda3 : start= 2634660, size= " + std::to_string(data_size) + ", type=fd"),
              std::string::npos)
        << dump;
    EXPECT_EQ(dump.find("/dev/sda4"), std::string::npos) << dump;
    // So does the kernel.
    EXPECT_EQ(read_text("/sys/block/sda/sda1/start"), "63");
    EXPECT_EQ(read_text("/sys/block/sda/sda1/size"), "1574307");
    EXPECT_EQ(read_text("/sys/block/sda/sda2/start"), "1574370");
    EXPECT_EQ(read_text("/sys/block/sda/sda3/start"), "2634660");
    EXPECT_EQ(read_text("/sys/block/sda/sda3/size"), std::to_string(data_size));
    EXPECT_EQ(collapse_blanks(output_of("lsblk -nbro NAME,SIZE /dev/sda")),
              "sda " + std::to_string(g_disk_bytes) + "\nsda1 " + std::to_string(1574307ull * 512) + "\nsda2 " +
                  std::to_string(787185ull * 512) + "\nsda3 " + std::to_string(data_size * 512) + "\n");

    uint32_t usable = 0;
    ASSERT_EQ(KEMORaidDiskUsableSizeFromPartition(0, 2, &usable), 0);
    EXPECT_EQ(usable, KEMORaidDiskMDSizeFromPartitionSize(static_cast<uint32_t>(data_size)));

    // Nothing else was touched, and the new disk is in no array yet.
    for (int disk = 1; disk < 4; ++disk)
        EXPECT_TRUE(sectors_of(kDisks[disk], 0, 4096) == others[disk - 1]) << kDisks[disk] << " changed";
    EXPECT_EQ(disk_status(0), static_cast<uint32_t>(KEMO_DISK_UNINITIALIZED));
}

TEST_F(Disks, LayoutCheckNamesTheFirstMismatch)
{
    struct Case {
        const char *script;
        const char *message;
    };
    const Case cases[] = {
        {"start=63,size=1574307,type=83\n", "/dev/sda1: ulFsType=[0x83] not match [0xFD]"},
        {"start=2048,size=1574307,type=fd\n", "/dev/sda1: ulStartOffset=[2048] not match [63l]"},
        {"start=63,size=1574307,type=fd\nstart=1574370,size=787000,type=fd\n",
         "/dev/sda2: ulSize=[787000] not match [787185l]"},
        {"start=63,size=1574307,type=fd\nstart=1574370,size=787185,type=fd\n", "/dev/sda: dont contain partition [3]"},
        {"", "/dev/sda: dont contain partition [1]"},
    };
    for (const Case &c : cases) {
        ASSERT_EQ(sh(std::string("printf 'label: dos\\n") + c.script +
                     "' | /usr/sbin/sfdisk -q --no-reread -w never /dev/sda >/dev/null 2>&1"),
                  0)
            << c.script;
        LogCapture log;
        EXPECT_EQ(BlKEMORaidDiskCheckPartitions("/dev/sda"), 0) << c.script;
        EXPECT_NE(log.text().find(c.message), std::string::npos) << c.message << " in\n" << log.text();
    }
}

TEST_F(Disks, DataOnlyInitialisationOnASystemOnlyDisk)
{
    ASSERT_EQ(KEMORaidDiskInit(0, KEMO_RAID_DISK_INIT_SYS), 0);
    ASSERT_EQ(KEMORaidDiskInit(1, KEMO_RAID_DISK_INIT_SYS), 0);
    EXPECT_EQ(RCRaiddiskPartitionConfigs(3, "/dev/sda", nullptr, nullptr), -1);
    make_array(0, 1, "/dev/sda1 /dev/sdb1", 2);
    make_array(1, 1, "/dev/sda2 /dev/sdb2", 2);
    EXPECT_EQ(disk_status(0), static_cast<uint32_t>(KEMO_DISK_SYSTEM_ONLY));

    const std::string junk(17 * 512, 'x');
    write_sectors("/dev/sda", KEMO_RAID_DISK_DATA_START, junk);
    const std::string system_area = sectors_of("/dev/sda", 0, 63);
    ASSERT_EQ(KEMORaidDiskInit(0, KEMO_RAID_DISK_INIT_DATA), 0) << "error " << KEMORaidDiskGetErr();
    EXPECT_EQ(BlKEMORaidDiskCheckPartitions("/dev/sda"), 1);
    EXPECT_TRUE(sectors_of("/dev/sda", KEMO_RAID_DISK_DATA_START, 16) == std::string(16 * 512, '\0'))
        << "the data partition starts zeroed";
    EXPECT_TRUE(sectors_of("/dev/sda", KEMO_RAID_DISK_DATA_START + 16, 1) == std::string(512, 'x'))
        << "and only its first 16 sectors";
    uint32_t start = 0;
    EXPECT_EQ(RCRaiddiskPartitionConfigs(1, "/dev/sda", &start, nullptr), 1574307);
    EXPECT_EQ(start, 63u);
    EXPECT_EQ(RCRaiddiskPartitionConfigs(2, "/dev/sda", &start, nullptr), 787185);
    EXPECT_EQ(read_text("/sys/block/md0/md/array_state"), "clean") << "the system array went on running";
    EXPECT_EQ(disk_status(0), static_cast<uint32_t>(KEMO_DISK_SYSTEM_ONLY));
    EXPECT_EQ(KEMORaidDiskUnused(), 4) << "two system-only disks and two blank ones";
}

TEST_F(Disks, CleaningWipesThePartitionsOfItsType)
{
    const auto entries = [] {
        std::string present;
        for (int n = 1; n <= 4; ++n)
            if (RCRaiddiskPartitionConfigs(n, "/dev/sda", nullptr, nullptr) >= 0)
                present += std::to_string(n);
        return present;
    };
    ASSERT_EQ(KEMORaidDiskInit(0, KEMO_RAID_DISK_INIT_ALL), 0);
    make_array(2, 1, "/dev/sda3", 1);
    ASSERT_EQ(sh("mdadm --stop /dev/md2 >/dev/null 2>&1"), 0);
    const std::string others = sectors_of("/dev/sdb", 0, 4096);

    ASSERT_EQ(KEMORaidDiskClean(0, KEMO_RAID_DISK_INIT_DATA), 0);
    EXPECT_EQ(entries(), "12") << "type 2 deletes only the data partition";
    EXPECT_NE(sh("mdadm --examine /dev/sda3 >/dev/null 2>&1"), 0) << "its md superblock is gone";

    ASSERT_EQ(KEMORaidDiskInit(0, KEMO_RAID_DISK_INIT_DATA), 0);
    EXPECT_EQ(entries(), "123");
    ASSERT_EQ(KEMORaidDiskClean(0, 0), 0);
    EXPECT_EQ(entries(), "23") << "type 0 wipes partition 1";
    ASSERT_EQ(KEMORaidDiskClean(0, KEMO_RAID_DISK_INIT_ALL), 0);
    EXPECT_EQ(entries(), "");
    EXPECT_TRUE(sectors_of("/dev/sdb", 0, 4096) == others) << "another disk was touched";

    // Initialising the system partitions of a disk whose layout is wrong
    // starts from an empty table.
    ASSERT_EQ(sh("printf 'label: dos\\nstart=63,size=1000,type=83\\n,,\\n' | "
                 "/usr/sbin/sfdisk -q -w never /dev/sda >/dev/null 2>&1"),
              0);
    ASSERT_EQ(KEMORaidDiskInit(0, KEMO_RAID_DISK_INIT_SYS), 0);
    EXPECT_EQ(entries(), "12");
    EXPECT_EQ(RCRaiddiskPartitionConfigs(1, "/dev/sda", nullptr, nullptr), 1574307);
}

TEST_F(Disks, WipingNeverTakesAPartitionInUseOrOneNotAskedFor)
{
    ASSERT_EQ(KEMORaidDiskInit(0, KEMO_RAID_DISK_INIT_ALL), 0);
    ASSERT_EQ(KEMORaidDiskInit(1, KEMO_RAID_DISK_INIT_ALL), 0);
    make_array(0, 1, "/dev/sda1 /dev/sdb1", 2);
    const std::string table = sectors_of("/dev/sda", 0, 1);
    EXPECT_EQ(KEMORaidDiskClean(0, KEMO_RAID_DISK_INIT_ALL), 1);
    EXPECT_EQ(KEMORaidDiskGetErr(), static_cast<uint32_t>(KEMO_RAID_DISK_ERR_STATE));
    EXPECT_EQ(KEMORaidDiskClean(0, 0), 1) << "partition 1 is in md0";
    EXPECT_TRUE(sectors_of("/dev/sda", 0, 1) == table) << "the partition table changed";
    EXPECT_EQ(read_text("/sys/block/md0/md/array_state"), "clean");
    EXPECT_EQ(KEMORaidDiskClean(0, KEMO_RAID_DISK_INIT_DATA), 0) << "the data partition is free";
    ASSERT_EQ(sh("mdadm --stop /dev/md0 >/dev/null 2>&1"), 0);

    // Re-making the system partitions keeps the data partition's entry.
    ASSERT_EQ(KEMORaidDiskInit(1, KEMO_RAID_DISK_INIT_SYS), 0);
    EXPECT_EQ(RCRaiddiskPartitionConfigs(3, "/dev/sdb", nullptr, nullptr),
              static_cast<long long>(g_disk_bytes / 512 - KEMO_RAID_DISK_DATA_START));
    // So does re-making them over a foreign system layout.
    ASSERT_EQ(sh("printf 'start=1574370,size=700000,type=82\\n' | /usr/sbin/sfdisk -q -N2 --no-reread -w never "
                 "/dev/sdb >/dev/null 2>&1"),
              0);
    EXPECT_EQ(BlKEMORaidDiskCheckPartitions("/dev/sdb"), 0);
    ASSERT_EQ(KEMORaidDiskInit(1, KEMO_RAID_DISK_INIT_SYS), 0);
    EXPECT_EQ(BlKEMORaidDiskCheckPartitions("/dev/sdb"), 1);
    EXPECT_EQ(RCRaiddiskPartitionConfigs(3, "/dev/sdb", nullptr, nullptr),
              static_cast<long long>(g_disk_bytes / 512 - KEMO_RAID_DISK_DATA_START));
}

TEST_F(Disks, AFailedPartitioningCommandIsLoggedAndLeavesTheError)
{
    ASSERT_EQ(KEMORaidDiskInit(0, KEMO_RAID_DISK_INIT_SYS), 0);
    // A fourth partition where the data partition would go.
    ASSERT_EQ(sh("printf 'label: dos\\n/dev/sda1 : start=63,size=1574307,type=fd\\n"
                 "/dev/sda2 : start=1574370,size=787185,type=fd\\n/dev/sda4 : start=2700000,size=1000,type=83\\n' | "
                 "/usr/sbin/sfdisk -q --no-reread -w never /dev/sda >/dev/null 2>&1"),
              0);
    ASSERT_EQ(RCRaiddiskPartitionConfigs(4, "/dev/sda", nullptr, nullptr), 1000);
    LogCapture log;
    EXPECT_EQ(KEMORaidDiskInit(0, KEMO_RAID_DISK_INIT_DATA), 1);
    EXPECT_EQ(KEMORaidDiskGetErr(), static_cast<uint32_t>(KEMO_RAID_DISK_ERR_RESET));
    const std::string text = log.text();
    EXPECT_NE(text.find("Failed to execute cmd : /sbin/sfdisk -N3 -uS -q -f -j273105 -z-1 -tfd -F /dev/sda "
                        ">/dev/null 2>&1 , status = 256 , WEXITSTATUS(status) = 1"),
              std::string::npos)
        << text;
    EXPECT_EQ(RCRaiddiskPartitionConfigs(4, "/dev/sda", nullptr, nullptr), 1000) << "the disk was left as it was";
    // A request for nothing is refused even though it would only clean.
    EXPECT_EQ(KEMORaidDiskInit(0, 0), 1);
    EXPECT_EQ(KEMORaidDiskGetErr(), static_cast<uint32_t>(KEMO_RAID_DISK_ERR_STATE));
    EXPECT_EQ(RCRaiddiskPartitionConfigs(1, "/dev/sda", nullptr, nullptr), 1574307);
}

TEST_F(Disks, StatusFollowsTheArraysMdadmBuilt)
{
    for (int disk = 0; disk < 4; ++disk)
        ASSERT_EQ(KEMORaidDiskInit(disk, KEMO_RAID_DISK_INIT_ALL), 0);
    make_array(0, 1, "/dev/sda1 /dev/sdb1 /dev/sdc1", 3);
    make_array(1, 1, "/dev/sda2 /dev/sdb2", 2);
    make_array(2, 1, "/dev/sda3 /dev/sdb3", 2);
    make_array(3, 1, "/dev/sdd3 missing", 2);

    KEMORAIDDISK a {};
    EXPECT_EQ(disk_status(0, &a), static_cast<uint32_t>(KEMO_DISK_NORMAL));
    EXPECT_EQ(a.dataVolumeMask, 1u);
    EXPECT_EQ(disk_status(1), static_cast<uint32_t>(KEMO_DISK_NORMAL));
    EXPECT_EQ(disk_status(2), static_cast<uint32_t>(KEMO_DISK_SYSTEM_PARTIAL)) << "in md0 only";
    KEMORAIDDISK d {};
    EXPECT_EQ(disk_status(3, &d), static_cast<uint32_t>(KEMO_DISK_SYSTEM_MISSING)) << "data member only";
    EXPECT_EQ(d.dataVolumeMask, 2u);
    EXPECT_EQ(KEMORaidDiskUnused(), 0);
    int sys = -1, data = -1;
    uint32_t volumes = 0x10;
    ASSERT_EQ(KEMORAIDStatusGetSYS(&sys, 2), 0);
    EXPECT_EQ(sys, 2);
    ASSERT_EQ(KEMORAIDStatusGetDATA(&data, &volumes, 3), 0);
    EXPECT_EQ(data, 0);
    EXPECT_EQ(volumes, 0x12u) << "the volume's bit is ORed in";
    ASSERT_EQ(KEMORAIDStatusGetDATA(&data, &volumes, 2), 0);
    EXPECT_EQ(data, 1) << "in no data array";

    // Members as the md driver lists them: active and in sync, faulty, and
    // in sync without being active (which no array reports).
    const KEMORAIDMEMBER members[] = {{8, 3, 2 | 4}, {8, 19, 1}};
    KEMORAIDVOL masks {};
    ASSERT_EQ(DecideRAIDDiskStatus(2, members, 2, &masks), 0);
    EXPECT_EQ(masks.memberMask, 3u);
    EXPECT_EQ(masks.activeMask, 1u);
    EXPECT_EQ(masks.faultyMask, 2u);
    EXPECT_EQ(masks.activeDisks, 1);
    const KEMORAIDMEMBER odd[] = {{8, 3, 4}};
    EXPECT_NE(DecideRAIDDiskStatus(2, odd, 1, &masks), 0);
    const KEMORAIDMEMBER stranger[] = {{7, 0, 2}};
    EXPECT_NE(DecideRAIDDiskStatus(2, stranger, 1, &masks), 0) << "a member on no internal disk";

    KEMORAIDVOL vol {};
    ASSERT_EQ(KEMORaidVolStatus(2, &vol), 0);
    EXPECT_EQ(vol.mdId, 2);
    EXPECT_EQ(vol.level, 1);
    EXPECT_EQ(vol.designDisks, 2);
    EXPECT_EQ(vol.activeDisks, 2);
    EXPECT_EQ(vol.memberMask, 3u);
    EXPECT_EQ(vol.activeMask, 3u);
    EXPECT_EQ(vol.faultyMask, 0u);
    EXPECT_EQ(vol.volStatus, 0);
    EXPECT_STREQ(vol.device, "/dev/md2");
    EXPECT_EQ(vol.mounted, 0);
    EXPECT_EQ(std::to_string(vol.totalBytes / 512), read_text("/sys/block/md2/size"));
    const std::string detail = collapse_blanks(output_of("mdadm --detail /dev/md2"));
    EXPECT_NE(detail.find("Used Dev Size : " + std::to_string(vol.componentKiB) + " "), std::string::npos) << detail;
    int64_t kib = 0;
    ASSERT_EQ(KEMORaidComponentSize(2, &kib), 0);
    EXPECT_EQ(kib, vol.componentKiB);

    // A member failed with mdadm.
    ASSERT_EQ(sh("mdadm /dev/md2 --fail /dev/sdb3 >/dev/null 2>&1"), 0);
    EXPECT_EQ(disk_status(1), static_cast<uint32_t>(KEMO_DISK_DATA_FAULTY));
    vol = {};
    ASSERT_EQ(KEMORaidVolStatus(2, &vol), 0);
    EXPECT_EQ(vol.volStatus, 1) << "degraded";
    EXPECT_EQ(vol.faultyMask, 2u);
    EXPECT_EQ(vol.activeMask, 1u);
    EXPECT_EQ(vol.activeDisks, 1);
    const std::string failed = collapse_blanks(output_of("mdadm --detail /dev/md2"));
    EXPECT_NE(failed.find("State : clean, degraded"), std::string::npos) << failed;
    EXPECT_NE(failed.find("Active Devices : 1"), std::string::npos) << failed;
    EXPECT_NE(failed.find("Failed Devices : 1"), std::string::npos) << failed;
    EXPECT_NE(read_text("/proc/mdstat").find("[2/1] [U_]"), std::string::npos) << read_text("/proc/mdstat");

    vol = {};
    ASSERT_EQ(KEMORaidVolStatus(3, &vol), 0);
    EXPECT_EQ(vol.volStatus, 1) << "a two-way mirror made with one member missing";
    EXPECT_EQ(vol.memberMask, 8u);

    // An array that is not running.
    EXPECT_NE(KEMORaidVolStatus(4, &vol), 0);
    EXPECT_EQ(KEMORaidGetErr(), static_cast<uint32_t>(KEMO_RAID_ERR_INACTIVE));
    EXPECT_NE(KEMORaidComponentSize(5, &kib), 0);
    EXPECT_EQ(KEMORaidGetErr(), static_cast<uint32_t>(KEMO_RAID_ERR_INACTIVE));

    // Partitions by device numbers and array kind.
    EXPECT_EQ(KEMORaidDiskIDGet(0, 8, 1), 1);
    EXPECT_EQ(KEMORaidDiskIDGet(1, 8, 2), 1);
    EXPECT_EQ(KEMORaidDiskIDGet(4, 8, 19), 2) << "kinds 2-5 look at the data partitions";
    EXPECT_EQ(KEMORaidDiskIDGet(1, 8, 3), -1) << "sda3 is not a swap partition";
    EXPECT_EQ(KEMORaidDiskIDGet(2, 8, 51), 4);
}

TEST_F(Disks, StatusOfFourDisksStartsNoProcess)
{
    for (int disk = 0; disk < 2; ++disk)
        ASSERT_EQ(KEMORaidDiskInit(disk, KEMO_RAID_DISK_INIT_ALL), 0);
    make_array(2, 1, "/dev/sda3 /dev/sdb3", 2);
    const long long before = processes_started();
    for (int disk = 0; disk < 4; ++disk)
        disk_status(disk);
    const long long after = processes_started();
    EXPECT_EQ(after - before, 0) << "the slot count is read in the process";
    const long long query_before = processes_started();
    EXPECT_EQ(KEMOMaxDiskGet(), 4);
    std::printf("processes started: four disk statuses %lld, one KEMOMaxDiskGet %lld\n", after - before,
                processes_started() - query_before);
}

} // namespace

int main(int argc, char **argv)
{
    kemo_guest_only(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s DISK_BYTES MODEL0 MODEL1 MODEL2 MODEL3\n", argv[0]);
        return 2;
    }
    g_disk_bytes = std::strtoull(argv[1], nullptr, 10);
    g_models.assign(argv + 2, argv + 6);
    return RUN_ALL_TESTS();
}
