// Running programs and shell commands, finding and stopping processes, pid
// files, sizes, and the service notifications.  Caller text must never
// break out of a shell command: every hostile name below would create
// /tmp/pwned if it did.
#include "kemo.h"
#include "as_nobody.hpp"
#include "sandbox_fixture.hpp"
#include "syslog_capture.hpp"

// The command runner is internal to the library (its symbols are not
// exported); the test program compiles its own copy of it.
#include "kemomisc.hpp"

#include <gmock/gmock.h>
#include <grp.h>
#include <sys/file.h>

#include <filesystem>

namespace {

using ::testing::HasSubstr;

constexpr const char *marker = "/tmp/pwned";

const std::vector<std::string> hostile = {
    "x'; touch /tmp/pwned; echo '",
    "x\"; touch /tmp/pwned; echo \"",
    "$(touch /tmp/pwned)",
    "`touch /tmp/pwned`",
    "x | touch /tmp/pwned",
    "x; touch /tmp/pwned",
    "x\ntouch /tmp/pwned",
    "'$(touch /tmp/pwned)'\\",
    "x & touch /tmp/pwned &",
};

class Shell : public SandboxTest {};
class Exec : public SandboxTest {};
class Ps : public SandboxTest {};
class Sizes : public SandboxTest {};
class Services : public SandboxTest {};

// A child running argv (PATH not searched) in a process group of its own;
// the group is killed and the child reaped at the end.
class Child {
public:
    explicit Child(std::vector<std::string> argv)
    {
        std::vector<char *> args;
        for (std::string &a : argv)
            args.push_back(a.data());
        args.push_back(nullptr);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::setpgid(0, 0);
            ::execv(args[0], args.data());
            ::_exit(127);
        }
    }
    ~Child()
    {
        if (pid_ > 0) {
            ::kill(-pid_, SIGKILL);
            ::kill(pid_, SIGKILL);
            wait();
        }
    }
    pid_t pid() const { return pid_; }
    // The wait status (reaps the child).
    int wait()
    {
        int status = 0;
        if (pid_ > 0)
            ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }

private:
    pid_t pid_ = -1;
};

// Waits until ps shows the child's command line (exec has happened).
void await_exec(pid_t pid, const std::string &program)
{
    for (int i = 0; i < 200; ++i) {
        std::ifstream in("/proc/" + std::to_string(pid) + "/cmdline");
        std::string first;
        std::getline(in, first, '\0');
        if (first == program)
            return;
        ::usleep(10000);
    }
    ADD_FAILURE() << program << " did not start";
}

// A sleep under a name of its own (ps shows the link's name).
std::string sleeper(const std::string &path)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::filesystem::create_symlink("/bin/sleep", path);
    return path;
}

std::string unique(const char *prefix)
{
    return prefix + std::to_string(::getpid());
}

TEST_F(Shell, ArgumentsReachTheProgramByteForByte)
{
    std::vector<std::string> texts = hostile;
    for (const char *t : {"plain", "", "a b", "'", "''", "\\", "$HOME", "*", "~", "-n", "%s", "\t",
                          "\x01\xff", "a\"b'c\\d$e`f"})
        texts.push_back(t);
    for (const std::string &text : texts) {
        // Bare, single-quoted and double-quoted places, and several in one word.
        for (const char *tmpl : {"printf '%%s' %s > /tmp/out", "printf '%%s' '%s' > /tmp/out",
                                 "printf '%%s' \"%s\" > /tmp/out", "printf '%%s' \"x\"'%s'\\ %s\"%s\" > /tmp/out"}) {
            const std::string_view t(tmpl);
            const int n = t.find("\\ ") != std::string_view::npos ? 3 : 1;
            const auto command = n == 1 ? kemo::shell_command(tmpl, {text})
                                        : kemo::shell_command(tmpl, {text, text, text});
            ASSERT_TRUE(command) << tmpl << " with " << text;
            ASSERT_EQ(kemo::exit_code(kemo::shell_run(*command)), 0) << *command;
            EXPECT_EQ(read_file("/tmp/out"), n == 1 ? text : "x" + text + " " + text + text) << *command;
        }
    }
    EXPECT_FALSE(exists(marker));
}

