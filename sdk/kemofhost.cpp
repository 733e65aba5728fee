// Finding appliances on the network segment: the query broadcast, keeping
// the discovery daemon running, and the list of appliances it heard.
//
// The daemon (findhostd) answers queries and writes what it hears to
// /tmp/kemobx.list.  A refresh sends the query, waits the answer period and
// moves that list to /tmp/kemobx.list.tmp, the snapshot the parser reads
// and removes.
#include "kemo_fhost.hpp"
#include "kemo_internal.hpp"
#include "kemo_io.hpp"
#include "kemomisc.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string>
#include <string_view>

extern "C" {

const unsigned char stFHOSTHeader[8] = {0x12, 0x34, 0x56, 0x78, 0x4B, 0x45, 0x4D, 0x4F};
const unsigned char stFHOSTBroadCast[10] = {0x12, 0x34, 0x56, 0x78, 0x4B, 0x45, 0x4D, 0x4F, 0x00, 0x00};
const unsigned char stFHOSTBroadCastV11[20] = {0x12, 0x34, 0x56, 0x78, 0x4B, 0x45, 0x4D,
                                                        0x4F, 0x01, 0x04, 0x01, 0x00, 0x00, 0x00,
                                                        0xA4, 0x04, 0x00, 0x00, 0x02, 0x00};
const unsigned char stFHOSTBroadCastZMP20[20] = {0x12, 0x34, 0x56, 0x78, 0x4B, 0x45, 0x4D,
                                                          0x4F, 0x01, 0x04, 0x01, 0x00, 0x00, 0x00,
                                                          0xA4, 0x04, 0x00, 0x00, 0x02, 0x01};
const int FHOSTHeaderSize = 8;
const int FHOSTBroadCastSize = 10;
const int FHOSTBroadCastSizeV11 = 20;
const int FHOSTBroadCastSizeZMP20 = 20;

} // extern "C"

