// The volume layer on the machine itself (inside the appliance sandbox): the
// text parsers on buffers, the progress files as the jobs leave them in
// /tmp (also planted or broken ones), the decisions on array records, and
// arguments refused before any command runs.  What needs arrays and file
// systems runs in the virtual appliance (test_vol_guest.cpp).
#include "kemo.h"
#include "kemo_text.hpp"
#include "kemo_io.hpp"
#include "kemo_vol.hpp"
#include "sandbox_fixture.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

namespace {

namespace text = kemo::text;
namespace vol = kemo::vol;

constexpr const char *kMdstat = "Personalities : [raid1] [raid5]\n"
                                "md12 : active raid1 sdc4[0]\n"
                                "      1000 blocks [2/1] [U_]\n"
                                "      [>....]  recovery =  3.0% (30/1000) finish=1.0min\n"
                                "\n"
                                "md2 : active raid5 sdd3[4] sdc3[2] sdb3[1] sda3[0]\n"
                                "      2207744 blocks super 1.2 level 5, 512k chunk [4/3] [UUU_]\n"
                                "      [===>.........]  recovery = 17.5% (129024/735872) finish=0.6min\n"
                                "\n"
                                "md3 : active raid1 sdd2[1] sdc2[0]\n"
                                "      735872 blocks [2/2] [UU]\n"
                                "      \tresync=DELAYED\n"
                                "\n"
                                "md1 : active raid1 sdb2[1] sda2[0]\n"
                                "      393536 blocks [2/2] [UU]\n"
                                "\n"
                                "unused devices: <none>\n";

TEST(VolText, MdstatSyncBelongsToItsOwnArray)
{
    const auto md2 = text::mdstat_sync(kMdstat, 2);
    EXPECT_EQ(md2.state, text::MdSync::running);
    EXPECT_FLOAT_EQ(md2.percent, 17.5f);
    EXPECT_TRUE(md2.recovery);
    EXPECT_EQ(text::mdstat_sync(kMdstat, 3).state, text::MdSync::waiting);
    // md1 is in sync: md12's recovery is not its.
    EXPECT_EQ(text::mdstat_sync(kMdstat, 1).state, text::MdSync::none);
    EXPECT_TRUE(text::mdstat_lists(kMdstat, 1));
    EXPECT_FALSE(text::mdstat_lists(kMdstat, 0));
    // A text cut in the middle of the progress line knows nothing yet.
    const std::string cut = std::string(kMdstat).substr(0, std::string(kMdstat).find("17.5"));
    EXPECT_EQ(text::mdstat_sync(cut, 2).state, text::MdSync::none);
    EXPECT_EQ(text::mdstat_sync("md2 : active\n  recovery = nan%\n", 2).state, text::MdSync::none);
    // A scheduled check is told apart from a rebuild.
    const auto check = text::mdstat_sync("md2 : active raid1 sdb3[1] sda3[0]\n      [=>..]  check =  8.0% (1/2)\n", 2);
    EXPECT_EQ(check.state, text::MdSync::running);
    EXPECT_TRUE(check.verify);
    EXPECT_FALSE(check.recovery);
}

TEST(VolText, MountLinesDecodeNamesAndVolumeIdsTakeOneDigit)
{
    const auto entry = text::mount_line("/dev/sde1 /share/usb\\040disk vfat rw,fmask=0022 0 0\n");
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->dir, "/share/usb disk");
    EXPECT_EQ(entry->options, "rw,fmask=0022");
    EXPECT_FALSE(text::mount_line("/dev/md2 /volume1 ext3\n"));
    EXPECT_EQ(text::volume_id_of_dir("/volume1"), 1);
    EXPECT_EQ(text::volume_id_of_dir("/volume10"), 1);
    EXPECT_EQ(text::volume_id_of_dir("/volumeX"), -1);
}

TEST(VolText, ProgressNumbers)
{
    EXPECT_EQ(text::fraction_percent("9/10\n"), 99) << "one unit left is never shown as done";
    EXPECT_EQ(text::fraction_percent(" 5 / 10 "), 50);
    EXPECT_EQ(text::fraction_percent("10/10"), 100);
    EXPECT_EQ(text::fraction_percent("1/3"), 33);
    for (const char *bad : {"", "7/0", "11/10", "-1/5", "5/", "a/b", "5/10x", "99999999999999999999/1"})
        EXPECT_FALSE(text::fraction_percent(bad)) << bad;
    EXPECT_EQ(text::leading_number("  42%garbage"), 42);
    EXPECT_EQ(text::leading_number("-17\n"), -17);
    EXPECT_FALSE(text::leading_number("abc"));
    EXPECT_EQ(text::sysfs_level("raid5\n"), 5);
    EXPECT_EQ(text::sysfs_level("linear\n"), -1);
}