TEST_F(Shell, PlainNamesGiveTheCommandAsWritten)
{
    EXPECT_EQ(kemo::shell_command("/bin/ps -awx | /bin/grep '%s' > %s 2>&1", {"smbd", "/tmp/tempKLIBPs12"}),
              "/bin/ps -awx | /bin/grep 'smbd' > /tmp/tempKLIBPs12 2>&1");
    EXPECT_EQ(kemo::shell_command("/bin/mv -f %s/%s %s > /dev/null 2>&1", {"/etc", "a.conf", "/tmp/b-1_2"}),
              "/bin/mv -f /etc/a.conf /tmp/b-1_2 > /dev/null 2>&1");
    EXPECT_EQ(kemo::shell_command("date +%%s %s", {"a b"}), "date +%s 'a b'");
    EXPECT_EQ(kemo::shell_quote(""), "''");
    EXPECT_EQ(kemo::shell_quote("it's"), "'it'\\''s'");
}

TEST_F(Shell, RefusesWhatItCannotCarry)
{
    const std::string_view nul("a\0b", 3);
    EXPECT_FALSE(kemo::shell_command("echo %s", {nul}));
    EXPECT_FALSE(kemo::shell_command("echo '%s'", {nul}));
    EXPECT_FALSE(kemo::shell_command("echo %s %s", {"a"}));
    EXPECT_FALSE(kemo::shell_command("echo %s", {"a", "b"}));
    EXPECT_FALSE(kemo::shell_command("echo %d", {"1"}));
    EXPECT_FALSE(kemo::shell_command("echo %s%", {"a"}));
    EXPECT_FALSE(kemo::shell_command("echo '%s", {"a"}));
    EXPECT_EQ(kemo::shell_run(std::string_view("true\0; touch /tmp/pwned", 23)), -1);
    EXPECT_FALSE(kemo::shell_read(std::string_view("true\0x", 6)).started);
    EXPECT_FALSE(exists(marker));
}

TEST_F(Shell, OutputAndStatus)
{
    auto out = kemo::shell_read("printf 'a\\nb\\n'; exit 3");
    EXPECT_TRUE(out.started);
    EXPECT_EQ(out.text, "a\nb\n");
    EXPECT_EQ(kemo::exit_code(out.status), 3);
    // The rest of a long output is drained, so the writer is not killed.
    out = kemo::shell_read("seq 1 200000", kemo::Output::first_line);
    EXPECT_EQ(out.text, "1");
    EXPECT_EQ(kemo::exit_code(out.status), 0);

    EXPECT_EQ(KLIBSystem(nullptr), 0);
    const int status = KLIBSystem("exit 4");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 4);
}

