// An administrator's whole storage life on the virtual appliance, through
// the library only: four blank disks become the system arrays and a RAID 5
// volume with user quotas; a user's writes stop at their limit; a failed
// disk is taken out, cleaned and put back, and the array rebuilds; a fourth
// disk joins, the array grows to four members and the file system grows
// into it.  mdadm, df and e2fsck check each stage.
//
// The disks are 1.5 GiB, so that the data partitions (about 240 MiB) sync,
// rebuild and reshape in seconds under emulation.
#include "guest_only.hpp"
#include "guest_util.hpp"
#include "kemo.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using kemo_guest::output_of;
using kemo_guest::read_text;
using kemo_guest::sh;
using kemo_guest::write_text;


KEMORAIDVOL status_of(int md)
{
    KEMORAIDVOL r {};
    EXPECT_EQ(KEMORaidVolStatus(md, &r), 0) << "status of md" << md << ", error " << KEMORaidGetErr();
    return r;
}

// Writes as uid until the file reaches bytes or a write fails: the errno of
// the failed write, 0 when everything was written.
int write_as(uid_t uid, const std::string &path, std::size_t bytes)
{
    int fds[2];
    if (::pipe(fds) != 0)
        return -1;
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(fds[0]);
        int err = 0;
        if (::setgid(100) != 0 || ::setuid(uid) != 0) {
            err = -2;
        } else {
            const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (fd < 0) {
                err = errno;
            } else {
                const std::string block(64 * 1024, 'x');
                for (std::size_t done = 0; done < bytes && err == 0; done += block.size())
                    if (::write(fd, block.data(), block.size()) < 0)
                        err = errno;
                if (err == 0 && ::fsync(fd) != 0)
                    err = errno;
                if (::close(fd) != 0 && err == 0)
                    err = errno;
            }
        }
        (void)!::write(fds[1], &err, sizeof err);
        ::_exit(0);
    }
    ::close(fds[1]);
    int err = -1;
    if (::read(fds[0], &err, sizeof err) != sizeof err)
        err = -1;
    ::close(fds[0]);
    ::waitpid(pid, nullptr, 0);
    return err;
}

uid_t uid_of(const std::string &name)
{
    std::ifstream in("/etc/passwd");
    for (std::string line; std::getline(in, line);)
        if (line.rfind(name + ":", 0) == 0) {
            const auto a = line.find(':', name.size() + 1);
            return static_cast<uid_t>(std::stoul(line.substr(a + 1)));
        }
    return 0;
}

uint64_t df_total_bytes(const char *dir)
{
    struct statvfs st {};
    return ::statvfs(dir, &st) == 0 ? static_cast<uint64_t>(st.f_blocks) * st.f_frsize : 0;
}

