// Users' space limits on a real volume, in the virtual appliance: a RAID 1
// data array with ext3 mounted at /volume1, users made by the library, the
// quota tools (repquota, quota) as peers, and a process of a limited user
// that writes past its limit.
#include "guest_only.hpp"
#include "guest_util.hpp"
#include "kemo.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace {

using kemo_guest::output_of;
using kemo_guest::sh;

constexpr char kDevice[] = "/dev/md2";
constexpr char kBackup[] = "/tmp/quota.kemo";
constexpr uint32_t kQuotaSection = 0x1000000;

// repquota's block columns of one user on /volume1: used, soft, hard (KiB);
// all -1 when the user has no line (-v lists users without use too).
struct Blocks {
    long used = -1, soft = -1, hard = -1;
};
Blocks repquota(const std::string &user)
{
    std::istringstream in(output_of("repquota -v -u /volume1 2>/dev/null"));
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string name, flags;
        Blocks b;
        if (words >> name >> flags >> b.used >> b.soft >> b.hard && name == user)
            return b;
    }
    return {};
}

// repquota's block hard limit of a uid on /volume1, -1 when it has no line.
long hard_limit_of_uid(long uid)
{
    std::istringstream in(output_of("repquota -v -n -u /volume1 2>/dev/null"));
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string id, flags;
        long used = 0, soft = -1, hard = -1;
        if (words >> id >> flags >> used >> soft >> hard && id == "#" + std::to_string(uid))
            return hard;
    }
    return -1;
}

// The uid of a local user as the system's own lookup finds it.
long uid_of(const std::string &name)
{
    const std::string line = output_of("grep '^" + name + ":' /etc/passwd | cut -d: -f3");
    return line.empty() ? -1 : std::stol(line);
}

float limit_of(const char *user)
{
    KEMOQUOTA q{-1, -1};
    EXPECT_EQ(KEMOQuotaGet(user, kDevice, &q), 0) << user << std::hex << " " << KLIBErrGet();
    return q.limitMB;
}

void set_limit(const char *user, float mb)
{
    ASSERT_EQ(KEMOQuotaSet(user, kDevice, &mb), 0) << user << std::hex << " " << KLIBErrGet();
}

class Quotas : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        for (int md = 2; md <= 3; ++md)
            ::mknod(("/dev/md" + std::to_string(md)).c_str(), S_IFBLK | 0600, ::makedev(9, md));
        for (int disk = 0; disk < 4; ++disk)
            ASSERT_EQ(KEMORaidDiskInit(disk, KEMO_RAID_DISK_INIT_ALL), 0) << "disk " << disk;
        sh("echo 1000 > /proc/sys/dev/raid/speed_limit_min; echo 1000 > /proc/sys/dev/raid/speed_limit_max");
        for (const char *array : {"/dev/md2 /dev/sda3 /dev/sdb3", "/dev/md3 /dev/sdc3 /dev/sdd3"})
            ASSERT_EQ(sh(std::string("mdadm --create --run --assume-clean --metadata=1.2 -l1 -n2 ") + array +
                         " >/dev/null 2>&1"),
                      0)
                << array;
        ASSERT_EQ(sh("/usr/sbin/mkfs.ext3 -q -F /dev/md2 >/dev/null 2>&1"), 0);
        ::mkdir("/volume1", 0755);
        ASSERT_EQ(sh("mount -t ext3 /dev/md2 /volume1"), 0);
        ::mkdir("/volume1/shared", 01777);
        ::chmod("/volume1/shared", 01777);
        std::vector<KEMOUSERSET> users;
        for (const char *name : {"alice", "bob", "carol", "dave", "erin", "frank"})
            users.push_back({KEMO_ACCOUNT_LOCAL, nullptr, name, "secret", "", 0, nullptr});
        PKLIBSZLIST errors = nullptr;
        ASSERT_EQ(KEMOUserSetLocal(users.data(), static_cast<int>(users.size()), &errors), 0);
        KLIBSzListFree(errors);
    }
    void SetUp() override
    {
        // Every case but the first starts with quotas on.
        if (KEMOQuotaFmtGet(kDevice) == 0 && ::access("/volume1/aquota.user", F_OK) == 0) {
            ASSERT_EQ(KEMOQuotaInit(1), 0) << std::hex << KLIBErrGet();
        }
    }
};

