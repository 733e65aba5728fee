// The volume layer on real arrays, in the virtual appliance: file systems
// on md arrays beside df, findmnt, e2fsck and mdadm.  The four disks are
// laid out once by the disk layer; every case starts with no arrays.  The
// last case pulls two disks out of the machine, so it stays last.
#include "guest_only.hpp"
#include "guest_util.hpp"
#include "kemo.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using kemo_guest::make_array;
using kemo_guest::sh;

// A command's output without its final line breaks.
std::string output_of(const std::string &command)
{
    std::string out = kemo_guest::output_of(command);
    while (!out.empty() && out.back() == '\n')
        out.pop_back();
    return out;
}

// "SOURCE TARGET OPTIONS" of a mount point as findmnt shows it, or "".
std::string findmnt(const std::string &dir)
{
    return output_of("/usr/bin/findmnt -rn -o SOURCE,TARGET,OPTIONS --mountpoint " + dir + " 2>/dev/null");
}

bool mounted_ro(const std::string &dir)
{
    const std::string line = findmnt(dir);
    return line.find(" ro,") != std::string::npos || line.ends_with(" ro");
}

// Size and available bytes of a mount as df counts them.
std::pair<uint64_t, uint64_t> df(const std::string &dir)
{
    std::istringstream in(output_of("/usr/bin/df -B1 --output=size,avail " + dir + " | tail -n 1"));
    uint64_t size = 0, avail = 0;
    in >> size >> avail;
    return {size, avail};
}

// A small ext2 file system made directly (quick under emulation), with a
// directory "public", mounted (then remounted with options).
void make_volume(int md, int id, const std::string &options = "")
{
    const std::string dev = "/dev/md" + std::to_string(md), dir = "/volume" + std::to_string(id);
    ASSERT_EQ(sh("/usr/sbin/mke2fs -q -F -N 2048 " + dev + " >/dev/null 2>&1"), 0) << dev;
    ::mkdir(dir.c_str(), 0777);
    ASSERT_EQ(sh("mount " + dev + " " + dir + " && mkdir " + dir + "/public"), 0) << dev;
    if (!options.empty()) {
        ASSERT_EQ(sh("mount -o remount," + options + " " + dir), 0) << dev;
    }
}

class Volumes : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        for (int md = 0; md <= 5; ++md) {
            const std::string node = "/dev/md" + std::to_string(md);
            ::mknod(node.c_str(), S_IFBLK | 0600, ::makedev(9, md));
        }
        for (int disk = 0; disk < 4; ++disk)
            ASSERT_EQ(KEMORaidDiskInit(disk, KEMO_RAID_DISK_INIT_ALL), 0) << "disk " << disk;
        // Nothing here is about resync: it never competes with the tests.
        sh("echo 1000 > /proc/sys/dev/raid/speed_limit_min; echo 1000 > /proc/sys/dev/raid/speed_limit_max");
    }
    void SetUp() override
    {
        for (int id = 1; id <= 4; ++id)
            sh("umount /volume" + std::to_string(id) + " >/dev/null 2>&1");
        for (int md = 2; md <= 5; ++md)
            sh("mdadm --stop /dev/md" + std::to_string(md) + " >/dev/null 2>&1");
        sh("for p in /dev/sd[a-d][123]; do mdadm --zero-superblock $p; done >/dev/null 2>&1");
        sh("rm -f /tmp/mkfs.progress.* /tmp/resize2fs.progress.* /tmp/raid_*.tmp");
        KEMOVolISetErr(0);
    }
};