namespace kemo::fhost {

namespace {

constexpr int kAnswerPeriodMs = 10'000;
constexpr int kDaemonStartMs = 3'000;
constexpr int kMinVersion = 240;

std::string_view trim_blanks(std::string_view s) noexcept
{
    constexpr std::string_view blanks = " \t\r\n\v\f";
    const auto first = s.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return s.substr(first, s.find_last_not_of(blanks) - first + 1);
}

// The decimal number at the start of a field, as atoi reads it (0 when
// there is none; large values are capped).
long leading_number(std::string_view field) noexcept
{
    long value = 0;
    const char *end = field.data() + field.size();
    if (std::from_chars(field.data(), end, value).ec == std::errc::result_out_of_range)
        return field.front() == '-' ? -1 : 1L << 30;
    return value;
}

// One line of the list: false only when the hash cannot take its pair.
bool take_line(std::string_view line, PKLIBSZHASH *hash, std::string &scratch)
{
    line = trim_blanks(line);
    if (line.empty())
        return true; // a blank line (the end of a list) is no entry
    if (line.find('\0') != std::string_view::npos) {
        KEMO_LOG("line with a NUL byte skipped");
        return true;
    }
    std::array<std::string_view, 5> field;
    std::size_t count = 0;
    for (std::size_t pos = 0; count < field.size();) {
        const auto comma = line.find(',', pos);
        field[count++] = trim_blanks(line.substr(pos, comma == std::string_view::npos ? comma : comma - pos));
        if (comma == std::string_view::npos)
            break;
        pos = comma + 1;
    }
    if (count < 5) {
        KEMO_LOG("field number < 5");
        return true;
    }
    if (field[0].empty() || leading_number(field[0]) == 0) {
        KEMO_LOG("model number == 0");
        return true;
    }
    if (field[1].empty() || leading_number(field[1]) < kMinVersion)
        return true;
    if (field[2].empty() || field[3].empty()) {
        KEMO_LOG("empty host name or address");
        return true;
    }
    std::string key;
    key.reserve(field[2].size() + field[3].size() + 2);
    key.append(field[2]).append(1, '(').append(field[3]).append(1, ')');
    return kemo::set_pair(hash, {key, field[3]}, scratch) >= 0;
}

// Removes a host list that is not a regular file of the daemon's user (a
// name someone else planted, or a list the daemon could not replace in the
// sticky /tmp), then creates the empty list when none is there, given to
// the daemon's user so that it can replace it.  The empty list is what the
// snapshot becomes when no appliance answers.
void prepare_list(uid_t daemon_uid, gid_t daemon_gid)
{
    struct stat st {};
    if (::lstat(FHOST_HOST_LIST, &st) == 0) {
        if (S_ISREG(st.st_mode) && st.st_uid == daemon_uid)
            return;
        KEMO_LOG("%s is not the daemon's list; removed", FHOST_HOST_LIST);
        ::unlink(FHOST_HOST_LIST);
    }
    Fd fd(::open(FHOST_HOST_LIST, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd) {
        KEMO_LOG("cannot create %s, errno = %d", FHOST_HOST_LIST, errno);
        return;
    }
    if (::geteuid() == 0 && ::fchown(fd.get(), daemon_uid, daemon_gid) != 0)
        KEMO_LOG("cannot give %s to %s, errno = %d", FHOST_HOST_LIST, kDaemonUser, errno);
}

bool daemon_user(uid_t &uid, gid_t &gid)
{
    passwd entry {}, *found = nullptr;
    std::array<char, 1024> buffer{};
    if (::getpwnam_r(kDaemonUser, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
        return false;
    uid = entry.pw_uid;
    gid = entry.pw_gid;
    return true;
}

// Starts the daemon and waits up to the start period for its pid file to
// name a live process (the daemon writes it once its port is bound; a
// stale file naming a dead process does not count).  A daemon that finds
// another one alive through that file leaves at once.
int start_daemon()
{
    KEMO_LOG("findhostd daemon is not running ....");
    const std::array<const char *, 1> argv{kDaemon};
    if (kemo::start_program(argv) < 0)
        return -1;
    for (int waited = 0; waited < kDaemonStartMs; waited += 100) {
        kemo::sleep_ms(100);
        const int pid = kemo::read_pid_file(kPidFile);
        if (pid >= 1 && ::kill(pid, 0) == 0)
            return 0;
    }
    return -1;
}

} // namespace

int parse_host_list(std::string_view text, PKLIBSZHASH *hash)
{
    std::string scratch;
    while (!text.empty()) {
        const auto nl = text.find('\n');
        const std::string_view line = text.substr(0, nl);
        text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
        if (!take_line(line, hash, scratch))
            return -1;
    }
    return (*hash)->nPair;
}

int snapshot_to_hash(PKLIBSZHASH *hash)
{
    const char *function = "KEMOFHOSTGet2Hash";
    const auto text = kemo::read_small_file(FHOST_HOST_LIST_TMP, kMaxListBytes + 1);
    ::unlink(FHOST_HOST_LIST_TMP);
    if (!text) {
        kemo::log("%s(%d): %s: fopen(SZF_HOST_LIST_TMP, \"r\") failed\n", __FILE__, __LINE__, function);
        return fail(0, ERR_OPEN_FAILED);
    }
    if (text->size() > kMaxListBytes) {
        kemo::log("%s(%d): %s: [szBuf] reallocf() failed\n", __FILE__, __LINE__, function);
        return fail(-1, ERR_OUT_OF_MEMORY);
    }
    return parse_host_list(*text, hash);
}

int send_query(Sender send)
{
    const int first = send(stFHOSTBroadCastZMP20, FHOSTBroadCastSizeZMP20);
    const int second = send(stFHOSTBroadCastZMP20, FHOSTBroadCastSizeZMP20);
    return first & second;
}

int broadcast_from(const void *packet, int length, uint32_t local_address)
{
    Fd sock(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock) {
        KEMO_LOG("create socket error.");
        return -1;
    }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = local_address;
    if (::bind(sock.get(), reinterpret_cast<const sockaddr *>(&local), sizeof local) != 0) {
        const int error = errno;
        KEMO_LOG("bind(sockfd=%d, brdcast.sin_addr.s_addr = %lu) error!! errno=%d, err_str=[%s]", sock.get(),
                 static_cast<unsigned long>(local_address), error, std::strerror(error));
        return -1;
    }
    const int on = 1;
    if (::setsockopt(sock.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0) {
        KEMO_LOG("set socket option error.");
        return -1;
    }
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(FHOST_PORT);
    target.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    const ssize_t sent = ::sendto(sock.get(), packet, static_cast<std::size_t>(length), 0,
                                  reinterpret_cast<const sockaddr *>(&target), sizeof target);
    if (sent != length) {
        KEMO_LOG("sendto error.");
        return -1;
    }
    return 0;
}

int broadcast_from_card(const void *packet, int length)
{
    KEMONETCARD card{};
    if (kemo::net::get_card(0, card) <= 0)
        return -1;
    in_addr address{};
    if (::inet_aton(card.szIP, &address) == 0)
        return -1;
    return broadcast_from(packet, length, address.s_addr);
}

int dump_hosts()
{
    int32_t pid = 0;
    if (kemo::ps(kDaemonName, &pid, 1) <= 0 && start_daemon() != 0)
        return -1;
    uid_t uid = 0;
    gid_t gid = 0;
    if (!daemon_user(uid, gid))
        uid = gid = 0;
    prepare_list(uid, gid);
    if (send_query(broadcast_from_card) != 0) {
        KEMO_LOG("ErrFHOSTSendQueryPkt() failed!");
        return -1;
    }
    kemo::sleep_ms(kAnswerPeriodMs);
    if (::rename(FHOST_HOST_LIST, FHOST_HOST_LIST_TMP) != 0) {
        KEMO_LOG("rename(%s, %s) failed, errno = %d", FHOST_HOST_LIST, FHOST_HOST_LIST_TMP, errno);
        return -1;
    }
    return 0;
}

} // namespace kemo::fhost

extern "C" {

KEMO_API int ErrFHOSTSendQueryPkt(void)
{
    return kemo::edge(-1, [] { return kemo::fhost::send_query(kemo::fhost::broadcast_from_card); });
}

KEMO_API int ErrFHOSTSendBroadcastUdp(const void *packet, int length)
{
    if (packet == nullptr || length <= 0)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::fhost::broadcast_from_card(packet, length); });
}

KEMO_API int BroadcastUdpByInterface(const void *packet, int length, const uint32_t *localAddress)
{
    if (packet == nullptr || length <= 0 || localAddress == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::fhost::broadcast_from(packet, length, *localAddress); });
}

KEMO_API int KEMOFHOSTDumpHost(void)
{
    return kemo::edge(-1, [] { return kemo::fhost::dump_hosts(); });
}

KEMO_API int KEMOFHOSTGet2Hash(PKLIBSZHASH *hash)
{
    if (hash == nullptr || *hash == nullptr) {
        kemo::log("%s(%d): %s: Bad arguments: [ppslList] == [NULL]\n", __FILE__, __LINE__, "KEMOFHOSTGet2Hash");
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    }
    return kemo::edge(-1, [&] { return kemo::fhost::snapshot_to_hash(hash); });
}

} // extern "C"
