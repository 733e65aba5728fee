// Share records, share lists, access lists and share paths, read from the
// factory share file plus sections each test appends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "kemo.h"
#include "sandbox_fixture.hpp"

using ::testing::ElementsAre;

namespace {

const std::string kSmbConf = "/usr/kemo/etc/smb.conf";

class ShareTest : public SandboxTest {
protected:
    static void add_sections(const std::string &text) { write_file(kSmbConf, read_file(kSmbConf) + text); }
    static void add_accounts() {
        write_file("/etc/passwd", read_file("/etc/passwd") + "bob:x:1100:100::/:/bin/csh\ncarol:x:1101:300::/:/bin/csh\n");
        write_file("/etc/group", read_file("/etc/group") + "staff:x:65536:nobody,Bob,nobody\n");
    }
};

// A share record in a buffer of exactly the size the size query asked for.
struct Record {
    int result = -1;
    int needed = 0;
    std::vector<uint64_t> storage;
    const KEMOSHARE *get() const { return reinterpret_cast<const KEMOSHARE *>(storage.data()); }
    const char *last_byte() const { return reinterpret_cast<const char *>(storage.data()) + needed - 1; }
};

Record get_share(const char *name) {
    Record r;
    r.result = KEMOShareGet(1, name, nullptr, 0, &r.needed);
    if (r.result != 0) return r;
    r.storage.resize(static_cast<std::size_t>(r.needed) / 8 + 1);
    r.result = KEMOShareGet(1, name, reinterpret_cast<PKEMOSHARE>(r.storage.data()), r.needed, &r.needed);
    return r;
}

template <class Enum>
std::vector<std::string> names_of(Enum &&call) {
    int needed = 0;
    if (call(nullptr, 0, &needed) != 0) return {"<size query failed>"};
    std::vector<char *> buffer(static_cast<std::size_t>(needed) / sizeof(char *) + 1);
    const int count = call(buffer.data(), needed, &needed);
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) names.emplace_back(buffer[static_cast<std::size_t>(i)]);
    if (count >= 0) {
        EXPECT_EQ(buffer[static_cast<std::size_t>(count)], nullptr);
    }
    return names;
}

std::vector<std::string> enum_kinds(int kinds) {
    return names_of([kinds](char **out, int size, int *needed) { return KEMOShareEnum1(out, size, needed, kinds); });
}

}  // namespace

TEST_F(ShareTest, ReservedSectionsAreRefusedWithoutTakingTheLock) {
    add_sections("[printers]\n\tpath=/var/spool\n\tguest ok=yes\n\twriteable=no\n");
    // Another process holds the share file exclusively: reading it would wait and fail.
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t holder = ::fork();
    if (holder == 0) {
        (void)!::write(ready[1], ErrKLIBFileLock(KLIB_LOCK_SMB | KLIB_LOCK_EX, 0) == 0 ? "y" : "n", 1);
        ::pause();
    }
    char ok = 0;
    ASSERT_TRUE(::read(ready[0], &ok, 1) == 1 && ok == 'y');
    int needed = 0;
    for (const char *name : {"Global", "PRINTERS", "homes", ""}) {
        EXPECT_EQ(KEMOShareGet(1, name, nullptr, 0, &needed), -1) << name;
        EXPECT_EQ(KLIBErrGet(), ERR_NO_SUCH_SHARE) << name;
    }
    ::kill(holder, SIGKILL);
    ::waitpid(holder, nullptr, 0);
}