TEST_F(Volumes, InformationAgreesWithDfAndFindmnt)
{
    make_array(3, 1, "/dev/sdc3 /dev/sdd3", 2);
    make_array(2, 1, "/dev/sda3 /dev/sdb3", 2);
    make_volume(3, 2, "ro");
    make_volume(2, 1);

    PKEMOVOLINFOLIST list = KEMOMountVolInfoGet(0);
    ASSERT_NE(list, nullptr) << std::hex << KLIBErrGet();
    const KEMOVOLINFO *v = list;
    for (const int id : {1, 2}) {
        ASSERT_NE(v, nullptr);
        const std::string dir = "/volume" + std::to_string(id);
        EXPECT_EQ(v->svi_id, id);
        EXPECT_EQ(v->svi_status, 1);
        const std::string line = findmnt(dir);
        EXPECT_EQ(line.substr(0, line.rfind(' ')), std::string(v->svi_device) + " " + v->svi_mount_point);
        EXPECT_EQ(v->svi_writeable, mounted_ro(dir) ? 0 : 1) << dir;
        const auto [size, avail] = df(dir);
        EXPECT_EQ(v->svi_total_bytes, size) << dir;
        EXPECT_EQ(v->svi_avail_bytes, avail) << dir;
        v = v->next;
    }
    EXPECT_EQ(v, nullptr);
    KEMOMountVolInfoFree(list);
    list = KEMOMountVolInfoGet(1);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->svi_id, 2) << "the first mounted";
    EXPECT_EQ(list->next, nullptr);
    KEMOMountVolInfoFree(list);

    int health = -1;
    const int want[] = {0, KEMO_VOL_WRITEABLE, KEMO_VOL_READONLY, KEMO_VOL_UNMOUNTED, KEMO_VOL_UNMOUNTED};
    for (int id = 1; id <= 4; ++id) {
        EXPECT_EQ(KEMOVolHealthCheck(id, &health), 0);
        EXPECT_EQ(health, want[id]) << "volume " << id;
    }
    KEMOVOLINFO info {};
    ASSERT_EQ(KEMOVolInfoGet(2, &info), 0);
    EXPECT_STREQ(info.svi_device, "/dev/md3");
    EXPECT_EQ(info.svi_writeable, 0);
    EXPECT_EQ(KEMOVolGetWriteableVolID(), 1);
    EXPECT_EQ(KEMOVolNoVolume(), 0);

    struct statfs st {};
    ASSERT_EQ(KEMOVolStatfs(0, &st), 0);
    EXPECT_EQ(static_cast<uint64_t>(st.f_blocks) * st.f_bsize, df("/volume1").first);
    EXPECT_EQ(KEMOVolStatfs(2, &st), -1);
    EXPECT_EQ(KEMOVolGetErr(), static_cast<uint32_t>(KEMO_VOL_ERR_NOT_MOUNTED));
    uint64_t sectors = 0;
    ASSERT_EQ(KEMOVolDevSize("/dev/md2", &sectors), 0);
    EXPECT_EQ(std::to_string(sectors) + "\n", kemo_guest::read_file("/sys/block/md2/size"));

    EXPECT_EQ(KEMOVolAllVolumeScan("/public"), 1);
    EXPECT_EQ(KEMOVolAllVolumeScan("/absent"), 0);

    ASSERT_EQ(sh("mount -o remount,ro /volume1"), 0);
    EXPECT_EQ(KEMOVolGetWriteableVolID(), 0);
    EXPECT_EQ(KEMOVolNoVolume(), 1);
    EXPECT_EQ(KEMOVolAllVolumeScan("/public"), 0) << "only writeable volumes count";
}

TEST_F(Volumes, CrashedArrayIsRemountedReadOnlyOnce)
{
    make_array(2, 1, "/dev/sda3 /dev/sdb3", 2);
    make_array(3, 1, "/dev/sdc3 /dev/sdd3", 2);
    make_volume(2, 1);
    make_volume(3, 2, "errors=remount-ro");
    EXPECT_EQ(KEMORemountCrashRaidRo("/dev/md2"), 0);
    EXPECT_TRUE(mounted_ro("/volume1")) << findmnt("/volume1");
    EXPECT_EQ(KEMORemountCrashRaidRo("/dev/md2"), -1) << "already read-only";
    EXPECT_EQ(KEMORemountCrashRaidRo("/dev/md3"), -1) << "goes read-only by itself";
    EXPECT_FALSE(mounted_ro("/volume2"));
    EXPECT_EQ(KEMORemountCrashRaidRo("/dev/md4"), -1) << "not mounted";
}

