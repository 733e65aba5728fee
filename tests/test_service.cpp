// Switching the services, taking them off a volume, deleting shares (also
// those a volume holds), the folder check, and what the quota functions
// refuse before they reach the kernel (the limits themselves are tested in
// the storage guest).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "kemo.h"
#include "sandbox_fixture.hpp"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

const std::string kSettings = "/etc/kemoinfo.conf", kDefaults = "/etc.defaults/kemoinfo.conf",
                  kRcDir = "/usr/kemo/etc/rc.d/", kSmbConf = "/usr/kemo/etc/smb.conf",
                  kRecord = "/tmp/services.log";

class ServiceTest : public SandboxTest {
protected:
    // A control script that appends "<name> <argument>" to the record and
    // exits with `status`.
    static void recording_script(const std::string &path, const std::string &name, int status = 0)
    {
        write_file(path,
                   "#!/bin/sh\necho \"" + name + " $1\" >> " + kRecord + "\nexit " + std::to_string(status) + "\n",
                   0755);
    }
    static std::vector<std::string> recorded() { return exists(kRecord) ? lines_of(kRecord) : std::vector<std::string>{}; }
    static void add_settings(const std::string &text) { write_file(kSettings, read_file(kSettings) + text); }
};

TEST_F(ServiceTest, AllServicesStopAndStartThroughTheControlScript)
{
    recording_script(kRcDir + "rec.sh", "rec");
    EXPECT_EQ(KEMOServiceOnOffALL(1), 0);
    EXPECT_EQ(read_file("/var/run/netservice.state"), "stopped\n");
    EXPECT_EQ(KEMOServiceOnOffALL(2), 0);
    EXPECT_EQ(read_file("/var/run/netservice.state"), "started\n");
    EXPECT_THAT(recorded(), ElementsAre("rec stop", "rec start"));
    // Nothing runs for any other action.
    for (int action : {0, 3, -1, 1 << 16}) {
        EXPECT_EQ(KEMOServiceOnOffALL(action), -1) << action;
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    }
    EXPECT_EQ(recorded().size(), 2u);
    // A service that fails to stop fails the call.
    recording_script(kRcDir + "rec.sh", "rec", 1);
    EXPECT_EQ(KEMOServiceOnOffALL(1), -1);
}

TEST_F(ServiceTest, ServicesOfAVolumeAreStoppedAndSwitchedOff)
{
    add_settings("runmysql=\"yes\"\nmysql_volume=\"1\"\nrunphoto=\"yes\"\nphoto_volume=\"2\"\n"
                 "media_volume=\"1\"\n# old_volume=\"1\"\n");
    recording_script(kRcDir + "mysql.sh", "mysql");
    recording_script(kRcDir + "photo.sh", "photo");
    const std::string before = read_file(kSettings);
    for (int volume : {0, 5, -1}) {
        EXPECT_EQ(KEMOServiceRemovebyVolume(volume), -1);
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    }
    EXPECT_EQ(read_file(kSettings), before);

    EXPECT_EQ(KEMOServiceRemovebyVolume(1), 0);
    // mysql had a script and was stopped; media has none and is switched off.
    EXPECT_THAT(recorded(), ElementsAre("mysql stop"));
    const auto lines = lines_of(kSettings);
    EXPECT_THAT(lines, Contains("runmysql=\"no\""));
    EXPECT_THAT(lines, Contains("runmedia=\"no\""));
    EXPECT_THAT(lines, Not(Contains(HasSubstr("mysql_volume"))));
    EXPECT_THAT(lines, Not(Contains(HasSubstr("media_volume="))));
    // Other volumes' services and comments are left alone.
    EXPECT_THAT(lines, Contains("runphoto=\"yes\""));
    EXPECT_THAT(lines, Contains("photo_volume=\"2\""));
    EXPECT_THAT(lines, Contains("# old_volume=\"1\""));
    // Nothing is registered there any more.
    EXPECT_EQ(KEMOServiceRemovebyVolume(1), 0);
    EXPECT_EQ(recorded().size(), 1u);
}

