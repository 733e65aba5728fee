// Account changes are all-or-nothing: a writer that fails at any step
// leaves every account file byte-identical, a writer killed at any step
// leaves files that the next account call brings to one consistent story,
// and writers running side by side lose nothing.
//
// This program replaces rename() and link(): the library's calls reach the
// versions below, which can fail or kill the process at a chosen call.
#include "sandbox_fixture.hpp"

#include "kemo.h"
#include "kemo_records.hpp"

#include <sys/mount.h>
#include <sys/syscall.h>

#include <fcntl.h>
#include <csignal>
#include <chrono>
#include <ctime>
#include <map>
#include <random>
#include <set>

namespace {

struct Injection {
    int calls = 0;
    int die_at = -1;  // SIGKILL before this call
    int fail_at = -1; // this call fails with EIO
};
Injection g_rename, g_link;

bool inject(Injection &at)
{
    const int n = at.calls++;
    if (n == at.die_at)
        ::raise(SIGKILL);
    if (n == at.fail_at) {
        errno = EIO;
        return true;
    }
    return false;
}

} // namespace

extern "C" int rename(const char *from, const char *to)
{
    return inject(g_rename) ? -1 : static_cast<int>(::syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to));
}

extern "C" int link(const char *from, const char *to)
{
    return inject(g_link) ? -1 : static_cast<int>(::syscall(SYS_linkat, AT_FDCWD, from, AT_FDCWD, to, 0));
}

namespace {

const std::vector<std::string> kAccountFiles = {
    "/etc/passwd", "/etc/shadow", "/usr/kemo/etc/private/smbpasswd", "/etc/group",
    "/usr/kemo/etc/smb.conf", "/etc/mail", "/etc/curUID.conf", "/usr/kemo/etc/.htpasswd"};

struct Snapshot {
    std::map<std::string, std::pair<std::string, mode_t>> files;
    void take() {
        for (const std::string &path : kAccountFiles) files[path] = {read_file(path), mode_of(path)};
    }
    void restore() const {
        for (const auto &[path, entry] : files) write_file(path, entry.first, entry.second);
    }
};

std::string leftovers()
{
    std::string found;
    for (const std::string &path : kAccountFiles)
        for (const char *suffix : {".tmp", ".undo"})
            if (exists(path + suffix)) found += path + suffix + " ";
    if (exists("/etc/.accounts.commit")) found += "/etc/.accounts.commit";
    return found;
}

// Names of the first field of every line of a ":" file (local accounts only
// for passwd: uid 1024 and above).
std::set<std::string> names_in(const std::string &path, bool local_only = false)
{
    std::set<std::string> names;
    for (const std::string &line : lines_of(path)) {
        const auto colon = line.find(':');
        if (colon == std::string::npos) continue;
        if (local_only) {
            const int uid = std::stoi(line.substr(line.find(':', colon + 1) + 1));
            if (uid < 1024 || uid >= 65534) continue;
        }
        names.insert(line.substr(0, colon));
    }
    return names;
}

// The five files tell one story: the same accounts everywhere, and every
// member of a group or share list is an account.  After a writer, no twin
// or other leftover of a commit remains either (readers leave stale twins,
// which change nothing, to the next writer).
void expect_consistent(bool after_writer = true)
{
    const auto users = names_in("/etc/passwd", true);
    EXPECT_EQ(users, names_in("/usr/kemo/etc/private/smbpasswd"));
    auto shadow = names_in("/etc/shadow");
    for (const auto &name : names_in("/etc/passwd")) {
        EXPECT_TRUE(shadow.count(name)) << name;
    }
    auto check_list = [&](std::string_view list) {
        std::size_t start = 0;
        while (start <= list.size()) {
            const auto end = std::min(list.find(',', start), list.size());
            const std::string member(list.substr(start, end - start));
            if (!member.empty() && member != "nobody" && member[0] != '@' && member != "root") {
                EXPECT_TRUE(users.count(member)) << "stale member " << member;
            }
            start = end + 1;
        }
    };
    for (const std::string &line : lines_of("/etc/group")) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::string field;
        for (int i = 0; i < 4 && std::getline(fields, field, ':'); ++i) {
        }
        check_list(field);
    }
    for (const std::string &line : lines_of("/usr/kemo/etc/smb.conf")) {
        const auto eq = line.find('=');
        if (line.find("list=") != std::string::npos || line.find("users=") != std::string::npos)
            check_list(std::string_view(line).substr(eq + 1));
    }
    EXPECT_EQ(run({"pwck", "-r", "-q"}).status, 0);
    if (after_writer) {
        EXPECT_EQ(leftovers(), "");
    }
    EXPECT_FALSE(exists("/etc/.accounts.commit"));
}

