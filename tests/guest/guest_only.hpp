// For test programs that only make sense in the storage test guest
// (tests/guest/kemo-guest): they partition, format and assemble /dev/sda..
// /dev/sdd, which must never happen on the machine that builds them.
//
//   #include "guest_only.hpp"
//   KEMO_GUEST_ONLY_MAIN()      // instead of linking GTest::gtest_main
//
// Outside the guest the program prints why and exits 77 (CTest: skipped)
// before any test runs. kemo_in_guest() is the check, for programs with a
// main of their own.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

// Empty when the program runs in the guest, else the reason it does not.
inline std::string kemo_not_in_guest_reason()
{
    const char *guest = std::getenv("KEMO_GUEST");
    if (guest == nullptr || std::string(guest) != "1")
        return "KEMO_GUEST=1 is not set";
    auto read = [](const char *path) {
        std::ifstream in(path);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    };
    // The runner boots the guest's kernel with this parameter; no other
    // machine has it.
    const std::string cmdline = read("/proc/cmdline");
    if ((" " + cmdline).find(" kemo.guest=1") == std::string::npos)
        return "the kernel was not booted by kemo-guest (no kemo.guest=1 in /proc/cmdline)";
    // And the first disk is an emulated ATA disk, as the runner attaches.
    if (read("/sys/block/sda/device/vendor").rfind("ATA", 0) != 0)
        return "/dev/sda is not the runner's ATA disk";
    return {};
}

inline bool kemo_in_guest() { return kemo_not_in_guest_reason().empty(); }

// Exits 77 with the reason outside the guest. Listing the tests runs none,
// so it is allowed anywhere.
inline void kemo_guest_only(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i)
        if (std::string(argv[i]) == "--gtest_list_tests")
            return;
    const std::string reason = kemo_not_in_guest_reason();
    if (reason.empty())
        return;
    std::fprintf(stderr, "not in the storage test guest (%s): skipped; run it with tests/guest/kemo-guest\n",
                 reason.c_str());
    std::exit(77);
}

#define KEMO_GUEST_ONLY_MAIN()                      \
    int main(int argc, char **argv)                 \
    {                                               \
        kemo_guest_only(argc, argv);                        \
        ::testing::InitGoogleTest(&argc, argv);     \
        return RUN_ALL_TESTS();                     \
    }
