// findhostd - the appliance discovery daemon.
//
// Listens on UDP port 9999.  A query (any of the three query packets)
// is answered with this appliance's announcement, sent to port 9999 of
// the asker (broadcast when the asker has no address yet), so that the
// asking appliance's own findhostd hears it.  Every announcement heard is
// kept in /tmp/kemobx.list as a line "model,build,hostname,address,mac",
// one line per hardware address, the file replaced whole each time.
//
// Started as root it binds the port, writes /var/run/findhostd.pid and
// becomes the user nobody; it needs no privilege after that.  The list is
// written as a private temporary file in /tmp renamed over the list, and
// the library gives an empty list it creates to that user.  When the list
// in /tmp is no longer the file this daemon wrote last (the library took
// it as its snapshot), the hosts remembered so far are forgotten: each
// refresh collects a fresh list.
//
// usage: findhostd [-f]     (-f: stay in the foreground)
#include "kemo.h"
#include "../sdk/kemo_fhost.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <net/if.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fhost = kemo::fhost;

constexpr char kFactory[] = "/etc.defaults/kemoinfo.conf";
constexpr uint32_t kDefaultModel = 1;
constexpr uint32_t kDefaultBuild = 240;

struct Host {
    std::array<uint8_t, 6> mac;
    std::string line;
};

std::vector<Host> g_hosts;
dev_t g_list_dev = 0;
ino_t g_list_ino = 0;
bool g_list_written = false;

// True when the pid file names a live findhostd other than this process.
bool already_running()
{
    const int pid = KLIBReadPidFile(fhost::kPidFile);
    if (pid < 1 || pid == ::getpid() || ::kill(pid, 0) != 0)
        return false;
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/comm", pid);
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char comm[32] = "";
    const ssize_t n = ::read(fd, comm, sizeof comm - 1);
    ::close(fd);
    return n > 0 && std::string_view(comm, static_cast<std::size_t>(n)).starts_with(fhost::kDaemonName);
}

int open_socket()
{
    const int sock = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0)
        return -1;
    const int on = 1;
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(FHOST_PORT);
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    if (::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::setsockopt(sock, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0 ||
        ::setsockopt(sock, IPPROTO_IP, IP_PKTINFO, &on, sizeof on) != 0 ||
        ::bind(sock, reinterpret_cast<const sockaddr *>(&local), sizeof local) != 0) {
        const int error = errno;
        ::close(sock);
        errno = error;
        return -1;
    }
    return sock;
}

bool daemonise()
{
    const pid_t first = ::fork();
    if (first < 0)
        return false;
    if (first > 0)
        ::_exit(0);
    ::setsid();
    const pid_t second = ::fork();
    if (second < 0)
        return false;
    if (second > 0)
        ::_exit(0);
    if (::chdir("/") != 0)
        return false;
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null >= 0) {
        ::dup2(null, 0);
        ::dup2(null, 1);
        ::dup2(null, 2);
        if (null > 2)
            ::close(null);
    }
    return true;
}

