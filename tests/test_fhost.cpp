// Finding appliances: the packet tables and the daemon's packet format, the
// host-list parser, the query, the raw link-layer broadcast captured on a
// veth pair, and two appliances in two network namespaces finding each
// other through their own findhostd.
#include "kemo_fhost.hpp"
#include "sandbox_fixture.hpp"
#include "syslog_capture.hpp"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <random>

namespace fhost = kemo::fhost;

namespace {

class FhostTest : public SandboxTest {};

std::vector<std::string> keys_of(PKLIBSZHASH hash)
{
    std::vector<std::string> keys;
    for (int i = 0; i < hash->nSlot; ++i)
        if (hash->rgSlot[i].pszKey != nullptr)
            keys.emplace_back(hash->rgSlot[i].pszKey);
    std::sort(keys.begin(), keys.end());
    return keys;
}

// Parses the snapshot holding `text`: the result and the keys.
std::pair<int, std::vector<std::string>> parse_snapshot(std::string_view text)
{
    write_file(FHOST_HOST_LIST_TMP, text);
    PKLIBSZHASH hash = PshKLIBSzHashAlloc(0);
    const int n = KEMOFHOSTGet2Hash(&hash);
    auto keys = keys_of(hash);
    KLIBSzHashFree(hash);
    return {n, keys};
}

// Runs body in a forked child (killed after 20 s) that may enter
// namespaces; what it returns (empty: success) comes back through a pipe.
std::string in_child(const std::function<std::string()> &body)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return "pipe failed";
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(20);
        const std::string why = body();
        ::_exit(::write(fds[1], why.data(), why.size()) < 0 || !why.empty() ? 1 : 0);
    }
    ::close(fds[1]);
    std::string why;
    char buf[512];
    for (ssize_t n; (n = ::read(fds[0], buf, sizeof buf)) > 0;)
        why.append(buf, static_cast<std::size_t>(n));
    ::close(fds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return why.empty() && status != 0 ? "child failed, status " + std::to_string(status) : why;
}

bool ip_cmd(const std::vector<std::string> &args)
{
    std::vector<std::string> argv{"ip"};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv).status == 0;
}

uint16_t checksum(const uint8_t *data, std::size_t size, uint32_t sum = 0)
{
    for (std::size_t i = 0; i + 1 < size; i += 2)
        sum += uint32_t{data[i]} << 8 | data[i + 1];
    if (size % 2 != 0)
        sum += uint32_t{data[size - 1]} << 8;
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

fhost::Announce sample_announce()
{
    return {410, 262, "nas-1", htonl(0x0A630002), {0x02, 0x00, 0x00, 0xaa, 0xbb, 0x01}};
}

} // namespace

TEST(FhostPackets, TablesAndQueriesByteForByte)
{
    const uint8_t header[] = {0x12, 0x34, 0x56, 0x78, 'K', 'E', 'M', 'O'};
    const uint8_t v11[] = {0x01, 0x04, 0x01, 0x00, 0x00, 0x00, 0xA4, 0x04, 0x00, 0x00, 0x02, 0x00};
    const uint8_t zmp[] = {0x01, 0x04, 0x01, 0x00, 0x00, 0x00, 0xA4, 0x04, 0x00, 0x00, 0x02, 0x01};
    EXPECT_EQ(FHOSTHeaderSize, 8);
    EXPECT_EQ(FHOSTBroadCastSize, 10);
    EXPECT_EQ(FHOSTBroadCastSizeV11, 20);
    EXPECT_EQ(FHOSTBroadCastSizeZMP20, 20);
    EXPECT_EQ(0, std::memcmp(stFHOSTHeader, header, 8));
    for (const unsigned char *table : {stFHOSTBroadCast, stFHOSTBroadCastV11, stFHOSTBroadCastZMP20})
        EXPECT_EQ(0, std::memcmp(table, header, 8));
    EXPECT_TRUE(stFHOSTBroadCast[8] == 0 && stFHOSTBroadCast[9] == 0);
    EXPECT_EQ(0, std::memcmp(stFHOSTBroadCastV11 + 8, v11, 12));
    EXPECT_EQ(0, std::memcmp(stFHOSTBroadCastZMP20 + 8, zmp, 12));
    // The daemon takes each of them for a query.
    for (const auto &[table, size] :
         {std::pair{stFHOSTBroadCast, 10}, {stFHOSTBroadCastV11, 20}, {stFHOSTBroadCastZMP20, 20}}) {
        const auto p = fhost::parse_packet(table, static_cast<std::size_t>(size));
        ASSERT_TRUE(p);
        EXPECT_EQ(p->kind, fhost::Kind::query);
    }
}