TEST_F(Exec, ExitCodesSignalsAndMissingPrograms)
{
    EXPECT_EQ(KLIBExec("/bin/true", nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(KLIBExec("/bin/sh", "-c", "exit 1", nullptr, nullptr), 1);
    EXPECT_EQ(KLIBExec("/no/such/program", nullptr, nullptr, nullptr, nullptr), 255);
    KLIBErrSet(ERR_SUCCESS);
    EXPECT_EQ(KLIBExec("/bin/sh", "-c", "kill -9 $$", nullptr, nullptr), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_OP_FAILURE);
    // All four arguments reach it, and the list ends at the first null.
    EXPECT_EQ(KLIBExec("/bin/sh", "-c", "exit $#", "zero", "one"), 1);
    EXPECT_EQ(KLIBExec("/bin/sh", "-c", "exit $#", nullptr, "one"), 0);
    EXPECT_EQ(KLIBExec(nullptr, nullptr, nullptr, nullptr, nullptr), -1);

    // Callers that let children be reaped automatically still get the
    // result, and keep their setting.
    struct sigaction nowait {}, now {};
    nowait.sa_handler = SIG_DFL;
    nowait.sa_flags = SA_NOCLDWAIT;
    ASSERT_EQ(::sigaction(SIGCHLD, &nowait, nullptr), 0);
    EXPECT_EQ(KLIBExec("/bin/sh", "-c", "exit 7", nullptr, nullptr), 7);
    ::sigaction(SIGCHLD, nullptr, &now);
    EXPECT_TRUE(now.sa_flags & SA_NOCLDWAIT);
}

TEST_F(Exec, ChildIsDetachedAndHoldsNoLocks)
{
    ASSERT_EQ(ErrKLIBFileLock(KLIB_LOCK_PW | KLIB_LOCK_EX, 0), 0);
    std::filesystem::create_directories("/tmp/work");
    std::filesystem::current_path("/tmp/work");
    const char *check =
        "[ \"$(pwd)\" = / ] || exit 10\n"
        "for n in 0 1 2; do [ \"$(readlink /proc/$$/fd/$n)\" = /dev/null ] || exit 11; done\n"
        "for f in /proc/$$/fd/*; do case \"$(readlink $f)\" in /tmp/lock/*) exit 12;; esac; done\n"
        "[ \"$(cut -d' ' -f6 /proc/$$/stat)\" = $$ ] || exit 13\n";
    EXPECT_EQ(KLIBExec("/bin/sh", "-c", check, nullptr, nullptr), 0);
    EXPECT_EQ(KLIBSystem("for f in /proc/$$/fd/*; do case \"$(readlink $f)\" in /tmp/lock/*) exit 12;; "
                         "esac; done"),
              0);

    // A program started in the background outlives its caller's lock: when
    // the caller drops its locks, nobody holds them any more.
    const pid_t pid = KLIBBackgroundExec("/bin/sleep", "30", nullptr, nullptr, nullptr);
    ASSERT_GT(pid, 0);
    await_exec(pid, "/bin/sleep");
    EXPECT_TRUE(BlKLIBProcAlive(pid));
    EXPECT_EQ(ErrKLIBFileCloseLock(), 0);
    const int fd = ::open("/tmp/lock/lock_pw", O_RDONLY);
    EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);
    ::close(fd);
    ::kill(pid, SIGKILL);

    EXPECT_EQ(KLIBBackgroundExec("/no/such/program", nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_OP_FAILURE);
}

TEST_F(Ps, FindsProgramsButNotTheSearch)
{
    const std::string name = unique("kzs");
    const std::string program = sleeper("/tmp/" + name);
    Child one({program, "30"}), two({program, "30"});
    await_exec(one.pid(), program);
    await_exec(two.pid(), program);

    int32_t pids[3] = {-1, -1, -1};
    ASSERT_EQ(KLIBPs(name.c_str(), pids, 3), 2);
    EXPECT_THAT(std::vector<int32_t>(pids, pids + 2), ::testing::UnorderedElementsAre(one.pid(), two.pid()));
    EXPECT_EQ(pids[2], -1);
    pids[1] = -1;
    EXPECT_EQ(KLIBPs(name.c_str(), pids, 1), 2) << "the count goes beyond max";
    EXPECT_EQ(pids[1], -1);
    EXPECT_EQ(BlKLIBIIsProcAlive(name.c_str()), 1);
    EXPECT_EQ(BlProcessIsAlive(name.c_str()), 1);
    EXPECT_FALSE(exists("/tmp/tempKLIBPs" + std::to_string(::getpid()))) << "scratch file removed";

    // A name that stands only in the search itself.
    const std::string nobody = unique("kzq");
    EXPECT_EQ(KLIBPs(nobody.c_str(), pids, 3), 0);
    EXPECT_EQ(BlKLIBIIsProcAlive(nobody.c_str()), 0);
    EXPECT_EQ(BlProcessIsAlive(nobody.c_str()), 0);
    EXPECT_EQ(KLIBPs(nullptr, pids, 3), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    EXPECT_EQ(KLIBPs("-v", pids, 3), -1) << "no options for grep";
    EXPECT_EQ(BlKLIBIIsProcAlive(nullptr), 0);

    // A command line full of quotes and shell syntax is found as written.
    const std::string odd = "q\"$(te) `x`;|" + name + " it'";
    Child shell({"/bin/sh", "-c", "sleep 30; :", odd});
    await_exec(shell.pid(), "/bin/sh");
    EXPECT_EQ(KLIBPs(odd.c_str(), pids, 3), 1);
    EXPECT_EQ(pids[0], shell.pid());
}

TEST_F(Ps, KillStopsTheNamedProcesses)
{
    const std::string name = unique("kzk");
    const std::string program = sleeper("/tmp/" + name);
    Child polite({program, "30"});
    await_exec(polite.pid(), program);
    EXPECT_EQ(KLIBIKill(name.c_str(), 0), 1);
    int status = polite.wait();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);

    Child forced({program, "30"});
    await_exec(forced.pid(), program);
    EXPECT_EQ(KLIBIKill(name.c_str(), 1), 1);
    status = forced.wait();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);

    // One that ignores SIGTERM is killed after the grace period.
    Child stubborn({"/bin/sh", "-c", "trap '' TERM; exec \"$0\" 30", program});
    await_exec(stubborn.pid(), program);
    EXPECT_GE(KLIBIKill(name.c_str(), 0), 1);
    status = stubborn.wait();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);

    EXPECT_EQ(KLIBIKill(nullptr, 0), -1);
    EXPECT_EQ(KLIBIKill(unique("kzq").c_str(), 1), 0);
}

