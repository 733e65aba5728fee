// Domain users and groups (through a stand-in lookup tool that logs its
// arguments), file server sessions and the backup server's secrets file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "kemo.h"
#include "sandbox_fixture.hpp"

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

namespace {

const std::string kPrivate = "/usr/kemo/etc/private/";

// Answers like the real tool for the domain CORP; fails while /tmp/wbinfo.fail exists.
const char kFakeTool[] = R"(#!/bin/sh
for a in "$@"; do printf '%s\n' "$a" >> /tmp/wbinfo.log; done
echo --- >> /tmp/wbinfo.log
[ -e /tmp/wbinfo.fail ] && exit 1
case "$1" in
-u) printf '%s\n' 'CORP\ann' 'CORP\bob' 'CORP\host$' ;;
-g) printf '%s\n' 'CORP\sales' 'CORP\domain users' ;;
--group-info) if [ "$2" = 'CORP\sales' ]; then printf '%s\n' 'CORP\sales:x:10001:CORP\ann,CORP\bob'
              else printf '%s:x:10000:\n' "$2"; fi ;;
-n) echo 'S-1-5-21-7-8-9-1104 SID_USER (1)' ;;
-S) [ "$2" = S-1-5-21-7-8-9-1104 ] && echo 20001 || exit 1 ;;
-r) printf '10001\n10000\n' ;;
*) exit 2 ;;
esac
)";

class DomainTest : public SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        write_file("/usr/kemo/bin/wbinfo", kFakeTool, 0755);
        join(true);
    }
    static void join(bool joined) {
        write_file("/etc/kemoinfo.conf",
                   std::string("workgroup=\"CORP\"\ndomainjoined=\"") + (joined ? "yes" : "no") + "\"\n");
    }
    static std::vector<std::string> tool_log() { return exists("/tmp/wbinfo.log") ? lines_of("/tmp/wbinfo.log") : std::vector<std::string>{}; }
};

std::vector<std::string> items(PKLIBSZLIST list) {
    std::vector<std::string> out;
    for (int i = 0; i < list->nItem; ++i) out.emplace_back(list->pszItem[i]);
    return out;
}

}  // namespace

TEST_F(DomainTest, RefreshWritesTheThreeListsOrKeepsTheOldOnes) {
    ASSERT_EQ(KEMOWinGetDomainUG(0), 0);
    EXPECT_THAT(lines_of(kPrivate + "domain_user"), ElementsAre("CORP\\ann", "CORP\\bob", "CORP\\host$"));
    EXPECT_THAT(lines_of(kPrivate + "domain_group"), ElementsAre("CORP\\sales", "CORP\\domain users"));
    EXPECT_THAT(lines_of(kPrivate + "domain_group_member"),
                ElementsAre("CORP\\sales = \"CORP\\ann,CORP\\bob\"", "CORP\\domain users = \"\""));
    // The group name reached the tool as one argument.
    const auto log = tool_log();
    EXPECT_NE(std::search_n(log.begin(), log.end(), 1, "CORP\\domain users"), log.end());

    const std::string before = read_file(kPrivate + "domain_user");
    write_file("/tmp/wbinfo.fail", "");
    EXPECT_EQ(KEMOWinGetDomainUG(0), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_SYS_UNKNOWN);
    EXPECT_EQ(read_file(kPrivate + "domain_user"), before);
    join(false);
    EXPECT_EQ(KEMOWinGetDomainUG(0), -1);
}