TEST(FhostPackets, AnnouncementRoundTripAndMalformedPackets)
{
    const fhost::Announce a = sample_announce();
    const std::vector<uint8_t> bytes = fhost::announce_packet(a);
    const auto p = fhost::parse_packet(bytes.data(), bytes.size());
    ASSERT_TRUE(p);
    ASSERT_EQ(p->kind, fhost::Kind::announce);
    EXPECT_EQ(fhost::list_line(p->announce), "410,262,nas-1,10.99.0.2,02:00:00:aa:bb:01\n");
    // Every truncation spoils it (a cut field, or a missing detail).
    for (std::size_t n = 0; n < bytes.size(); ++n) {
        const auto cut = fhost::parse_packet(bytes.data(), n);
        EXPECT_TRUE(!cut || cut->kind == fhost::Kind::query) << n;
        EXPECT_FALSE(cut && n > 8 && n < bytes.size()) << n;
    }
    // Names that could add a field or a line, model 0, a wrong header.
    for (const std::string &host : {std::string("a,b"), std::string("a\nb"), std::string(), std::string("a b"),
                                   std::string(64, 'x')}) {
        fhost::Announce bad = a;
        bad.host = host;
        const auto packet = fhost::announce_packet(bad);
        EXPECT_FALSE(fhost::parse_packet(packet.data(), packet.size())) << host;
    }
    fhost::Announce zero = a;
    zero.model = 0;
    auto packet = fhost::announce_packet(zero);
    EXPECT_FALSE(fhost::parse_packet(packet.data(), packet.size()));
    packet = bytes;
    packet[7] = 'X';
    EXPECT_FALSE(fhost::parse_packet(packet.data(), packet.size()));
}

TEST_F(FhostTest, HostListRules)
{
    SyslogCapture log;
    const std::string big = "7,300,big,10.0.0.9," + std::string(100 * 1024, 'x');
    const auto [n, keys] = parse_snapshot("0,300,zero,10.0.0.1,x\n"
                                          "5,239,old,10.0.0.2,x\n"
                                          "5,240,name,addr,x\n"
                                          "5,300,short,10.0.0.4\n"
                                          "  6 , 250 , spaced , 10.0.0.5 , x , more\r\n"
                                          "6,260,dup,10.0.0.6,a\n6,270,dup,10.0.0.6,b\n" +
                                          std::string("5,300,nul\0name,10.0.0.7,x\n", 26) + ",,,,,,,,,,\n\n" + big);
    EXPECT_EQ(n, 4);
    EXPECT_EQ(keys, (std::vector<std::string>{"big(10.0.0.9)", "dup(10.0.0.6)", "name(addr)", "spaced(10.0.0.5)"}));
    const auto texts = log.texts();
    const auto logged = [&](const std::string &what) {
        return std::any_of(texts.begin(), texts.end(), [&](const std::string &t) { return t.find(what) != t.npos; });
    };
    EXPECT_TRUE(logged("model number == 0"));
    EXPECT_TRUE(logged("field number < 5"));
    EXPECT_FALSE(exists(FHOST_HOST_LIST_TMP));

    // The value is the address; the hash given in is added to.
    PKLIBSZHASH hash = PshKLIBSzHashAlloc(0);
    ASSERT_GE(KLIBSzHashSetValue(&hash, "keep", "me"), 0);
    write_file(FHOST_HOST_LIST_TMP, "5,240,name,addr,x\n");
    EXPECT_EQ(KEMOFHOSTGet2Hash(&hash), 2);
    EXPECT_STREQ(SzKLIBSzHashGetValue(hash, "name(addr)"), "addr");
    KLIBSzHashFree(hash);
}