TEST_F(Ps, HostileNamesStayInsideTheirQuotes)
{
    std::filesystem::create_directories("/tmp/sizes");
    int32_t pids[4];
    for (const std::string &name : hostile) {
        EXPECT_LE(KLIBPs(name.c_str(), pids, 4), 0) << name;
        EXPECT_EQ(BlKLIBIIsProcAlive(name.c_str()), 0) << name;
        EXPECT_EQ(BlProcessIsAlive(name.c_str()), 0) << name;
        EXPECT_EQ(KLIBIKill(name.c_str(), 1), name.find('\n') == std::string::npos ? 0 : -1) << name;
        EXPECT_EQ(KLIBGetDirSize(name.c_str()), 0u) << name;
        EXPECT_EQ(KLIBGetDirSize(("/tmp/sizes/" + name).c_str()), 0u) << name;
        ASSERT_FALSE(exists(marker)) << name;
    }
}

TEST_F(Ps, PidFiles)
{
    write_file("/var/run/a.pid", "123\n");
    EXPECT_EQ(KLIBReadPidFile("/var/run/a.pid"), 123);
    for (const char *text : {"", "\n", "abc\n", "-5\n", "99999999999\n"}) {
        write_file("/var/run/a.pid", text);
        EXPECT_EQ(KLIBReadPidFile("/var/run/a.pid"), 0) << text;
        EXPECT_EQ(KLIBProcAliveByPidFile("/var/run/a.pid"), 0) << text;
    }
    EXPECT_EQ(KLIBReadPidFile("/var/run/missing.pid"), -1);
    EXPECT_EQ(KLIBReadPidFile(nullptr), -1);
    EXPECT_EQ(KLIBProcAliveByPidFile("/var/run/missing.pid"), 0);

    write_file("/var/run/self.pid", std::to_string(::getpid()) + "\n");
    EXPECT_EQ(KLIBProcAliveByPidFile("/var/run/self.pid"), 1);
    Child gone({"/bin/true"});
    const pid_t dead = gone.pid();
    gone.wait();
    write_file("/var/run/gone.pid", std::to_string(dead) + "\n");
    EXPECT_EQ(KLIBProcAliveByPidFile("/var/run/gone.pid"), 0);
    EXPECT_EQ(BlKLIBProcAlive(dead), 0);
    EXPECT_EQ(BlKLIBProcAlive(::getpid()), 1);
    EXPECT_EQ(BlKLIBProcAlive(0), 0);
    EXPECT_EQ(BlKLIBProcAlive(-1), 0);
}

TEST_F(Sizes, DirectorySizesAgreeWithDu)
{
    const std::string dir = "/tmp/d'ir $(x) \"q\"";
    write_file(dir + "/a", std::string(5000, 'a'));
    write_file(dir + "/sub/b", std::string(20000, 'b'));
    std::filesystem::create_hard_link(dir + "/a", dir + "/sub/a-again");
    std::filesystem::create_symlink("/etc/passwd", dir + "/link");
    const RunResult du = run({"du", "-sk", dir});
    ASSERT_EQ(du.status, 0);
    EXPECT_EQ(KLIBGetDirSize(dir.c_str()), std::stoull(du.out) * 1024);
    EXPECT_GT(KLIBGetDirSize(dir.c_str()), 0u);
    EXPECT_EQ(KLIBGetFullDirSize(dir.c_str()), 25000u) << "each inode once, links not followed";
    std::filesystem::current_path("/tmp");
    EXPECT_EQ(KLIBGetFullDirSize(dir.substr(5).c_str()), 25000u);
    EXPECT_EQ(KLIBGetFullDirSize((dir + "/sub/b").c_str()), 20000u);

    SyslogCapture log;
    EXPECT_EQ(KLIBGetDirSize(nullptr), 0u);
    EXPECT_EQ(KLIBGetFullDirSize(nullptr), 0u);
    EXPECT_EQ(KLIBGetFullDirSize("/tmp/missing"), 0u);
    EXPECT_EQ(KLIBGetFsFreeSize(nullptr), 0u);
    const auto messages = log.messages();
    ASSERT_EQ(messages.size(), 4u);
    EXPECT_THAT(messages[0].text, ::testing::MatchesRegex("lib/kemomisc.cpp\\([0-9]+\\)bad parameter"));
    EXPECT_THAT(messages[1].text, ::testing::MatchesRegex("lib/kemomisc.cpp \\([0-9]+\\) Bad parameter\\."));
    EXPECT_THAT(messages[2].text, HasSubstr("filename: /tmp/missing"));
    EXPECT_THAT(messages[3].text, ::testing::MatchesRegex("lib/kemomisc.cpp\\([0-9]+\\)bad parameter"));
}

