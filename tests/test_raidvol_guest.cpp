// The array layer on real disks, in the virtual appliance: the md driver,
// mdadm and util-linux as peers.  What the library reports is compared with
// what mdadm, /proc/mdstat and sysfs say; what it does is checked with
// them.  Every case starts from blank disks and no arrays, with resync and
// rebuild parked (about 1 MB/s) unless a case lets them run.
#include "guest_only.hpp"
#include "guest_util.hpp"
#include "kemo.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace {

using kemo_guest::LogCapture;
using kemo_guest::read_text;
using kemo_guest::sh;
using kemo_guest::write_text;

const char *const kDisks[] = {"/dev/sda", "/dev/sdb", "/dev/sdc", "/dev/sdd"};

// A command's output with runs of blanks collapsed, so that mdadm's column
// layout does not matter.
std::string output_of(const std::string &command)
{
    std::string collapsed;
    for (const char c : kemo_guest::output_of(command))
        if (c != ' ' || (!collapsed.empty() && collapsed.back() != ' '))
            collapsed.push_back(c);
    return collapsed;
}

std::string md_sys(int md, const std::string &attribute)
{
    return read_text("/sys/block/md" + std::to_string(md) + "/md/" + attribute);
}

// Resync and rebuild at a crawl, or at full speed.
void park_sync(bool parked)
{
    write_text("/proc/sys/dev/raid/speed_limit_min", parked ? "1" : "100000");
    write_text("/proc/sys/dev/raid/speed_limit_max", parked ? "1" : "200000");
}

void zero_sectors(const char *disk, uint64_t first, uint64_t count)
{
    const std::string zeros(count * 512, '\0');
    const int fd = ::open(disk, O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0) << disk;
    ASSERT_EQ(::pwrite(fd, zeros.data(), zeros.size(), static_cast<off_t>(first * 512)),
              static_cast<ssize_t>(zeros.size()));
    ::fsync(fd);
    ::close(fd);
}

void blank_disks()
{
    ::umount2("/mnt/a-mount-directory-longer-than-fifteen", MNT_DETACH);
    for (int md = 0; md <= 5; ++md)
        sh("mdadm --stop /dev/md" + std::to_string(md) + " >/dev/null 2>&1");
    for (const char *disk : kDisks) {
        for (uint64_t at : {0ull, 63ull, 1574370ull, 2634660ull})
            zero_sectors(disk, at, 8192);
        sh(std::string("blockdev --rereadpt ") + disk + " >/dev/null 2>&1");
    }
    for (int md = 0; md <= 5; ++md) {
        const std::string node = "/dev/md" + std::to_string(md);
        ::mknod(node.c_str(), S_IFBLK | 0600, ::makedev(9, md));
    }
    sh("rm -f /tmp/volume.*");
}

// Arrays as an administrator makes them with mdadm: no resync, and members
// of kib when given (a small array rebuilds in a moment).
void make_array(int md, int level, const std::string &members, int count, int kib = 0)
{
    kemo_guest::make_array(md, level, members, count, kib > 0 ? "--size=" + std::to_string(kib) : "");
}

KEMORAIDVOL status_of(int md)
{
    KEMORAIDVOL vol {};
    EXPECT_EQ(KEMORaidVolStatus(md, &vol), 0) << "md" << md << ", error " << KEMORaidGetErr();
    return vol;
}

