// Users, groups and shares carried by a configuration backup from one
// appliance to a fresh factory one.
#include "kemo.h"
#include "sandbox_fixture.hpp"

#include <crypt.h>
#include <pwd.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr uint32_t kAccounts = 0x20 | 0x100 | 0x200;
const char kBackup[] = "/tmp/accounts.kbk";
const char *const kAccountFiles[] = {"/etc/passwd", "/etc/shadow", "/etc/group", "/etc/group_desc",
                                     "/etc/mail", "/usr/kemo/etc/private/smbpasswd",
                                     "/usr/kemo/etc/smb.conf", "/usr/kemo/etc/.htpasswd"};

const char kDocsShare[] = "[docs]\n"
                          "\tcomment=Team documents\n"
                          "\tpath=/volume1/docs\n"
                          "\tbrowseable=yes\n"
                          "\tguest ok=no\n"
                          "\twriteable=no\n"
                          "\tinvalid users=nobody,bob,nobody\n"
                          "\twrite list=nobody,@sales,nobody\n"
                          "\tread list=nobody,alice,nobody\n";

int add_user(const char *name, const char *password, const char *desc, int32_t expire,
             const char *mail)
{
    const KEMOUSERSET u{KEMO_ACCOUNT_LOCAL, nullptr, name, password, desc, expire, mail};
    return KEMOUserSet(KEMO_ACCOUNT_LOCAL, &u, 1);
}

// Field `field` of the line of `name` in account file text.
std::string field_in(const std::string &text, const std::string &name, int field)
{
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(name + ":", 0) != 0)
            continue;
        std::istringstream fields(line + ":");
        std::string value;
        for (int i = 0; i <= field && std::getline(fields, value, ':'); ++i) {
        }
        return value;
    }
    return "<missing>";
}

std::string user_field(const char *path, const std::string &name, int field)
{
    return field_in(read_file(path), name, field);
}

std::vector<std::string> members_of(const char *group)
{
    int needed = 0;
    if (KEMOGroupGet(KEMO_GROUP_LOCAL, KEMO_ACCOUNT_LOCAL, group, nullptr, 0, &needed) < 0)
        return {"<missing>"};
    std::vector<char *> buffer(static_cast<std::size_t>(needed) / sizeof(char *) + 1);
    KEMOGroupGet(KEMO_GROUP_LOCAL, KEMO_ACCOUNT_LOCAL, group, buffer.data(),
                 static_cast<int>(buffer.size() * sizeof(char *)), &needed);
    std::vector<std::string> members;
    for (char **p = buffer.data() + 1; *p != nullptr; ++p)
        members.emplace_back(*p);
    return members;
}

std::vector<std::string> snapshot()
{
    std::vector<std::string> files;
    for (const char *path : kAccountFiles)
        files.push_back(exists(path) ? read_file(path) : "<none>");
    return files;
}

class BackupAccountsTest : public SandboxTest {
protected:
    // Accounts worth saving on the first appliance; returns the backup's
    // bytes, exported with the account sections only.
    std::string export_accounts()
    {
        EXPECT_EQ(add_user("alice", "Secret-1", "Alice: sales", 21000, "alice@example.com"), 0);
        EXPECT_EQ(add_user("bob", "hunter2", "", 0, nullptr), 0);
        const KEMOUSERSET admin{KEMO_ACCOUNT_LOCAL, "admin", "admin", "n3w-admin", nullptr, 0, nullptr};
        EXPECT_EQ(KEMOUserSet(KEMO_ACCOUNT_LOCAL, &admin, 1), 0);
        const char *sales[] = {"sales", "alice", "bob", nullptr};
        EXPECT_EQ(KEMOGroupSet(KEMO_GROUP_LOCAL, KEMO_ACCOUNT_LOCAL, nullptr, sales), 0);
        EXPECT_EQ(KEMOGroupSetDesc("sales", "Sales: both offices"), 0);
        write_file("/usr/kemo/etc/smb.conf", read_file("/usr/kemo/etc/smb.conf") + kDocsShare);
        original_ = snapshot();
        alice_uid_ = user_field("/etc/passwd", "alice", 2);
        EXPECT_EQ(KEMOSysbkpExport(kBackup, kAccounts, 0600), 0);
        return read_file(kBackup);
    }

    // A fresh factory appliance holding the backup file.
    void fresh_appliance(const std::string &backup)
    {
        std::string why;
        ASSERT_TRUE(kemo::sandbox::fresh(&why)) << why;
        write_file(kBackup, backup, 0600);
        write_file("/bin/csh", "#!/bin/sh\n", 0755); // the accounts' shell, for pwck

    }

    std::vector<std::string> original_;
    std::string alice_uid_;
};