TEST(VolIds, PathsParseToTheirVolumeNumber)
{
    EXPECT_EQ(KEMOVolIDParse("/volume12/x"), 12);
    EXPECT_EQ(KEMOVolIDParse("/volume1/share/dir"), 1);
    for (const char *other : {"/volume1", "/volume1/", "/volume/x", "/volumeA/x", "/volume-1/x", "/volume1x/y",
                              "/volume99999999999/x"}) {
        KLIBErrSet(0);
        EXPECT_EQ(KEMOVolIDParse(other), -1) << other;
        EXPECT_EQ(KLIBErrGet(), KEMO_ERR_VOL_PATH) << other;
    }
    for (const std::string &bad : {std::string("/volume"), std::string("/data/volume1/x"),
                                  "/volume1/" + std::string(480, 'a')}) {
        EXPECT_EQ(KEMOVolIDParse(bad.c_str()), -1) << bad;
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS) << bad;
    }
    EXPECT_EQ(KEMOVolIDParse(nullptr), -1);
    EXPECT_EQ(KEMOVolIDCheck(1) + KEMOVolIDCheck(4), 2);
    EXPECT_EQ(KEMOVolIDCheck(0) + KEMOVolIDCheck(5), 0);
}

TEST(VolList, SortIsAscendingAndStable)
{
    KEMOVOLINFO n[5] {};
    const int ids[] = {3, 1, 4, 1, 2};
    for (int i = 0; i < 5; ++i) {
        n[i].svi_id = ids[i];
        n[i].next = i < 4 ? &n[i + 1] : nullptr;
    }
    PKEMOVOLINFOLIST head = KEMOMountVolInfoSort(&n[0]);
    std::vector<const KEMOVOLINFO *> order;
    for (const KEMOVOLINFO *v = head; v != nullptr; v = v->next)
        order.push_back(v);
    ASSERT_EQ(order.size(), 5u);
    EXPECT_EQ(order[0], &n[1]);
    EXPECT_EQ(order[1], &n[3]);
    EXPECT_EQ(order[2], &n[4]);
    EXPECT_EQ(order[3], &n[0]);
    EXPECT_EQ(order[4], &n[2]);
    EXPECT_EQ(KEMOMountVolInfoSort(nullptr), nullptr);
}

class Vol : public SandboxTest {};

TEST_F(Vol, NonRaidVerdictFollowsLevelMembersAndRecordedLevel)
{
    KEMORAIDVOL r {};
    r.mdId = 2;
    r.level = 0, r.designDisks = 1;
    EXPECT_EQ(KEMOVolIsNonRAID(&r), 1);
    r.designDisks = 2;
    EXPECT_EQ(KEMOVolIsNonRAID(&r), 0);
    r.level = 1, r.designDisks = 1;
    EXPECT_EQ(KEMOVolIsNonRAID(&r), 2);
    r.level = 5, r.volStatus = 2;
    EXPECT_EQ(KEMOVolIsNonRAID(&r), 0);
    r.level = 1, r.designDisks = 2, r.volStatus = 1;
    write_file("/etc/kemoinfo.conf", "md2_level=\"99\"\n");
    EXPECT_EQ(KEMOVolIsNonRAID(&r), 3);
    r.volStatus = 0;
    EXPECT_EQ(KEMOVolIsNonRAID(&r), 0) << "a healthy array is what it is";
    r.volStatus = 1, r.mdId = 3;
    EXPECT_EQ(KEMOVolIsNonRAID(&r), 0) << "no md3_level";

    write_file("/etc.defaults/kemoinfo.conf", "maxdisks=4\nsupportraid=\"YES\"\n");
    EXPECT_EQ(KEMOSupportRAID(), 1);
    write_file("/etc.defaults/kemoinfo.conf", "supportraid=no\n");
    EXPECT_EQ(KEMOSupportRAID(), 0);
}