TEST_F(Services, ConnectionsAreServerProcessesBeyondTheMaster)
{
    const std::string ftpd = sleeper("/usr/kemo/sbin/ftpd");
    std::vector<std::unique_ptr<Child>> servers;
    for (int i = 0; i < 3; ++i) {
        servers.push_back(std::make_unique<Child>(std::vector<std::string>{ftpd, "30"}));
        await_exec(servers.back()->pid(), ftpd);
    }
    EXPECT_EQ(KLIBConnectionCountGet(KLIB_SERVICE_FTP), 2);
    EXPECT_EQ(KLIBConnectionCountGet(KLIB_SERVICE_FTP | KLIB_SERVICE_SMB | KLIB_SERVICE_AFP), 2);
    EXPECT_EQ(KLIBConnectionCountGet(KLIB_SERVICE_SMB), 0);
    EXPECT_EQ(BlKLIBIsConnected(KLIB_SERVICE_FTP), 1);
    EXPECT_EQ(BlKLIBIsConnected(KLIB_SERVICE_AFP), 0);
    EXPECT_EQ(KLIBConnectionCountGet(0), -1);
    EXPECT_EQ(KLIBConnectionCountGet(8), -1);

    EXPECT_EQ(KLIBConnectionCountLogin(KLIB_SERVICE_FTP), 1) << "factory maxservices is 64";
    ASSERT_EQ(KLIBFileSetKeyValue("/etc.defaults/kemoinfo.conf", "maxservices", "2", nullptr), 1);
    EXPECT_EQ(KLIBConnectionCountLogin(KLIB_SERVICE_FTP), 0);
    ASSERT_EQ(KLIBFileSetKeyValue("/etc.defaults/kemoinfo.conf", "maxservices", "3", nullptr), 1);
    EXPECT_EQ(KLIBConnectionCountLogin(KLIB_SERVICE_FTP), 1);
}

TEST_F(Services, MediaHelpersRunForTheirFolders)
{
    write_file("/usr/kemo/bin/kemoindex", "#!/bin/sh\necho \"index $*\" >> /tmp/calls\n", 0755);
    write_file("/usr/kemo/bin/kemomkthumb", "#!/bin/sh\necho \"thumb $*\" >> /tmp/calls\n", 0755);
    EXPECT_EQ(KLIBKemoIndexAdd("/volume1/photo/a.jpg"), 0);
    EXPECT_EQ(KLIBKemoIndexAdd("/volume2/music/b c.mp3"), 0);
    EXPECT_EQ(KLIBKemoIndexAdd("/volume1/public/x.mp3"), 0);
    EXPECT_EQ(KLIBKemoIndexAdd("/volume1/photo/../public/x.jpg"), 0);
    EXPECT_EQ(KLIBSignalKemomkthumbd("/volume1/photo/a.jpg"), 0);
    EXPECT_EQ(KLIBSignalKemomkthumbd("/volume1/video/v.avi"), 0);
    EXPECT_EQ(KLIBKemoIndexAdd(nullptr), -1);
    EXPECT_THAT(lines_of("/tmp/calls"), ::testing::ElementsAre("index /volume1/photo/a.jpg",
                                                                "index /volume2/music/b c.mp3",
                                                                "thumb /volume1/photo/a.jpg"));

    ASSERT_EQ(KLIBFileSetKeyValue("/etc.defaults/kemoinfo.conf", "supportmediaservice", "no", nullptr), 1);
    EXPECT_EQ(KLIBKemoIndexAdd("/volume1/video/v.avi"), 0);
    EXPECT_EQ(lines_of("/tmp/calls").size(), 3u);

    write_file("/usr/kemo/bin/kemomkthumb", "#!/bin/sh\nexit 1\n", 0755);
    SyslogCapture log;
    EXPECT_EQ(KLIBSignalKemomkthumbd("/volume1/photo/a.jpg"), -1);
    const auto texts = log.texts();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_THAT(texts[0], HasSubstr(" Failed to run exec. (/usr/kemo/bin/kemomkthumb)"));
}