TEST_F(DomainTest, LookupsQuoteTheNameForTheShell) {
    char sid[64];
    ASSERT_EQ(KEMOGetDUserSid("CORP\\ann", sid, sizeof sid), 0);
    EXPECT_STREQ(sid, "S-1-5-21-7-8-9-1104");
    EXPECT_EQ(KEMOGetDUserSid("CORP\\ann", sid, 19), -1);
    EXPECT_EQ(KEMOGetDUserUid("CORP\\ann"), 20001);
    EXPECT_EQ(KEMOGetDUserGid("CORP\\ann"), 10001);
    EXPECT_EQ(KEMOGetDUserGid("bob"), 10001);  // the joined domain is assumed

    const char *evil = "x'; touch /tmp/pwned; '\"$(touch /tmp/pwned)\"";
    EXPECT_EQ(KEMOGetDUserSid(evil, sid, sizeof sid), 0);
    EXPECT_EQ(KEMOGetDUserGid(evil), 10001);
    EXPECT_FALSE(exists("/tmp/pwned"));
    EXPECT_THAT(tool_log(), ElementsAre("-n", "CORP\\ann", "---", "-n", "CORP\\ann", "---", "-n", "CORP\\ann", "---",
                                        "-S", "S-1-5-21-7-8-9-1104", "---", "-r", "CORP\\ann", "---", "-r", "CORP\\bob",
                                        "---", "-n", evil, "---", "-r", std::string("CORP\\") + evil, "---"));
    write_file("/tmp/wbinfo.fail", "");
    EXPECT_EQ(KEMOGetDUserUid("CORP\\ann"), -1);
}

TEST_F(DomainTest, NamesThatLookLikeOptionsNeverReachTheTool) {
    char sid[64];
    for (const char *name : {"--version", "-u", "-"}) {
        KLIBErrSet(0);
        EXPECT_EQ(KEMOGetDUserSid(name, sid, sizeof sid), -1) << name;
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS) << name;
        EXPECT_EQ(KEMOGetDUserUid(name), -1) << name;
    }
    EXPECT_TRUE(tool_log().empty());
    EXPECT_EQ(KEMOGetDUserGid("-x"), 10001) << "asked as CORP\\-x, which is no option";
}

TEST_F(DomainTest, DomainNamesNeedAJoinedDomain) {
    EXPECT_EQ(IsDomainUG(nullptr), -1);
    EXPECT_EQ(IsDomainUG("corp\\ann"), 2);
    EXPECT_EQ(IsDomainUG("CORPX\\ann"), 1);
    EXPECT_EQ(IsDomainUG("ann"), 1);
    write_file("/etc/kemoinfo.conf", "workgroup=\"CORP\"\ndomainjoined=\"YES\"\n");
    EXPECT_EQ(IsDomainUG("CORP\\ann"), 1);
}

TEST_F(DomainTest, GroupMembersAndMixedMembership) {
    write_file(kPrivate + "domain_group_member", "CORP\\sales = \"CORP\\ann,nobody,CORP\\bob\"\nCORP\\empty = \"\"\n");
    PKLIBSZLIST list = PslKLIBSzListAlloc(512);
    EXPECT_EQ(KEMOGetDGRPMem("corp\\SALES", &list), 2);
    EXPECT_THAT(items(list), ElementsAre("CORP\\ann", "CORP\\bob"));
    EXPECT_EQ(KEMOGetDGRPMem("CORP\\nosuch", &list), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_NO_SUCH_GROUP);
    KLIBSzListFree(list);

    const int length = KEMOGetDGRPInfo("CORP\\sales", nullptr, 0);
    EXPECT_EQ(length, static_cast<int>(sizeof "CORP\\ann,nobody,CORP\\bob"));
    std::vector<char> text(static_cast<std::size_t>(length));
    EXPECT_EQ(KEMOGetDGRPInfo("CORP\\sales", text.data(), length - 1), -1);
    EXPECT_EQ(KEMOGetDGRPInfo("CORP\\sales", text.data(), length), length);

    EXPECT_EQ(KEMOIsDGRPMem("corp\\BOB", "CORP\\sales"), 1);
    EXPECT_EQ(KEMOIsDGRPMem("CORP\\zed", "CORP\\sales"), 0);
    EXPECT_EQ(KEMOIsDGRPMem("CORP\\zed", "CORP\\Domain Users"), 1);
    EXPECT_EQ(BlSDKUserIsInList("CORP\\ann", "@CORP\\sales"), 1);
    EXPECT_EQ(BlSDKUserIsInList("CORP\\zed", "bob,@CORP\\domain users"), 1);
    EXPECT_EQ(BlSDKUserIsInList("admin", "@CORP\\domain users"), 0);  // local user, domain group
    EXPECT_EQ(BlSDKUserIsInList("CORP\\ann", "@users"), 0);           // domain user, local group
    join(false);
    EXPECT_EQ(BlSDKUserIsInList("CORP\\ann", "@CORP\\sales"), 0);
}

