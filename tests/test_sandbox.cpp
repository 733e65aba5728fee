// The appliance sandbox itself: the factory tree it installs, that nothing
// leaks out of it, fresh(), place(), the kemo-sandbox command and the
// syslog receiver that the other tests rely on.

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "sandbox_fixture.hpp"
#include "syslog_capture.hpp"

namespace sb = kemo::sandbox;

namespace {

std::vector<std::string> entries_of(const std::string &dir) {
    std::vector<std::string> names;
    if (DIR *d = ::opendir(dir.c_str())) {
        while (const dirent *e = ::readdir(d)) {
            const std::string name = e->d_name;
            if (name != "." && name != "..") names.push_back(name);
        }
        ::closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

long fs_type(const char *path) {
    struct statfs st {};
    return ::statfs(path, &st) == 0 ? static_cast<long>(st.f_type) : -1;
}

bool read_only(const std::string &path) {
    struct statvfs st {};
    return ::statvfs(path.c_str(), &st) == 0 && (st.f_flag & ST_RDONLY) != 0;
}

std::string cwd() {
    char buffer[4096];
    return ::getcwd(buffer, sizeof buffer) != nullptr ? buffer : "";
}

}  // namespace

// ---------------------------------------------------------------- factory tree

class SandboxFactory : public SandboxTest {};

TEST_F(SandboxFactory, EveryEntryIsInstalledWithItsContentModeAndOwner) {
    ASSERT_FALSE(sb::factory().empty());
    for (const sb::FactoryFile &f : sb::factory()) {
        const std::string path(f.path);
        SCOPED_TRACE(path);
        const struct stat st = stat_of(path);
        EXPECT_EQ(st.st_mode & 07777, f.mode);
        EXPECT_EQ(st.st_uid, f.uid);
        EXPECT_EQ(st.st_gid, f.gid);
        if (f.directory) {
            EXPECT_TRUE(S_ISDIR(st.st_mode));
        } else {
            EXPECT_TRUE(S_ISREG(st.st_mode));
            EXPECT_EQ(read_file(path), f.content);
        }
    }
}

TEST_F(SandboxFactory, PasswordFilesAreNotWorldReadable) {
    for (const char *path : {"/etc/shadow", "/usr/kemo/etc/private/smbpasswd",
                             "/usr/kemo/etc/.htpasswd", "/usr/kemo/etc/private"}) {
        EXPECT_EQ(mode_of(path) & 0007, 0u) << path;
        EXPECT_EQ(stat_of(path).st_uid, 0u) << path;
    }
    EXPECT_EQ(mode_of("/etc/passwd"), 0644u);
}

// The account files describe the same accounts in the formats the user and
// group functions read; scenario tests build on these accounts.
// ---------------------------------------------------------------- isolation

class SandboxIsolation : public SandboxTest {};

TEST_F(SandboxIsolation, MountsAreTheSandboxOwn) {
    EXPECT_EQ(fs_type("/"), OVERLAYFS_SUPER_MAGIC);
    for (const char *tmpfs : {"/tmp", "/run", "/dev", "/dev/shm"})
        EXPECT_EQ(fs_type(tmpfs), TMPFS_MAGIC) << tmpfs;
    EXPECT_EQ(fs_type("/proc"), PROC_SUPER_MAGIC);
    EXPECT_TRUE(read_only("/sys"));
    EXPECT_TRUE(read_only("/proc/sys"));
    EXPECT_FALSE(read_only("/"));

    // /tmp starts empty but for source or build trees that live under the
    // machine's /tmp; those are shown read-only.
    for (const std::string &entry : entries_of("/tmp"))
        EXPECT_TRUE(read_only("/tmp/" + entry)) << entry;
    EXPECT_TRUE(entries_of("/dev/shm").empty());
    EXPECT_FALSE(exists("/dev/log"));

    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(null, 0);
    EXPECT_EQ(::write(null, "x", 1), 1);
    ::close(null);
    const int random = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(random, 0);
    char bytes[16];
    EXPECT_EQ(::read(random, bytes, sizeof bytes), 16);
    ::close(random);
}

TEST_F(SandboxIsolation, WritesNeverReachTheMachine) {
    std::string before;
    ASSERT_TRUE(sb::host_read("/etc/passwd", &before));
    ASSERT_TRUE(sb::host_exists("/etc"));

    write_file("/etc/passwd", "intruder:x:0:0::/:/bin/sh\n");
    const std::string here = cwd();
    std::vector<std::string> probes = {
        "/etc/kemo-sandbox-probe",     "/usr/kemo/etc/kemo-sandbox-probe",
        "/tmp/kemo-sandbox-probe",     "/run/kemo-sandbox-probe",
        "/dev/kemo-sandbox-probe",     "/dev/shm/kemo-sandbox-probe",
    };
    // A working directory under the machine's /tmp is shown read-only;
    // anywhere else it is part of the overlay.
    if (here.rfind("/tmp/", 0) == 0)
        EXPECT_TRUE(read_only(here));
    else
        probes.push_back(here + "/kemo-sandbox-probe");
    for (const std::string &p : probes) {
        write_file(p, "probe\n");
        EXPECT_TRUE(exists(p)) << p;
        EXPECT_FALSE(sb::host_exists(p)) << p;
    }
    ASSERT_EQ(::mkdir("/kemo-sandbox-probe-dir", 0755), 0);
    EXPECT_FALSE(sb::host_exists("/kemo-sandbox-probe-dir"));

    std::string after;
    ASSERT_TRUE(sb::host_read("/etc/passwd", &after));
    EXPECT_EQ(after, before);
    EXPECT_NE(after, read_file("/etc/passwd"));
}

// ---------------------------------------------------------------- fresh()

class SandboxFresh : public SandboxTest {};

TEST_F(SandboxFresh, DiscardsEverythingTheLastSandboxChanged) {
    write_file("/etc/passwd", "changed\n");
    ASSERT_EQ(::unlink("/etc/group"), 0);
    ASSERT_EQ(::chmod("/etc/shadow", 0644), 0);
    write_file("/etc/kemo-extra", "x");
    write_file("/tmp/lock/lock_pw", "");
    write_file("/dev/shm/segment", "x");
    write_file("/run/daemon.pid", "1\n");

    std::string why;
    ASSERT_TRUE(sb::fresh(&why)) << why;
    ASSERT_TRUE(sb::inside());
    for (const sb::FactoryFile &f : sb::factory()) {
        if (f.directory) continue;
        EXPECT_EQ(read_file(std::string(f.path)), f.content) << f.path;
    }
    EXPECT_EQ(mode_of("/etc/shadow"), 0600u);
    for (const char *gone : {"/etc/kemo-extra", "/tmp/lock", "/dev/shm/segment", "/run/daemon.pid"})
        EXPECT_FALSE(exists(gone)) << gone;
}

TEST_F(SandboxFresh, ReturnsToTheStartingDirectory) {
    const std::string start = cwd();
    ASSERT_FALSE(start.empty());
    ASSERT_EQ(::mkdir("/tmp/elsewhere", 0755), 0);
    ASSERT_EQ(::chdir("/tmp/elsewhere"), 0);
    ASSERT_TRUE(sb::fresh());
    EXPECT_EQ(cwd(), start);
}

// Descriptors and working directories left in the old sandbox must neither
// block the new one nor see into it.
TEST_F(SandboxFresh, OldDescriptorsStayInTheOldSandbox) {
    const int held = ::open("/tmp/held", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(held, 0);
    std::string why;
    ASSERT_TRUE(sb::fresh(&why)) << why;
    EXPECT_EQ(::write(held, "late", 4), 4);
    ::close(held);
    EXPECT_FALSE(exists("/tmp/held"));
}

// ---------------------------------------------------------------- place()

class SandboxPlace : public SandboxTest {};

TEST_F(SandboxPlace, CreatesParentsAndSetsTheExactMode) {
    const mode_t old_umask = ::umask(077);
    const std::string content("a\0b\n", 4);
    std::string why;
    const bool placed = sb::place("/usr/kemo/new/deep/file", content, 0640, &why);
    ::umask(old_umask);
    ASSERT_TRUE(placed) << why;
    EXPECT_EQ(read_file("/usr/kemo/new/deep/file"), content);
    EXPECT_EQ(mode_of("/usr/kemo/new/deep/file"), 0640u);
    EXPECT_EQ(mode_of("/usr/kemo/new"), 0755u);
    EXPECT_EQ(mode_of("/usr/kemo/new/deep"), 0755u);
    EXPECT_EQ(stat_of("/usr/kemo/new/deep/file").st_uid, 0u);
    EXPECT_TRUE(entries_of("/usr/kemo/new/deep") == std::vector<std::string> {"file"});
}

TEST_F(SandboxPlace, ReplacesFilesAndLinks) {
    write_file("/etc/kemoinfo.conf", "short\n", 0600);
    EXPECT_EQ(read_file("/etc/kemoinfo.conf"), "short\n");
    EXPECT_EQ(mode_of("/etc/kemoinfo.conf"), 0600u);

    ASSERT_EQ(::symlink("/etc/group", "/etc/group-link"), 0);
    write_file("/etc/group-link", "own\n");
    EXPECT_TRUE(S_ISREG(stat_of("/etc/group-link").st_mode));
    EXPECT_EQ(read_file("/etc/group-link"), "own\n");
    EXPECT_NE(read_file("/etc/group"), "own\n");
}

TEST_F(SandboxPlace, InstallsProgramsTheLibraryRuns) {
    write_file("/tmp/wbinfo.sh", "#!/bin/sh\nprintf 'S-1-5-21-7-1000 %s\\n' \"$*\"\n", 0700);
    std::string why;
    ASSERT_TRUE(sb::place_file("/tmp/wbinfo.sh", "/usr/kemo/bin/wbinfo", std::nullopt, &why)) << why;
    EXPECT_EQ(mode_of("/usr/kemo/bin/wbinfo"), 0700u);
    const RunResult r = run({"/usr/kemo/bin/wbinfo", "-n", "DOM\\alice"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "S-1-5-21-7-1000 -n DOM\\alice\n");

    ASSERT_TRUE(sb::place_file("/tmp/wbinfo.sh", "/usr/kemo/bin/copy", 0644, &why)) << why;
    EXPECT_EQ(mode_of("/usr/kemo/bin/copy"), 0644u);
}

TEST_F(SandboxPlace, RefusesPathsThatAreNotAbsoluteFiles) {
    for (const char *bad : {"etc/relative", "", "/", "/etc/dir/"}) {
        std::string why;
        EXPECT_FALSE(sb::place(bad, "x", 0644, &why)) << bad;
        EXPECT_FALSE(why.empty()) << bad;
    }
    EXPECT_FALSE(exists("etc/relative"));
    std::string why;
    EXPECT_FALSE(sb::place_file("/no/such/source", "/etc/x", std::nullopt, &why));
    EXPECT_NE(why.find("/no/such/source"), std::string::npos) << why;
}

// ---------------------------------------------------------------- kemo-sandbox

class SandboxCli : public SandboxTest {
protected:
    void SetUp() override {
        SandboxTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        // A build tree under /tmp is out of sight in the sandbox: run a copy.
        if (!exists(cli_)) {
            std::string binary, why;
            ASSERT_TRUE(sb::host_read(cli_, &binary, &why)) << why;
            cli_ = "/usr/local/libexec/kemo-sandbox";
            write_file(cli_, binary, 0755);
        }
    }

    std::string cli_ = KEMO_SANDBOX_CLI;
};

TEST_F(SandboxCli, PropagatesTheCommandsExitStatus) {
    EXPECT_EQ(run({cli_, "--", "sh", "-c", "exit 7"}).status, 7);
    EXPECT_EQ(run({cli_, "true"}).status, 0);
    EXPECT_EQ(run({cli_, "--", "sh", "-c", "kill -TERM $$"}).status, 128 + SIGTERM);
    const RunResult missing = run({cli_, "--", "/no/such/program"});
    EXPECT_EQ(missing.status, 127);
    EXPECT_NE(missing.err.find("/no/such/program"), std::string::npos) << missing.err;

    EXPECT_EQ(run({cli_}).status, 2);
    EXPECT_EQ(run({cli_, "--place", "nocolon", "true"}).status, 2);
    const RunResult help = run({cli_, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("usage: kemo-sandbox", 0), 0u) << help.out;
}

TEST_F(SandboxCli, CommandGetsAFactoryTreeAndItsChangesStayThere) {
    write_file("/etc/passwd", "root:x:0:0:root:/root:/bin/sh\n");
    write_file("/tmp/from-caller", "x");
    const RunResult r = run({cli_, "--", "sh", "-c",
                             "grep -q '^admin:x:1024:100:' /etc/passwd || exit 10; "
                             "test ! -e /tmp/from-caller || exit 11; "
                             "echo changed > /etc/passwd && touch /tmp/from-command /etc/from-command"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(read_file("/etc/passwd"), "root:x:0:0:root:/root:/bin/sh\n");
    EXPECT_FALSE(exists("/tmp/from-command"));
    EXPECT_FALSE(exists("/etc/from-command"));
}

TEST_F(SandboxCli, PlacesFilesBeforeRunning) {
    write_file("/tmp/tool", "#!/bin/sh\nexit 3\n", 0644);
    write_file("/tmp/data", "payload\n", 0600);
    const RunResult r = run({cli_, "--place", "/tmp/tool:/usr/kemo/bin/tool:755",
                             "--place=/tmp/data:/etc/data", "--", "sh", "-c",
                             "test \"$(stat -c %a /etc/data)\" = 600 || exit 20; "
                             "test \"$(cat /etc/data)\" = payload || exit 21; /usr/kemo/bin/tool"});
    EXPECT_EQ(r.status, 3) << r.err;
    EXPECT_EQ(run({cli_, "--place", "/tmp/missing:/etc/x", "true"}).status, 125);
}

TEST_F(SandboxCli, KeepTmpShowsTheCallersTmpWithoutSharingChanges) {
    write_file("/tmp/input", "from the caller\n");
    const RunResult r = run({cli_, "--keep-tmp", "--", "sh", "-c",
                             "test \"$(cat /tmp/input)\" = 'from the caller' || exit 30; "
                             "echo changed > /tmp/input && touch /tmp/new"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(read_file("/tmp/input"), "from the caller\n");
    EXPECT_FALSE(exists("/tmp/new"));
}

TEST_F(SandboxCli, ExplainsAndExits77WithoutRoot) {
    write_file("/tmp/kemo-sandbox", read_file(cli_), 0755);
    const int err = ::open("/tmp/err", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    ASSERT_GE(err, 0);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        ::dup2(err, 2);
        if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(99);
        ::execl("/tmp/kemo-sandbox", "kemo-sandbox", "true", static_cast<char *>(nullptr));
        ::_exit(98);
    }
    ::close(err);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 77);
    EXPECT_EQ(read_file("/tmp/err"), "kemo-sandbox: appliance sandbox unavailable: needs root (mount namespaces)\n");
}

// ---------------------------------------------------------------- syslog capture

class SandboxSyslog : public SandboxTest {};

TEST_F(SandboxSyslog, ReceivesMessagesWithTheirPriority) {
    SyslogCapture log;
    ::syslog(LOG_ERR, "%s(%d): %s", "lib/kemofile", 42, "open failed: x");
    ::syslog(LOG_WARNING, "second");
    const auto messages = log.messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].priority, LOG_ERR);
    EXPECT_EQ(messages[0].facility, LOG_USER);
    EXPECT_EQ(messages[0].text, "lib/kemofile(42): open failed: x");
    EXPECT_EQ(messages[1].priority, LOG_WARNING);
    EXPECT_EQ(messages[1].text, "second");
    EXPECT_TRUE(log.messages().empty());  // drained
}

TEST_F(SandboxSyslog, FollowsTheNewestSandbox) {
    SyslogCapture old_log;
    ::syslog(LOG_ERR, "before");
    ASSERT_TRUE(sb::fresh());
    SyslogCapture log;
    ::syslog(LOG_ERR, "after");
    EXPECT_EQ(log.texts(), std::vector<std::string> {"after"});
    EXPECT_EQ(old_log.texts(), std::vector<std::string> {"before"});
}
