// Local groups: gid allocation, the member field and its sentinels, renames
// and deletions that carry over to the share lists (checked by the system's
// own readers), descriptions, enumeration, and the static-record readers.
#include "kemo.h"
#include "sandbox_fixture.hpp"
#include "syslog_capture.hpp"

#include <cstdlib>

namespace {

constexpr int kPtr = static_cast<int>(sizeof(char *));
const char *const kGroup = "/etc/group";
const char *const kSmb = "/usr/kemo/etc/smb.conf";
const char *const kDesc = "/etc/group_desc";

class Groups : public SandboxTest {
protected:
    // Creates (old NULL) or modifies a group: name first, then members.
    static int set(const char *old, std::vector<const char *> group)
    {
        group.push_back(nullptr);
        return KEMOGroupSet(KEMO_GROUP_LOCAL, KEMO_ACCOUNT_LOCAL, old, group.data());
    }

    // Name and members as KEMOGroupGet returns them (empty when it fails).
    static std::vector<std::string> get(const char *name, int flags = KEMO_GROUP_LOCAL)
    {
        int needed = 0;
        if (KEMOGroupGet(flags, 1, name, nullptr, 0, &needed) != 0)
            return {};
        std::vector<char *> buffer(static_cast<std::size_t>(needed) / sizeof(char *) + 1);
        const int size = static_cast<int>(buffer.size() * sizeof(char *));
        EXPECT_EQ(KEMOGroupGet(flags, 1, name, buffer.data(), size, &needed), 1);
        std::vector<std::string> out;
        for (char **p = buffer.data(); *p != nullptr; ++p)
            out.emplace_back(*p);
        return out;
    }

    static std::vector<std::string> names(int flags)
    {
        int needed = 0;
        EXPECT_EQ(KEMOGroupEnum(flags, nullptr, 0, &needed), 0);
        std::vector<char *> buffer(static_cast<std::size_t>(needed) / sizeof(char *) + 1);
        const int count = KEMOGroupEnum(flags, buffer.data(), needed, &needed);
        std::vector<std::string> out;
        for (int i = 0; i < count; ++i)
            out.emplace_back(buffer[static_cast<std::size_t>(i)]);
        EXPECT_EQ(buffer[out.size()], nullptr);
        EXPECT_EQ(KEMOGroupTotalNum(flags), count);
        return out;
    }

    static std::string desc(const char *name)
    {
        int needed = 0;
        if (KEMOGroupGetDesc(name, nullptr, 0, &needed) != 0)
            return "<failed>";
        std::string out(static_cast<std::size_t>(needed), '\0');
        EXPECT_EQ(KEMOGroupGetDesc(name, out.data(), needed, &needed), 1);
        out.resize(out.size() - 1);
        return out;
    }

    static std::string snapshot() { return read_file(kGroup) + read_file(kSmb) + read_file(kDesc); }
};

using Strings = std::vector<std::string>;

TEST_F(Groups, NewGroupsTakeGidsFromTheIndexLine)
{
    const std::string factory = read_file(kGroup);
    ASSERT_EQ(set(nullptr, {"Sales", "admin"}), 0);
    EXPECT_EQ(read_file(kGroup),
              factory + "#$_@GID__INDEX@_$65537$\nSales:x:65536:nobody,admin,nobody\n");
    ASSERT_EQ(set(nullptr, {"Team"}), 0);
    const Strings lines = lines_of(kGroup);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "#$_@GID__INDEX@_$65538$"), 1)
        << "the index line advances in place";
    EXPECT_EQ(lines.back(), "Team:x:65537:nobody,nobody");

    // The system's own readers see the groups, and a member through them.
    const KEMOUSERSET alice{1, nullptr, "alice", "secret", "", 0, nullptr};
    ASSERT_EQ(KEMOUserSet(1, &alice, 1), 0);
    ASSERT_EQ(set("Team", {"Team", "alice", "admin"}), 0);
    EXPECT_EQ(run({"getent", "group", "Team"}).out, "Team:x:65537:nobody,alice,admin,nobody\n");
    EXPECT_EQ(run({"id", "-Gn", "alice"}).out, "users Team\n");
}