TEST_F(ShareTest, RecordOfTheFactoryShareInTwoCalls) {
    const Record r = get_share("public");
    ASSERT_EQ(r.result, 1);
    EXPECT_EQ(static_cast<std::size_t>(r.needed), sizeof(KEMOSHARE) + sizeof "public" + sizeof "Public folder" +
                                                      sizeof "/volume1/public" + 1 + sizeof "@users" + 1);
    const KEMOSHARE *s = r.get();
    EXPECT_THAT((std::vector<std::string>{s->szName, s->szComment, s->szPath, s->szDenyList, s->szRWList, s->szROList}),
                ElementsAre("public", "Public folder", "/volume1/public", "", "@users", ""));
    EXPECT_EQ(s->usersAccess, KEMO_ACCESS_RW);
    EXPECT_EQ(s->browseable, 1);
    // The name is copied first, at the very end of the buffer.
    EXPECT_EQ(s->szName + sizeof "public" - 1, r.last_byte());

    std::vector<uint64_t> small(r.storage);
    int needed = 0;
    EXPECT_EQ(KEMOShareGet(1, "public", reinterpret_cast<PKEMOSHARE>(small.data()), r.needed - 1, &needed), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(needed, r.needed);
    EXPECT_EQ(KEMOShareGet(1, "nosuch", nullptr, 0, &needed), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_NO_SUCH_SHARE);
}

TEST_F(ShareTest, ListsAreCleanedAndAbsentKeysPointAtTheLastByte) {
    add_sections("[lists]\n\tpath=/volume1/lists\n\tbrowseable=no\n\tguest ok=no\n\twriteable=no\n"
                 "\tinvalid users=nobody,\n\twrite list=nobody,alice,,@staff,nobody,\n");
    const Record r = get_share("lists");
    ASSERT_EQ(r.result, 1);
    const KEMOSHARE *s = r.get();
    EXPECT_STREQ(s->szDenyList, "");
    EXPECT_STREQ(s->szRWList, "alice,,@staff");
    EXPECT_TRUE(s->szComment == r.last_byte() && s->szROList == r.last_byte());
    EXPECT_EQ(s->usersAccess, KEMO_ACCESS_NONE);
    EXPECT_EQ(s->browseable, 0);
    EXPECT_EQ(static_cast<std::size_t>(r.needed),
              sizeof(KEMOSHARE) + sizeof "lists" + sizeof "/volume1/lists" + 1 + sizeof "alice,,@staff");
}

TEST_F(ShareTest, AccessOfUsersComesFromTheFirstListOrTheSwitches) {
    const std::pair<const char *, int> cases[] = {
        {"\tguest ok=yes\n\twriteable=yes\n", KEMO_ACCESS_RW},
        {"\tguest ok=yes\n\twriteable=no\n", KEMO_ACCESS_RO},
        {"\tguest ok=no\n\twriteable=no\n", KEMO_ACCESS_NONE},
        {"\tguest ok=yes\n", ERR_UNKNOWN},
        {"\tguest ok=no\n\twriteable=yes\n", ERR_UNKNOWN},
        {"\tguest ok=Yes\n\twriteable=yes\n", ERR_UNKNOWN},
        {"\tread list=@USERS\n", KEMO_ACCESS_RO},
        {"\tinvalid users=@users\n\twrite list=@users\n", KEMO_ACCESS_NONE},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i)
        add_sections("[case" + std::to_string(i) + "]\n\tpath=/volume1/x\n" + cases[i].first);
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const Record r = get_share(("case" + std::to_string(i)).c_str());
        EXPECT_EQ(r.result == 1 ? r.get()->usersAccess : KLIBErrGet(), cases[i].second) << i;
    }
}

