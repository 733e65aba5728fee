// What the storage test programs of the virtual appliance share: running a
// command as an administrator would, reading the kernel's and the tools'
// answers, making arrays with mdadm, and catching the library's system log
// lines.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace kemo_guest {

// The exit status of a shell command, or -1 when it did not exit.
inline int sh(const std::string &command)
{
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Everything a shell command wrote on its standard output.
inline std::string output_of(const std::string &command)
{
    std::string out;
    if (FILE *p = ::popen(command.c_str(), "r")) {
        char buf[4096];
        std::size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, p)) > 0)
            out.append(buf, n);
        ::pclose(p);
    }
    return out;
}

// text without its trailing line breaks and blanks (a sysfs or proc value).
inline std::string chomped(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text;
}

// A whole file as it is.
inline std::string read_file(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// A one-value file (sysfs, proc), chomped.
inline std::string read_text(const std::string &path)
{
    return chomped(read_file(path));
}

inline void write_text(const std::string &path, const std::string &text)
{
    std::ofstream(path) << text;
}

// An array as an administrator makes it with mdadm: no resync, metadata
// 1.2, one member forced; extra options (--size=...) before the members.
inline void make_array(int md, int level, const std::string &members, int count, const std::string &extra = "")
{
    ASSERT_EQ(sh("mdadm --create /dev/md" + std::to_string(md) + " --run --assume-clean --metadata=1.2 -l" +
                 std::to_string(level) + " -n" + std::to_string(count) + (count == 1 ? " --force " : " ") +
                 extra + " " + members + " >/dev/null 2>&1"),
              0)
        << "mdadm could not create md" << md << " from " << members;
}

// What the library sends to the system log while it lives (it takes
// /dev/log over from the guest's syslogd).
class LogCapture {
public:
    LogCapture()
    {
        ::unlink("/dev/log");
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un addr {};
        addr.sun_family = AF_UNIX;
        std::strcpy(addr.sun_path, "/dev/log");
        if (::bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
            ADD_FAILURE() << "cannot bind /dev/log";
        ::closelog();
    }
    ~LogCapture()
    {
        ::close(fd_);
        ::unlink("/dev/log");
        ::closelog();
    }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;
    std::string text()
    {
        char buf[8192];
        ssize_t n;
        while ((n = ::recv(fd_, buf, sizeof buf, 0)) > 0)
            all_.append(buf, static_cast<std::size_t>(n)).push_back('\n');
        return all_;
    }

private:
    int fd_ = -1;
    std::string all_;
};

} // namespace kemo_guest