KEMOUSERSET account(const char *name, const char *password, const char *old_name = nullptr)
{
    return KEMOUSERSET{KEMO_ACCOUNT_LOCAL, old_name, name, password, "", 0, nullptr};
}

// Runs body in a child process and returns how it ended: its exit code, or
// 128 + the signal that killed it.
template <class Body>
int in_child(Body &&body)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        g_rename.calls = g_link.calls = 0;
        ::_exit(body());
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class AccountCommitTest : public SandboxTest {
protected:
    // alice and bob exist; alice is in group "team" and in a share's lists.
    void SetUp() override {
        SandboxTest::SetUp();
        if (IsSkipped()) return;
        KEMOUSERSET users[] = {account("alice", "wonder1"), account("bob", "builder1")};
        ASSERT_EQ(KEMOUserSet(KEMO_ACCOUNT_LOCAL, users, 2), 0);
        write_file("/etc/group", read_file("/etc/group") + "team:x:65536:nobody,alice,bob,nobody\n");
        write_file("/usr/kemo/etc/smb.conf", read_file("/usr/kemo/etc/smb.conf") +
                                                 "[docs]\n\tpath=/volume1/docs\n\tguest ok=no\n"
                                                 "\twriteable=no\n\tinvalid users=nobody,nobody\n"
                                                 "\twrite list=nobody,alice,@team,nobody\n"
                                                 "\tread list=nobody,bob,nobody\n");
        before.take();
    }

    // The change under test touches all five files: a rename with a new
    // password and a creation.
    static int change() {
        KEMOUSERSET users[] = {account("alicia", "new-secret", "alice"), account("carol", "sea1")};
        return KEMOUserSet(KEMO_ACCOUNT_LOCAL, users, 2) == 0 ? 0 : 1;
    }

    bool is_new_state() {
        const auto users = names_in("/etc/passwd", true);
        return users.count("alicia") && users.count("carol") && !users.count("alice") &&
               read_file("/usr/kemo/etc/smb.conf").find("nobody,alicia,@team") != std::string::npos &&
               read_file("/etc/group").find("nobody,alicia,bob,nobody") != std::string::npos;
    }

    Snapshot before;
};

TEST_F(AccountCommitTest, AKilledWriterLeavesOldOrNewStateAfterTheNextCall)
{
    // How many renames and links a complete change makes.
    const int renames = in_child([] {
        const int result = change();
        return result == 0 ? g_rename.calls : 255;
    });
    ASSERT_GT(renames, 5);
    ASSERT_LT(renames, 100);
    before.restore();

    // Killed before each rename, and once after the last one.
    for (int step = 0; step <= renames; ++step) {
        SCOPED_TRACE("killed before rename " + std::to_string(step));
        const int ended = in_child([step] {
            g_rename.die_at = step;
            return change();
        });
        ASSERT_EQ(ended, step < renames ? 128 + SIGKILL : 0);
        // Any account call, even a reader, settles the files first.
        EXPECT_GE(KEMOUserTotalNum(7), 2);
        expect_consistent(false);
        // The commit record is written by the first rename: before it the
        // change never happened, after it the change is complete.
        EXPECT_EQ(is_new_state(), step >= 1);
        before.restore();
    }
    // Killed while the old files get their second names (before the
    // record): the change never happened.
    for (int step = 0; step < 3; ++step) {
        const int ended = in_child([step] {
            g_link.die_at = step;
            return change();
        });
        ASSERT_EQ(ended, 128 + SIGKILL);
        KEMOUSERSET none[] = {account("dave", "x1")};
        EXPECT_EQ(KEMOUserSet(KEMO_ACCOUNT_LOCAL, none, 1), 0); // a writer settles them too
        expect_consistent();
        EXPECT_FALSE(is_new_state());
        before.restore();
    }
}

