// The disk and array layers' pure decisions and their refusals, on the
// machine itself (inside the appliance sandbox): size arithmetic, the status
// mapping, the volume verdict, and arguments refused before anything runs.
// What needs real disks and the md driver runs in the virtual appliance
// (test_raiddisk_guest.cpp).
#include "kemo.h"
#include "sandbox_fixture.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace {

class Raid : public SandboxTest {};

TEST_F(Raid, NameTablesCoverFourDisksAndRefuseTheRest)
{
    EXPECT_STREQ(KEMORaidIDiskName(0), "/dev/sda");
    EXPECT_STREQ(KEMORaidIDiskName(3), "/dev/sdd");
    EXPECT_STREQ(KEMORaidIPartName(1, 2), "/dev/sdb3");
    EXPECT_STREQ(KEMORaidIPartName(3, 3), "/dev/sdd4");
    EXPECT_STREQ(KEMORaidIDiskProc(2), "/sys/block/sdc");
    EXPECT_EQ(KEMORaidIDiskName(4), nullptr);
    EXPECT_EQ(KEMORaidIDiskName(-1), nullptr);
    EXPECT_EQ(KEMORaidIPartName(0, 4), nullptr);
    EXPECT_EQ(KEMORaidIPartName(-1, 0), nullptr);
    EXPECT_EQ(KEMORaidIDiskProc(7), nullptr);
    EXPECT_EQ(KEMORaidIDiskNumValid(3), 1);
    EXPECT_EQ(KEMORaidIDiskNumValid(static_cast<unsigned>(-1)), 0);
    EXPECT_EQ(KEMORaidIPartNumValid(4), 0);
    EXPECT_EQ(KEMORaidIVolNumValid(5), 1);
    EXPECT_EQ(KEMORaidIVolNumValid(6), 0);
    EXPECT_EQ(KEMORaidIVolNumValid(-1), 0);
}

TEST_F(Raid, SizeArithmeticRoundsToCylindersAndReservesTheSuperblock)
{
    EXPECT_EQ(KEMORaidDiskMDSizeFromPartitionSize(1000), 768u);
    EXPECT_EQ(KEMORaidDiskMDSizeFromPartitionSize(1024), 896u);
    EXPECT_EQ(KEMORaidDiskPartitionSizeFromDiskSize(2634597 + 16064), 0u);
    EXPECT_EQ(KEMORaidDiskPartitionSizeFromDiskSize(2634597 + 3 * 16065 + 5), 48195u);
    EXPECT_EQ(KEMORaidDiskPartitionSizeFromDiskSize(1000), 0u) << "a disk below the reserve";
    EXPECT_EQ(KEMORaidDiskPartitionSizeFromDiskSize(UINT32_MAX), (UINT32_MAX - 2634597u) / 16065u * 16065u);
    // The layout constants agree with each other.
    EXPECT_EQ(63 + KEMO_RAID_DISK_SYS_SECTORS, KEMO_RAID_DISK_SWAP_START);
    EXPECT_EQ(KEMO_RAID_DISK_SWAP_START + KEMO_RAID_DISK_SWAP_SECTORS + KEMO_RAID_DISK_GAP_SECTORS,
              KEMO_RAID_DISK_DATA_START);
    uint32_t reserve = 0;
    EXPECT_EQ(KEMORaidVolDiskReserveSizeGet(&reserve), 0);
    EXPECT_EQ(reserve, KEMO_RAID_DISK_DATA_START - 63);
}

TEST_F(Raid, StatusPairsMapByTheTableAndOthersAreInconsistent)
{
    struct Case {
        int sys, data, want;
    };
    const Case mapped[] = {{1, 1, 2}, {0, 2, 4}, {1, 2, 4}, {2, 2, 4}, {0, 1, 3},
                           {2, 1, 5}, {1, 0, 6}, {2, 0, 6}, {0, 0, 0}};
    for (const Case &c : mapped) {
        int status = -1;
        EXPECT_EQ(KEMORAIDStatusGet(c.sys, c.data, &status), 0) << c.sys << "," << c.data;
        EXPECT_EQ(status, c.want) << c.sys << "," << c.data;
    }
    for (const auto &[sys, data] : {std::pair {3, 0}, {0, 3}, {-1, 1}, {5, 5}}) {
        int status = -1;
        EXPECT_NE(KEMORAIDStatusGet(sys, data, &status), 0) << sys << "," << data;
        EXPECT_EQ(KEMORaidDiskGetErr(), static_cast<uint32_t>(KEMO_RAID_DISK_ERR_STATE));
        EXPECT_EQ(status, -1);
    }
    KEMORaidIDiskSetErr(0);
    EXPECT_NE(KEMORAIDStatusGet(0, 0, nullptr), 0);
    EXPECT_EQ(KEMORaidDiskGetErr(), static_cast<uint32_t>(KEMO_RAID_DISK_ERR_PARAM));
}