TEST_F(Volumes, SyncProgressFollowsTheArray)
{
    make_array(2, 1, "/dev/sda3 /dev/sdb3", 2);
    make_array(3, 5, "/dev/sdc3 /dev/sdd3 missing", 3);
    float percent = 0;
    ASSERT_EQ(MDSyncProgress(2, &percent), 0);
    EXPECT_FLOAT_EQ(percent, 100.0f);
    ASSERT_EQ(MDSyncProgress(3, &percent), 0);
    EXPECT_FLOAT_EQ(percent, -2.0f) << "degraded, nothing rebuilding";

    // A rebuild held at a crawl is seen running.
    ASSERT_EQ(sh("mdadm --stop /dev/md2 >/dev/null 2>&1 && mdadm --zero-superblock /dev/sda3"), 0);
    ASSERT_EQ(sh("mdadm /dev/md3 --add /dev/sda3 >/dev/null 2>&1"), 0);
    ::sleep(1);
    ASSERT_EQ(MDSyncProgress(3, &percent), 0);
    EXPECT_GE(percent, 0.0f);
    EXPECT_LT(percent, 100.0f);

    std::ofstream("/tmp/raid_add_init_volume.tmp") << "STEP=MDSYNC\nVOLUME=2\n";
    KEMOVOLINITSTATUS s {};
    ASSERT_EQ(VolInitStatusGet(&s), 0);
    EXPECT_EQ(s.step, KEMO_INIT_MDSYNC);
    EXPECT_EQ(s.diskPercent, 100);
    EXPECT_GE(s.syncPercent, 0.0f);
    EXPECT_LT(s.syncPercent, 100.0f);
    EXPECT_EQ(BlAddIsApplying(nullptr), 1);
}

TEST_F(Volumes, InitMakesAndMountsExt3WithProgress)
{
    make_array(2, 1, "/dev/sda3 /dev/sdb3", 2);
    std::ofstream("/tmp/raid_add_init_volume.tmp") << "STEP=VOLINIT\nVOLUME=1\n";
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(KEMOVolInit(0, 4, "/tmp/mkfs.progress") == 0 ? 0 : 10 + static_cast<int>(KEMOVolGetErr()));
    // Read the maker's progress while it works: it only goes up.
    std::vector<int> seen;
    int status = 0;
    while (::waitpid(child, &status, WNOHANG) == 0) {
        KEMOVOLINITSTATUS s {};
        if (VolInitStatusGet(&s) == 0 && s.fsPercent > 0)
            seen.push_back(s.fsPercent);
        ::usleep(200000);
    }
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0) << "error " << WEXITSTATUS(status) - 10;
    for (std::size_t i = 1; i < seen.size(); ++i)
        EXPECT_LE(seen[i - 1], seen[i]);
    EXPECT_EQ(KEMOVolFSInitStatusGet(0), 100);
    EXPECT_EQ(findmnt("/volume1").substr(0, 17), "/dev/md2 /volume1");
    EXPECT_EQ(output_of("/usr/sbin/blkid -o value -s TYPE /dev/md2"), "ext3");

    EXPECT_EQ(KEMOVolInit(0, 4, "/tmp/mkfs.progress"), -1);
    EXPECT_EQ(KEMOVolGetErr(), static_cast<uint32_t>(KEMO_VOL_ERR_MOUNTED));
    ASSERT_EQ(KEMOVolStop(0), 0);
    EXPECT_EQ(findmnt("/volume1"), "");
    EXPECT_EQ(sh("/usr/sbin/e2fsck -fn /dev/md2 >/dev/null 2>&1"), 0);
    EXPECT_EQ(KEMOVolStop(0), -1);
    EXPECT_EQ(KEMOVolGetErr(), static_cast<uint32_t>(KEMO_VOL_ERR_COMMAND));
}