TEST_F(AccountCommitTest, AFailedRenameLeavesEveryFileByteIdentical)
{
    const int renames = in_child([] { return change() == 0 ? g_rename.calls : 255; });
    before.restore();
    for (int step = 0; step < renames; ++step) {
        SCOPED_TRACE("rename " + std::to_string(step) + " fails");
        const int ended = in_child([step] {
            g_rename.fail_at = step;
            return change() != 0 && (KLIBErrGet() == ERR_RENAME_FAILED || KLIBErrGet() == ERR_WRITE_FAILED)
                       ? 0 : 1;
        });
        EXPECT_EQ(ended, 0);
        for (const auto &[path, entry] : before.files) {
            EXPECT_TRUE(read_file(path) == entry.first) << path << " changed";
            EXPECT_EQ(mode_of(path), entry.second) << path;
        }
        EXPECT_EQ(leftovers(), "");
    }
}

TEST_F(AccountCommitTest, AFullDiskOrABadNameInTheBatchChangesNothing)
{
    // A bad name in the middle of a batch refuses the whole batch.
    KEMOUSERSET batch[] = {account("erin", "e1"), account("bad/name", "b1"), account("frank", "f1")};
    PKLIBSZLIST errors = nullptr;
    EXPECT_EQ(KEMOUserSetLocal(batch, 3, &errors), -2);
    ASSERT_NE(errors, nullptr);
    EXPECT_STREQ(SzKLIBSzListGet(errors, 0), "bad/name");
    KLIBSzListFree(errors);

    // The SMB password file's disk is full.
    const std::string smbpasswd = before.files.at("/usr/kemo/etc/private/smbpasswd").first;
    ASSERT_EQ(::mount("full", "/usr/kemo/etc/private", "tmpfs", 0, "size=64k,mode=0700"), 0);
    write_file("/usr/kemo/etc/private/smbpasswd", smbpasswd, 0600);
    {
        const int fd = ::open("/usr/kemo/etc/private/filler", O_WRONLY | O_CREAT, 0600);
        const std::string block(4096, 'x');
        while (::write(fd, block.data(), block.size()) > 0) {
        }
        ::close(fd);
    }
    EXPECT_NE(change(), 0);
    for (const auto &[path, entry] : before.files)
        EXPECT_TRUE(read_file(path) == entry.first) << path << " changed";
    EXPECT_EQ(leftovers(), "");
}

TEST_F(AccountCommitTest, ReplacedFilesKeepOwnerAndMode)
{
    ASSERT_EQ(::chown("/etc/shadow", 0, 42), 0);
    ASSERT_EQ(::chmod("/etc/shadow", 0640), 0);
    ASSERT_EQ(change(), 0);
    const char *names[] = {"carol"};
    ASSERT_EQ(KEMOUserDelete(names, 1), 1);
    EXPECT_EQ(mode_of("/etc/shadow"), 0640u);
    EXPECT_EQ(stat_of("/etc/shadow").st_gid, 42u);
    EXPECT_EQ(mode_of("/usr/kemo/etc/private/smbpasswd"), 0600u);
    EXPECT_EQ(mode_of("/etc/passwd"), 0644u);
}