// The library's status of md agrees with mdadm --detail, /proc/mdstat and
// the md driver's sysfs attributes, and is the one expected.
void expect_agrees(int md, int want)
{
    SCOPED_TRACE("md" + std::to_string(md));
    const KEMORAIDVOL vol = status_of(md);
    EXPECT_EQ(vol.volStatus, want);
    EXPECT_EQ("raid" + std::to_string(vol.level), md_sys(md, "level"));
    EXPECT_EQ(std::to_string(vol.designDisks), md_sys(md, "raid_disks"));
    const std::string detail = output_of("mdadm --detail /dev/md" + std::to_string(md));
    EXPECT_NE(detail.find("Raid Devices : " + std::to_string(vol.designDisks) + "\n"), std::string::npos) << detail;
    const std::string state = detail.substr(detail.find("State :"), detail.find('\n', detail.find("State :")) -
                                                                         detail.find("State :"));
    const std::string array_state = md_sys(md, "array_state");
    if (vol.level == 0) {
        EXPECT_EQ(want == 2, array_state == "broken") << array_state;
        EXPECT_EQ(want == 2, state.find("broken") != std::string::npos) << state;
        return;
    }
    EXPECT_NE(array_state, "broken");
    EXPECT_EQ(vol.volStatus != 0, md_sys(md, "degraded") != "0") << "degraded " << md_sys(md, "degraded");
    EXPECT_EQ(want == 1, state.find("degraded") != std::string::npos) << state;
    EXPECT_EQ(want == 2, state.find("FAILED") != std::string::npos) << state;
    // "[design/working]" in /proc/mdstat.
    const std::string mdstat = read_text("/proc/mdstat");
    const std::string name = "md" + std::to_string(md) + " :";
    const std::string block = mdstat.substr(mdstat.find(name), mdstat.find("\n\n", mdstat.find(name)) -
                                                                   mdstat.find(name));
    const int in_sync = std::stoi(md_sys(md, "raid_disks")) - std::stoi(md_sys(md, "degraded"));
    EXPECT_NE(block.find("[" + std::to_string(vol.designDisks) + "/" + std::to_string(in_sync) + "]"),
              std::string::npos)
        << block;
    if (want == 0 && vol.rebuildState == 0) {
        EXPECT_EQ(vol.activeDisks, in_sync);
    }
}