TEST_F(DomainTest, PushedUsersAndGroups) {
    PKLIBSZLIST list = PslKLIBSzListAlloc(512);
    KLIBSzListPush(&list, "corp\\ANN");
    // The lists are missing: they are produced first.
    EXPECT_EQ(KEMOPushDUser(&list), 1);
    EXPECT_THAT(items(list), ElementsAre("corp\\ANN", "CORP\\bob"));
    EXPECT_EQ(KEMOPushDGroup(&list), 2);
    KLIBSzListRemoveAll(list);

    write_file("/usr/kemo/etc/smb.conf", read_file("/usr/kemo/etc/smb.conf") +
                                             "[team]\n\tpath=/volume1/team\n\twrite list=nobody,@CORP\\sales,CORP\\zed\n"
                                             "\tread list=CORP\\bob,carol\n");
    EXPECT_EQ(KEMOPushDUserUsed(&list), 3);
    EXPECT_THAT(items(list), UnorderedElementsAre("CORP\\ann", "CORP\\bob", "CORP\\zed"));
    KLIBSzListRemoveAll(list);
    write_file("/usr/kemo/etc/smb.conf", read_file("/usr/kemo/etc/smb.conf") +
                                             "[all]\n\tpath=/volume1/all\n\tread list=@CORP\\domain users\n");
    EXPECT_EQ(KEMOPushDUserUsed(&list), 3);  // ann, bob, zed: machine accounts are not users
    KLIBSzListFree(list);
}

TEST_F(DomainTest, SessionsOfAUserAreFoundAndEnded) {
    write_file("/etc/passwd", read_file("/etc/passwd") + "sam:x:1500:100::/:/bin/csh\n");
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t session = ::fork();
    if (session == 0) {
        // Stands in for a file server session: named smbd, running as sam.
        const bool ok = ::prctl(PR_SET_NAME, "smbd") == 0 && ::setresuid(1500, 1500, 1500) == 0;
        (void)!::write(ready[1], ok ? "y" : "n", 1);
        ::pause();
        ::_exit(0);
    }
    char ok = 0;
    ASSERT_EQ(::read(ready[0], &ok, 1), 1);
    ASSERT_EQ(ok, 'y');

    int32_t pids[4] = {};
    EXPECT_EQ(KEMOGetConnPidOfSmb("admin", pids, 4), 0);
    ASSERT_EQ(KEMOGetConnPidOfSmb("sam", pids, 4), 1);
    EXPECT_EQ(pids[0], session);
    EXPECT_EQ(KEMOGetConnPidOfSmb("nosuchuser", pids, 4), -1);
    // Our own process is no file server session and is left alone.
    const int32_t targets[] = {static_cast<int32_t>(::getpid()), session};
    EXPECT_EQ(KEMODelConnOfSmb(targets, 2), 1);
    int status = 0;
    ASSERT_EQ(::waitpid(session, &status, 0), session);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
}

TEST_F(DomainTest, BackupPasswordReplacesOnlyAnExistingLine) {
    const std::string secrets = "/usr/kemo/etc/rsyncd.secrets";
    EXPECT_EQ(KEMONetBackupSetServerPasswd("alice", "pw"), 0);  // no secrets file
    write_file(secrets, "alice:old\n# bob:x\nbob:pw\n", 0600);
    EXPECT_EQ(KEMONetBackupSetServerPasswd("ALICE", "new pw"), 1);
    EXPECT_EQ(read_file(secrets), "alice:new pw\n# bob:x\nbob:pw\n");
    EXPECT_EQ(mode_of(secrets), 0600u);
    EXPECT_EQ(KEMONetBackupSetServerPasswd("bob", "pw"), 0);
    EXPECT_EQ(KEMONetBackupSetServerPasswd("carol", "x"), 0);
    for (auto [user, password] : {std::pair{"a:b", "x"}, std::pair{"bob", "x\ny:z"}, std::pair{"bob", "a:b"}}) {
        EXPECT_EQ(KEMONetBackupSetServerPasswd(user, password), -1);
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    }
    EXPECT_EQ(read_file(secrets), "alice:new pw\n# bob:x\nbob:pw\n");
}