TEST_F(Raid, VolumeVerdictFromDesignAndActiveCounts)
{
    KEMORAIDVOL v {};
    v.designDisks = 3;
    v.activeDisks = 2;
    v.memberMask = 0x7;
    EXPECT_EQ(DecideRAIDVolStatus(5, &v), 1) << "RAID 5 missing one member is degraded";
    EXPECT_EQ(DecideRAIDVolStatus(1, &v), 1);
    EXPECT_EQ(DecideRAIDVolStatus(0, &v), 2) << "RAID 0 missing one member is crashed";
    v.activeDisks = 1;
    EXPECT_EQ(DecideRAIDVolStatus(5, &v), 2) << "RAID 5 missing two members is crashed";
    v.activeDisks = 3;
    EXPECT_EQ(DecideRAIDVolStatus(5, &v), 0);
    v.activeDisks = 4;
    EXPECT_EQ(DecideRAIDVolStatus(5, &v), 0) << "more active than designed is logged, not judged";
    v.activeDisks = 2;
    v.memberMask = 0;
    EXPECT_EQ(DecideRAIDVolStatus(1, &v), 2) << "no member at all";
    EXPECT_EQ(DecideRAIDVolStatus(6, &v), 0);
    EXPECT_EQ(DecideRAIDVolStatus(5, nullptr), 0);
}

