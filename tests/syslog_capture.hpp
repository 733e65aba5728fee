// Receives what the process sends to the system log, for tests that check
// the library's diagnostics.
//
//   SyslogCapture log;                  // binds /dev/log in the sandbox
//   ... call the library ...
//   for (const auto &m : log.messages()) // m.priority == LOG_ERR, m.text
//
// Only usable inside the appliance sandbox: /dev/log there belongs to the
// test. Messages are datagrams that syslog() has already queued when it
// returns, so messages() never waits.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "kemo_sandbox.hpp"

class SyslogCapture {
public:
    struct Msg {
        int priority = -1;  // severity, LOG_EMERG..LOG_DEBUG (LOG_ERR is 3)
        int facility = -1;  // LOG_USER, LOG_DAEMON, ...
        std::string text;   // the message, header ("<PRI>timestamp tag: ") removed
        std::string raw;    // the datagram as received
    };

    explicit SyslogCapture(std::string path = "/dev/log") : path_(std::move(path)) {
        if (!kemo::sandbox::inside()) {
            ADD_FAILURE() << "SyslogCapture needs the appliance sandbox";
            return;
        }
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_un address {};
        address.sun_family = AF_UNIX;
        if (fd_ < 0 || path_.size() >= sizeof address.sun_path) {
            ADD_FAILURE() << "cannot make a socket for " << path_ << ": " << std::strerror(errno);
            return;
        }
        std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
        ::unlink(path_.c_str());
        if (::bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            ::chmod(path_.c_str(), 0666) != 0) {
            ADD_FAILURE() << "cannot bind " << path_ << ": " << std::strerror(errno);
            ::close(fd_);
            fd_ = -1;
            return;
        }
        struct stat st {};
        if (::stat(path_.c_str(), &st) == 0) {
            dev_ = st.st_dev;
            ino_ = st.st_ino;
        }
        // glibc keeps its log socket connected; make it look for ours.
        ::closelog();
    }

    ~SyslogCapture() {
        if (fd_ < 0) return;
        ::close(fd_);
        // Only our own socket: a later capture (or sandbox) may own the path now.
        struct stat st {};
        if (::stat(path_.c_str(), &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_)
            ::unlink(path_.c_str());
        ::closelog();
    }

    SyslogCapture(const SyslogCapture &) = delete;
    SyslogCapture &operator=(const SyslogCapture &) = delete;

    // Everything that arrived since the last call, oldest first.
    std::vector<Msg> messages() {
        std::vector<Msg> out;
        if (fd_ < 0) return out;
        std::string buffer(65536, '\0');
        for (;;) {
            const ssize_t n = ::recv(fd_, buffer.data(), buffer.size(), 0);
            if (n < 0) {
                if (errno == EINTR) continue;
                break;  // EAGAIN: drained
            }
            out.push_back(parse(std::string_view(buffer.data(), static_cast<std::size_t>(n))));
        }
        return out;
    }

    // The texts only, for EXPECT_THAT(..., Contains(...)) and friends.
    std::vector<std::string> texts() {
        std::vector<std::string> out;
        for (Msg &m : messages()) out.push_back(std::move(m.text));
        return out;
    }

    // Splits "<PRI>Mmm dd hh:mm:ss tag[pid]: text" as glibc's syslog() writes it.
    static Msg parse(std::string_view raw) {
        Msg m;
        m.raw = std::string(raw);
        std::string_view rest = raw;
        if (rest.size() > 2 && rest[0] == '<') {
            const std::size_t close = rest.find('>');
            if (close != std::string_view::npos && close > 1) {
                int pri = 0;
                for (std::size_t i = 1; i < close && pri >= 0; ++i)
                    pri = std::isdigit(static_cast<unsigned char>(rest[i])) ? pri * 10 + (rest[i] - '0') : -1;
                if (pri >= 0) {
                    m.priority = LOG_PRI(pri);
                    m.facility = pri & LOG_FACMASK;
                    rest.remove_prefix(close + 1);
                }
            }
        }
        if (is_timestamp(rest)) rest.remove_prefix(16);
        // The tag runs to the first ": " and holds no blank.
        const std::size_t colon = rest.find(": ");
        if (colon != std::string_view::npos && rest.substr(0, colon).find(' ') == std::string_view::npos)
            rest.remove_prefix(colon + 2);
        m.text = std::string(rest);
        return m;
    }

private:
    // "Mmm dd hh:mm:ss " (the day padded with a blank).
    static bool is_timestamp(std::string_view s) {
        if (s.size() < 16) return false;
        static const char pattern[] = "Aaa dd dd:dd:dd ";
        for (std::size_t i = 0; i < 16; ++i) {
            const unsigned char c = static_cast<unsigned char>(s[i]);
            switch (pattern[i]) {
            case 'A': if (!std::isupper(c)) return false; break;
            case 'a': if (!std::islower(c)) return false; break;
            case 'd': if (!std::isdigit(c) && !(i == 4 && c == ' ')) return false; break;
            default: if (c != static_cast<unsigned char>(pattern[i])) return false;
            }
        }
        return true;
    }

    std::string path_;
    int fd_ = -1;
    dev_t dev_ = 0;
    ino_t ino_ = 0;
};