TEST_F(Volumes, ExpandGrowsTheFileSystemIntoTheGrownArray)
{
    make_array(2, 1, "/dev/sda3 /dev/sdb3", 2, "--size=262144");
    make_volume(2, 1);
    EXPECT_EQ(KEMOVolExpansible("/dev/md2"), -1) << "fills its array";
    const uint64_t before = df("/volume1").first;
    ASSERT_EQ(sh("mdadm --grow /dev/md2 --size=max --assume-clean >/dev/null 2>&1"), 0);
    EXPECT_EQ(KEMOVolExpansible("/dev/md2"), 0);

    std::ofstream("/tmp/raid_expand_volume.tmp") << "STEP=START\n";
    EXPECT_EQ(BlExpandIsApplying(nullptr), 1);
    ASSERT_EQ(KEMOVolExpand("/dev/md2"), 0);
    int percent = -1;
    EXPECT_EQ(KEMOVolExpandProgress("md2", &percent), 0);
    EXPECT_EQ(percent, 100);
    std::ofstream("/tmp/raid_expand_volume.tmp") << "STEP=FINISH\n";
    EXPECT_EQ(BlExpandIsApplying(nullptr), 0);

    uint64_t sectors = 0;
    ASSERT_EQ(KEMOVolDevSize("/dev/md2", &sectors), 0);
    const uint64_t after = df("/volume1").first;
    EXPECT_GT(after, before + before / 2);
    EXPECT_LE(after, sectors * 512);
    EXPECT_EQ(KEMOVolExpansible("/dev/md2"), -1);
    ASSERT_EQ(sh("umount /volume1"), 0);
    EXPECT_EQ(sh("/usr/sbin/e2fsck -fn /dev/md2 >/dev/null 2>&1"), 0);
}

TEST_F(Volumes, StaleScanLeavesHealthyAndDegradedArraysAlone)
{
    make_array(2, 1, "/dev/sda3 /dev/sdb3", 2);
    make_array(3, 5, "/dev/sdc3 /dev/sdd3 /dev/sda2 missing", 4);
    make_volume(2, 1);
    make_volume(3, 2);
    EXPECT_EQ(KEMOVolRemoveStaleVolumes(), 0);
    EXPECT_FALSE(mounted_ro("/volume1"));
    EXPECT_FALSE(mounted_ro("/volume2"));
    EXPECT_NE(findmnt("/volume2"), "");
}

// Last: the disks pulled here do not come back.
TEST_F(Volumes, StaleScanAfterTwoDisksWentAway)
{
    make_array(2, 5, "/dev/sda3 /dev/sdb3 /dev/sdc3 /dev/sdd3", 4);
    make_array(3, 1, "/dev/sdc2 /dev/sdd2", 2);
    make_array(4, 1, "/dev/sda2 /dev/sdb2", 2);
    make_volume(2, 1);
    make_volume(3, 2);
    make_volume(4, 3);
    std::ofstream("/usr/kemo/etc/smb.conf", std::ios::app) << "[gone]\n\tpath=/volume2/gone\n";
    sh("sync");
    ASSERT_EQ(sh("echo 1 > /sys/block/sdc/device/delete && echo 1 > /sys/block/sdd/device/delete"), 0);

    EXPECT_EQ(KEMOVolRemoveStaleVolumes(), 1);
    EXPECT_TRUE(mounted_ro("/volume1")) << "RAID 5 without two of four members: " << findmnt("/volume1");
    int health = -1;
    EXPECT_EQ(KEMOVolHealthCheck(1, &health), 0);
    EXPECT_EQ(health, KEMO_VOL_READONLY);
    EXPECT_EQ(findmnt("/volume2"), "") << "an array with no member left";
    EXPECT_FALSE(mounted_ro("/volume3"));
    const std::string shares = kemo_guest::read_file("/usr/kemo/etc/smb.conf");
    EXPECT_EQ(shares.find("[gone]"), std::string::npos);
    EXPECT_NE(shares.find("[photo]"), std::string::npos) << "shares of other volumes stay";
}

} // namespace

KEMO_GUEST_ONLY_MAIN()