TEST_F(Vol, RefusalsComeBeforeAnyCommand)
{
    // A grow tool that records every run.
    write_file("/sbin/resize2fs", "#!/bin/sh\necho \"$@\" >> /tmp/ran\nexit $(cat /tmp/code 2>/dev/null || echo 0)\n",
               0755);
    for (const char *device : {"-M", "/dev/../etc/shadow", "/dev/md2;reboot", "/dev/md2\n-f", "/dev//md2", "md2"}) {
        EXPECT_EQ(KEMOVolExpansible(device), -1) << device;
        EXPECT_EQ(KEMOVolExpand(device), -1) << device;
        EXPECT_EQ(KEMORemountCrashRaidRo(device), -1) << device;
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS) << device;
    }
    for (const char *option : {"-F", "/tmp/../etc/x", "/etc/mkfs", "/tmp/a b", ""}) {
        KEMOVolISetErr(0);
        EXPECT_EQ(KEMOVolInit(0, 4, option), -1) << option;
        EXPECT_EQ(KEMOVolGetErr(), static_cast<uint32_t>(KEMO_VOL_ERR_PARAM)) << option;
    }
    for (const auto &[index, kind] : std::initializer_list<std::pair<int, int>>{{-1, 4}, {4, 4}, {0, 5}, {0, 2}}) {
        KEMOVolISetErr(0);
        EXPECT_EQ(KEMOVolInit(index, kind, "/tmp/mkfs.progress"), -1);
        EXPECT_EQ(KEMOVolGetErr(), static_cast<uint32_t>(KEMO_VOL_ERR_PARAM));
    }
    EXPECT_FALSE(exists("/tmp/ran"));

    // What is accepted reaches the tool as one argument, with the exit
    // status mapped: 0 can grow, 1 cannot, anything else failed.
    EXPECT_EQ(KEMOVolExpansible("/dev/md2"), 0);
    write_file("/tmp/code", "1");
    EXPECT_EQ(KEMOVolExpansible("/dev/md2"), -1);
    write_file("/tmp/code", "3");
    EXPECT_EQ(KEMOVolExpand("/dev/md3"), -1);
    EXPECT_EQ(read_file("/tmp/ran"), "-M /dev/md2\n-M /dev/md2\n-fpF /dev/md3\n");

    uint64_t sectors = 0;
    EXPECT_EQ(KEMOVolDevSize("/dev/null", &sectors), -1) << "not a block device";
    EXPECT_EQ(KEMOVolDevSize("/dev/md2", nullptr), -1);
    int percent = 0;
    for (const char *name : {"../../etc/passwd", "..", "a/b", ""})
        EXPECT_EQ(KEMOVolExpandProgress(name, &percent), -1) << name;
    EXPECT_EQ(KEMOVolExpandProgress("md2", nullptr), -1);
    EXPECT_EQ(MDSyncProgress(2, nullptr), -1);
    float sync = 0;
    EXPECT_EQ(MDSyncProgress(6, &sync), -1);
    EXPECT_EQ(VolInitStatusGet(nullptr), -1);
    EXPECT_EQ(BlAddIsApplying("-v"), 0);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    int health = 0;
    EXPECT_EQ(KEMOVolHealthCheck(0, &health), -1);
    EXPECT_EQ(KEMOVolHealthCheck(1, nullptr), -1);
    KEMOVOLINFO info {};
    EXPECT_EQ(KEMOVolInfoGet(5, &info), -1);
    EXPECT_EQ(KEMOVolAllVolumeScan("share"), -1);
    EXPECT_EQ(KEMOVolAllVolumeScan("/a/../../etc"), -1);
    EXPECT_EQ(KEMOVolStop(4), -1);
    EXPECT_EQ(KEMOVolGetErr(), static_cast<uint32_t>(KEMO_VOL_ERR_PARAM));
}

TEST_F(Vol, SmallFilesAreReadOnlyWhenRegularAndBounded)
{
    write_file("/tmp/real", "5/10\n");
    ASSERT_EQ(::symlink("/tmp/real", "/tmp/link"), 0);
    ASSERT_EQ(::mkfifo("/tmp/fifo", 0666), 0);
    EXPECT_EQ(kemo::read_small_file("/tmp/real"), "5/10\n");
    EXPECT_FALSE(kemo::read_small_file("/tmp/link")) << "never through a link another user planted";
    EXPECT_FALSE(kemo::read_small_file("/tmp/fifo")) << "a FIFO must not block the reader";
    EXPECT_FALSE(kemo::read_small_file("/tmp"));
    write_file("/tmp/big", std::string(100000, '7'));
    EXPECT_EQ(kemo::read_small_file("/tmp/big", 8), "77777777");
    write_file("/tmp/big", std::string(100000, 'x') + "\n1/9\n2/9\n");
    EXPECT_EQ(kemo::read_small_file("/tmp/big", 8, true), "2/9\n") << "the tail: whole lines only";
    EXPECT_EQ(vol::value_of("# STEP=X\nSTEP = \"MDSYNC\"\nSTEP=LATER\n", "STEP"), "MDSYNC");
    EXPECT_FALSE(vol::value_of("STEPS=1\n", "STEP"));
}

TEST_F(Vol, MakerProgressTakesTheLastCompleteLine)
{
    write_file("/tmp/mkfs.progress.md2", "0/10\n5/10\n");
    EXPECT_EQ(KEMOVolFSInitStatusGet(0), 50);
    write_file("/tmp/mkfs.progress.md2", "0/10\n9/10\n12/1");
    EXPECT_EQ(KEMOVolFSInitStatusGet(0), 99) << "a line still being written does not count";
    write_file("/tmp/mkfs.progress.md5", "10/10");
    EXPECT_EQ(KEMOVolFSInitStatusGet(3), 100);
    EXPECT_EQ(KEMOVolFSInitStatusGet(4), -1);
    // No file and no maker running: given up after five tries.
    EXPECT_EQ(KEMOVolFSInitStatusGet(1), -1);
}