TEST_F(AccountCommitTest, WritersSideBySideLoseNothing)
{
    // Four processes create, rename and delete their own users at once.
    constexpr int kWriters = 4, kRounds = 12;
    std::vector<pid_t> children;
    for (int w = 0; w < kWriters; ++w) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            int bad = 0;
            for (int i = 0; i < kRounds; ++i) {
                const std::string name = "w" + std::to_string(w) + "u" + std::to_string(i);
                const std::string renamed = name + "r";
                KEMOUSERSET add[] = {account(name.c_str(), "pw1")};
                KEMOUSERSET move[] = {account(renamed.c_str(), "pw2", name.c_str())};
                bad += KEMOUserSet(KEMO_ACCOUNT_LOCAL, add, 1) != 0;
                bad += KEMOUserSet(KEMO_ACCOUNT_LOCAL, move, 1) != 0;
                if (i % 3 == 0) {
                    const char *gone[] = {renamed.c_str()};
                    bad += KEMOUserDelete(gone, 1) != 1;
                }
            }
            ::_exit(bad);
        }
        children.push_back(pid);
    }
    for (const pid_t pid : children) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    std::set<std::string> expected = {"admin", "guest", "alice", "bob"};
    for (int w = 0; w < kWriters; ++w)
        for (int i = 0; i < kRounds; ++i)
            if (i % 3 != 0) expected.insert("w" + std::to_string(w) + "u" + std::to_string(i) + "r");
    EXPECT_EQ(names_in("/etc/passwd", true), expected);
    expect_consistent();
    // Every account got its own uid.
    std::set<std::string> uids;
    for (const std::string &line : lines_of("/etc/passwd")) uids.insert(line.substr(line.find(":x:") + 3));
    EXPECT_EQ(uids.size(), lines_of("/etc/passwd").size());
}

TEST_F(AccountCommitTest, NamesNeverReachAShell)
{
    // Names may hold blanks and any letters; the commands the library runs
    // around account changes must carry them as plain words.
    write_file("/etc.defaults/kemoinfo.conf",
               read_file("/etc.defaults/kemoinfo.conf") + "support_download=\"yes\"\n");
    KEMOUSERSET users[] = {account("jo smith", "pw1"), account("Zoë Ünal", "pw2")};
    ASSERT_EQ(KEMOUserSet(KEMO_ACCOUNT_LOCAL, users, 2), 0);
    KEMOUSERSET moved[] = {account("jo $(touch /tmp/pwned)", "pw1", "jo smith")};
    EXPECT_EQ(KEMOUserSet(KEMO_ACCOUNT_LOCAL, moved, 1), -2);
    const char *gone[] = {"jo smith", "zoë ünal"};
    EXPECT_EQ(KEMOUserDelete(gone, 2), 2);
    EXPECT_FALSE(exists("/tmp/pwned"));
    expect_consistent();
}