TEST_F(Services, StatusLightDaemonIsSignalled)
{
    EXPECT_EQ(KLIBChangeQormdLight(1), -1) << "no pid file";
    for (const int on : {1, 0}) {
        int ready[2];
        ASSERT_EQ(::pipe(ready), 0);
        const pid_t pid = ::fork();
        if (pid == 0) {
            sigset_t set;
            sigemptyset(&set);
            sigaddset(&set, SIGUSR1);
            sigaddset(&set, SIGUSR2);
            sigprocmask(SIG_BLOCK, &set, nullptr);
            ::close(ready[0]);
            ::close(ready[1]);
            ::_exit(sigwaitinfo(&set, nullptr));
        }
        ::close(ready[1]);
        char c;
        ASSERT_EQ(::read(ready[0], &c, 1), 0); // the child has blocked the signals
        ::close(ready[0]);
        write_file("/var/run/qormd.pid", std::to_string(pid) + "\n");
        EXPECT_EQ(KLIBChangeQormdLight(on), 0);
        int status = 0;
        ::waitpid(pid, &status, 0);
        EXPECT_EQ(WEXITSTATUS(status), on ? SIGUSR1 : SIGUSR2);
    }
}

TEST_F(Services, PrinterResetOpensOnlyUsbDevices)
{
    for (const char *bad : {"", ".", "..", "../sda", "lp0/x"}) {
        EXPECT_EQ(KEMOResetPrinter(bad), -1) << bad;
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    }
    EXPECT_EQ(KEMOResetPrinter(nullptr), -1);
    EXPECT_EQ(KEMOResetPrinter("lp0"), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_OPEN_FAILED);
}

// The process list is read through a pipe: no scratch name in /tmp that a
// local user could plant a link at (or a directory in the way).
TEST_F(Ps, NoScratchFileInTmp)
{
    const std::string name = unique("kzp");
    const std::string program = sleeper("/tmp/" + name);
    Child one({program, "30"});
    await_exec(one.pid(), program);
    write_file("/etc/victim", "precious\n", 0600);
    const std::string scratch = "/tmp/tempKLIBPs" + std::to_string(::getpid());
    ASSERT_TRUE(as_nobody([&] { return ::symlink("/etc/victim", scratch.c_str()) == 0; }));

    int32_t pids[2] = {-1, -1};
    EXPECT_EQ(KLIBPs(name.c_str(), pids, 2), 1);
    EXPECT_EQ(pids[0], one.pid());
    EXPECT_EQ(read_file("/etc/victim"), "precious\n");
    EXPECT_TRUE(S_ISLNK(stat_of(scratch).st_mode)) << "the planted name is not even touched";
    ::unlink(scratch.c_str());
    ASSERT_EQ(::mkdir(scratch.c_str(), 0755), 0);
    EXPECT_EQ(BlKLIBIIsProcAlive(name.c_str()), 1) << "a directory in the way changes nothing";
}

// A path that begins with "-" is a path for du, never an option.
TEST_F(Sizes, LeadingDashIsAPath)
{
    write_file("/tmp/dash/-x/a", std::string(12000, 'a'));
    std::filesystem::current_path("/tmp/dash");
    const RunResult du = run({"du", "-sk", "--", "-x"});
    ASSERT_EQ(du.status, 0);
    EXPECT_EQ(KLIBGetDirSize("-x"), std::stoull(du.out) * 1024);
    EXPECT_GT(KLIBGetDirSize("-x"), 0u);
    EXPECT_EQ(KLIBGetDirSize("--version"), 0u) << "no such directory";
}

} // namespace