bool write_pid_file()
{
    const int fd = ::open(fhost::kPidFile, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    const std::string text = std::to_string(::getpid()) + "\n";
    const bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return ::close(fd) == 0 && ok;
}

bool drop_privileges()
{
    if (::geteuid() != 0)
        return true;
    uid_t uid = 65534;
    gid_t gid = 65534;
    if (const passwd *pw = ::getpwnam(fhost::kDaemonUser)) {
        uid = pw->pw_uid;
        gid = pw->pw_gid;
    }
    return ::setgroups(0, nullptr) == 0 && ::setresgid(gid, gid, gid) == 0 && ::setresuid(uid, uid, uid) == 0 &&
           ::setuid(0) != 0;
}

uint32_t factory_number(const char *key, uint32_t fallback)
{
    char value[32] = "";
    if (KLIBFileGetKeyValue(kFactory, key, value, sizeof value, 0) <= 0)
        return fallback;
    char *end = nullptr;
    const unsigned long n = std::strtoul(value, &end, 10);
    return end != value && *end == '\0' && n > 0 && n <= 0xFFFFFFFFul ? static_cast<uint32_t>(n) : fallback;
}

// This appliance as it is seen through the interface ifindex; false when
// that interface has no IPv4 address (nothing to announce there).
bool describe_self(int ifindex, fhost::Announce &self)
{
    char name[IF_NAMESIZE] = "";
    if (::if_indextoname(static_cast<unsigned>(ifindex), name) == nullptr)
        return false;
    KEMONETCARD card{};
    bool found = false;
    for (int i = 0; !found && KEMONetGetCard1(i, 0, &card) > 0; ++i)
        found = std::strcmp(card.szName, name) == 0;
    in_addr address{};
    if (!found || ::inet_aton(card.szIP, &address) == 0)
        return false;
    self.address = address.s_addr;
    unsigned m[6] = {};
    if (std::sscanf(card.szMac, "%2x:%2x:%2x:%2x:%2x:%2x", &m[0], &m[1], &m[2], &m[3], &m[4], &m[5]) == 6)
        for (int i = 0; i < 6; ++i)
            self.mac[static_cast<std::size_t>(i)] = static_cast<uint8_t>(m[i]);
    char host[64] = "";
    if (KEMOLnxGetHostname(host, sizeof host) != 0 || !fhost::host_name_ok(host))
        std::strcpy(host, "kemonas");
    self.host = host;
    self.model = factory_number("modelnumber", kDefaultModel);
    self.build = factory_number("buildnumber", kDefaultBuild);
    return true;
}

void answer(int sock, const sockaddr_in &from, int ifindex)
{
    fhost::Announce self;
    if (!describe_self(ifindex, self))
        return;
    const std::vector<uint8_t> packet = fhost::announce_packet(self);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(FHOST_PORT);
    to.sin_addr.s_addr = from.sin_addr.s_addr != 0 ? from.sin_addr.s_addr : htonl(INADDR_BROADCAST);
    if (::sendto(sock, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) < 0)
        syslog(LOG_ERR, "answer to %s failed: %m", inet_ntoa(to.sin_addr));
}

// The list is the file written last, or the hosts start afresh.
void forget_taken_list()
{
    struct stat st {};
    if (g_list_written && ::lstat(FHOST_HOST_LIST, &st) == 0 && st.st_dev == g_list_dev && st.st_ino == g_list_ino)
        return;
    g_hosts.clear();
}

void write_list()
{
    char name[] = "/tmp/.findhostd.XXXXXX";
    const int fd = ::mkstemp(name);
    if (fd < 0) {
        syslog(LOG_ERR, "cannot create a host list in /tmp: %m");
        return;
    }
    std::string text;
    for (const Host &h : g_hosts)
        text += h.line;
    struct stat st {};
    const bool ok = ::fchmod(fd, 0644) == 0 &&
                    ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                    ::fstat(fd, &st) == 0;
    if (::close(fd) != 0 || !ok || ::rename(name, FHOST_HOST_LIST) != 0) {
        syslog(LOG_ERR, "cannot write %s: %m", FHOST_HOST_LIST);
        ::unlink(name);
        return;
    }
    g_list_dev = st.st_dev;
    g_list_ino = st.st_ino;
    g_list_written = true;
}

void record(const fhost::Announce &a)
{
    forget_taken_list();
    Host *same = nullptr;
    for (Host &h : g_hosts)
        if (h.mac == a.mac)
            same = &h;
    if (same != nullptr) {
        same->line = fhost::list_line(a);
    } else if (g_hosts.size() < fhost::kMaxHosts) {
        g_hosts.push_back({a.mac, fhost::list_line(a)});
    } else {
        syslog(LOG_ERR, "host list full (%zu hosts); %s not recorded", g_hosts.size(), a.host.c_str());
        return;
    }
    write_list();
}

void serve(int sock)
{
    for (;;) {
        uint8_t buffer[2048];
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))];
        sockaddr_in from{};
        iovec iov{buffer, sizeof buffer};
        msghdr msg{};
        msg.msg_name = &from;
        msg.msg_namelen = sizeof from;
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        const ssize_t n = ::recvmsg(sock, &msg, 0);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            syslog(LOG_ERR, "recvmsg failed: %m");
            ::sleep(1);
            continue;
        }
        if ((msg.msg_flags & MSG_TRUNC) != 0)
            continue;
        const auto packet = fhost::parse_packet(buffer, static_cast<std::size_t>(n));
        if (!packet)
            continue;
        if (packet->kind == fhost::Kind::announce) {
            record(packet->announce);
            continue;
        }
        int ifindex = 0;
        for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c))
            if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
                in_pktinfo info{};
                std::memcpy(&info, CMSG_DATA(c), sizeof info);
                ifindex = info.ipi_ifindex;
            }
        if (ifindex > 0)
            answer(sock, from, ifindex);
    }
}

} // namespace

int main(int argc, char **argv)
{
    const bool foreground = argc == 2 && std::strcmp(argv[1], "-f") == 0;
    if (argc > 2 || (argc == 2 && !foreground)) {
        std::fprintf(stderr, "usage: findhostd [-f]\n");
        return 2;
    }
    openlog(fhost::kDaemonName, LOG_PID, LOG_DAEMON);
    if (already_running()) {
        syslog(LOG_INFO, "already running");
        return 0;
    }
    std::signal(SIGPIPE, SIG_IGN);
    const int sock = open_socket();
    if (sock < 0) {
        syslog(LOG_ERR, "cannot listen on UDP port %d: %m", FHOST_PORT);
        return 1;
    }
    ::umask(022);
    if (!foreground && !daemonise()) {
        syslog(LOG_ERR, "cannot run in the background: %m");
        return 1;
    }
    if (!write_pid_file())
        syslog(LOG_ERR, "cannot write %s: %m", fhost::kPidFile);
    if (!drop_privileges()) {
        syslog(LOG_ERR, "cannot give up root: %m");
        return 1;
    }
    serve(sock);
}