// A writer killed at a random moment, hundreds of times: after each kill
// the next account call settles what it left, and the user files, the
// group file and the share lists tell one story again, with no twin or
// commit record left behind.
TEST_F(AccountCommitTest, WritersKilledAtRandomMomentsLeaveOneStory)
{
    const unsigned seed = static_cast<unsigned>(::getpid()) ^ static_cast<unsigned>(std::time(nullptr));
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(22);
    int rounds = 0, settled_by_reader = 0;
    for (; rounds < 500 && std::chrono::steady_clock::now() < deadline; ++rounds) {
        const std::string round = std::to_string(rounds);
        const pid_t writer = ::fork();
        if (writer == 0) {
            // Creates, renames, changes the password of and deletes users,
            // and puts them into groups, until it is killed.
            for (int i = 0;; ++i) {
                const std::string a = "k" + round + "a" + std::to_string(i);
                const std::string b = "k" + round + "b" + std::to_string(i);
                const std::string g = "kg" + round + "x" + std::to_string(i);
                KEMOUSERSET add[] = {account(a.c_str(), "pw1"), account(b.c_str(), "pw2")};
                KEMOUserSet(KEMO_ACCOUNT_LOCAL, add, 2);
                const char *group[] = {g.c_str(), a.c_str(), b.c_str(), nullptr};
                KEMOGroupSet(KEMO_GROUP_LOCAL, KEMO_ACCOUNT_LOCAL, nullptr, group);
                const std::string renamed = a + "r";
                KEMOUSERSET move[] = {account(renamed.c_str(), "pw3", a.c_str())};
                KEMOUserSet(KEMO_ACCOUNT_LOCAL, move, 1);
                KEMOUSERSET password[] = {account(b.c_str(), "pw4", b.c_str())};
                KEMOUserSet(KEMO_ACCOUNT_LOCAL, password, 1);
                const char *gone[] = {b.c_str()};
                KEMOUserDelete(gone, 1);
                const char *groups[] = {g.c_str()};
                KEMOGroupDelete(groups, 1);
            }
        }
        ::usleep(std::uniform_int_distribution<unsigned>(0, 15000)(random));
        ::kill(writer, SIGKILL);
        int status = 0;
        ::waitpid(writer, &status, 0);

        // A reader first: it completes a commit whose record is there.
        const bool record = exists("/etc/.accounts.commit");
        ASSERT_GE(KEMOUserTotalNum(7), 2);
        ASSERT_FALSE(exists("/etc/.accounts.commit"));
        settled_by_reader += record;
        EXPECT_EQ(names_in("/etc/passwd", true), names_in("/usr/kemo/etc/private/smbpasswd"));
        EXPECT_EQ(names_in("/etc/passwd"), names_in("/etc/shadow"));

        // Then a writer, which also discards twins of a commit that never
        // began: it removes what the killed writer left of its users and
        // groups, so the files stay small.
        std::vector<std::string> users, groups;
        for (const std::string &name : names_in("/etc/passwd", true))
            if (name[0] == 'k') users.push_back(name);
        for (const std::string &name : names_in("/etc/group"))
            if (name.starts_with("kg")) groups.push_back(name);
        std::vector<const char *> doomed;
        for (const std::string &name : users) doomed.push_back(name.c_str());
        doomed.push_back("no-such-user"); // so that the call is never empty
        ASSERT_GE(KEMOUserDelete(doomed.data(), static_cast<int>(doomed.size())), 0);
        if (!groups.empty()) {
            doomed.clear();
            for (const std::string &name : groups) doomed.push_back(name.c_str());
            ASSERT_EQ(KEMOGroupDelete(doomed.data(), static_cast<int>(doomed.size())), 0);
        }
        expect_consistent();
        ASSERT_EQ(names_in("/etc/passwd", true), (std::set<std::string>{"admin", "guest", "alice", "bob"}));
        if (HasFailure()) break;
    }
    EXPECT_GE(rounds, 100);
    RecordProperty("rounds", rounds);
    RecordProperty("settled_by_reader", settled_by_reader);
}