TEST_F(ServiceTest, RegistryNamesNeverReachAScript)
{
    // A name that would climb out of the scripts' directory.
    write_file("/usr/kemo/etc/evil.sh", "#!/bin/sh\necho evil >> " + kRecord + "\n", 0755);
    add_settings("../evil_volume=\"3\"\nx;touch /tmp/pwned_volume=\"3\"\ndb_volume=\"3\"\n");
    recording_script(kRcDir + "db.sh", "db", 1);
    EXPECT_EQ(KEMOServiceRemovebyVolume(3), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_OP_FAILURE);
    EXPECT_THAT(recorded(), ElementsAre("db stop"));
    EXPECT_FALSE(exists("/tmp/pwned"));
    const auto lines = lines_of(kSettings);
    // The valid service is off even though its script failed; the others
    // stay for someone to look at.
    EXPECT_THAT(lines, Contains("rundb=\"no\""));
    EXPECT_THAT(lines, Not(Contains(HasSubstr("db_volume"))));
    EXPECT_THAT(lines, Contains("../evil_volume=\"3\""));
}

// ------------------------------------------------------------ shares

class ShareDeleteTest : public ServiceTest {
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        if (IsSkipped())
            return;
        write_file(kSmbConf, read_file(kSmbConf) +
                                 "[Docs]\n\tpath=/volume2/docs\n\twriteable=yes\n"
                                 "[music]\n\tpath=/volume2/music/\n"
                                 "[backup]\n\tpath=/volume3/backup\n");
    }
    static int remove(std::vector<const char *> names)
    {
        return KEMOShareDelete(const_cast<char **>(names.data()), static_cast<int>(names.size()));
    }
};

TEST_F(ShareDeleteTest, AllNamedSharesGoInOneChange)
{
    const std::string before = read_file(kSmbConf);
    EXPECT_EQ(remove({"docs", "backup"}), 0);
    std::string expected = before;
    for (const std::string &section : {std::string("[Docs]\n\tpath=/volume2/docs\n\twriteable=yes\n"),
                                       std::string("[backup]\n\tpath=/volume3/backup\n")})
        expected.erase(expected.find(section), section.size());
    EXPECT_EQ(read_file(kSmbConf), expected);
    EXPECT_EQ(mode_of(kSmbConf), 0644u);
}