// Waits until md has no sync running (at most seconds).
bool wait_idle(int md, int seconds)
{
    for (int i = 0; i < seconds * 10; ++i) {
        if (md_sys(md, "sync_action") == "idle")
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

bool has_superblock(const std::string &partition)
{
    return sh("mdadm --examine " + partition + " >/dev/null 2>&1") == 0;
}

class Arrays : public ::testing::Test {
protected:
    void SetUp() override
    {
        park_sync(true);
        blank_disks();
        KEMORaidISetErr(0);
        KEMORaidIDiskSetErr(0);
    }
    static void lay_out(int disks)
    {
        for (int disk = 0; disk < disks; ++disk)
            ASSERT_EQ(KEMORaidDiskInit(disk, KEMO_RAID_DISK_INIT_ALL), 0) << "disk " << disk;
    }
};

TEST_F(Arrays, StatusAgreesWithMdadmAndTheDriver)
{
    lay_out(4);
    make_array(2, 5, "/dev/sda3 /dev/sdb3 /dev/sdc3", 3, 65536);
    int md = -1;
    ASSERT_EQ(KEMORaidVolCreate(1 << 3, 1, 2, &md), 0) << "error " << KEMORaidGetErr();
    ASSERT_EQ(md, 3);
    expect_agrees(2, 0);
    const KEMORAIDVOL normal = status_of(2);
    EXPECT_EQ(normal.memberMask, 7u);
    EXPECT_EQ(normal.activeMask, 7u);
    EXPECT_EQ(normal.activeDisks, 3);
    EXPECT_EQ(normal.rebuildState, 0u);
    EXPECT_EQ(normal.componentKiB, 65536);
    expect_agrees(3, 1);
    EXPECT_EQ(status_of(3).memberMask, 8u) << "a mirror made with one member missing";

    ASSERT_EQ(sh("mdadm /dev/md2 --fail /dev/sdb3 >/dev/null 2>&1"), 0);
    expect_agrees(2, 1);
    EXPECT_EQ(status_of(2).faultyMask, 2u);
    sh("mdadm /dev/md2 --fail /dev/sdc3 >/dev/null 2>&1"); // the driver reports EBUSY but fails it
    expect_agrees(2, 2);
    EXPECT_EQ(status_of(2).activeMask, 1u);

    // RAID 0 that lost a member: the driver lists both members as active
    // and calls the array broken.
    ASSERT_EQ(sh("mdadm --stop /dev/md2 >/dev/null 2>&1"), 0);
    ASSERT_EQ(sh("mdadm --zero-superblock /dev/sda3 /dev/sdb3 /dev/sdc3"), 0);
    make_array(4, 0, "/dev/sda3 /dev/sdb3", 2);
    expect_agrees(4, 0);
    sh("mdadm /dev/md4 --fail /dev/sdb3 >/dev/null 2>&1");
    expect_agrees(4, 2);
}

TEST_F(Arrays, RebuildIsReportedAsItRunsAndEnds)
{
    lay_out(2);
    make_array(2, 1, "/dev/sda3 /dev/sdb3", 2, 32768);
    ASSERT_EQ(KEMORaidVolDiskRemove(2, 1, 0), 0) << "error " << KEMORaidGetErr();
    EXPECT_NE(::access("/sys/block/md2/md/dev-sdb3", F_OK), 0) << "the member is still in the array";
    expect_agrees(2, 1);
    EXPECT_EQ(status_of(2).memberMask, 1u);
    EXPECT_EQ(output_of("mdadm --detail /dev/md2").find("/dev/sdb3"), std::string::npos);

    // The disk is wiped and laid out again, as a replacement would be.
    ASSERT_EQ(KEMORaidDiskClean(1, KEMO_RAID_DISK_INIT_DATA), 0) << "error " << KEMORaidDiskGetErr();
    ASSERT_EQ(KEMORaidDiskInit(1, KEMO_RAID_DISK_INIT_DATA), 0);
    EXPECT_FALSE(has_superblock("/dev/sdb3"));
    ASSERT_EQ(KEMORaidVolDiskAdd(2, 1), 0) << "error " << KEMORaidGetErr();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    ASSERT_EQ(md_sys(2, "sync_action"), "recover");
    KEMORAIDVOL vol = status_of(2);
    EXPECT_EQ(vol.rebuildState, 1u);
    EXPECT_GE(vol.rebuildProgress, 0.0f);
    EXPECT_LT(vol.rebuildProgress, 100.0f);
    EXPECT_EQ(vol.memberMask, 3u);
    EXPECT_EQ(vol.volStatus, 1) << "a member being rebuilt leaves the array degraded";
    EXPECT_EQ(md_sys(2, "degraded"), "1");
    EXPECT_NE(read_text("/proc/mdstat").find("recovery ="), std::string::npos);
    EXPECT_EQ(KEMORaidSystemRebuilding(), 0) << "no system array";

    park_sync(false);
    ASSERT_TRUE(wait_idle(2, 60)) << read_text("/proc/mdstat");
    park_sync(true);
    vol = status_of(2);
    EXPECT_EQ(vol.rebuildState, 0u);
    EXPECT_EQ(vol.rebuildProgress, 0.0f);
    expect_agrees(2, 0);
    EXPECT_EQ(vol.activeMask, 3u);

    // What is not a member cannot be removed; a part of another kind is
    // refused before mdadm runs.
    EXPECT_EQ(KEMORaidVolDiskRemove(2, 2, 0), 1);
    EXPECT_EQ(KEMORaidGetErr(), static_cast<uint32_t>(KEMO_RAID_ERR_COMMAND));
    EXPECT_EQ(KEMORaidDevDiskRemove(2, 1, 0, 0), 1);
    EXPECT_EQ(KEMORaidGetErr(), static_cast<uint32_t>(KEMO_RAID_ERR_PARAM));
    expect_agrees(2, 0);
}

TEST_F(Arrays, CreationFillsMissingMembersAndTakesFreeNumbers)
{
    lay_out(4);
    uint32_t mask = 9;
    int first = 9, count = 9;
    ASSERT_EQ(KEMORaidDevEnum(&mask, &first, &count), 0);
    EXPECT_EQ(mask, 0u);
    EXPECT_EQ(count, 0);
    int md = -1;
    ASSERT_EQ(KEMORaidVolFindUnusedID(&md), 0);
    EXPECT_EQ(md, 0);

    ASSERT_EQ(KEMORaidVolCreate(0x3, 5, 3, &md), 0) << "error " << KEMORaidGetErr();
    EXPECT_EQ(md, 2) << "data arrays start at md2";
    std::string detail = output_of("mdadm --detail /dev/md2");
    EXPECT_NE(detail.find("Raid Level : raid5"), std::string::npos) << detail;
    EXPECT_NE(detail.find("Raid Devices : 3"), std::string::npos) << detail;
    EXPECT_NE(detail.find("Total Devices : 2"), std::string::npos) << detail;
    EXPECT_NE(detail.find("removed"), std::string::npos) << detail;
    expect_agrees(2, 1);

    ASSERT_EQ(KEMORaidVolCreate(0x4, 1, 1, &md), 0) << "a single member with -f";
    EXPECT_EQ(md, 3);
    EXPECT_EQ(md_sys(3, "raid_disks"), "1");
    expect_agrees(3, 0);
    make_array(5, 1, "/dev/sdd3", 1);
    ASSERT_EQ(KEMORaidDevEnum(&mask, &first, &count), 0);
    EXPECT_EQ(mask, 0xBu) << "md2, md3 and md5";
    EXPECT_EQ(first, 0);
    EXPECT_EQ(count, 3);
    ASSERT_EQ(KEMORaidDevEnum(nullptr, nullptr, &count), 0);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(KEMORaidDevEnum(nullptr, nullptr, nullptr), 1);
    ASSERT_EQ(KEMORaidVolFindUnusedID(&md), 0);
    EXPECT_EQ(md, 0);
    int arrays = 0;
    ASSERT_EQ(KEMORaidVolCount(&arrays), 0);
    EXPECT_EQ(arrays, 3);

    // A partition that another array holds: mdadm refuses, the error is
    // left, and nothing running is stopped.
    LogCapture log;
    EXPECT_EQ(KEMORaidVolCreate(0x1, 1, 2, &md), 1);
    EXPECT_EQ(KEMORaidGetErr(), static_cast<uint32_t>(KEMO_RAID_ERR_COMMAND));
    EXPECT_NE(log.text().find("Failed to execute cmd : mdadm -C /dev/md4 -amd -R -l1  -n2 /dev/sda3 missing"),
              std::string::npos)
        << log.text();
    EXPECT_EQ(md_sys(2, "array_state"), "clean");
    EXPECT_EQ(status_of(2).memberMask, 3u);
    // Refused before mdadm runs: RAID 0 with a member missing, too many
    // members, a slot the model does not have.
    EXPECT_EQ(KEMORaidVolCreate(0x1, 0, 2, &md), 1);
    EXPECT_EQ(KEMORaidGetErr(), static_cast<uint32_t>(KEMO_RAID_ERR_PARAM));
    EXPECT_EQ(KEMORaidVolCreate(0x3, 1, 5, &md), 1);
    EXPECT_EQ(KEMORaidVolCreate(0x10, 1, 1, &md), 1);
    EXPECT_EQ(KEMORaidDevCreate(0x1, 3, 1, 1, &md), 1);
}

TEST_F(Arrays, DestroyClearsOnlyItsOwnMembers)
{
    lay_out(4);
    make_array(2, 1, "/dev/sda3 /dev/sdb3", 2, 32768);
    make_array(3, 1, "/dev/sdc3 /dev/sdd3", 2, 32768);
    ASSERT_EQ(sh("mdadm /dev/md2 --fail /dev/sdb3 >/dev/null 2>&1"), 0);
    ASSERT_EQ(sh("/usr/sbin/mke2fs -q -F /dev/md2 >/dev/null 2>&1"), 0);
    ::mkdir("/mnt", 0755);
    ::mkdir("/mnt/a-mount-directory-longer-than-fifteen", 0755);
    ASSERT_EQ(::mount("/dev/md2", "/mnt/a-mount-directory-longer-than-fifteen", "ext2", 0, nullptr), 0)
        << std::strerror(errno);
    const KEMORAIDVOL vol = status_of(2);
    EXPECT_EQ(vol.mounted, 1);
    EXPECT_STREQ(vol.mountPoint, "/mnt/a-mount-di");

    ASSERT_EQ(KEMORaidVolDestroy(2), 0) << "error " << KEMORaidGetErr();
    EXPECT_EQ(read_text("/proc/mounts").find("/dev/md2"), std::string::npos);
    EXPECT_EQ(read_text("/proc/mdstat").find("md2 :"), std::string::npos);
    EXPECT_FALSE(has_superblock("/dev/sda3"));
    EXPECT_FALSE(has_superblock("/dev/sdb3")) << "the faulty member is cleared too";
    EXPECT_EQ(md_sys(3, "array_state"), "clean") << "the other array runs on";
    EXPECT_TRUE(has_superblock("/dev/sdc3"));
    EXPECT_TRUE(has_superblock("/dev/sdd3"));

    EXPECT_EQ(KEMORaidVolDestroy(2), 1) << "an array that is not running";
    EXPECT_EQ(KEMORaidGetErr(), static_cast<uint32_t>(KEMO_RAID_ERR_PARAM));
    EXPECT_EQ(md_sys(3, "array_state"), "clean");
}

TEST_F(Arrays, GrowingTheMemberCountAndTheMemberSize)
{
    lay_out(4);
    make_array(2, 1, "/dev/sda3 /dev/sdb3", 2, 65536);

    // A third mirror: added as a spare, then made a member, and rebuilt.
    ASSERT_EQ(KEMORaidVolDiskAdd(2, 2), 0) << "error " << KEMORaidGetErr();
    ASSERT_EQ(KEMORaidVolDiskCountChange(2, 3), 0) << "error " << KEMORaidGetErr();
    EXPECT_EQ(md_sys(2, "raid_disks"), "3");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const KEMORAIDVOL three = status_of(2);
    EXPECT_EQ(three.designDisks, 3);
    EXPECT_EQ(three.memberMask, 7u);
    EXPECT_EQ(three.volStatus, 1) << "the new mirror is being rebuilt";
    LogCapture log;
    EXPECT_EQ(KEMORaidVolDiskCountChange(2, 1), 1) << "not while it rebuilds, nor below the mirrors in use";
    EXPECT_EQ(KEMORaidGetErr(), static_cast<uint32_t>(KEMO_RAID_ERR_COMMAND));
    EXPECT_NE(log.text().find("mdadm failed to grow volume 1, disk count=1, errno="), std::string::npos)
        << log.text();
    park_sync(false);
    ASSERT_TRUE(wait_idle(2, 60)) << read_text("/proc/mdstat");
    park_sync(true);
    expect_agrees(2, 0);

    // The largest member: the partition less the data offset mdadm chose
    // (the superblock sits before the data).
    uint32_t part = 0;
    ASSERT_EQ(KEMOLnxDiskSize(0, 2, &part), 0);
    const uint64_t offset = std::stoull(md_sys(2, "dev-sda3/offset"));
    const uint64_t room = (part - offset) / 2;
    uint64_t kib = 0;
    EXPECT_EQ(KEMORaidVolExpansible(2, &kib), 1);
    EXPECT_EQ(kib, room);
    ASSERT_EQ(KEMORaidVolExpand(2), 0) << "error " << KEMORaidGetErr();
    EXPECT_EQ(md_sys(2, "component_size"), std::to_string(room));
    EXPECT_NE(output_of("mdadm --detail /dev/md2").find("Used Dev Size : " + std::to_string(room) + " "),
              std::string::npos);
    EXPECT_EQ(status_of(2).componentKiB, static_cast<int64_t>(room));
    EXPECT_EQ(KEMORaidVolExpansible(2, &kib), 0) << "grown as far as it goes";
    EXPECT_EQ(KEMORaidVolExpand(2), 1);
    EXPECT_NE(log.text().find("Volume 2 is not expansible"), std::string::npos) << log.text();

    // RAID 5 grows by whole chunks.
    ASSERT_EQ(sh("mdadm --stop /dev/md2 >/dev/null 2>&1"), 0);
    ASSERT_EQ(sh("mdadm --zero-superblock /dev/sda3 /dev/sdb3 /dev/sdc3"), 0);
    make_array(2, 5, "/dev/sda3 /dev/sdb3 /dev/sdc3", 3, 65536);
    const uint64_t chunk = std::stoull(md_sys(2, "chunk_size")) / 1024;
    EXPECT_EQ(KEMORaidVolExpansible(2, &kib), 1);
    const uint64_t room5 = (part - std::stoull(md_sys(2, "dev-sda3/offset"))) / 2;
    EXPECT_EQ(kib, room5 / chunk * chunk);
    EXPECT_NE(room5 % chunk, 0u) << "the rounding is not tested";
    ASSERT_EQ(KEMORaidVolExpand(2), 0) << "error " << KEMORaidGetErr();
    EXPECT_EQ(md_sys(2, "component_size"), std::to_string(kib));
    EXPECT_EQ(KEMORaidVolExpansible(2, &kib), 0);

    // Growing needs redundancy to grow.
    make_array(3, 0, "/dev/sdd3", 1);
    EXPECT_EQ(KEMORaidVolExpansible(3, &kib), -1);
    EXPECT_EQ(KEMORaidGetErr(), static_cast<uint32_t>(KEMO_RAID_ERR_NO_ID));
}

TEST_F(Arrays, SystemInitialisationOnBlankDisks)
{
    EXPECT_EQ(KEMORaidSystemRebuilding(), 0) << "no system arrays";
    ASSERT_EQ(KEMORaidSystemInit(), 0) << "error " << KEMORaidGetErr() << "/" << KEMORaidDiskGetErr();
    for (int md : {0, 1}) {
        SCOPED_TRACE("md" + std::to_string(md));
        EXPECT_EQ(md_sys(md, "level"), "raid1");
        EXPECT_EQ(md_sys(md, "raid_disks"), "4");
        const KEMORAIDVOL vol = status_of(md);
        EXPECT_EQ(vol.memberMask, 0xFu);
        for (const char *disk : kDisks)
            EXPECT_EQ(::access(("/sys/block/md" + std::to_string(md) + "/md/dev-" + (disk + 5) +
                                std::to_string(md + 1))
                                   .c_str(),
                               F_OK),
                      0);
        EXPECT_NE(vol.rebuildState, 0u) << "the first sync is running or waiting";
    }
    EXPECT_EQ(KEMORaidSystemRebuilding(), 1);
    int arrays = 0;
    ASSERT_EQ(KEMORaidVolCount(&arrays), 0);
    EXPECT_EQ(arrays, 2);
    uint32_t part = 0;
    EXPECT_EQ(KEMOLnxDiskSize(3, 0, &part), 0);
    EXPECT_EQ(part, KEMO_RAID_DISK_SYS_SECTORS);

    // The system arrays exist: a second initialisation cannot wipe their
    // partitions, and a system partition goes only into md0.
    EXPECT_EQ(KEMORaidSystemInit(), 1);
    EXPECT_EQ(md_sys(0, "raid_disks"), "4");
    EXPECT_EQ(KEMORaidDevDiskAdd(2, 0, 0), 1);
    EXPECT_EQ(KEMORaidGetErr(), static_cast<uint32_t>(KEMO_RAID_ERR_PARAM));
}

} // namespace

KEMO_GUEST_ONLY_MAIN()
