// Error state, error names, the error log file and the plain wrappers.
#include "kemo.h"
#include "sandbox_fixture.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

#define NAMED(code) {code, #code}
const struct {
    int code;
    const char *name;
} kNamedCodes[] = {
    NAMED(ERR_SUCCESS), NAMED(ERR_NOT_ENOUGH_MEMORY), NAMED(ERR_OUT_OF_MEMORY), NAMED(ERR_ACCESS_DENIED),
    NAMED(ERR_LOCK_FAILED), NAMED(ERR_UNLOCK_FAILED), NAMED(ERR_PATH_NOT_FOUND), NAMED(ERR_FILE_NOT_FOUND),
    NAMED(ERR_FILE_EXISTS), NAMED(ERR_OPEN_FAILED), NAMED(ERR_READ_FAILED), NAMED(ERR_WRITE_FAILED),
    NAMED(ERR_CREATE_FAILED), NAMED(ERR_BAD_PARAMETERS), NAMED(ERR_INVALID_SERVERNAME),
    NAMED(ERR_INVALID_DOMAINNAME), NAMED(ERR_INVALID_NETNAME), NAMED(ERR_SERVER_UNREACHABLE),
    NAMED(ERR_INVALID_SHARENAME), NAMED(ERR_SHARE_EXISTS), NAMED(ERR_NO_SUCH_SHARE), NAMED(ERR_TOO_MANY_SHARES),
    NAMED(ERR_INVALID_GROUPNAME), NAMED(ERR_GROUP_EXISTS), NAMED(ERR_NO_SUCH_GROUP), NAMED(ERR_TOO_MANY_GROUPS),
    NAMED(ERR_INVALID_USERNAME), NAMED(ERR_INVALID_PASSWORDNAME), NAMED(ERR_USER_EXISTS), NAMED(ERR_NO_SUCH_USER),
    NAMED(ERR_WRONG_PASSWORD), NAMED(ERR_TOO_MANY_USERS), NAMED(ERR_KEY_NOT_FOUND), NAMED(ERR_KEY_EXISTS),
    NAMED(ERR_SECTION_NOT_FOUND), NAMED(ERR_SECTION_EXISTS), NAMED(ERR_NOT_ENOUGH_QUOTA),
    NAMED(ERR_NOT_ENOUGH_VOLUME_SPACE), NAMED(ERR_SEEK_FAILED), NAMED(ERR_STAT_FAILED), NAMED(ERR_RENAME_FAILED),
    NAMED(ERR_NOT_ENOUGH_SPACE), NAMED(ERR_OP_FAILURE), NAMED(ERR_DEV_UNCONFIG), NAMED(ERR_DEV_UNMOUNTED),
    NAMED(ERR_OP_UNREGISTERED), NAMED(ERR_TIMER_EXPIRED), NAMED(ERR_READ_GEO), NAMED(ERR_USAGE),
    NAMED(ERR_UPDATE_OFFSET), NAMED(ERR_CHECKSUM), NAMED(ERR_OPEN_RAWDEVICE), NAMED(ERR_OPEN_OPTFILE),
    NAMED(ERR_READ_RAWDEVICE), NAMED(ERR_WRITE_RAWDEVICE), NAMED(ERR_BADPATCH), NAMED(ERR_FORMAT_ERROR),
    NAMED(ERR_NO_VOLUME_ID), NAMED(ERR_NO_DISK_ID), NAMED(ERR_NOT_ENOUGH_SD), NAMED(ERR_SD_SIZE_NOT_ALIGN),
    NAMED(ERR_DEVICE_BUSY), NAMED(ERR_INVALID_SD), NAMED(ERR_FORMAT_FAIL), NAMED(ERR_CANNOT_REBUILD_DISK),
    NAMED(ERR_BROKEN_RAID_CONF), NAMED(ERR_DISK_TOO_SMALL), NAMED(ERR_CANNOT_GET_MNTINFO),
    NAMED(ERR_BROKEN_DISK_INFO), NAMED(ERR_DISK_IO_FAILED), NAMED(ERR_BAD_DISKSECTOR),
    NAMED(ERR_UDPD_INVALID_HANDLE), NAMED(ERR_UDPD_RUNNING_HANDLE), NAMED(ERR_UDPD_INVALID_EVENT),
    NAMED(ERR_UDPD_INVALID_PARAMETER), NAMED(ERR_UDPD_EXIT_ABNORMAL), NAMED(ERR_UDPD_NOT_ENOUGH_SPACE),
    NAMED(ERR_UDPD_TIMEOUT), NAMED(ERR_UDPD_INIT_FAIL), NAMED(ERR_UDPD_SEND_FAIL), NAMED(ERR_UDPD_RECV_FAIL),
    NAMED(ERR_UNKNOWN), NAMED(ERR_SYS_UNKNOWN), NAMED(ERR_VOLUME_SIZE_TOO_LARGE), NAMED(ERR_YP_BIND),
};
#undef NAMED