TEST_F(Quotas, InitSwitchesQuotasOn)
{
    KEMOQUOTA q{};
    EXPECT_EQ(KEMOQuotaGet("alice", kDevice, &q), -1);
    EXPECT_EQ(KLIBErrGet(), KEMO_ERR_QUOTA_OFF);
    EXPECT_EQ(KEMOQuotaFmtGet(kDevice), 0);
    // Only a mounted volume is prepared; nothing is remounted for another.
    EXPECT_EQ(KEMOQuotaInit(2), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);

    ASSERT_EQ(KEMOQuotaInit(1), 0) << std::hex << KLIBErrGet();
    EXPECT_EQ(KEMOQuotaFmtGet(kDevice), 2); // vfsv0
    EXPECT_EQ(::access("/volume1/aquota.user", F_OK), 0);
    EXPECT_NE(output_of("grep ' /volume1 ' /proc/mounts").find("usrquota"), std::string::npos);
    // A second call finds them on and leaves them so.
    EXPECT_EQ(KEMOQuotaInit(1), 0);
    EXPECT_EQ(KEMOQuotaFmtGet(kDevice), 2);
}

TEST_F(Quotas, LimitsAgreeWithTheQuotaTools)
{
    set_limit("alice", 1.5f);
    Blocks b = repquota("alice");
    EXPECT_EQ(b.soft, 1536);
    EXPECT_EQ(b.hard, 1536);
    EXPECT_NE(output_of("quota -v -u alice 2>&1").find("1536"), std::string::npos);
    EXPECT_EQ(limit_of("alice"), 1.5f);

    // Use: 3 MiB written by root and given to alice.
    ASSERT_EQ(sh("dd if=/dev/zero of=/volume1/shared/a bs=1M count=3 2>/dev/null && chown alice "
                 "/volume1/shared/a && sync"),
              0);
    b = repquota("alice");
    KEMOQUOTA q{};
    ASSERT_EQ(KEMOQuotaGet("alice", kDevice, &q), 0);
    EXPECT_EQ(q.usedMB, static_cast<float>(b.used) / 1024.0f);
    EXPECT_NEAR(q.usedMB, 3.0f, 0.05f);

    // A part of a block is a whole block; 0 removes the limit.
    set_limit("alice", 0.0001f);
    EXPECT_EQ(repquota("alice").hard, 1);
    set_limit("alice", 0.0f);
    b = repquota("alice");
    EXPECT_EQ(b.soft, 0);
    EXPECT_EQ(b.hard, 0);
    EXPECT_EQ(limit_of("alice"), 0.0f);
    ::unlink("/volume1/shared/a");
    // No limit for root, whatever device.
    const float one = 1.0f;
    EXPECT_EQ(KEMOQuotaSet("root", kDevice, &one), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    EXPECT_EQ(repquota("root").hard, 0);
}

TEST_F(Quotas, LimitedUserCannotWritePastTheLimit)
{
    set_limit("bob", 1.0f);
    const long uid = uid_of("bob");
    ASSERT_GT(uid, 1023);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (::setgroups(0, nullptr) != 0 || ::setgid(100) != 0 || ::setuid(static_cast<uid_t>(uid)) != 0)
            ::_exit(2);
        const int fd = ::open("/volume1/shared/bob", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0)
            ::_exit(3);
        std::vector<char> chunk(64 * 1024, 'b');
        for (int i = 0; i < 32; ++i) // 2 MiB
            if (::write(fd, chunk.data(), chunk.size()) < 0)
                ::_exit(errno == EDQUOT ? 0 : 4);
        ::_exit(::fsync(fd) != 0 && errno == EDQUOT ? 0 : 5);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the writer was not stopped by its quota";
    EXPECT_LE(repquota("bob").used, 1024);
    ::unlink("/volume1/shared/bob");
    set_limit("bob", 0.0f);
}

TEST_F(Quotas, CleaningReachesMountedArraysOnly)
{
    // md3 exists but holds no mounted volume: it is passed over.
    set_limit("carol", 5.0f);
    set_limit("dave", 5.0f);
    PKLIBSZLIST list = PslKLIBSzListAlloc(16);
    ASSERT_NE(list, nullptr);
    ASSERT_GE(KLIBSzListPush(&list, "carol"), 0);
    EXPECT_EQ(KEMOQuotaCleanRAID(list), 0) << std::hex << KLIBErrGet();
    EXPECT_EQ(limit_of("carol"), 0.0f);
    EXPECT_EQ(limit_of("dave"), 5.0f);
    // An unknown name fails the call, but not the others' cleaning.
    set_limit("carol", 5.0f);
    ASSERT_GE(KLIBSzListPush(&list, "nosuch"), 0);
    EXPECT_EQ(KEMOQuotaCleanRAID(list), -1);
    EXPECT_EQ(limit_of("carol"), 0.0f);
    KLIBSzListFree(list);

    // Deleting a user takes its limit with it (an id without a limit or
    // use has no line at all).
    const long uid = uid_of("dave");
    ASSERT_EQ(hard_limit_of_uid(uid), 5120);
    const char *names[] = {"dave"};
    ASSERT_EQ(KEMOUserDelete(names, 1), 1);
    EXPECT_LE(hard_limit_of_uid(uid), 0);
}

TEST_F(Quotas, BackupCarriesAndRestoresTheLimits)
{
    set_limit("erin", 2.0f);
    set_limit("frank", 3.5f);
    ASSERT_EQ(KEMOSysbkpExport(kBackup, kQuotaSection, 0600), 0);
    set_limit("erin", 0.0f);
    set_limit("frank", 7.0f);
    // Checking changes nothing.
    ASSERT_EQ(KEMOSysbkpImport(kBackup, kQuotaSection, 0), 0);
    EXPECT_EQ(limit_of("erin"), 0.0f);
    EXPECT_EQ(limit_of("frank"), 7.0f);
    ASSERT_EQ(KEMOSysbkpImport(kBackup, kQuotaSection, 1), 0);
    EXPECT_EQ(gimp_status & kQuotaSection, kQuotaSection);
    EXPECT_EQ(limit_of("erin"), 2.0f);
    EXPECT_EQ(limit_of("frank"), 3.5f);
    EXPECT_EQ(repquota("frank").hard, 3584);
    set_limit("erin", 0.0f);
    set_limit("frank", 0.0f);
}

TEST_F(Quotas, SwitchingOffAndOnKeepsTheLimits)
{
    set_limit("erin", 4.0f);
    EXPECT_EQ(KEMOQuotaOff(kDevice), 0);
    EXPECT_EQ(KEMOQuotaFmtGet(kDevice), 0);
    EXPECT_EQ(KLIBErrGet(), KEMO_ERR_QUOTA_OFF);
    KEMOQUOTA q{};
    EXPECT_EQ(KEMOQuotaGet("erin", kDevice, &q), -1);
    EXPECT_EQ(KLIBErrGet(), KEMO_ERR_QUOTA_OFF);
    const float one = 1.0f;
    EXPECT_EQ(KEMOQuotaSet("erin", kDevice, &one), -1);
    EXPECT_EQ(KLIBErrGet(), KEMO_ERR_QUOTA_OFF);
    // As after a restart: quotas all off, the files still on the volume.
    sh("quotaoff -a >/dev/null 2>&1");
    ASSERT_EQ(KEMOQuotaInit(1), 0) << std::hex << KLIBErrGet();
    EXPECT_EQ(limit_of("erin"), 4.0f);
    set_limit("erin", 0.0f);
}

} // namespace

KEMO_GUEST_ONLY_MAIN()