TEST_F(FhostTest, SnapshotMissingPlantedOrRefused)
{
    EXPECT_EQ(parse_snapshot("").first, 0);
    PKLIBSZHASH hash = PshKLIBSzHashAlloc(0);
    KLIBErrSet(0);
    EXPECT_EQ(KEMOFHOSTGet2Hash(&hash), 0);
    EXPECT_EQ(KLIBErrGet(), ERR_OPEN_FAILED);
    // A link to a list elsewhere is not followed, a FIFO does not block;
    // both are removed.
    write_file("/etc/elsewhere", "5,300,victim,10.0.0.1,x\n");
    ASSERT_EQ(::symlink("/etc/elsewhere", FHOST_HOST_LIST_TMP), 0);
    EXPECT_EQ(KEMOFHOSTGet2Hash(&hash), 0);
    EXPECT_EQ(KLIBErrGet(), ERR_OPEN_FAILED);
    EXPECT_FALSE(exists(FHOST_HOST_LIST_TMP));
    EXPECT_EQ(read_file("/etc/elsewhere"), "5,300,victim,10.0.0.1,x\n");
    ASSERT_EQ(::mkfifo(FHOST_HOST_LIST_TMP, 0666), 0);
    EXPECT_EQ(KEMOFHOSTGet2Hash(&hash), 0);
    EXPECT_FALSE(exists(FHOST_HOST_LIST_TMP));
    EXPECT_EQ(KLIBSzHashGetLength(hash), 0);
    KLIBSzHashFree(hash);
    KLIBErrSet(0);
    EXPECT_EQ(KEMOFHOSTGet2Hash(nullptr), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
}

TEST(FhostQuery, SentTwiceWhateverTheFirstSendGives)
{
    static std::vector<int> results;
    static int calls;
    static fhost::Sender sender = [](const void *packet, int length) {
        EXPECT_EQ(length, 20);
        EXPECT_EQ(0, std::memcmp(packet, stFHOSTBroadCastZMP20, 20));
        return results[static_cast<std::size_t>(calls++)];
    };
    for (const auto &[first, second, want] : {std::tuple{-1, 0, 0}, {0, -1, 0}, {-1, -1, -1}, {0, 0, 0}}) {
        results = {first, second};
        calls = 0;
        EXPECT_EQ(fhost::send_query(sender), want);
        EXPECT_EQ(calls, 2);
    }
}

TEST_F(FhostTest, RawBroadcastFrameOnVeth)
{
    const uint8_t payload[] = {'h', 'e', 'l', 'l', 'o', 0, 1, 2, 3};
    KEMOUDPADDR addr{};
    addr.srcIp = htonl(0x0A630001);
    addr.dstIp = htonl(INADDR_BROADCAST);
    addr.srcPort = 4321;
    addr.dstPort = FHOST_PORT;
    KLIBErrSet(0);
    EXPECT_EQ(KEMONetSendUDPBroadCast(0, &addr, payload, 0, "lo"), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    KLIBErrSet(0);
    EXPECT_EQ(KEMONetSendUDPBroadCast(2, &addr, payload, sizeof payload, "lo"), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);

    const std::string why = in_child([&]() -> std::string {
        if (::unshare(CLONE_NEWNET) != 0)
            return "unshare(CLONE_NEWNET) failed";
        if (!ip_cmd({"link", "add", "va", "type", "veth", "peer", "name", "vb"}) ||
            !ip_cmd({"link", "set", "va", "up"}) ||
            !ip_cmd({"link", "set", "vb", "up"}) || !ip_cmd({"addr", "add", "10.99.0.1/24", "dev", "va"}))
            return "cannot set up the veth pair";
        const int sock = ::socket(AF_PACKET, SOCK_RAW, htons(ETH_P_IP));
        sockaddr_ll at{};
        at.sll_family = AF_PACKET;
        at.sll_protocol = htons(ETH_P_IP);
        at.sll_ifindex = static_cast<int>(::if_nametoindex("vb"));
        if (sock < 0 || ::bind(sock, reinterpret_cast<sockaddr *>(&at), sizeof at) != 0)
            return "cannot capture on vb";
        // The interface query: va is the only one up with an IPv4 address.
        KEMONETCARD card{};
        if (KEMONetGetCard1(0, 0, &card) != 1 || std::string(card.szName) != "va" ||
            std::string(card.szIP) != "10.99.0.1" || std::string(card.szMask) != "255.255.255.0" ||
            std::strlen(card.szMac) != 17 || KEMONetGetCard1(1, 0, &card) != -1 || KLIBErrGet() != ERR_DEV_UNCONFIG)
            return "KEMONetGetCard1 does not describe va alone";
        const std::string own_mac = card.szMac;
        KLIBErrSet(0);
        if (KEMONetSendUDPBroadCast(1, &addr, payload, sizeof payload, "nosuchif") != -1 || KLIBErrGet() != ERR_UNKNOWN)
            return "a missing interface was not ERR_UNKNOWN";
        if (KEMONetSendUDPBroadCast(0, &addr, payload, sizeof payload, "va") != 0)
            return "send failed";
        const timeval wait{3, 0};
        ::setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        uint8_t f[2048];
        for (;;) {
            const ssize_t n = ::recv(sock, f, sizeof f, 0);
            if (n < 0)
                return "no frame captured";
            if (n < 42 || f[23] != IPPROTO_UDP)
                continue;
            std::string bad;
            const auto expect = [&](bool ok, const char *what) { bad += ok ? "" : std::string(what) + "; "; };
            const uint8_t *ipv4 = f + 14, *udp = f + 34;
            expect(std::all_of(f, f + 6, [](uint8_t b) { return b == 0xff; }), "destination MAC");
            expect(fhost::mac_text({f[6], f[7], f[8], f[9], f[10], f[11]}) == own_mac, "source MAC");
            expect(f[12] == 0x08 && f[13] == 0x00, "ether type");
            expect(ipv4[0] == 0x45 && ipv4[1] == 0, "version/IHL/TOS");
            expect((ipv4[2] << 8 | ipv4[3]) == 28 + static_cast<int>(sizeof payload), "total length");
            expect((ipv4[4] << 8 | ipv4[5]) == 242, "identification");
            expect((ipv4[6] << 8 | ipv4[7]) == 0x4000, "DF, no fragment");
            expect(ipv4[8] == 64 && ipv4[9] == 17, "TTL/protocol");
            expect(std::memcmp(ipv4 + 12, &addr.srcIp, 4) == 0 && std::memcmp(ipv4 + 16, &addr.dstIp, 4) == 0,
                   "addresses");
            expect(checksum(ipv4, 20) == 0, "IPv4 header checksum");
            expect((udp[0] << 8 | udp[1]) == 4321 && (udp[2] << 8 | udp[3]) == FHOST_PORT, "ports");
            expect((udp[4] << 8 | udp[5]) == 8 + static_cast<int>(sizeof payload), "UDP length");
            uint32_t pseudo = 0;
            for (int i = 12; i < 20; i += 2)
                pseudo += uint32_t{ipv4[i]} << 8 | ipv4[i + 1];
            pseudo += 17 + 8 + sizeof payload;
            expect(checksum(udp, 8 + sizeof payload, pseudo) == 0, "UDP checksum");
            expect(std::memcmp(udp + 8, payload, sizeof payload) == 0, "payload");
            return bad;
        }
    });
    EXPECT_EQ(why, "");
}

namespace {

// One appliance of the two-appliance test: a child in network, mount and
// pid namespaces of its own, so that it has its own /proc (ps sees only its
// own findhostd), /tmp (its list) and /run (its pid file), and its own host
// name (a kemoinfo.conf bound over the shared one).  It is driven by one
// letter at a time and answers with one line.
struct Appliance {
    pid_t outer = -1, inner = -1; // inner: the namespace's first process, as seen from here
    int to = -1, from = -1;
};

bool send_letter(const Appliance &a, char c) { return ::write(a.to, &c, 1) == 1; }

std::string read_line(int fd, int timeout_ms = 30000)
{
    std::string line;
    char c = 0;
    pollfd p{fd, POLLIN, 0};
    while (::poll(&p, 1, timeout_ms) == 1 && ::read(fd, &c, 1) == 1 && c != '\n')
        line += c;
    return line;
}

char wait_letter(int fd)
{
    char c = 0;
    return ::read(fd, &c, 1) == 1 ? c : 'x';
}

// Datagrams to peer:9999 from here (port chosen by the system).
void send_to(uint32_t peer, const std::vector<std::vector<uint8_t>> &datagrams)
{
    const int sock = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(FHOST_PORT);
    to.sin_addr.s_addr = peer;
    for (const auto &bytes : datagrams)
        ::sendto(sock, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    ::close(sock);
}

// A few hundred random datagrams, with the header or without, and
// announcements cut short or with a byte changed.
std::vector<std::vector<uint8_t>> garbage()
{
    std::mt19937 random(15);
    const std::vector<uint8_t> valid = fhost::announce_packet(sample_announce());
    std::vector<std::vector<uint8_t>> all(400);
    for (std::size_t i = 0; i < all.size(); ++i) {
        auto &bytes = all[i];
        bytes.resize(random() % 600);
        for (uint8_t &b : bytes)
            b = static_cast<uint8_t>(random());
        if (i % 3 == 0 && bytes.size() >= 8)
            std::memcpy(bytes.data(), stFHOSTHeader, 8);
        if (i % 3 == 1) {
            bytes.assign(valid.begin(), valid.begin() + static_cast<long>(random() % valid.size()));
            if (bytes.size() > 20)
                bytes[8 + random() % (bytes.size() - 8)] = static_cast<uint8_t>(random());
        }
    }
    return all;
}

[[noreturn]] void appliance_main(int to, int from, const char *host, const char *address, const char *dev,
                                 uint32_t peer)
{
    const auto say = [&](const std::string &line) {
        const std::string text = line + "\n";
        if (::write(from, text.data(), text.size()) < 0)
            ::_exit(3);
    };
    const std::string conf = std::string("hostname=\"") + host + "\"\n";
    if (::mount("proc", "/proc", "proc", 0, nullptr) != 0 || ::mount("tmp", "/tmp", "tmpfs", 0, "mode=1777") != 0 ||
        ::mount("run", "/run", "tmpfs", 0, "mode=0755") != 0 || !kemo::sandbox::place("/tmp/kemoinfo.conf", conf) ||
        ::mount("/tmp/kemoinfo.conf", "/etc/kemoinfo.conf", nullptr, MS_BIND, nullptr) != 0) {
        say("cannot make the appliance's own /proc, /tmp, /run and settings");
        ::_exit(1);
    }
    if (wait_letter(to) != 'g')
        ::_exit(1);
    say(ip_cmd({"link", "set", "lo", "up"}) && ip_cmd({"addr", "add", std::string(address) + "/24", "dev", dev}) &&
                ip_cmd({"link", "set", dev, "up"})
            ? "configured"
            : "cannot configure the link");
    if (wait_letter(to) != 'q')
        ::_exit(1);
    PKLIBSZHASH hash = PshKLIBSzHashAlloc(0);
    const int dumped = KEMOFHOSTDumpHost();
    const int found = KEMOFHOSTGet2Hash(&hash);
    std::string keys;
    for (const std::string &k : keys_of(hash))
        keys += k + " ";
    say(std::to_string(dumped) + " " + std::to_string(found) + " " + keys);
    for (char c; (c = wait_letter(to)) == 'z';) {
        send_to(peer, garbage());
        // The peer still answers: its announcement reaches our findhostd.
        bool heard = false;
        for (int i = 0; i < 30 && !heard; ++i) {
            send_to(peer, {{stFHOSTBroadCastZMP20, stFHOSTBroadCastZMP20 + 20}});
            ::usleep(100000);
            std::ifstream in(FHOST_HOST_LIST);
            std::string line;
            while (std::getline(in, line))
                heard = heard || line.starts_with("410,262,nas-b,10.99.0.2,");
        }
        // The daemon gave up root: its list belongs to nobody.
        struct stat st {};
        const bool dropped = ::stat(FHOST_HOST_LIST, &st) == 0 && st.st_uid == 65534;
        say(!heard ? "no answer after the garbage" : dropped ? "answered" : "the list is not nobody's");
    }
    ::_exit(0);
}

Appliance spawn(const char *host, const char *address, const char *dev, const char *peer)
{
    Appliance a;
    int to[2], from[2];
    if (::pipe2(to, O_CLOEXEC) != 0 || ::pipe2(from, O_CLOEXEC) != 0)
        return a;
    a.outer = ::fork();
    if (a.outer == 0) {
        ::close(to[1]);
        ::close(from[0]);
        if (::unshare(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWPID) != 0)
            ::_exit(1);
        const pid_t inner = ::fork();
        if (inner == 0)
            appliance_main(to[0], from[1], host, address, dev, ::inet_addr(peer));
        const std::string text = std::to_string(inner) + "\n";
        if (inner < 0 || ::write(from[1], text.data(), text.size()) < 0)
            ::_exit(1);
        int status = 0;
        ::waitpid(inner, &status, 0);
        ::_exit(0);
    }
    ::close(to[0]);
    ::close(from[1]);
    a.to = to[1];
    a.from = from[0];
    a.inner = std::atoi(read_line(a.from, 5000).c_str());
    return a;
}

void finish(Appliance &a)
{
    send_letter(a, 'x');
    if (a.inner > 0)
        ::kill(a.inner, SIGKILL); // takes its namespace's findhostd along
    if (a.outer > 0)
        ::waitpid(a.outer, nullptr, 0);
    ::close(a.to);
    ::close(a.from);
}

} // namespace

// Both refreshes run at once: the answer period is part of the contract,
// so this takes about 10 seconds.
TEST_F(FhostTest, TwoAppliancesFindEachOther)
{
    Appliance a = spawn("nas-a", "10.99.0.1", "fa", "10.99.0.2");
    Appliance b = spawn("nas-b", "10.99.0.2", "fb", "10.99.0.1");
    ASSERT_GT(a.inner, 0);
    ASSERT_GT(b.inner, 0);
    const bool linked = ip_cmd({"link", "add", "fa", "netns", std::to_string(a.inner), "type", "veth", "peer", "name",
                            "fb", "netns", std::to_string(b.inner)});
    EXPECT_TRUE(linked);
    if (linked) {
        send_letter(a, 'g');
        send_letter(b, 'g');
        EXPECT_EQ(read_line(a.from), "configured");
        EXPECT_EQ(read_line(b.from), "configured");
        const auto start = std::chrono::steady_clock::now();
        send_letter(a, 'q');
        send_letter(b, 'q');
        const std::string found_a = read_line(a.from), found_b = read_line(b.from);
        const auto took = std::chrono::steady_clock::now() - start;
        // Each lists the other (and itself: its own daemon answers too).
        EXPECT_EQ(found_a, "0 2 nas-a(10.99.0.1) nas-b(10.99.0.2) ");
        EXPECT_EQ(found_b, "0 2 nas-a(10.99.0.1) nas-b(10.99.0.2) ");
        EXPECT_LT(took, std::chrono::seconds(15));
        send_letter(a, 'z');
        EXPECT_EQ(read_line(a.from), "answered");
    }
    finish(a);
    finish(b);
}