TEST(ErrorTable, EveryCodeIsNamedByItsOwnIdentifierAndOtherSlotsAreReserved)
{
    bool named[KEMO_ERR_TABLE_SIZE] = {};
    for (const auto &c : kNamedCodes) {
        ASSERT_EQ(c.code & 0xFF, 0) << c.name;
        const int index = c.code >> 8;
        ASSERT_LT(index, KEMO_ERR_TABLE_SIZE) << c.name;
        ASSERT_NE(rgszErrMsg[index], nullptr) << c.name;
        EXPECT_STREQ(rgszErrMsg[index], c.name);
        named[index] = true;
    }
    for (int i = 0; i < KEMO_ERR_TABLE_SIZE; ++i) {
        if (!named[i]) {
            EXPECT_EQ(rgszErrMsg[i], nullptr) << "slot " << i << " should be reserved";
        }
    }
    EXPECT_EQ(ERR_KEY_NOT_FOUND, 8192);
}

TEST(ErrorState, SetStoresBothAndPrintReadsErrnoOnly)
{
    KLIBErrSet(ERR_NO_SUCH_USER);
    EXPECT_EQ(KLIBErrGet(), ERR_NO_SUCH_USER);
    EXPECT_EQ(kemoerrno, ERR_NO_SUCH_USER);
    EXPECT_EQ(errno, ERR_NO_SUCH_USER);

    auto printed = [] {
        testing::internal::CaptureStdout();
        KLIBErrPrint();
        std::fflush(stdout);
        return testing::internal::GetCapturedStdout();
    };
    EXPECT_EQ(printed(), "ERR_NO_SUCH_USER\n");

    // Print follows errno, which a libc call may have changed since.
    errno = ERR_YP_BIND;
    EXPECT_EQ(printed(), "ERR_YP_BIND\n");
    EXPECT_EQ(KLIBErrGet(), ERR_NO_SUCH_USER);

    for (int quiet : {ENOENT, 145 << 8, 47 << 8, -256}) {
        errno = quiet;
        EXPECT_EQ(printed(), "") << "errno " << quiet;
    }
}

class ErrorLog : public SandboxTest {};

TEST_F(ErrorLog, InitialTruncatesAndSetAppendsLinesWithArglessFormat)
{
    const char *path = "/tmp/kemo-errors.log";
    write_file(path, "old contents\n");
    KLIBErrLogInitial(path);
    EXPECT_EQ(read_file(path), "");

    EXPECT_EQ(KLIBErrLogSet(path, "disk 1 failed"), 0);
    EXPECT_EQ(KLIBErrLogSet(path, "100%% done, %s stays"), 0);
    EXPECT_EQ(read_file(path), "disk 1 failed\n100% done, %s stays\n");

    KLIBErrLogInitial(nullptr); // ignored
    KLIBErrLogInitial("/tmp/new.log");
    EXPECT_TRUE(exists("/tmp/new.log"));
}

TEST_F(ErrorLog, SetRefusesBadArgumentsAndUnopenablePaths)
{
    kemoerrno = 0;
    EXPECT_EQ(KLIBErrLogSet(nullptr, "x"), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    EXPECT_EQ(KLIBErrLogSet("/tmp/x.log", nullptr), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    EXPECT_EQ(KLIBErrLogSet("/tmp/no/such/dir/x.log", "x"), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_OPEN_FAILED);
    EXPECT_EQ(KLIBErrLogSet("/dev/full", "x"), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_WRITE_FAILED);

    // Never through a link another user planted at the name.
    write_file("/etc/victim", "keep\n", 0600);
    ASSERT_EQ(::symlink("/etc/victim", "/tmp/planted.log"), 0);
    EXPECT_EQ(KLIBErrLogSet("/tmp/planted.log", "x"), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_OPEN_FAILED);
    KLIBErrLogInitial("/tmp/planted.log");
    EXPECT_EQ(read_file("/etc/victim"), "keep\n");
}

class SystemWrappers : public SandboxTest {};

TEST_F(SystemWrappers, PassResultsThroughAndKeepTheModeAsymmetry)
{
    write_file("/tmp/a", "data");
    EXPECT_EQ(KLIBSysRename("/tmp/a", "/tmp/b"), 0);
    EXPECT_EQ(KLIBSysRename("/tmp/a", "/tmp/b"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(::mkdir("/tmp/d", 0755), 0);
    EXPECT_EQ(KLIBSysRmdir("/tmp/d"), 0);
    EXPECT_EQ(KLIBSysUnlink("/tmp/b"), 0);
    EXPECT_EQ(KLIBSysRemove("/tmp/b"), -1);

    // fopen takes the caller's mode (cut to 7 characters) ...
    FILE *f = pfKLIBSysFopen("/tmp/c", "w");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
    f = pfKLIBSysFopen("/tmp/c", "reeeeeeeeeeeeeeeeeeeeeeeeeeeeeeee");
    ASSERT_NE(f, nullptr);
    std::fclose(f);

    // ... while fdopen and freopen prefix it with "s", which glibc refuses.
    const int fd = ::open("/tmp/c", O_RDONLY);
    ASSERT_GE(fd, 0);
    errno = 0;
    EXPECT_EQ(pfKLIBSysFdopen(fd, "r"), nullptr);
    EXPECT_EQ(errno, EINVAL);
    ::close(fd);
}

} // namespace
