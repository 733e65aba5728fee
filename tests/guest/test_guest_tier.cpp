// A GoogleTest program built on this machine and run in the storage test
// guest: it finds its libraries there (the library, and the sanitizer
// runtime in a sanitizer build), sees the factory tree and four fresh disks
// of the runner's default size. Outside the guest it skips.
#include "guest_only.hpp"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "kemo.h"

TEST(GuestTier, LibraryReadsTheFactorySettings)
{
    char value[16] = {};
    ASSERT_EQ(KLIBFileGetKeyValue("/etc.defaults/kemoinfo.conf", "maxdisks", value, sizeof value, 0), 2);
    EXPECT_STREQ(value, "4");
}

TEST(GuestTier, DisksAreFreshAndOfTheDefaultSize)
{
    for (const char *disk : {"/dev/sda", "/dev/sdb", "/dev/sdc", "/dev/sdd"}) {
        SCOPED_TRACE(disk);
        const int fd = ::open(disk, O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        std::uint64_t bytes = 0;
        EXPECT_EQ(::ioctl(fd, BLKGETSIZE64, &bytes), 0);
        EXPECT_EQ(bytes, std::uint64_t {2} << 30);
        std::vector<char> start(1 << 20, 'x');
        EXPECT_EQ(::pread(fd, start.data(), start.size(), 0), static_cast<ssize_t>(start.size()));
        EXPECT_EQ(start, std::vector<char>(start.size(), '\0')) << "not a fresh image";
        ::close(fd);
    }
}

TEST(GuestTier, ProgramsOfTheBuildAreInPlace)
{
    for (const char *path : {"/bin/get_key_value", "/bin/set_key_value"})
        EXPECT_EQ(::access(path, X_OK), 0) << path;
    // util-linux's sfdisk stays at its own path beside the project's.
    EXPECT_EQ(::access("/usr/sbin/sfdisk", X_OK), 0);
}

KEMO_GUEST_ONLY_MAIN()