TEST_F(ShareDeleteTest, AnyRefusedNameKeepsEveryShare)
{
    const std::string before = read_file(kSmbConf);
    EXPECT_EQ(remove({"docs", "nosuch"}), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_NO_SUCH_SHARE);
    // The server's own sections are no shares.
    for (const char *name : {"global", "PRINTERS", "homes", ""}) {
        EXPECT_EQ(remove({"docs", name}), -1) << name;
        EXPECT_EQ(KLIBErrGet(), ERR_NO_SUCH_SHARE) << name;
    }
    EXPECT_EQ(remove({"docs", "a\n[global]"}), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    EXPECT_EQ(read_file(kSmbConf), before);
    EXPECT_EQ(KEMOShareDelete(nullptr, 1), -1);
    EXPECT_EQ(remove({}), -1);
    EXPECT_EQ(remove({"docs", nullptr}), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    EXPECT_EQ(read_file(kSmbConf), before);
}

TEST_F(ShareDeleteTest, SharesOfAVolumeAreFoundAndDeleted)
{
    // The storage code's sequence: the size, the names, then their deletion.
    const auto on_volume = [](int volume, std::vector<char *> &buffer) {
        int needed = 0;
        if (KEMOShareEnumbyVolume(volume, nullptr, 0, &needed) != 0)
            return -1;
        buffer.assign(static_cast<std::size_t>(needed) / sizeof(char *) + 1, nullptr);
        return KEMOShareEnumbyVolume(volume, buffer.data(), needed, &needed);
    };
    std::vector<char *> buffer;
    const int count = on_volume(1, buffer);
    ASSERT_EQ(count, 2);
    EXPECT_STREQ(buffer[0], "Docs");
    EXPECT_STREQ(buffer[1], "music");
    EXPECT_EQ(KEMOShareDelete(buffer.data(), count), 0);
    EXPECT_EQ(on_volume(1, buffer), 0);
    // The shares of the other volumes are all still there.
    char path[64] = "";
    EXPECT_EQ(KEMOSharePathGet("backup", path, sizeof path), 0);
    EXPECT_EQ(KEMOSharePathGet("public", path, sizeof path), 0);
    EXPECT_STREQ(path, "/volume1/public");
}

TEST_F(ServiceTest, FolderState)
{
    ASSERT_EQ(::mkdir("/tmp/vol", 0755), 0);
    ASSERT_EQ(::mkdir("/tmp/vol/dir", 0755), 0);
    write_file("/tmp/vol/file", "x");
    ASSERT_EQ(::symlink("/tmp/vol/dir", "/tmp/vol/link"), 0);
    ASSERT_EQ(::symlink("/tmp/vol", "/tmp/vlink"), 0);
    EXPECT_EQ(SDKICheckFolderState("/tmp/vol/dir"), 1);
    EXPECT_EQ(SDKICheckFolderState("/tmp/vol/dir/"), 1);
    EXPECT_EQ(SDKICheckFolderState("/tmp/vlink/dir"), 1); // a link above it is followed
    EXPECT_EQ(SDKICheckFolderState("/tmp/vol/link"), 0);  // the folder itself is not a link
    EXPECT_EQ(SDKICheckFolderState("/tmp/vol/file"), 0);
    EXPECT_EQ(SDKICheckFolderState("/tmp/vol/missing"), 0);
    EXPECT_EQ(SDKICheckFolderState("/tmp/vol/file/below"), 0);
    for (const char *bad : {static_cast<const char *>(nullptr), "", "tmp/vol/dir"}) {
        EXPECT_EQ(SDKICheckFolderState(bad), -1);
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    }
}

// ------------------------------------------------------------ quotas

TEST_F(ServiceTest, QuotaCallsRefuseBadArgumentsAndAccounts)
{
    write_file("/etc/passwd", read_file("/etc/passwd") + "bob:x:1100:100::/:/bin/csh\n");
    KEMOQUOTA reading{};
    const float one = 1.0f;
    const auto refused = [](int result, int code, const char *what) {
        EXPECT_EQ(result, -1) << what;
        EXPECT_EQ(KLIBErrGet(), code) << what;
    };
    refused(KEMOQuotaGet(nullptr, "/dev/md2", &reading), ERR_BAD_PARAMETERS, "null name");
    refused(KEMOQuotaGet("bob", nullptr, &reading), ERR_BAD_PARAMETERS, "null device");
    refused(KEMOQuotaGet("bob", "-x", &reading), ERR_BAD_PARAMETERS, "option as device");
    refused(KEMOQuotaGet("bob", "/dev/md2", nullptr), ERR_BAD_PARAMETERS, "null reading");
    refused(KEMOQuotaSet("bob", "/dev/md2", nullptr), ERR_BAD_PARAMETERS, "null limit");
    for (float bad : {-1.0f, -0.001f, std::numeric_limits<float>::quiet_NaN(),
                      std::numeric_limits<float>::infinity(), 5e9f})
        refused(KEMOQuotaSet("bob", "/dev/md2", &bad), ERR_BAD_PARAMETERS, "bad limit");
    // Accounts: unknown names, names that could match another line, and
    // system accounts, which never get a limit.
    refused(KEMOQuotaSet("nosuch", "/dev/md2", &one), ERR_NO_SUCH_USER, "unknown user");
    refused(KEMOQuotaSet("bob:x", "/dev/md2", &one), ERR_NO_SUCH_USER, "name with a colon");
    refused(KEMOQuotaGet("nosuch", "/dev/md2", &reading), ERR_NO_SUCH_USER, "unknown user");
    refused(KEMOQuotaSet("root", "/dev/md2", &one), ERR_BAD_PARAMETERS, "root");
    refused(KEMOQuotaGet("root", "/dev/md2", &reading), ERR_BAD_PARAMETERS, "root");
    refused(KEMOQuotaSet("nobody", "/dev/md2", &one), ERR_BAD_PARAMETERS, "nobody");
    // A real user on a device without quotas reaches the kernel and fails.
    EXPECT_EQ(KEMOQuotaSet("bob", "/dev/null", &one), -1);

    refused(KEMOQuotaClean(nullptr, "/dev/md2"), ERR_BAD_PARAMETERS, "null list");
    PKLIBSZLIST list = PslKLIBSzListAlloc(16);
    ASSERT_NE(list, nullptr);
    refused(KEMOQuotaClean(list, nullptr), ERR_BAD_PARAMETERS, "null device");
    // An empty list has nothing to clear.
    EXPECT_EQ(KEMOQuotaClean(list, "/dev/md2"), 0);
    ASSERT_GE(KLIBSzListPush(&list, "nosuch"), 0);
    ASSERT_GE(KLIBSzListPush(&list, "root"), 0);
    EXPECT_EQ(KEMOQuotaClean(list, "/dev/md2"), -1);
    KLIBSzListFree(list);

    for (int volume : {0, 5, -1})
        refused(KEMOQuotaInit(volume), ERR_BAD_PARAMETERS, "volume number");
    // Not mounted here: refused before any remount.
    refused(KEMOQuotaInit(4), ERR_BAD_PARAMETERS, "unmounted volume");
    EXPECT_EQ(KEMOQuotaFmtGet("/dev/null"), 0);
    EXPECT_EQ(KEMOQuotaOff("/dev/null"), 0);
}

TEST(UnitTrans, ConvertsInSinglePrecision)
{
    EXPECT_EQ(KEMOUnitTrans(0, 1.5), 1572864.0);
    EXPECT_EQ(KEMOUnitTrans(1, 3145728.0), 3.0);
    EXPECT_EQ(KEMOUnitTrans(2, 1536.0), 1.5);
    EXPECT_EQ(KEMOUnitTrans(5, 1536.0), 1.5);
    EXPECT_EQ(KEMOUnitTrans(3, 1.5), 1536.0);
    EXPECT_EQ(KEMOUnitTrans(4, 1.5), 1536.0);
    // The value is taken as a float first: 0.1 MB is not 102.4 blocks.
    EXPECT_EQ(KEMOUnitTrans(4, 0.1), static_cast<double>(0.1f * 1024.0f));
    EXPECT_NE(KEMOUnitTrans(4, 0.1), 102.4);
    for (int kind : {6, 100, -1})
        EXPECT_EQ(KEMOUnitTrans(kind, 12.0), 0.0) << kind;
}

TEST_F(ServiceTest, DeletingUsersWorksWithoutArrays)
{
    KEMOUSERSET users[] = {{KEMO_ACCOUNT_LOCAL, nullptr, "bob", "secret", "", 0, nullptr},
                           {KEMO_ACCOUNT_LOCAL, nullptr, "eve", "secret", "", 0, nullptr}};
    PKLIBSZLIST errors = nullptr;
    ASSERT_EQ(KEMOUserSetLocal(users, 2, &errors), 0);
    KLIBSzListFree(errors);
    ASSERT_EQ(KEMOSupportQUOTA(), 1);
    const char *names[] = {"Bob", "eve"};
    EXPECT_EQ(KEMOUserDelete(names, 2), 2);
    for (const std::string &line : lines_of("/etc/passwd")) {
        EXPECT_NE(line.rfind("bob:", 0), 0u);
        EXPECT_NE(line.rfind("eve:", 0), 0u);
    }
}

} // namespace