TEST(StorageLifecycle, BlankDisksToAGrownRaid5VolumeWithQuotas)
{
    // ---- system arrays on every disk; their first sync is not the subject
    write_text("/proc/sys/dev/raid/speed_limit_min", "100000");
    write_text("/proc/sys/dev/raid/speed_limit_max", "200000");
    ASSERT_EQ(KEMORaidSystemInit(), 0) << "error " << KEMORaidGetErr();
    for (int md : {0, 1}) {
        write_text("/sys/block/md" + std::to_string(md) + "/md/sync_action", "frozen");
        const KEMORAIDVOL sys = status_of(md);
        EXPECT_EQ(sys.level, 1);
        EXPECT_EQ(sys.designDisks, 4);
        EXPECT_EQ(sys.memberMask, 0xFu);
    }

    // ---- a RAID 5 over three disks' data partitions, made and mounted
    for (int disk = 0; disk < 3; ++disk)
        ASSERT_EQ(KEMORaidDiskInit(disk, KEMO_RAID_DISK_INIT_DATA), 0) << "disk " << disk;
    int md = -1;
    ASSERT_EQ(KEMORaidVolCreate(0x7, 5, 3, &md), 0) << "error " << KEMORaidGetErr();
    ASSERT_EQ(md, 2);
    EXPECT_NE(output_of("mdadm --detail /dev/md2").find("Raid Level : raid5"), std::string::npos);
    ASSERT_EQ(KEMOVolInit(0, 4, "/tmp/mkfs.progress"), 0) << "error " << KEMOVolGetErr();
    EXPECT_EQ(KEMOVolFSInitStatusGet(0), 100);
    int health = -1;
    ASSERT_EQ(KEMOVolHealthCheck(1, &health), 0);
    EXPECT_EQ(health, KEMO_VOL_WRITEABLE);
    const uint64_t first_size = df_total_bytes("/volume1");
    ASSERT_GT(first_size, 0u);
    ASSERT_EQ(sh("mdadm --wait /dev/md2 >/dev/null 2>&1; true"), 0);
    EXPECT_EQ(status_of(2).volStatus, 0);

    // ---- a user whose writes stop at the limit
    KEMOUSERSET user {1, nullptr, "erin", "Erin-pw1", "Erin", 0, nullptr};
    PKLIBSZLIST errors = nullptr;
    ASSERT_EQ(KEMOUserSetLocal(&user, 1, &errors), 0);
    KLIBSzListFree(errors);
    const uid_t erin = uid_of("erin");
    ASSERT_GE(erin, 1024u);
    ASSERT_EQ(KEMOQuotaInit(1), 0) << std::hex << KLIBErrGet();
    const float limit = 2.0f;
    ASSERT_EQ(KEMOQuotaSet("erin", "/dev/md2", &limit), 0) << std::hex << KLIBErrGet();
    ASSERT_EQ(::mkdir("/volume1/erin", 0755), 0);
    ASSERT_EQ(::chown("/volume1/erin", erin, 100), 0);
    EXPECT_EQ(write_as(erin, "/volume1/erin/small", 1024 * 1024), 0);
    EXPECT_EQ(write_as(erin, "/volume1/erin/big", 4 * 1024 * 1024), EDQUOT);
    KEMOQUOTA used {};
    ASSERT_EQ(KEMOQuotaGet("erin", "/dev/md2", &used), 0);
    EXPECT_FLOAT_EQ(used.limitMB, 2.0f);
    EXPECT_GT(used.usedMB, 1.0f);
    EXPECT_LE(used.usedMB, 2.0f);
    EXPECT_NE(output_of("repquota -u /volume1").find("erin"), std::string::npos);

    // ---- disk 2 fails: out of the array, the volume degraded but writeable
    ASSERT_EQ(KEMORaidVolDiskRemove(2, 1, 0), 0) << "error " << KEMORaidGetErr();
    EXPECT_NE(::access("/sys/block/md2/md/dev-sdb3", F_OK), 0) << "the member is still in the array";
    KEMORAIDVOL degraded = status_of(2);
    EXPECT_EQ(degraded.volStatus, 1);
    EXPECT_EQ(degraded.activeDisks, 2);
    EXPECT_EQ(read_text("/sys/block/md2/md/degraded"), "1");
    ASSERT_EQ(KEMOVolHealthCheck(1, &health), 0);
    EXPECT_EQ(health, KEMO_VOL_WRITEABLE);
    EXPECT_EQ(KEMOVolRemoveStaleVolumes(), 0);
    EXPECT_EQ(status_of(2).mounted, 1) << "a degraded array is left mounted";

    // ---- the disk is cleaned and put back; the array rebuilds
    ASSERT_EQ(KEMORaidDiskClean(1, 2), 0) << "error " << KEMORaidDiskGetErr();
    ASSERT_EQ(KEMORaidVolDiskAdd(2, 1), 0) << "error " << KEMORaidGetErr();
    float percent = -10;
    EXPECT_EQ(MDSyncProgress(2, &percent), 0);
    EXPECT_TRUE((percent >= 0.0f && percent <= 100.0f) || percent == -1.0f) << percent;
    ASSERT_EQ(sh("mdadm --wait /dev/md2 >/dev/null 2>&1; true"), 0);
    EXPECT_EQ(status_of(2).volStatus, 0);
    EXPECT_EQ(status_of(2).activeMask, 0x7u);
    ASSERT_EQ(MDSyncProgress(2, &percent), 0);
    EXPECT_FLOAT_EQ(percent, 100.0f);

    // ---- a fourth disk joins and the array grows to four members
    ASSERT_EQ(KEMORaidDiskInit(3, KEMO_RAID_DISK_INIT_DATA), 0);
    ASSERT_EQ(KEMORaidVolDiskAdd(2, 3), 0) << "error " << KEMORaidGetErr();
    ASSERT_EQ(KEMORaidVolDiskCountChange(2, 4), 0) << "error " << KEMORaidGetErr();
    ASSERT_EQ(sh("mdadm --wait /dev/md2 >/dev/null 2>&1; true"), 0);
    const KEMORAIDVOL grown = status_of(2);
    EXPECT_EQ(grown.designDisks, 4);
    EXPECT_EQ(grown.activeDisks, 4);
    EXPECT_EQ(grown.volStatus, 0);
    EXPECT_NE(output_of("mdadm --detail /dev/md2").find("Raid Devices : 4"), std::string::npos);

    // ---- the file system grows into the array
    ASSERT_EQ(KEMOVolExpansible("/dev/md2"), 0);
    ASSERT_EQ(KEMOVolExpand("/dev/md2"), 0);
    int done = -1;
    ASSERT_EQ(KEMOVolExpandProgress("md2", &done), 0);
    EXPECT_EQ(done, 100);
    const uint64_t second_size = df_total_bytes("/volume1");
    EXPECT_GT(second_size, first_size + first_size / 3) << first_size << " -> " << second_size;
    EXPECT_EQ(KEMOVolExpansible("/dev/md2"), -1) << "nothing left to grow into";
    EXPECT_EQ(write_as(erin, "/volume1/erin/big", 4 * 1024 * 1024), EDQUOT) << "the limit survives the grow";

    // ---- deleting the user clears their limit; the file system is sound
    const char *names[] = {"erin"};
    ASSERT_EQ(KEMOUserDelete(names, 1), 1);
    EXPECT_EQ(output_of("quota -v -u " + std::to_string(erin) + " 2>&1").find("2048"), std::string::npos);
    ASSERT_EQ(KEMOVolStop(0), 0);
    EXPECT_EQ(sh("/usr/sbin/e2fsck -fn /dev/md2 >/dev/null 2>&1"), 0);
}

} // namespace

KEMO_GUEST_ONLY_MAIN()