TEST_F(Raid, ArgumentsOutOfRangeAreRefusedBeforeAnythingRuns)
{
    // Nothing may be run for a refused call: a partitioning tool that
    // records its calls would show it.
    ::unlink("/sbin/sfdisk");
    write_file("/sbin/sfdisk", "#!/bin/sh\necho \"$@\" >> /tmp/sfdisk.calls\n", 0755);
    write_file("/tmp/mdadm-bin/mdadm", "#!/bin/sh\necho \"$@\" >> /tmp/mdadm.calls\n", 0755);
    ::setenv("PATH", "/tmp/mdadm-bin:/usr/sbin:/usr/bin:/sbin:/bin", 1);
    const auto refused = [](int result, uint32_t code = KEMO_RAID_DISK_ERR_PARAM) {
        EXPECT_NE(result, 0);
        EXPECT_EQ(KEMORaidDiskGetErr(), code);
        KEMORaidIDiskSetErr(0);
    };
    uint32_t sectors = 0;
    KEMORAIDDISK record {};
    refused(KEMORaidDiskInit(4, 3));
    refused(KEMORaidDiskInit(-1, 3));
    refused(KEMORaidDiskInit(0, 4));
    refused(KEMORaidDiskInit(0, -1));
    refused(KEMORaidDiskClean(4, 3));
    refused(KEMORaidDiskClean(-2147483647 - 1, 0));
    refused(KEMORaidDiskStatus(4, &record));
    refused(KEMORaidDiskStatus(0, nullptr));
    refused(KEMOLnxDiskSize(0, 4, &sectors));
    refused(KEMOLnxDiskSize(0, -2, &sectors));
    refused(KEMOLnxDiskSize(4, -1, &sectors));
    refused(KEMOLnxDiskSize(0, -1, nullptr));
    refused(KEMORaidDiskMinSizeGet(0, &sectors));
    refused(KEMORaidDiskMinSizeGet(-1, &sectors));
    refused(KEMORaidDiskMinSizeGet(1, nullptr));
    refused(KEMORaidDiskUsableSizeFromPartition(0, 7, &sectors));
    refused(KEMOLnxDiskGetModel(nullptr, nullptr, 0) == -1 ? 1 : 0);
    int status = 0;
    refused(KEMORAIDStatusGetSYS(&status, 4));
    uint32_t mask = 0;
    refused(KEMORAIDStatusGetDATA(&status, &mask, -1));
    EXPECT_EQ(KEMORaidDiskIDGet(7, 8, 3), -1);
    EXPECT_EQ(KEMORaidDiskIDGet(-1, 8, 3), -1);
    EXPECT_EQ(KEMORaidDiskIDGet(0, 0, 3), -1);
    EXPECT_EQ(KEMORaidDiskIDGet(0, 8, 0), -1);
    EXPECT_EQ(RCRaiddiskPartitionConfigs(0, "/dev/sda", nullptr, nullptr), -1);
    EXPECT_EQ(RCRaiddiskPartitionConfigs(1, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(BlKEMORaidDiskCheckPartitions(nullptr), 0);
    KEMOErrLogShellCmd(-1, nullptr, 1, nullptr);

    KEMORAIDVOL vol {};
    EXPECT_NE(KEMORaidVolStatus(6, &vol), 0);
    EXPECT_EQ(KEMORaidGetErr(), static_cast<uint32_t>(KEMO_RAID_ERR_PARAM));
    EXPECT_NE(KEMORaidVolStatus(-1, &vol), 0);
    int64_t kib = 0;
    EXPECT_NE(KEMORaidComponentSize(6, &kib), 0);
    EXPECT_NE(KEMORaidComponentSize(0, nullptr), 0);

    struct stat st {};
    EXPECT_NE(::stat("/tmp/sfdisk.calls", &st), 0) << "the partitioning tool ran";
    EXPECT_NE(::stat("/tmp/mdadm.calls", &st), 0) << "mdadm ran";
}

TEST_F(Raid, SizeLimitCountsOnlyARootOwnedFile)
{
    uint64_t kib = 1;
    EXPECT_NE(KEMORaidIDiskSizeLimitGet(&kib), 0);
    EXPECT_EQ(kib, 0u);
    write_file("/tmp/volume.12", "");
    EXPECT_EQ(KEMORaidIDiskSizeLimitGet(&kib), 0);
    EXPECT_EQ(kib, 12ull << 20);
    // One planted by another user is ignored.
    ASSERT_EQ(::chown("/tmp/volume.12", 65534, 65534), 0);
    EXPECT_NE(KEMORaidIDiskSizeLimitGet(&kib), 0);
    EXPECT_EQ(kib, 0u);
    ASSERT_EQ(::unlink("/tmp/volume.12"), 0);
    write_file("/tmp/volume.x1", "");
    EXPECT_NE(KEMORaidIDiskSizeLimitGet(&kib), 0) << "not a number";
}

TEST_F(Raid, SlotCountComesFromTheModelDefaults)
{
    EXPECT_EQ(KEMOMaxDiskGet(), 4);
    EXPECT_EQ(KEMOMaxDiskMaskGet(), 0xFu);
    EXPECT_EQ(KEMOMaxVolGet(), 4);
    EXPECT_EQ(KEMORaidMaxMDGet(), 6);
    EXPECT_EQ(KEMORaidMaxMDIDGet(), 5) << "md0..md5";
    write_file("/etc.defaults/kemoinfo.conf", "maxdisks=\"40\"\n");
    EXPECT_EQ(KEMOMaxDiskMaskGet(), 0xFFFFFFFFu);
    write_file("/etc.defaults/kemoinfo.conf", "model=\"x\"\n");
    EXPECT_EQ(KEMOMaxDiskGet(), 0);
    EXPECT_EQ(KEMOMaxDiskMaskGet(), 0u);
    EXPECT_EQ(KEMORaidMaxMDGet(), 2) << "the two system arrays";
    EXPECT_EQ(KEMORaidMaxMDIDGet(), 1) << "the value callers replace by their default";
}

TEST_F(Raid, ArrayAdministrationRefusesBadArgumentsBeforeMdadmRuns)
{
    write_file("/tmp/mdadm-bin/mdadm", "#!/bin/sh\necho \"$@\" >> /tmp/mdadm.calls\n", 0755);
    ::setenv("PATH", "/tmp/mdadm-bin:/usr/sbin:/usr/bin:/sbin:/bin", 1);
    const auto refused = [](int result, int failure = 1) {
        EXPECT_EQ(result, failure);
        EXPECT_EQ(KEMORaidGetErr(), static_cast<uint32_t>(KEMO_RAID_ERR_PARAM));
        KEMORaidISetErr(0);
    };
    int md = -1;
    // Masks, partitions, levels and member counts of a creation.
    refused(KEMORaidDevCreate(0, 2, 1, 1, &md));
    refused(KEMORaidDevCreate(-1, 2, 1, 4, &md));
    refused(KEMORaidDevCreate(0x10, 2, 1, 1, &md)); // no fifth slot
    refused(KEMORaidDevCreate(0x1, 3, 1, 1, &md)); // partition 4 is no array member
    refused(KEMORaidDevCreate(0x1, -1, 1, 1, &md));
    refused(KEMORaidVolCreate(0x1, 4, 1, &md));
    refused(KEMORaidVolCreate(0x1, 6, 1, &md));
    refused(KEMORaidVolCreate(0x3, 1, 1, &md)); // fewer members than disks
    refused(KEMORaidVolCreate(0x1, 1, 5, &md));
    refused(KEMORaidVolCreate(0x1, 0, 2, &md)); // RAID 0 cannot miss a member
    refused(KEMORaidVolCreate(0x1, 5, 3, &md)); // RAID 5 cannot miss two
    refused(KEMORaidVolCreate(0x1, 1, 1, nullptr));
    EXPECT_EQ(md, -1);
    // Members: array numbers, disks, and partitions of the array's kind.
    refused(KEMORaidDevDiskAdd(6, 0, 2));
    refused(KEMORaidDevDiskAdd(-1, 0, 0));
    refused(KEMORaidDevDiskAdd(2, 4, 2));
    refused(KEMORaidDevDiskAdd(2, 0, 3));
    refused(KEMORaidDevDiskAdd(2, 0, 0)); // a system partition in a data array
    refused(KEMORaidDevDiskAdd(0, 0, 2)); // a data partition in the system array
    refused(KEMORaidVolDiskAdd(1, 0));
    refused(KEMORaidVolDiskAddSys(4));
    refused(KEMORaidVolDiskAddSwap(-1));
    refused(KEMORaidDevDiskRemove(7, 0, 2, 0));
    refused(KEMORaidDevDiskRemove(2, 4, 2, 0));
    refused(KEMORaidDevDiskRemove(2, 0, 1, 0));
    refused(KEMORaidVolDiskRemove(0, 0, 0));
    refused(KEMORaidVolDiskRemove(2, -2147483647 - 1, 0));
    // Whole arrays.
    refused(KEMORaidVolDestroy(6));
    refused(KEMORaidVolDestroy(-1));
    refused(KEMORaidVolDiskCountChange(2, 0));
    refused(KEMORaidVolDiskCountChange(2, 5));
    refused(KEMORaidVolDiskCountChange(6, 2));
    uint64_t kib = 0;
    refused(KEMORaidVolExpansible(2, nullptr), -1);
    refused(KEMORaidVolExpansible(6, &kib), -1);
    EXPECT_EQ(KEMORaidVolExpand(6), 1);
    KEMORaidISetErr(0);
    refused(KEMORaidVolFindUnusedID(nullptr));
    refused(KEMORaidDevEnum(nullptr, nullptr, nullptr));
    refused(KEMORaidVolCount(nullptr));

    struct stat st {};
    EXPECT_NE(::stat("/tmp/mdadm.calls", &st), 0) << "mdadm ran";
}

TEST_F(Raid, ReplacementSizeAndMemberCounts)
{
    KEMORAIDVOL vol {};
    vol.level = 5;
    vol.componentKiB = 777774;
    uint64_t sectors = 0;
    ASSERT_EQ(KEMORaidVolRepairMinDisk(&vol, &sectors), 0);
    EXPECT_EQ(sectors, 2634916u + 2u * 777774u);
    vol.level = 1;
    vol.componentKiB = int64_t {3} << 31; // a member above 2 TiB does not wrap
    ASSERT_EQ(KEMORaidVolRepairMinDisk(&vol, &sectors), 0);
    EXPECT_EQ(sectors, 2634916u + (uint64_t {3} << 32));
    KEMORaidISetErr(0);
    vol.level = 0;
    sectors = 7;
    EXPECT_EQ(KEMORaidVolRepairMinDisk(&vol, &sectors), 1) << "a stripe set cannot be repaired";
    EXPECT_EQ(sectors, 7u);
    EXPECT_EQ(KEMORaidGetErr(), 0u);
    EXPECT_EQ(KEMORaidVolRepairMinDisk(nullptr, &sectors), 1);
    EXPECT_EQ(KEMORaidGetErr(), static_cast<uint32_t>(KEMO_RAID_ERR_PARAM));

    EXPECT_EQ(KEMORaidVolDiskCount(0xF), 4);
    EXPECT_EQ(KEMORaidVolDiskCount(0x5), 2);
    EXPECT_EQ(KEMORaidVolDiskCount(0xFFFFFFF0u), 0) << "only the four slots count";
}

} // namespace