TEST_F(ShareTest, EnumerationSortsSectionsIntoKinds) {
    add_sections("[usbshare12]\n[USBSHARE12]\n[usbshare1a]\n[USBBACKUP]\n[usbbackup]\n[homes]\n"
                 "[satashare]\n[usbshare]\n");
    EXPECT_THAT(enum_kinds(KEMO_SHARE_USB), ElementsAre("usbshare12", "USBSHARE12", "usbbackup"));
    EXPECT_THAT(enum_kinds(KEMO_SHARE_SATA), ElementsAre("satashare"));
    EXPECT_THAT(enum_kinds(KEMO_SHARE_ORDINARY), ElementsAre("public", "photo", "usbshare1a", "USBBACKUP", "usbshare"));
    EXPECT_EQ(names_of(KEMOShareEnum).size(), 9u);

    int needed = 0;
    EXPECT_EQ(KEMOShareEnum1(nullptr, 0, &needed, KEMO_SHARE_SATA), 0);
    EXPECT_EQ(static_cast<std::size_t>(needed), 2 * sizeof(char *) + sizeof "satashare");
    char *buffer[8];
    EXPECT_EQ(KEMOShareEnum1(buffer, needed - 1, &needed, KEMO_SHARE_SATA), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(KEMOShareEnum1(buffer, sizeof buffer, &needed, 8), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
}

TEST_F(ShareTest, LocalMembershipByNameUsersAndGroups) {
    add_accounts();
    EXPECT_EQ(BlSDKUserIsInList("BOB", "alice,bob"), 1);
    EXPECT_EQ(BlSDKUserIsInList("bob", "@users"), 1);
    EXPECT_EQ(BlSDKUserIsInList("root", "@users"), 1);
    EXPECT_EQ(BlSDKUserIsInList("carol", "@users"), 0);  // primary group is not "users"
    EXPECT_EQ(BlSDKUserIsInList("zed", "@users"), 0);    // no such account
    EXPECT_EQ(BlSDKUserIsInList("bob", "nobody,@staff,nobody"), 1);
    EXPECT_EQ(BlSDKUserIsInList("carol", "@staff,@nosuchgroup"), 0);
    EXPECT_EQ(BlSDKUserIsInList("nobody", "nobody,nobody"), 0);
    EXPECT_EQ(BlSDKUserIsInList("bob", ""), 0);
}

TEST_F(ShareTest, PathsInsideShareFoldersHomesAndSnapshots) {
    for (const char *dir : {"/volume1/public/sub", "/volume1/publicity", "/volume1/other",
                            "/volume1/.snapshot/daily/public/sub", "/volume1/.snapshot/daily/other",
                            "/home/alice/docs"})
        write_file(std::string(dir) + "/f", "");
    ASSERT_EQ(::symlink("/volume1/other", "/volume1/public/link"), 0);
    EXPECT_EQ(KEMOShareIsUnderValidPath("bob", "/volume1/public/sub/f"), 1);
    EXPECT_EQ(KEMOShareIsUnderValidPath("bob", "/volume1/public/"), 1);
    EXPECT_EQ(KEMOShareIsUnderValidPath("bob", "/volume1/publicity"), 0);
    EXPECT_EQ(KEMOShareIsUnderValidPath("bob", "/volume1/public/../other"), 0);
    EXPECT_EQ(KEMOShareIsUnderValidPath("bob", "/volume1/public/link"), 0);
    EXPECT_EQ(KEMOShareIsUnderValidPath("ALICE", "/home/alice/docs"), 1);
    EXPECT_EQ(KEMOShareIsUnderValidPath("bob", "/home/alice/docs"), 0);
    EXPECT_EQ(KEMOShareIsUnderValidPath("root", "/home/alice"), 1);
    EXPECT_EQ(KEMOShareIsUnderValidPath("bob", "/volume1/.snapshot/daily/public/sub/f"), 1);
    EXPECT_EQ(KEMOShareIsUnderValidPath("bob", "/volume1/.snapshot/daily/other"), 0);
    EXPECT_EQ(KEMOShareIsUnderValidPath("bob", "/volume1/.snapshot/daily"), 0);
    EXPECT_EQ(KEMOShareIsUnderValidPath("bob", "/volume1/missing"), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_PATH_NOT_FOUND);
}

TEST_F(ShareTest, CasePathVolumeAndWriteAccess) {
    add_accounts();
    add_sections("[Data]\n\tpath=/volume2/data/\n\twriteable=no\n\tinvalid users=eve\n"
                 "\twrite list=@staff,eve\n\tread list=carol,bob\n"
                 "[far]\n\tpath=/volume10/far\n[whole]\n\tpath=/volume2\n\twriteable=yes\n");
    char *stored = nullptr;
    ASSERT_EQ(KEMOShareGetCase("DATA", &stored), 0);
    EXPECT_STREQ(stored, "Data");
    KEMOShareGetCaseFree(stored);
    EXPECT_EQ(KEMOShareGetCase("printers", &stored), -1);

    char path[16];
    EXPECT_EQ(KEMOSharePathGet("photo", path, sizeof path), 0);
    EXPECT_STREQ(path, "/volume1/photo");
    EXPECT_EQ(KEMOSharePathGet("photo", path, 14), -1);  // never cut short

    auto on_volume = [](int volume) {
        return names_of([volume](char **out, int size, int *needed) {
            return KEMOShareEnumbyVolume(volume, out, size, needed);
        });
    };
    EXPECT_THAT(on_volume(0), ElementsAre("public", "photo"));
    EXPECT_THAT(on_volume(1), ElementsAre("Data", "whole"));

    // Denied wins over the write list; the write list (bob through @staff) over the read list.
    EXPECT_EQ(KEMOShareWriteableGet("Data", "eve"), 0);
    EXPECT_EQ(KEMOShareWriteableGet("Data", "BOB"), 1);
    EXPECT_EQ(KEMOShareWriteableGet("Data", "carol"), 0);
    EXPECT_EQ(KEMOShareWriteableGet("Data", "dave"), 0);
    EXPECT_EQ(KEMOShareWriteableGet("whole", "dave"), 1);
    EXPECT_EQ(KEMOShareWriteableGet("gone", "dave"), -1);
}

TEST_F(ShareTest, ParameterLineGivesTheSameRecord) {
    const char *line = "docs:Team docs:/volume1/docs:nobody,eve,:@users,:bob:grp_Rw:0";
    int needed = 0;
    ASSERT_EQ(ParseShareParam(line, nullptr, 0, &needed), 0);
    std::vector<uint64_t> storage(static_cast<std::size_t>(needed) / 8 + 1);
    auto *s = reinterpret_cast<PKEMOSHARE>(storage.data());
    ASSERT_EQ(ParseShareParam(line, s, needed, &needed), 1);
    EXPECT_THAT((std::vector<std::string>{s->szName, s->szComment, s->szDenyList, s->szRWList, s->szROList}),
                ElementsAre("docs", "Team docs", "eve", "@users", "bob"));
    EXPECT_EQ(s->usersAccess, KEMO_ACCESS_RW);
    EXPECT_EQ(s->browseable, 0);
    const std::pair<const char *, int> levels[] = {
        {"n:c:/p::::x_ro:1", KEMO_ACCESS_RO}, {"n:c:/p::::RW:1", KEMO_ACCESS_NONE}, {"n:c:/p:::::1", KEMO_ACCESS_NONE}};
    for (auto [text, level] : levels) {
        ASSERT_EQ(ParseShareParam(text, s, needed, &needed), 1) << text;
        EXPECT_EQ(s->usersAccess, level) << text;
    }
    EXPECT_EQ(ParseShareParam("n:c:/p:::x:1", s, needed, &needed), -1);  // seven fields
    EXPECT_EQ(ParseShareParam("n:c:/p::::x_RW:yes", s, needed, &needed), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
}
