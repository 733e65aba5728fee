// Local users: creation, modification, renames and deletions checked in the
// account files and through the system's own readers (getent, id, pwck,
// crypt, Samba's smbpasswd), the refusals of a batch with their result codes
// and error lists, uid allocation, the password hashes, expiry in local
// time, and enumeration.
#include "kemo.h"
#include "sandbox_fixture.hpp"

#include <dlfcn.h>
#include <pwd.h>
#include <signal.h>
#include <sys/wait.h>
#include <gmock/gmock.h>

#include <cstdlib>
#include <ctime>
#include <map>

namespace {

using ::testing::ElementsAre;

const std::string kPasswd = "/etc/passwd", kShadow = "/etc/shadow", kMail = "/etc/mail",
                  kSmbpasswd = "/usr/kemo/etc/private/smbpasswd", kGroup = "/etc/group",
                  kSmbConf = "/usr/kemo/etc/smb.conf", kCurUid = "/etc/curUID.conf",
                  kHtpasswd = "/usr/kemo/etc/.htpasswd", kDefaults = "/etc.defaults/kemoinfo.conf";

KEMOUSERSET user(const char *name, const char *password, const char *old = nullptr,
                 const char *desc = "", const char *email = nullptr, int32_t expire = 0)
{
    return KEMOUSERSET{KEMO_ACCOUNT_LOCAL, old, name, password, desc, expire, email};
}

struct SetResult {
    int rc;
    int code;
    std::vector<std::string> errors;
};

SetResult set(std::vector<KEMOUSERSET> batch)
{
    PKLIBSZLIST list = nullptr;
    SetResult r{KEMOUserSetLocal(batch.data(), static_cast<int>(batch.size()), &list), KLIBErrGet(), {}};
    for (int i = 0; list != nullptr && i < list->nItem; ++i)
        r.errors.emplace_back(list->pszItem[i]);
    KLIBSzListFree(list);
    return r;
}

std::vector<std::string> fields(const std::string &line)
{
    std::vector<std::string> out;
    std::size_t start = 0;
    for (std::size_t colon; (colon = line.find(':', start)) != std::string::npos; start = colon + 1)
        out.push_back(line.substr(start, colon - start));
    out.push_back(line.substr(start));
    return out;
}

// The line of an account in one of the account files, "" when absent.
std::string entry(const std::string &path, const std::string &name)
{
    for (const std::string &line : lines_of(path))
        if (line.starts_with(name + ":") || line.starts_with(name + "="))
            return line;
    return "";
}

std::string hex(const unsigned char *bytes)
{
    char out[33];
    for (int i = 0; i < 16; ++i)
        std::snprintf(out + 2 * i, 3, "%02X", bytes[i]);
    return out;
}

std::string lm_of(const char *password)
{
    unsigned char h[16];
    return KLIBSmbLmHash(password, h) == 0 ? hex(h) : "<failed>";
}

std::string nt_of(const char *password)
{
    unsigned char h[16];
    return KLIBSmbNtHash(password, h) == 0 ? hex(h) : "<failed>";
}

// crypt(3) of the system's libcrypt (already loaded with the library).
std::string system_crypt(const char *password, const std::string &setting)
{
    using Crypt = char *(*)(const char *, const char *);
    void *lib = dlopen("libcrypt.so.1", RTLD_NOW);
    const auto crypt_fn = lib != nullptr ? reinterpret_cast<Crypt>(dlsym(lib, "crypt")) : nullptr;
    const char *out = crypt_fn != nullptr ? crypt_fn(password, setting.c_str()) : nullptr;
    return out != nullptr ? out : "<failed>";
}

long today() { return static_cast<long>(std::time(nullptr) / 86400); }

class Users : public SandboxTest {
protected:
    void SetUp() override
    {
        SandboxTest::SetUp();
        // The shell of new accounts, so that pwck finds every program.
        write_file("/bin/csh", "#!/bin/sh\n", 0755);
    }

    static std::map<std::string, std::string> files()
    {
        std::map<std::string, std::string> out;
        for (const std::string &p : {kPasswd, kShadow, kSmbpasswd, kGroup, kSmbConf, kMail, kCurUid, kHtpasswd})
            out[p] = read_file(p);
        return out;
    }

    static void expect_pwck_clean()
    {
        const RunResult r = run({"pwck", "-r"});
        EXPECT_EQ(r.status, 0) << r.out << r.err;
    }

