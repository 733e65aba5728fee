// Test fixture that gives every test case a fresh appliance sandbox, and
// the small file and process helpers the tests use again and again.
//
//   class UserTest : public SandboxTest {};
//   TEST_F(UserTest, ...) { write_file("/etc/passwd", "..."); ... }
//
// Without root (or without mount namespaces and overlays) every such test
// is skipped with one message that says why.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "kemo.h"
#include "kemo_sandbox.hpp"

class SandboxTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        if (!kemo::sandbox::available(&why)) GTEST_SKIP() << "appliance sandbox unavailable: " << why;
        ASSERT_TRUE(kemo::sandbox::fresh(&why)) << "cannot build the appliance sandbox: " << why;
    }
};

// Whole content of a file; a missing or unreadable file fails the test.
inline std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        ADD_FAILURE() << "cannot read " << path << ": " << std::strerror(errno);
        return {};
    }
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// The lines of a file without their line ends.
inline std::vector<std::string> lines_of(const std::string &path) {
    std::vector<std::string> lines;
    std::istringstream in(read_file(path));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Writes a file inside the sandbox with exactly `mode`, creating parents.
inline void write_file(const std::string &path, std::string_view content, mode_t mode = 0644) {
    std::string why;
    if (!kemo::sandbox::place(path, content, mode, &why)) ADD_FAILURE() << why;
}

// Checks a refused write: result -1 with ERR_BAD_PARAMETERS, and the file
// at path still holding `before`.
//   const auto refused = refusal_check(path, before);
//   refused(KLIBFileSetKeyValue(...), "what was tried");
inline auto refusal_check(std::string path, std::string before) {
    return [path = std::move(path), before = std::move(before)](int result, const std::string &what) {
        EXPECT_EQ(result, -1) << what;
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS) << what;
        EXPECT_EQ(read_file(path), before) << what;
    };
}

// True when something (also a dangling symbolic link) is at `path`.
inline bool exists(const std::string &path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

// lstat of `path`; a missing path fails the test and gives a zeroed record.
inline struct stat stat_of(const std::string &path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) ADD_FAILURE() << "lstat " << path << ": " << std::strerror(errno);
    return st;
}

// Permission bits (07777) of `path`.
inline mode_t mode_of(const std::string &path) { return stat_of(path).st_mode & 07777; }

struct RunResult {
    int status = -1;  // exit code, or 128 + signal number; -1 when it could not be started
    std::string out;
    std::string err;
};

// Runs a program (PATH is searched) with `input` on its standard input and
// collects its standard output and error.
inline RunResult run(const std::vector<std::string> &argv, std::string_view input = {}) {
    RunResult result;
    int in[2], out[2], err[2];
    if (argv.empty() || ::pipe2(in, O_CLOEXEC) != 0) return result;
    if (::pipe2(out, O_CLOEXEC) != 0) return result;
    if (::pipe2(err, O_CLOEXEC) != 0) return result;
    std::vector<char *> args;
    for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    if (pid < 0) {
        ::close(in[1]);
        ::close(out[0]);
        ::close(err[0]);
        return result;
    }
    // Feed and drain together so that a chatty program cannot block us.
    struct sigaction ignore {}, old {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &ignore, &old);
    std::size_t fed = 0;
    if (input.empty()) ::close(in[1]);
    pollfd fds[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {input.empty() ? -1 : in[1], POLLOUT, 0}};
    std::string *sinks[2] = {&result.out, &result.err};
    while (fds[0].fd >= 0 || fds[1].fd >= 0) {
        if (::poll(fds, 3, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buffer[4096];
            const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                sinks[i]->append(buffer, static_cast<std::size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                ::close(fds[i].fd);
                fds[i].fd = -1;
            }
        }
        if (fds[2].fd >= 0 && fds[2].revents != 0) {
            const ssize_t n = ::write(fds[2].fd, input.data() + fed, input.size() - fed);
            if (n > 0) fed += static_cast<std::size_t>(n);
            if (n < 0 || fed == input.size()) {
                ::close(fds[2].fd);
                fds[2].fd = -1;
            }
        }
    }
    if (fds[2].fd >= 0) ::close(fds[2].fd);
    ::sigaction(SIGPIPE, &old, nullptr);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return result;
}