TEST_F(Vol, GrowProgressAveragesItsTwoPhases)
{
    write_file("/tmp/resize2fs.progress.extend.md2", "80\n");
    write_file("/tmp/resize2fs.progress.scan.md2", "41");
    int percent = -5;
    EXPECT_EQ(KEMOVolExpandProgress("md2", &percent), 0);
    EXPECT_EQ(percent, 60);
    write_file("/tmp/resize2fs.progress.extend.md2", "-17\n");
    write_file("/tmp/resize2fs.progress.scan.md2", "garbage");
    EXPECT_EQ(KEMOVolExpandProgress("md2", &percent), 0);
    EXPECT_EQ(percent, 0);
    // The scan file never came and no grow runs.
    write_file("/tmp/resize2fs.progress.extend.md3", "100");
    EXPECT_EQ(KEMOVolExpandProgress("md3", &percent), -1);
}

TEST_F(Vol, InitStatusFollowsTheSteps)
{
    KEMOVOLINITSTATUS s {};
    EXPECT_EQ(VolInitStatusGet(&s), -2) << "no volume being made";
    EXPECT_EQ(BlAddIsApplying(nullptr), 0);

    const auto step = [&](const std::string &content) {
        write_file("/tmp/raid_add_init_volume.tmp", content);
        s = KEMOVOLINITSTATUS {};
        s.step = -9;
        return VolInitStatusGet(&s);
    };
    EXPECT_EQ(step("STEP=START\n"), 0);
    EXPECT_EQ(s.step, KEMO_INIT_START);
    EXPECT_EQ(BlAddIsApplying(nullptr), 1);
    EXPECT_EQ(BlAddIsApplying("no-such-process-here"), 0);
    EXPECT_EQ(step("STEP=\"FINISH\"\n"), 0);
    EXPECT_EQ(s.step, KEMO_INIT_FINISH);
    EXPECT_EQ(BlAddIsApplying(nullptr), 0);
    EXPECT_EQ(step("VOLUME=1\nSTEP=DISKINIT\nPERCENT=37\n"), 0);
    EXPECT_EQ(s.step, KEMO_INIT_DISKINIT);
    EXPECT_EQ(s.diskPercent, 37);
    EXPECT_EQ(step("STEP=DISKINIT\n"), -1) << "no percent";
    write_file("/tmp/mkfs.progress.md3", "2/4\n");
    EXPECT_EQ(step("STEP=VOLINIT\nVOLUME=2\n"), 0);
    EXPECT_EQ(s.fsPercent, 50);
    EXPECT_FLOAT_EQ(s.syncPercent, 100.0f);
    EXPECT_EQ(step("STEP=VOLINIT\nVOLUME=7\n"), -1) << "no such volume";
    EXPECT_EQ(step("STEP=DEFINIT\nPERCENT=88.5\n"), 0);
    EXPECT_EQ(s.fsPercent, 100);
    EXPECT_FLOAT_EQ(s.finalPercent, 88.5f);
    EXPECT_EQ(step("STEP=SOMETHING\n"), 0);
    EXPECT_EQ(s.step, 0) << "an unknown step leaves the record zeroed";
    EXPECT_EQ(step(std::string("garbage\0\xff\n", 10)), -1);
    EXPECT_EQ(BlAddIsApplying(nullptr), 0) << "a creation whose state is unknown is not running";

    // A planted FIFO neither blocks nor counts.
    ::unlink("/tmp/raid_add_init_volume.tmp");
    ASSERT_EQ(::mkfifo("/tmp/raid_add_init_volume.tmp", 0666), 0);
    EXPECT_EQ(VolInitStatusGet(&s), -1);

    EXPECT_EQ(BlRepairIsApplying(nullptr), 0);
    write_file("/tmp/raid_repair_init_volume.tmp", "PERCENT=3\n");
    EXPECT_EQ(BlRepairIsApplying(nullptr), 1) << "a repair with an unreadable step is not finished";
    ::unlink("/tmp/raid_repair_init_volume.tmp");
    ASSERT_EQ(::mkfifo("/tmp/raid_repair_init_volume.tmp", 0666), 0);
    EXPECT_EQ(BlRepairIsApplying(nullptr), 0);
    write_file("/tmp/raid_expand_volume.tmp", "STEP=ERROR\n");
    EXPECT_EQ(BlExpandIsApplying(nullptr), 0);
}

} // namespace