// Each account file's entries parse into their fields and format back to
// the same bytes; lines that are no entries are refused, so that writers
// carry them over untouched.
TEST(AccountRecords, EntriesRoundTripAndDamagedLinesAreNoEntries)
{
    namespace rec = kemo::records;
    const std::string passwd = "alice:x:1026:100:Team;, A:/:/bin/csh";
    const auto pw = rec::parse_passwd(passwd);
    ASSERT_TRUE(pw.has_value());
    EXPECT_EQ(pw->name, "alice");
    EXPECT_EQ(pw->uid, 1026);
    EXPECT_EQ(pw->gecos, "Team;, A");
    EXPECT_EQ(rec::format_passwd(*pw), passwd);
    EXPECT_EQ(rec::passwd_uid(passwd), 1026);
    EXPECT_EQ(rec::passwd_uid("bob:x:"), std::nullopt);
    for (const char *bad : {"alice:x:1026:100::/", "alice:x:1026:100::/:/bin/csh:extra", "alice:x:10x6:100::/:/bin/csh",
                            ":x:1026:100::/:/bin/csh", "alice:x::100::/:/bin/csh", ""})
        EXPECT_FALSE(rec::parse_passwd(bad).has_value()) << bad;

    const std::string shadow = "alice:$1$ab$xyz:20000:0:99999:7::21000:";
    const auto sh = rec::parse_shadow(shadow);
    ASSERT_TRUE(sh.has_value());
    EXPECT_EQ(sh->hash, "$1$ab$xyz");
    EXPECT_EQ(sh->expire, "21000");
    EXPECT_EQ(rec::format_shadow(*sh), shadow);
    EXPECT_FALSE(rec::parse_shadow("alice:$1$ab$xyz:20000:0:99999:7:::1:").has_value());

    const std::string smb = "bob:1027:E52CAC67419A9A224A3B108F3FA6CB6D:8846F7EAEE8FB117AD06BDD830B7586C:[U          ]:LCT-4B3D3B00:";
    auto sp = rec::parse_smbpasswd(smb);
    ASSERT_TRUE(sp.has_value());
    EXPECT_EQ(sp->uid, 1027);
    EXPECT_EQ(sp->nt, "8846F7EAEE8FB117AD06BDD830B7586C");
    EXPECT_EQ(sp->rest, ":");
    EXPECT_EQ(rec::format_smbpasswd(*sp), smb);
    sp->name = "robert";
    EXPECT_EQ(rec::format_smbpasswd(*sp), "robert" + smb.substr(3));
    EXPECT_FALSE(rec::parse_smbpasswd("bob:uid:a:b:c:d:").has_value());
    EXPECT_FALSE(rec::parse_smbpasswd("bob:1027:a:b:c").has_value());

    for (const std::string group : {"sales:x:65536:nobody,alice,nobody", "Staff:x:70000:nobody,nobody:3:NTStaff:7",
                                    "nobody:x:65534:"}) {
        const auto g = rec::parse_group(group);
        ASSERT_TRUE(g.has_value()) << group;
        EXPECT_EQ(rec::format_group(*g), group);
    }
    EXPECT_EQ(rec::parse_group("Staff:x:70000:nobody,nobody:3:NTStaff:7")->tail.size(), 3u);
    for (const char *bad : {"#$_@GID__INDEX@_$65537$", "sales:x:65536", "sales:x:gid:nobody", ":x:1:"})
        EXPECT_FALSE(rec::parse_group(bad).has_value()) << bad;

    const auto mail = rec::parse_mail("alice=\"alice@example.com\"");
    ASSERT_TRUE(mail.has_value());
    EXPECT_EQ(mail->name, "alice");
    EXPECT_EQ(mail->address, "alice@example.com");
    EXPECT_EQ(rec::format_mail(mail->name, mail->address), "alice=\"alice@example.com\"");
    for (const char *bad : {"# alice=\"x\"", "; alice=\"x\"", "", "no pair here"})
        EXPECT_FALSE(rec::parse_mail(bad).has_value()) << bad;
}

// Lines that are no account entries, and entries a change does not touch,
// go back to their files byte for byte.
TEST_F(AccountCommitTest, UntouchedLinesKeepTheirBytes)
{
    const std::string odd_passwd = "# local accounts\n \nbroken line\nodd:x:1700:100:  spaced  :/home/odd:/bin/sh\n";
    const std::string odd_shadow = "# hashes\nodd:!:19000:1:2:3:4:5:6\n";
    const std::string odd_group = "# groups\nweird:x:notanumber:alice\n";
    write_file("/etc/passwd", read_file("/etc/passwd") + odd_passwd);
    write_file("/etc/shadow", read_file("/etc/shadow") + odd_shadow, 0600);
    write_file("/etc/group", read_file("/etc/group") + odd_group);
    KEMOUSERSET users[] = {account("alicia", "pw9", "alice")};
    ASSERT_EQ(KEMOUserSet(KEMO_ACCOUNT_LOCAL, users, 1), 0);
    EXPECT_NE(read_file("/etc/passwd").find(odd_passwd), std::string::npos);
    EXPECT_NE(read_file("/etc/shadow").find(odd_shadow), std::string::npos);
    EXPECT_NE(read_file("/etc/group").find(odd_group), std::string::npos);
    EXPECT_NE(read_file("/etc/group").find("team:x:65536:nobody,alicia,bob,nobody\n"), std::string::npos);
}

} // namespace