    static std::vector<std::string> names(int flags = 0)
    {
        int needed = 0;
        EXPECT_EQ(KEMOUserEnum(flags, nullptr, 0, &needed), 0);
        std::vector<char *> buffer(static_cast<std::size_t>(needed) / sizeof(char *) + 1);
        const int count = KEMOUserEnum(flags, buffer.data(), needed, &needed);
        std::vector<std::string> out;
        for (int i = 0; i < count; ++i)
            out.emplace_back(buffer[static_cast<std::size_t>(i)]);
        if (count >= 0) {
            EXPECT_EQ(buffer[out.size()], nullptr);
        }
        return out;
    }
};

TEST_F(Users, CreationReachesEveryFileAndTheSystemReaders)
{
    const std::string group = read_file(kGroup);
    const auto r = set({user("alice", "s3cret!", nullptr, "Team: A", "alice@example.com"),
                        user("bob", "password")});
    ASSERT_EQ(r.rc, 0) << std::hex << r.code;
    EXPECT_TRUE(r.errors.empty());

    EXPECT_EQ(entry(kPasswd, "alice"), "alice:x:1026:100:Team;, A:/:/bin/csh");
    EXPECT_EQ(entry(kPasswd, "bob"), "bob:x:1027:100::/:/bin/csh");
    EXPECT_EQ(read_file(kCurUid), "UID=1027\n");
    EXPECT_EQ(entry(kMail, "alice"), "alice=\"alice@example.com\"");

    const auto sh = fields(entry(kShadow, "alice"));
    ASSERT_EQ(sh.size(), 9u);
    EXPECT_THAT(sh[1], ::testing::MatchesRegex("\\$1\\$[./0-9A-Za-z]{8}\\$[./0-9A-Za-z]{22}"));
    EXPECT_EQ(system_crypt("s3cret!", sh[1]), sh[1]);
    EXPECT_NE(system_crypt("s3cret", sh[1]), sh[1]);
    EXPECT_EQ(sh[2], std::to_string(today()));
    EXPECT_EQ(entry(kShadow, "alice").substr(sh[0].size() + sh[1].size() + sh[2].size() + 3),
              "0:99999:7:::");
    EXPECT_NE(fields(entry(kShadow, "bob"))[1].substr(0, 12), sh[1].substr(0, 12)) << "fresh salts";

    const auto smb = fields(entry(kSmbpasswd, "bob"));
    ASSERT_EQ(smb.size(), 7u);
    EXPECT_EQ(smb[1], "1027");
    EXPECT_EQ(smb[2], "E52CAC67419A9A224A3B108F3FA6CB6D");
    EXPECT_EQ(smb[3], "8846F7EAEE8FB117AD06BDD830B7586C");
    EXPECT_EQ(smb[4], "[U          ]");
    EXPECT_THAT(smb[5], ::testing::MatchesRegex("LCT-[0-9A-F]{8}"));
    EXPECT_EQ(smb[6], "");
    EXPECT_EQ(mode_of(kShadow), 0600u);
    EXPECT_EQ(mode_of(kSmbpasswd), 0600u);
    EXPECT_EQ(read_file(kGroup), group) << "a creation leaves the group file alone";

    EXPECT_EQ(run({"getent", "passwd", "alice"}).out, "alice:x:1026:100:Team;, A:/:/bin/csh\n");
    EXPECT_EQ(run({"id", "-u", "bob"}).out, "1027\n");
    expect_pwck_clean();

    // The record in two calls, the description decoded.
    int needed = 0;
    EXPECT_EQ(KEMOUserGet(0, 1, "alice", nullptr, 0, &needed), 0);
    // The record, the texts with their terminators, and one byte more: 25
    // besides the texts where pointers take 4 bytes.
    EXPECT_EQ(needed, static_cast<int>(sizeof(KEMOUSER) + 5 + 34 + 8 + 17 + 4 + 1));
    static_assert(sizeof(char *) != 4 || sizeof(KEMOUSER) == 20);
    std::vector<KEMOUSER> buffer(static_cast<std::size_t>(needed) / sizeof(KEMOUSER) + 1);
    EXPECT_EQ(KEMOUserGet(0, 1, "alice", buffer.data(), needed - 1, &needed), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_NOT_ENOUGH_MEMORY);
    ASSERT_EQ(KEMOUserGet(0, 1, "alice", buffer.data(), needed, &needed), 1);
    EXPECT_STREQ(buffer[0].szName, "alice");
    EXPECT_EQ(buffer[0].szPasswd, sh[1]);
    EXPECT_STREQ(buffer[0].szDesc, "Team: A");
    EXPECT_STREQ(buffer[0].szEmail, "alice@example.com");
    EXPECT_EQ(buffer[0].expire, 0);
    EXPECT_EQ(KEMOUserGet(0, 2, "alice", nullptr, 0, &needed), -1);
    EXPECT_EQ(KEMOUserGet(0, 1, "nobody-here", nullptr, 0, &needed), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_NO_SUCH_USER);
    EXPECT_THAT(names(), ElementsAre("admin", "guest", "alice", "bob"));
    EXPECT_EQ(KEMOUserTotalNum(7), 4);
}

TEST_F(Users, HashesMatchKnownVectorsAndSamba)
{
    EXPECT_EQ(lm_of("password"), "E52CAC67419A9A224A3B108F3FA6CB6D");
    EXPECT_EQ(lm_of("PassWord"), lm_of("password")) << "LM ignores case";
    EXPECT_EQ(nt_of("password"), "8846F7EAEE8FB117AD06BDD830B7586C");
    EXPECT_NE(nt_of("PassWord"), nt_of("password"));
    EXPECT_EQ(lm_of(""), "AAD3B435B51404EEAAD3B435B51404EE");
    EXPECT_EQ(nt_of(""), "31D6CFE0D16AE931B73C59D7E0C089C0");
    // LM sees the first 14 bytes only; NT the whole password.
    EXPECT_EQ(lm_of("abcdefghijklmnXYZ"), lm_of("ABCDEFGHIJKLMN"));
    EXPECT_NE(nt_of("abcdefghijklmnXYZ"), nt_of("abcdefghijklmn"));
    unsigned char h[16];
    EXPECT_EQ(KLIBSmbNtHash("\xff\xfe", h), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_UNKNOWN);
    EXPECT_EQ(KLIBSmbLmHash(nullptr, h), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);

    // Samba sets the same (non-ASCII) password for a user we created: it
    // reads our file, computes the same NT hash, and keeps the other lines.
    const char *password = "P\xc3\xa4sswort 1";
    ASSERT_EQ(set({user("carol", password)}).rc, 0);
    const std::string ours = entry(kSmbpasswd, "carol");
    write_file("/tmp/smbt/smb.conf",
               "[global]\n\tpassdb backend = smbpasswd:" + kSmbpasswd +
                   "\n\tprivate dir = /tmp/smbt\n\tlock directory = /tmp/smbt\n"
                   "\tstate directory = /tmp/smbt\n\tcache directory = /tmp/smbt\n"
                   "\tpid directory = /tmp/smbt\n\tlog file = /tmp/smbt/log\n");
    const RunResult r = run({"smbpasswd", "-c", "/tmp/smbt/smb.conf", "-s", "carol"},
                            std::string(password) + "\n" + password + "\n");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(fields(entry(kSmbpasswd, "carol"))[3], fields(ours)[3]);
    EXPECT_EQ(fields(ours)[3], nt_of(password));
    EXPECT_EQ(entry(kSmbpasswd, "admin"),
              "admin:1024:F0D412BD764FFE81AAD3B435B51404EE:209C6174DA490CAEB422F3FA5A7AE634:"
              "[U          ]:LCT-4B3D3B00:");
    EXPECT_EQ(lines_of(kSmbpasswd).size(), 3u);
}

TEST_F(Users, SamePasswordKeepsEveryHashAndAChangeRenewsThem)
{
    ASSERT_EQ(set({user("dave", "first", nullptr, "d", "d@x")}).rc, 0);
    write_file("/usr/kemo/etc/rsyncd.secrets", "dave:first\n", 0600);
    const std::string hash = fields(entry(kShadow, "dave"))[1];
    const std::string smb_line = entry(kSmbpasswd, "dave");
    const std::string changed_day = fields(entry(kShadow, "dave"))[2];

    // The stored hash given back as the password: nothing of it changes,
    // and the backup server keeps its password.
    ASSERT_EQ(set({user("dave", hash.c_str(), "dave", "new desc", nullptr, 20000)}).rc, 0);
    EXPECT_EQ(fields(entry(kShadow, "dave"))[1], hash);
    EXPECT_EQ(entry(kSmbpasswd, "dave"), smb_line);
    EXPECT_EQ(fields(entry(kShadow, "dave"))[2], changed_day);
    EXPECT_EQ(fields(entry(kShadow, "dave"))[7], "20000");
    EXPECT_EQ(entry(kPasswd, "dave"), "dave:x:1026:100:new desc:/:/bin/csh");
    EXPECT_EQ(entry(kMail, "dave"), "dave=\"d@x\"") << "NULL address leaves the mail file alone";
    EXPECT_EQ(read_file("/usr/kemo/etc/rsyncd.secrets"), "dave:first\n");

    // A new password: new hashes (the stored salt is kept), and the backup
    // server follows.
    ASSERT_EQ(set({user("dave", "second", "dave")}).rc, 0);
    const std::string renewed = fields(entry(kShadow, "dave"))[1];
    EXPECT_NE(renewed, hash);
    EXPECT_EQ(renewed.substr(0, 12), hash.substr(0, 12));
    EXPECT_EQ(system_crypt("second", renewed), renewed);
    EXPECT_EQ(fields(entry(kSmbpasswd, "dave"))[3], nt_of("second"));
    EXPECT_EQ(read_file("/usr/kemo/etc/rsyncd.secrets"), "dave:second\n");
    EXPECT_EQ(fields(entry(kShadow, "dave"))[7], "") << "expire 0 clears the expiry";

    // admin's web password follows its Unix hash.
    ASSERT_EQ(set({user("admin", "adminpw", "admin")}).rc, 0);
    EXPECT_EQ(read_file(kHtpasswd), "admin:" + fields(entry(kShadow, "admin"))[1] + "\n");
    EXPECT_EQ(mode_of(kHtpasswd), 0600u);
    expect_pwck_clean();

    // guest's password turns the Apple file server's guest login off and on.
    const std::string afpd = "/usr/kemo/etc/afpd.conf";
    write_file(afpd, "- -tcp -uamlist uams_guest.so,uams_dhx.so\n");
    ASSERT_EQ(set({user("guest", "g", "guest")}).rc, 0);
    EXPECT_EQ(read_file(afpd), "- -tcp -uamlist uams_noguest.so,uams_dhx.so\n");
    ASSERT_EQ(set({user("guest", "", "guest")}).rc, 0);
    EXPECT_EQ(read_file(afpd), "- -tcp -uamlist uams_guest.so,uams_dhx.so\n");
    EXPECT_FALSE(exists(afpd + ".tmp"));
    // The rewrite keeps the file's mode; a file without the module list
    // stays as it is.
    write_file(afpd, "# guest: uams_guest.so\n- -tcp -uamlist uams_guest.so\n", 0640);
    ASSERT_EQ(set({user("guest", "g", "guest")}).rc, 0);
    EXPECT_EQ(read_file(afpd), "# guest: uams_noguest.so\n- -tcp -uamlist uams_noguest.so\n");
    EXPECT_EQ(mode_of(afpd), 0640u);
    write_file(afpd, "- -tcp uams_guest.so\n");
    ASSERT_EQ(set({user("guest", "g", "guest")}).rc, 0);
    EXPECT_EQ(read_file(afpd), "- -tcp uams_guest.so\n");
}

// After a change of users the download scheduler, on models that have one,
// gets SIGUSR1 through the pid its pid file names.
TEST_F(Users, TheDownloadSchedulerIsToldThroughItsPidFile)
{
    std::string defaults = read_file(kDefaults);
    defaults.replace(defaults.find("support_download=\"no\""), 21, "support_download=\"yes\"");
    write_file(kDefaults, defaults);
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t scheduler = ::fork();
    if (scheduler == 0) {
        ::sigprocmask(SIG_BLOCK, &usr1, nullptr);
        (void)!::write(ready[1], "y", 1);
        const timespec limit{10, 0};
        ::_exit(::sigtimedwait(&usr1, nullptr, &limit) == SIGUSR1 ? 0 : 1);
    }
    char ok = 0;
    ASSERT_EQ(::read(ready[0], &ok, 1), 1);
    write_file("/var/run/scheduler.pid", std::to_string(scheduler) + "\n");
    ASSERT_EQ(set({user("fred", "pw")}).rc, 0);
    const KEMOUSERSET again = user("fred", "pw2", "fred");
    ASSERT_EQ(KEMOUserSet(KEMO_ACCOUNT_LOCAL, &again, 1), 0);
    int status = -1;
    ASSERT_EQ(::waitpid(scheduler, &status, 0), scheduler);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the scheduler got no SIGUSR1";

    // A pid file that names no live process signals nothing; the change
    // itself succeeds.
    write_file("/var/run/scheduler.pid", std::to_string(scheduler) + "\n");
    const char *gone[] = {"fred"};
    EXPECT_EQ(KEMOUserDelete(gone, 1), 1);
}

TEST_F(Users, RenameCarriesTheAccountIntoEveryList)
{
    ASSERT_EQ(set({user("alice", "pw", nullptr, "", "a@x")}).rc, 0);
    write_file(kGroup, "root:x:0:root\nusers:x:100:nobody,alice,bob,nobody\n"
                       "alice:x:65536:nobody,ALICE,nobody\nnobody:x:65534:\n");
    std::string smb = read_file(kSmbConf);
    smb.replace(smb.find("\twrite list=nobody,@users,nobody"), 32,
                "\twrite list=nobody,@alice,Alice,bob,nobody");
    smb += "\t# read list=alice\n";
    write_file(kSmbConf, smb);
    const std::string uid = fields(entry(kPasswd, "alice"))[2];

    ASSERT_EQ(set({user("carol", "pw", "ALICE")}).rc, 0);
    EXPECT_EQ(entry(kPasswd, "alice"), "");
    EXPECT_EQ(fields(entry(kPasswd, "carol"))[2], uid);
    EXPECT_EQ(fields(entry(kShadow, "carol")).size(), 9u);
    EXPECT_EQ(fields(entry(kSmbpasswd, "carol"))[1], uid);
    EXPECT_EQ(entry(kMail, "carol"), "carol=\"a@x\"") << "the address follows the account";
    EXPECT_EQ(entry(kMail, "alice"), "");
    EXPECT_THAT(lines_of(kGroup), ElementsAre("root:x:0:root", "users:x:100:nobody,carol,bob,nobody",
                                              "alice:x:65536:nobody,carol,nobody", "nobody:x:65534:"));
    const std::string after = read_file(kSmbConf);
    EXPECT_NE(after.find("\twrite list=nobody,@alice,carol,bob,nobody\n"), std::string::npos);
    EXPECT_NE(after.find("\t# read list=alice\n"), std::string::npos);
    EXPECT_EQ(run({"getent", "passwd", "alice"}).status, 2);
    EXPECT_EQ(run({"id", "-u", "carol"}).out, uid + "\n");
    expect_pwck_clean();

    // A new address with the rename replaces the old one.
    ASSERT_EQ(set({user("dora", "pw", "carol", "", "d@x")}).rc, 0);
    EXPECT_EQ(entry(kMail, "carol"), "");
    EXPECT_EQ(entry(kMail, "dora"), "dora=\"d@x\"");
}

TEST_F(Users, RefusedBatchesReportTheFirstKindOfFaultAndChangeNothing)
{
    ASSERT_EQ(set({user("erin", "pw")}).rc, 0);
    const auto before = files();
    auto expect = [&](std::vector<KEMOUSERSET> batch, int rc, int code, std::vector<std::string> errors) {
        const SetResult r = set(std::move(batch));
        EXPECT_EQ(r.rc, rc);
        EXPECT_EQ(r.code, code);
        EXPECT_EQ(r.errors, errors);
        EXPECT_EQ(files(), before);
    };
    expect({user("ok", "pw"), user("bad/name", "pw"), user("-dash", "pw")}, -2, ERR_INVALID_USERNAME,
           {"bad/name", "-dash"});
    expect({user("ERIN", "pw"), user("x:y", "pw"), user("guest", "pw")}, -3, ERR_USER_EXISTS,
           {"ERIN", "guest"});
    expect({user("new", "pw", "ghost"), user("admin", "pw", "erin")}, -4, ERR_NO_SUCH_USER, {"new"});
    expect({user("twin", "pw"), user("TWIN", "pw")}, -2, ERR_INVALID_USERNAME, {"TWIN"});
    expect({user("erin", "pw", "erin"), user("Erin", "pw", "ERIN")}, -2, ERR_INVALID_USERNAME, {"Erin"});
    expect({user("zed", "pw", "erin"), user("zed", "pw")}, -5, KEMO_ERR_CROSS_DUP_NAME, {"zed"});
    expect({user("", "pw"), user(nullptr, "pw")}, -1, ERR_BAD_PARAMETERS, {});
    expect({user("fred", "pw", nullptr, "two\nlines")}, -1, ERR_BAD_PARAMETERS, {"fred"});
    expect({user("fred", "a:b")}, -1, ERR_BAD_PARAMETERS, {"fred"});
    expect({user("fred", nullptr)}, -1, ERR_BAD_PARAMETERS, {"fred"});

    // admin, guest and erin: one more user than allowed is refused.
    std::string defaults = read_file(kDefaults);
    defaults.replace(defaults.find("maxaccounts=\"1024\""), 18, "maxaccounts=\"4\"");
    write_file(kDefaults, defaults);
    expect({user("fred", "pw"), user("gina", "pw")}, -6, ERR_TOO_MANY_USERS, {});
    EXPECT_EQ(set({user("fred", "pw"), user("erin", "pw2", "erin")}).rc, 0);

    KEMOUSERSET one = user("x", "pw");
    EXPECT_EQ(KEMOUserSet(2, &one, 1), -1);
    EXPECT_EQ(KEMOUserSet(1, &one, 0), -1);
    EXPECT_EQ(KEMOUserSetLocal(&one, 1, nullptr), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
}

TEST_F(Users, UidsWrapAtTheTopAndRunOut)
{
    write_file(kCurUid, "# last uid\nUID=2048\n");
    ASSERT_EQ(KEMOUserSet(1, std::vector{user("wrap", "pw")}.data(), 1), 0);
    EXPECT_EQ(fields(entry(kPasswd, "wrap"))[2], "1026") << "1024 and 1025 are taken";
    EXPECT_EQ(read_file(kCurUid), "# last uid\nUID=1026\n");

    // A batch takes distinct uids in one pass, skipping the used ones.
    std::vector<std::string> batch_names;
    std::vector<KEMOUSERSET> batch;
    for (int i = 0; i < 100; ++i)
        batch_names.push_back("u" + std::to_string(i));
    for (const std::string &n : batch_names)
        batch.push_back(user(n.c_str(), "pw"));
    ASSERT_EQ(set(batch).rc, 0);
    EXPECT_EQ(fields(entry(kPasswd, "u0"))[2], "1027");
    EXPECT_EQ(fields(entry(kPasswd, "u99"))[2], "1126");
    EXPECT_EQ(read_file(kCurUid), "# last uid\nUID=1126\n");
    expect_pwck_clean();

    // Every uid from 1024 to 2048 in use: creation fails after 1024 probes.
    std::string passwd = "root:x:0:0:root:/root:/bin/sh\n", shadow = "root:*:1:0:99999:7:::\n";
    for (int uid = 1024; uid <= 2048; ++uid) {
        passwd += "p" + std::to_string(uid) + ":x:" + std::to_string(uid) + ":100::/:/bin/csh\n";
        shadow += "p" + std::to_string(uid) + ":*:1:0:99999:7:::\n";
    }
    write_file(kPasswd, passwd);
    write_file(kShadow, shadow, 0600);
    std::string defaults = read_file(kDefaults);
    defaults.replace(defaults.find("maxaccounts=\"1024\""), 18, "maxaccounts=\"4096\"");
    write_file(kDefaults, defaults);
    const auto before = files();
    const SetResult r = set({user("full", "pw")});
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.code, ERR_TOO_MANY_USERS);
    EXPECT_EQ(files(), before);
}

TEST_F(Users, DeletionLeavesNoTraceAndSparesTheBuiltInAccounts)
{
    ASSERT_EQ(set({user("alice", "pw", nullptr, "", "a@x"), user("bob", "pw", nullptr, "", "b@x")}).rc, 0);
    write_file(kGroup, "users:x:100:nobody,alice,bob,nobody\nalice:x:65536:nobody,nobody\n");
    std::string smb = read_file(kSmbConf);
    smb.replace(smb.find("\tread list=nobody,nobody"), 24, "\tread list=nobody,ALICE,@alice,bob,nobody");
    write_file(kSmbConf, smb);

    const char *const list[] = {"Alice", "ROOT", "Admin", nullptr, "guest", "missing", "alice"};
    EXPECT_EQ(KEMOUserDelete(list, 7), 1);
    for (const std::string &p : {kPasswd, kShadow, kSmbpasswd, kMail})
        EXPECT_EQ(entry(p, "alice"), "") << p;
    EXPECT_NE(entry(kPasswd, "bob"), "");
    EXPECT_EQ(entry(kMail, "bob"), "bob=\"b@x\"");
    EXPECT_NE(entry(kPasswd, "guest"), "") << "guest stays while guest support is on";
    EXPECT_THAT(lines_of(kGroup), ElementsAre("users:x:100:nobody,bob,nobody", "alice:x:65536:nobody,nobody"));
    EXPECT_NE(read_file(kSmbConf).find("\tread list=nobody,@alice,bob,nobody\n"), std::string::npos);
    EXPECT_EQ(mode_of(kShadow), 0600u);
    EXPECT_EQ(mode_of(kSmbpasswd), 0600u);
    EXPECT_EQ(run({"getent", "passwd", "alice"}).status, 2);
    expect_pwck_clean();

    const auto before = files();
    const char *const builtin[] = {"root", "ADMIN", nullptr, "nobody"};
    EXPECT_EQ(KEMOUserDelete(builtin, 4), 0);
    EXPECT_EQ(KLIBErrGet(), ERR_INVALID_USERNAME);
    EXPECT_EQ(files(), before);
    EXPECT_EQ(KEMOUserDelete(builtin, 0), -1);
    EXPECT_EQ(KEMOUserDelete(nullptr, 1), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
}

// An account with expiry day D ends at local midnight after D: checked in
// zones far east and far west of UTC, so that whatever the hour, the local
// date differs from the UTC date in one of them.
TEST_F(Users, ExpiryEndsAtLocalMidnight)
{
    ASSERT_EQ(set({user("temp", "pw")}).rc, 0);
    EXPECT_EQ(KEMOUserCheckExpired("temp"), 0) << "no expiry";
    for (const char *zone : {"XXX-14", "YYY+12"}) {
        setenv("TZ", zone, 1);
        tzset();
        const time_t now = std::time(nullptr);
        tm local{};
        localtime_r(&now, &local);
        const int32_t local_day = static_cast<int32_t>((now + local.tm_gmtoff) / 86400);
        ASSERT_EQ(set({user("temp", nullptr, "temp", nullptr, nullptr, local_day)}).rc, 0);
        EXPECT_EQ(KEMOUserCheckExpired("temp"), 0) << zone;
        ASSERT_EQ(set({user("temp", nullptr, "temp", nullptr, nullptr, local_day - 1)}).rc, 0);
        EXPECT_EQ(KEMOUserCheckExpired("temp"), 1) << zone;
    }
    EXPECT_EQ(KEMOUserCheckExpired("nobody-here"), -1);
}

TEST_F(Users, EnumerationFiltersAndRefusesATruncatedFile)
{
    EXPECT_THAT(names(), ElementsAre("admin", "guest"));
    EXPECT_THAT(names(KEMO_USER_LOCAL | KEMO_USER_DOMAIN_ALL), ElementsAre("admin", "guest"));
    int needed = 0;
    EXPECT_EQ(KEMOUserEnum(0, nullptr, 0, &needed), 0);
    EXPECT_EQ(needed, static_cast<int>(sizeof(char *) * 3 + 6 + 6));
    std::vector<char *> small(5);
    EXPECT_EQ(KEMOUserEnum(0, small.data(), needed - 1, &needed), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(KEMOUserEnum(0x02, nullptr, 0, &needed), -1);
    EXPECT_EQ(KEMOUserEnum(0, nullptr, 4, &needed), -1);
    EXPECT_EQ(KEMOUserTotalNum(7), 2);
    EXPECT_EQ(KEMOUserTotalNum(0x10), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);

    std::string defaults = read_file(kDefaults);
    defaults.replace(defaults.find("guestsupport=\"yes\""), 18, "guestsupport=\"no\"");
    write_file(kDefaults, defaults);
    EXPECT_THAT(names(), ElementsAre("admin"));
    EXPECT_EQ(KEMOUserTotalNum(0), 1);

    write_file(kPasswd, "root:x:0:0:root:/root:/bin/sh\n");
    EXPECT_EQ(KEMOUserEnum(0, nullptr, 0, &needed), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_SYS_UNKNOWN);
    EXPECT_EQ(KEMOUserTotalNum(7), -1);
    EXPECT_EQ(set({user("late", "pw")}).rc, -1) << "no account limit from a truncated file";
}

TEST_F(Users, StaticRecordsOfThePasswdFile)
{
    const passwd *pw = KLIBGetPwNam("admin");
    ASSERT_NE(pw, nullptr);
    EXPECT_STREQ(pw->pw_name, "admin");
    EXPECT_STREQ(pw->pw_passwd, "x");
    EXPECT_EQ(pw->pw_uid, 1024u);
    EXPECT_STREQ(pw->pw_gecos, "System default administrator");
    pw = PpwGetLocalPwNam("admin");
    ASSERT_NE(pw, nullptr);
    EXPECT_STREQ(pw->pw_passwd, "$1$Qe7rT2wX$ARVc7dh4lASit8aBvuwfF.");
    pw = PpwGetPwNam("guest");
    ASSERT_NE(pw, nullptr);
    EXPECT_STREQ(pw->pw_passwd, "") << "guest has no password";

    EXPECT_EQ(KLIBGetPwNam(std::string(65, 'a').c_str()), nullptr);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    EXPECT_EQ(KLIBGetPwNam("adm"), nullptr);
    EXPECT_EQ(KLIBErrGet(), ERR_NO_SUCH_USER);
    write_file(kPasswd, read_file(kPasswd) + "broken:x:1030:100\n");
    EXPECT_EQ(KLIBGetPwNam("broken"), nullptr);
    EXPECT_EQ(KLIBErrGet(), ERR_FORMAT_ERROR);

    EXPECT_EQ(KEMOUserRandomNumMap2Seed(0), '0');
    EXPECT_EQ(KEMOUserRandomNumMap2Seed(-37), 'b');
    EXPECT_EQ(KEMOUserRandomNumMap2Seed(62 + 64), '.');
    EXPECT_EQ(KEMOUserRandomNumMap2Seed(INT32_MIN), '0');
}

// Accounts of the system (uids below 1024, and the "nobody" ids from 65534
// up) are never renamed, changed or given a password: the batch is refused
// with ERR_ACCESS_DENIED and every file stays as it was.  The appliance's
// own accounts admin and guest stay open to changes.
TEST_F(Users, SystemAccountsAreOutOfReach)
{
    write_file(kPasswd, read_file(kPasswd) + "daemon:x:1:1:daemon:/:/bin/false\n"
                                             "nogroup:x:65535:65535::/:/bin/false\n");
    write_file(kShadow, read_file(kShadow) + "daemon:*:19000:0:99999:7:::\nnogroup:*:19000:0:99999:7:::\n");
    ASSERT_EQ(set({user("erin", "pw")}).rc, 0);
    const auto before = files();
    auto denied = [&](std::vector<KEMOUSERSET> batch, std::vector<std::string> errors) {
        const SetResult r = set(std::move(batch));
        EXPECT_EQ(r.rc, -1);
        EXPECT_EQ(r.code, ERR_ACCESS_DENIED);
        EXPECT_EQ(r.errors, errors);
        EXPECT_EQ(files(), before);
    };
    denied({user("toor", "pw", "root")}, {"toor"});                       // rename root toor
    denied({user("nobody", "letmein", "nobody")}, {"nobody"});            // password nobody
    denied({user("Root", "x", "ROOT", "owned")}, {"Root"});               // respelled and changed
    denied({user("daemon", "pw", "daemon")}, {"daemon"});
    denied({user("nogroup", "pw", "nogroup")}, {"nogroup"});
    denied({user("fred", "pw"), user("erin", "pw2", "erin"), user("root", "pw", "root")}, {"root"});

    // The same request through the public entry.
    const KEMOUSERSET rename_root = user("toor", "pw", "root");
    EXPECT_EQ(KEMOUserSet(KEMO_ACCOUNT_LOCAL, &rename_root, 1), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_ACCESS_DENIED);
    EXPECT_EQ(files(), before);

    // admin and guest are the appliance's own: their passwords change, and
    // admin may be renamed.
    EXPECT_EQ(set({user("admin", "n3w", "admin"), user("guest", "g", "guest")}).rc, 0);
    EXPECT_EQ(set({user("boss", "n3w", "admin")}).rc, 0);
    EXPECT_NE(entry(kPasswd, "boss"), "");
    EXPECT_EQ(entry(kPasswd, "root"), "root:x:0:0:root:/root:/bin/sh");
}

// A configuration backup names accounts by name: one whose user section
// names root must not replace root's password hash.
TEST_F(Users, ABackupCannotRestoreOverASystemAccount)
{
    const char backup_path[] = "/tmp/users.kbk";
    ASSERT_EQ(set({user("r00t", "hijack", nullptr, "", nullptr)}).rc, 0);
    ASSERT_EQ(KEMOSysbkpExport(backup_path, 0x100, 0600), 0);
    std::string backup = read_file(backup_path);
    const std::string name = std::string("\0\0\0\5r00t\0", 9);
    const auto at = backup.find(name);
    ASSERT_NE(at, std::string::npos);
    backup.replace(at + 4, 4, "root");
    write_file(backup_path, backup, 0600);
    const char *gone[] = {"r00t"};
    ASSERT_EQ(KEMOUserDelete(gone, 1), 1);
    const auto before = files();

    EXPECT_EQ(KEMOSysbkpImport(backup_path, 0x100, 1), -1);
    EXPECT_EQ(files(), before);
    EXPECT_EQ(fields(entry(kShadow, "root"))[1], fields(lines_of(kShadow)[0])[1]);
}

// Account files that a change creates anew get the mode of their kind,
// whatever the caller's umask: the secret ones are never readable by
// others, the public ones readable by every program.
TEST_F(Users, RecreatedFilesGetTheModeOfTheirKind)
{
    ASSERT_EQ(::unlink(kHtpasswd.c_str()), 0);
    ASSERT_EQ(::unlink(kMail.c_str()), 0);
    const mode_t old_mask = ::umask(0);
    const auto r = set({user("admin", "n3w-web", "admin", nullptr, "root@example.com")});
    ::umask(077);
    const auto r2 = set({user("fred", "pw", nullptr, "", "f@x")});
    ASSERT_EQ(::unlink(kMail.c_str()), 0);
    const auto r3 = set({user("fred", "pw", "fred", "", "f@y")});
    ::umask(old_mask);
    ASSERT_EQ(r.rc, 0);
    ASSERT_EQ(r2.rc, 0);
    ASSERT_EQ(r3.rc, 0);
    EXPECT_EQ(mode_of(kHtpasswd), 0600u);
    EXPECT_EQ(stat_of(kHtpasswd).st_uid, 0u);
    EXPECT_EQ(read_file(kHtpasswd), "admin:" + fields(entry(kShadow, "admin"))[1] + "\n");
    EXPECT_EQ(mode_of(kMail), 0644u);
    EXPECT_EQ(mode_of(kPasswd), 0644u);
}

} // namespace