TEST_F(BackupAccountsTest, RestoresUsersGroupsAndSharesOnAFreshAppliance)
{
    const std::string backup = export_accounts();
    fresh_appliance(backup);

    ASSERT_EQ(KEMOSysbkpImport(kBackup, kAccounts, 1), 0);
    EXPECT_EQ(gimp_status & kAccounts, kAccounts);

    // The files say what they said on the first appliance: same hashes,
    // same uids, same lists.  Only the days of the last password change
    // and the file-sharing change stamps may differ.
    const std::vector<std::string> restored = snapshot();
    for (const char *name : {"alice", "bob", "admin"})
        for (int field = 0; field < 7; ++field)
            EXPECT_EQ(field_in(restored[0], name, field), field_in(original_[0], name, field))
                << name << " field " << field;
    EXPECT_EQ(user_field("/etc/passwd", "alice", 2), alice_uid_);

    // The password works without being given again: crypt, the NT hash,
    // and the web password of admin.
    const std::string hash = user_field("/etc/shadow", "alice", 1);
    EXPECT_STREQ(crypt("Secret-1", hash.c_str()), hash.c_str());
    EXPECT_EQ(user_field("/etc/shadow", "alice", 7), "21000");
    unsigned char nt[16];
    ASSERT_EQ(KLIBSmbNtHash("Secret-1", nt), 0);
    char hex[33];
    for (int i = 0; i < 16; ++i)
        std::snprintf(hex + 2 * i, 3, "%02X", nt[i]);
    EXPECT_EQ(user_field("/usr/kemo/etc/private/smbpasswd", "alice", 3), hex);
    const std::string admin_hash = user_field("/etc/shadow", "admin", 1);
    EXPECT_STREQ(crypt("n3w-admin", admin_hash.c_str()), admin_hash.c_str());
    EXPECT_NE(read_file("/usr/kemo/etc/.htpasswd").find("admin:" + admin_hash), std::string::npos);
    EXPECT_NE(read_file("/etc/mail").find("alice=\"alice@example.com\""), std::string::npos);

    EXPECT_EQ(members_of("sales"), (std::vector<std::string>{"alice", "bob"}));
    char desc[64];
    int needed = 0;
    ASSERT_EQ(KEMOGroupGetDesc("sales", desc, sizeof desc, &needed), 1);
    EXPECT_STREQ(desc, "Sales: both offices");
    EXPECT_NE(read_file("/usr/kemo/etc/smb.conf").find(kDocsShare), std::string::npos);
    EXPECT_EQ(restored[1].size(), original_[1].size()); // shadow: same lines, same lengths

    ASSERT_NE(gpshUser, nullptr);
    EXPECT_STREQ(SzKLIBSzHashGetValue(gpshUser, "alice"), alice_uid_.c_str());

    // The real tools agree with the restored files.
    const RunResult pwck = run({"pwck", "-r"});
    EXPECT_EQ(pwck.status, 0) << pwck.out << pwck.err;
    const passwd *pw = getpwnam("bob");
    ASSERT_NE(pw, nullptr);
    EXPECT_STREQ(pw->pw_dir, "/");
    if (exists("/usr/bin/testparm")) {
        EXPECT_EQ(run({"testparm", "-s", "/usr/kemo/etc/smb.conf"}).status, 0);
    }
}

TEST_F(BackupAccountsTest, CheckOnlyImportAndRefusedSectionsChangeNothing)
{
    std::string backup = export_accounts();
    fresh_appliance(backup);
    const std::vector<std::string> factory = snapshot();

    ASSERT_EQ(KEMOSysbkpImport(kBackup, kAccounts, 0), 0);
    EXPECT_EQ(snapshot(), factory);

    // A user name that is no name: the user section is refused as a whole,
    // the groups (whose members are then unknown) and shares still follow.
    const std::string alice = std::string("\0\0\0\6alice\0", 10);
    const auto at = backup.find(alice);
    ASSERT_NE(at, std::string::npos);
    backup.replace(at + 4, 5, "a$(x)");
    write_file(kBackup, backup, 0600);
    EXPECT_EQ(KEMOSysbkpImport(kBackup, 0x100, 1), -1);
    EXPECT_EQ(gimp_status & 0x100, 0u);
    EXPECT_EQ(snapshot(), factory);
}

TEST_F(BackupAccountsTest, AccountsPresentOnTheTargetTakeTheBackupsPasswords)
{
    const std::string backup = export_accounts();
    fresh_appliance(backup);
    // alice exists here already, with another password and another uid.
    ASSERT_EQ(add_user("zed", "z", "", 0, nullptr), 0);
    ASSERT_EQ(add_user("ALICE", "other", "", 0, nullptr), 0);
    const std::string here_uid = user_field("/etc/passwd", "ALICE", 2);

    ASSERT_EQ(KEMOSysbkpImport(kBackup, 0x100, 1), 0);
    const std::string hash = user_field("/etc/shadow", "alice", 1);
    EXPECT_STREQ(crypt("Secret-1", hash.c_str()), hash.c_str());
    EXPECT_EQ(user_field("/etc/passwd", "alice", 2), here_uid); // an existing account keeps its uid
    EXPECT_EQ(user_field("/etc/passwd", "ALICE", 0), "<missing>");
    EXPECT_EQ(user_field("/etc/passwd", "zed", 0), "zed"); // accounts not in the backup stay
    EXPECT_STREQ(SzKLIBSzHashGetValue(gpshUser, "alice"), here_uid.c_str());
    const RunResult pwck = run({"pwck", "-r"});
    EXPECT_EQ(pwck.status, 0) << pwck.out << pwck.err;
}

} // namespace