TEST_F(Groups, GidProbingWrapsAndRunsOut)
{
    write_file(kGroup, "users:x:100:nobody,nobody\n#$_@GID__INDEX@_$196607$\n"
                       "a:x:65536:nobody,nobody\n");
    EXPECT_EQ(GROUPIGetFreeGid(), 196607);
    EXPECT_EQ(lines_of(kGroup)[1], "#$_@GID__INDEX@_$65536$") << "196607 is followed by 65536";
    EXPECT_EQ(GROUPIGetFreeGid(), 65537) << "65536 is taken";

    // An index outside the range starts over at 65536.
    write_file(kGroup, "#$_@GID__INDEX@_$100$\n");
    EXPECT_EQ(GROUPIGetFreeGid(), 65536);

    std::string full = "#$_@GID__INDEX@_$70000$\n";
    for (int gid = 65536; gid <= 196607; ++gid)
        full += "g" + std::to_string(gid) + ":x:" + std::to_string(gid) + ":nobody,nobody\n";
    write_file(kGroup, full);
    KLIBErrSet(0);
    EXPECT_EQ(set(nullptr, {"one_more"}), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_TOO_MANY_GROUPS);
    EXPECT_EQ(read_file(kGroup), full);
}

TEST_F(Groups, GetReturnsStoredNameAndMembersWithoutSentinels)
{
    write_file(kGroup,
               "Empty:x:70000:nobody,nobody\nSales:x:70001:nobody,alice,NOBODY,bob,nobody\n");
    EXPECT_EQ(get("empty"), Strings{"Empty"});
    EXPECT_EQ(get("SALES"), (Strings{"Sales", "alice", "bob"}));

    int needed = 0;
    EXPECT_EQ(KEMOGroupGet(0, 1, "Sales", nullptr, 0, &needed), 0);
    EXPECT_EQ(needed, 6 + 2 * kPtr + (6 + kPtr) + (4 + kPtr));
    std::vector<char *> small(2);
    KLIBErrSet(0);
    EXPECT_EQ(KEMOGroupGet(0, 1, "Sales", small.data(), 2 * kPtr, &needed), 0) << "too small";
    EXPECT_EQ(KLIBErrGet(), ERR_NOT_ENOUGH_MEMORY);

    EXPECT_EQ(KEMOGroupGet(1, 1, "nosuch", nullptr, 0, &needed), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_NO_SUCH_GROUP);
    EXPECT_EQ(KEMOGroupGet(4, 1, "Sales", nullptr, 0, &needed), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    EXPECT_EQ(KEMOGroupGet(1, 2, "Sales", nullptr, 0, &needed), -1);
}

TEST_F(Groups, RenameRewritesShareListsAndDescription)
{
    write_file(kGroup, read_file(kGroup) + "Sales:x:70000:nobody,admin,nobody\n"
                                           "Sales2:x:70001:nobody,nobody\n");
    write_file(kSmb, read_file(kSmb) + "[sales]\n"
                                       "\tcomment=@Sales only\n"
                                       "# @Sales in a comment\n"
                                       "\tpath=/volume1/sales\n"
                                       "\tinvalid users=nobody,nobody\n"
                                       "\twrite list=nobody,@SALES,@Sales2,nobody\n"
                                       "\tread list=nobody,@users,@sales,nobody\n");
    write_file(kDesc, read_file(kDesc) + "Sales:Sales;, east\nTeam:stale\n");
    const std::string smb = read_file(kSmb);

    ASSERT_EQ(set("sales", {"Team", "admin", "guest"}), 0);
    EXPECT_EQ(get("Team"), (Strings{"Team", "admin", "guest"}));
    EXPECT_EQ(lines_of(kGroup)[4], "Team:x:70000:nobody,admin,guest,nobody")
        << "gid kept, in place";
    std::string expected = smb;
    for (const auto &[from, to] : {std::pair{"@SALES,", "@Team,"}, std::pair{"@sales,", "@Team,"}})
        expected.replace(expected.find(from), std::strlen(from), to);
    EXPECT_EQ(read_file(kSmb), expected) << "only list members change; @Sales2 and comments stay";
    EXPECT_EQ(desc("team"), "Sales: east");
    EXPECT_EQ(lines_of(kDesc).size(), 3u) << "the stale description of the new name is gone";
    const RunResult parsed = run({"testparm", "-s", kSmb});
    EXPECT_EQ(parsed.status, 0) << parsed.err;
    EXPECT_NE(parsed.out.find("write list = nobody @Team @Sales2 nobody"), std::string::npos)
        << parsed.out;

    // Another spelling of the same name is no conflict.
    ASSERT_EQ(set("Team", {"team"}), 0);
    EXPECT_EQ(lines_of(kGroup)[4], "team:x:70000:nobody,nobody");
    EXPECT_NE(read_file(kSmb).find("\twrite list=nobody,@team,@Sales2,nobody\n"),
              std::string::npos);
}

TEST_F(Groups, RefusalsLeaveTheFilesAlone)
{
    write_file(kGroup,
               read_file(kGroup) + "Sales:x:70000:nobody,nobody\nTeam:x:70001:nobody,nobody\n");
    write_file(kSmb, read_file(kSmb) + "[s]\n\twrite list=nobody,@Sales,nobody\n");
    const std::string before = snapshot();
    const auto refused = [&](const char *old, std::vector<const char *> group, int code) {
        KLIBErrSet(0);
        EXPECT_EQ(set(old, std::move(group)), -1) << (old ? old : "(new)");
        EXPECT_EQ(KLIBErrGet(), code);
        EXPECT_EQ(snapshot(), before);
    };
    refused(nullptr, {"bad:name"}, ERR_INVALID_GROUPNAME);
    refused(nullptr, {"sixteen_chars_xx"}, ERR_INVALID_GROUPNAME);
    refused(nullptr, {"SALES"}, ERR_GROUP_EXISTS);
    refused("Sales", {"team"}, ERR_GROUP_EXISTS);
    refused("Nosuch", {"Other"}, ERR_NO_SUCH_GROUP);
    refused("Sales", {"Sales", "ali:ce"}, ERR_BAD_PARAMETERS);
    refused("Sales", {"Sales", "a,b"}, ERR_BAD_PARAMETERS);
    EXPECT_EQ(KEMOGroupSet(4, 1, nullptr, std::vector<const char *>{"x", nullptr}.data()), -1);
    EXPECT_EQ(KEMOGroupSet(1, 1, nullptr, nullptr), -1);
}

TEST_F(Groups, WindowsMirrorGroups)
{
    write_file(kGroup, "users:x:100:nobody,nobody\n#$_@GID__INDEX@_$80000$\n"
                       "Staff:x:70000:nobody,nobody:2:NTStaff:7\n");
    ASSERT_EQ(set("Staff", {"Staff", "admin"}), 0);
    EXPECT_EQ(lines_of(kGroup)[2], "Staff:x:70000:nobody,admin,nobody:3:NTStaff:7")
        << "written back under its own name";

    ASSERT_EQ(set("Staff", {"Team"}), 0);
    EXPECT_EQ(lines_of(kGroup),
              (Strings{"users:x:100:nobody,nobody", "#$_@GID__INDEX@_$80001$",
                       "Team:x:70000:nobody,nobody", "NTStaff:x:80000:nobody,nobody:2:NTStaff:7"}));

    SyslogCapture log;
    const std::string before = snapshot();
    const char *doomed[] = {"ntstaff"};
    EXPECT_EQ(KEMOGroupDelete(doomed, 1), -1);
    EXPECT_EQ(snapshot(), before);
    bool logged = false;
    for (const std::string &text : log.texts())
        logged = logged ||
                 text.find("Can't delete domain group; [szName] == [NTStaff]") != std::string::npos;
    EXPECT_TRUE(logged);
}

TEST_F(Groups, DeleteDropsGroupsAndTheirShareReferences)
{
    write_file(kGroup, read_file(kGroup) +
                           "Sales:x:70000:nobody,admin,nobody\n"
                           "Sales2:x:70001:nobody,nobody\nTeam:x:70002:nobody,nobody\n");
    write_file(kSmb, read_file(kSmb) + "[s]\n\tpath=/volume1/s\n\tcomment=@Sales\n"
                                       "\twrite list=nobody,@sales,@Sales2,admin,nobody\n"
                                       "\tvalid users=nobody,@Team,nobody\n");
    write_file(kDesc, read_file(kDesc) + "Sales:x\n");

    const char *twice[] = {"Sales", "SALES"};
    const std::string before = snapshot();
    EXPECT_EQ(KEMOGroupDelete(twice, 2), -1) << "duplicate names";
    EXPECT_EQ(snapshot(), before);

    const char *doomed[] = {"SALES", nullptr, "team", "nosuch"};
    ASSERT_EQ(KEMOGroupDelete(doomed, 4), 0);
    const std::string group = read_file(kGroup);
    EXPECT_EQ(group.find("Sales:"), std::string::npos);
    EXPECT_EQ(group.find("Team:"), std::string::npos);
    EXPECT_NE(group.find("Sales2:x:70001:"), std::string::npos);
    const std::string smb = read_file(kSmb);
    EXPECT_NE(smb.find("\tcomment=@Sales\n\twrite list=nobody,@Sales2,admin,nobody\n"
                       "\tvalid users=nobody,nobody\n"),
              std::string::npos)
        << smb;
    EXPECT_EQ(read_file(kDesc).find("Sales:"), std::string::npos);
    EXPECT_EQ(run({"getent", "group", "Sales"}).status, 2);
    EXPECT_EQ(run({"testparm", "-s", kSmb}).status, 0);

    EXPECT_EQ(KEMOGroupDelete(doomed, 0), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
}

TEST_F(Groups, EnumerationShowsUsersAndAppliancesGroups)
{
    write_file(kGroup, read_file(kGroup) +
                           "Sales:x:70000:nobody,nobody\nsales:x:70001:nobody,nobody\n"
                           "wheel:x:70002:nobody,nobody\nTeam:x:70003:nobody,nobody\n");
    EXPECT_EQ(names(KEMO_GROUP_LOCAL), (Strings{"users", "Sales", "Team"}))
        << "gid 101 and lower are system groups; names differing in case appear once";
    EXPECT_EQ(names(0), names(KEMO_GROUP_LOCAL)) << "no domain joined";

    write_file("/etc/kemoinfo.conf", "domainjoined=\"yes\"\nworkgroup=\"DOM\"\n");
    write_file("/usr/kemo/etc/private/domain_group", "DOM\\staff\nDOM\\domain users\n");
    write_file("/usr/kemo/etc/private/domain_group_member", "DOM\\staff = \"DOM\\ann,DOM\\bo\"\n");
    EXPECT_EQ(names(KEMO_GROUP_DOMAIN), (Strings{"DOM\\staff", "DOM\\domain users"}));
    EXPECT_EQ(names(0).size(), 5u);
    EXPECT_EQ(get("dom\\staff", 0), (Strings{"dom\\staff", "DOM\\ann", "DOM\\bo"}));
    EXPECT_EQ(get("dom\\staff", KEMO_GROUP_LOCAL), Strings{});
    const PKLIBGROUP g = KLIBGetGrNam("DOM\\staff");
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(g->gr_gid, -1);
    ASSERT_NE(g->gr_mem[1], nullptr);
    EXPECT_EQ(std::string(g->gr_mem[0]) + g->gr_mem[1], "DOM\\annDOM\\bo");

    int needed = 0;
    std::vector<char *> small(2);
    EXPECT_EQ(KEMOGroupEnum(1, small.data(), 2 * kPtr, &needed), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(KEMOGroupEnum(4, nullptr, 0, &needed), -1);
    EXPECT_EQ(KEMOGroupTotalNum(4), -1);
}

TEST_F(Groups, DescriptionsRoundTripWithColons)
{
    ASSERT_EQ(KEMOGroupSetDesc("Sales", "East: north; south"), 0);
    EXPECT_EQ(lines_of(kDesc).back(), "Sales:East;, north;; south");
    EXPECT_EQ(desc("SALES"), "East: north; south");
    ASSERT_EQ(KEMOGroupSetDesc("sales", "West"), 0);
    EXPECT_EQ(lines_of(kDesc), (Strings{"users:All local users",
                                        "administrators:System administrators", "sales:West"}));

    int needed = 0;
    char small[2];
    EXPECT_EQ(KEMOGroupGetDesc("sales", small, 2, &needed), -1);
    EXPECT_EQ(needed, 5);
    EXPECT_EQ(desc("nosuch"), "<failed>");
    write_file(kDesc, "broken:a:b\n");
    EXPECT_EQ(KEMOGroupGetDesc("broken", nullptr, 0, &needed), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_FORMAT_ERROR);
    EXPECT_EQ(KEMOGroupSetDesc("x", "two\nlines"), -1);
}

TEST_F(Groups, StaticRecordReaders)
{
    write_file(kGroup, "wheel:x:10:root\nSales:x:70000:nobody,alice,nobody\n"
                       "Staff:x:70001:nobody,nobody:2:NTStaff:42\nnobody:x:65534:\n");
    ASSERT_EQ(KLIBIGrpStart(), 0);
    Strings seen;
    while (PKLIBGROUP g = PgrpKLIBGetLocalGrEnt())
        seen.emplace_back(g->gr_name);
    KLIBEndGrEnt();
    EXPECT_EQ(seen, (Strings{"Sales", "Staff", "nobody"})) << "enumeration passes over wheel";

    PKLIBGROUP g = PgrpKLIBGetLocalGrNam("WHEEL");
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(g->gr_gid, 10);
    g = PgrpKLIBGetLocalGrGid(70001);
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(std::string(g->gr_name) + "/" + g->gr_name2, "Staff/NTStaff");
    EXPECT_EQ(g->gr_flags, 2);
    EXPECT_EQ(g->gr_number, 42u);
    EXPECT_EQ(g->gr_mem[0], nullptr);
    g = KLIBGetGrNam("sales");
    ASSERT_NE(g, nullptr);
    ASSERT_NE(g->gr_mem[0], nullptr);
    EXPECT_EQ(std::string(g->gr_mem[0]), "alice");
    EXPECT_EQ(g->gr_mem[1], nullptr);
    EXPECT_EQ(PgrpKLIBGetLocalGrGid(4242), nullptr);
    EXPECT_EQ(KLIBErrGet(), ERR_NO_SUCH_GROUP);
}

TEST_F(Groups, MemberListsAndCreationParameters)
{
    write_file("/etc/passwd", read_file("/etc/passwd") + "Alice:x:1030:100::/:/bin/csh\n");
    write_file(kGroup, read_file(kGroup) + "Sales:x:70000:nobody,alice,ghost,ALICE,admin,nobody\n"
                                           "Empty:x:70001:nobody,ghost,nobody\n");
    PKLIBSZLIST list = PslKLIBSzListAlloc(512);
    EXPECT_EQ(GROUPIListMember("sales", &list, nullptr), 2);
    EXPECT_EQ(GROUPIListMember("users", &list, nullptr), 3) << "everyone whose primary group it is";
    Strings got;
    for (int i = 0; i < list->nItem; ++i)
        got.emplace_back(list->pszItem[i]);
    EXPECT_EQ(got, (Strings{"Alice", "admin", "admin", "guest", "Alice"}));
    EXPECT_EQ(GROUPIListMember("Empty", &list, nullptr), -1);
    KLIBSzListFree(list);

    char **group = nullptr;
    ASSERT_EQ(GROUPParseCreateParam("Sales:alice,,bob", &group), 2);
    EXPECT_EQ(std::string(group[0]) + "|" + group[1] + "|" + group[2], "Sales|alice|bob");
    EXPECT_EQ(group[3], nullptr);
    std::free(group);
    ASSERT_EQ(GROUPParseCreateParam("Solo:", &group), 0);
    EXPECT_EQ(group[1], nullptr);
    std::free(group);
    EXPECT_EQ(GROUPParseCreateParam("no colon", &group), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
}

// Groups of the system (gids below 100, and "wheel") are never renamed,
// given other members or deleted; "users" and "administrators" keep their
// names and stay, though their members may change.  A refusal is
// ERR_ACCESS_DENIED and leaves every file as it was.
TEST_F(Groups, SystemAndFixedGroupsAreOutOfReach)
{
    write_file(kGroup, read_file(kGroup) + "daemon:x:1:nobody,nobody\nwheel:x:70010:nobody,nobody\n"
                                           "Sales:x:70000:nobody,nobody\n");
    const std::string before = snapshot();
    const auto denied = [&](const char *old, std::vector<const char *> group) {
        KLIBErrSet(0);
        EXPECT_EQ(set(old, std::move(group)), -1) << old;
        EXPECT_EQ(KLIBErrGet(), ERR_ACCESS_DENIED) << old;
        EXPECT_EQ(snapshot(), before);
    };
    denied("root", {"root", "admin"});            // group modify root admin
    denied("ROOT", {"toor"});
    denied("daemon", {"daemon", "admin"});
    denied("wheel", {"wheel", "admin"});
    denied("users", {"people"});
    denied("administrators", {"admins", "admin"});
    for (const char *name : {"root", "Users", "administrators", "wheel", "daemon"}) {
        const char *doomed[] = {"Sales", name};
        KLIBErrSet(0);
        EXPECT_EQ(KEMOGroupDelete(doomed, 2), -1) << name;
        EXPECT_EQ(KLIBErrGet(), ERR_ACCESS_DENIED) << name;
        EXPECT_EQ(snapshot(), before);
    }

    // Members of "users" and "administrators" may still change.
    ASSERT_EQ(set("administrators", {"administrators", "admin", "guest"}), 0);
    EXPECT_EQ(get("administrators"), (Strings{"administrators", "admin", "guest"}));
    ASSERT_EQ(set("users", {"users", "guest"}), 0);
    EXPECT_EQ(get("users"), (Strings{"users", "guest"}));
    const char *sales[] = {"Sales"};
    EXPECT_EQ(KEMOGroupDelete(sales, 1), 0);
}

} // namespace
