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
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
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

bool shell(const std::string &command) { return run({"sh", "-c", command}).status == 0; }

uint16_t checksum(const uint8_t *data, std::size_t size, uint32_t sum = 0)
{
    for (std::size_t i = 0; i < size; i += 2)
        sum += uint32_t{data[i]} << 8 | (i + 1 < size ? data[i + 1] : 0);
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

const fhost::Announce kAnnounce{410, 262, "nas-1", htonl(0x0A630002), {0x02, 0x00, 0x00, 0xaa, 0xbb, 0x01}};

} // namespace

TEST(FhostPackets, TablesByteForByteAreQueries)
{
    const std::vector<uint8_t> header{0x12, 0x34, 0x56, 0x78, 'K', 'E', 'M', 'O'};
    EXPECT_EQ(std::vector<uint8_t>(stFHOSTHeader, stFHOSTHeader + FHOSTHeaderSize), header);
    const std::tuple<const unsigned char *, int, std::vector<uint8_t>> tables[] = {
        {stFHOSTBroadCast, FHOSTBroadCastSize, {0x00, 0x00}},
        {stFHOSTBroadCastV11, FHOSTBroadCastSizeV11, {1, 4, 1, 0, 0, 0, 0xA4, 4, 0, 0, 2, 0}},
        {stFHOSTBroadCastZMP20, FHOSTBroadCastSizeZMP20, {1, 4, 1, 0, 0, 0, 0xA4, 4, 0, 0, 2, 1}}};
    for (const auto &[bytes, size, tail] : tables) {
        EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 8), header);
        EXPECT_EQ(std::vector<uint8_t>(bytes + 8, bytes + size), tail);
        const auto p = fhost::parse_packet(bytes, static_cast<std::size_t>(size)); // the daemon's query
        EXPECT_TRUE(p && p->kind == fhost::Kind::query);
    }
}

TEST(FhostPackets, AnnouncementRoundTripAndMalformedPackets)
{
    const std::vector<uint8_t> bytes = fhost::announce_packet(kAnnounce);
    const auto p = fhost::parse_packet(bytes.data(), bytes.size());
    ASSERT_TRUE(p && p->kind == fhost::Kind::announce);
    EXPECT_EQ(fhost::list_line(p->announce), "410,262,nas-1,10.99.0.2,02:00:00:aa:bb:01\n");
    // Every truncation spoils it (a cut field, or a missing detail); the
    // bare header is a query.
    for (std::size_t n = 0; n < bytes.size(); ++n)
        EXPECT_EQ(fhost::parse_packet(bytes.data(), n).has_value(), n == 8) << n;
    // Names that could add a field or a line, model 0, a wrong header.
    std::vector<std::vector<uint8_t>> bad{bytes};
    bad[0][7] = 'X';
    for (const std::string &host : {std::string("a,b"), std::string("a\nb"), std::string(), std::string("a b"),
                                   std::string(64, 'x'), std::string("nas-1")}) {
        fhost::Announce a = kAnnounce;
        a.host = host;
        a.model = host == "nas-1" ? 0 : a.model; // the good name with model 0
        bad.push_back(fhost::announce_packet(a));
    }
    for (const auto &packet : bad)
        EXPECT_FALSE(fhost::parse_packet(packet.data(), packet.size())) << packet.size();
}

TEST_F(FhostTest, HostListRulesAndTheSnapshot)
{
    SyslogCapture log;
    const auto parse = [](std::string_view text) {
        write_file(FHOST_HOST_LIST_TMP, text);
        PKLIBSZHASH hash = PshKLIBSzHashAlloc(0);
        const int n = KEMOFHOSTGet2Hash(&hash);
        auto keys = keys_of(hash);
        KLIBSzHashFree(hash);
        return std::pair{n, keys};
    };
    const std::string big = "7,300,big,10.0.0.9," + std::string(100 * 1024, 'x');
    const auto [n, keys] = parse("0,300,zero,10.0.0.1,x\n5,239,old,10.0.0.2,x\n5,240,name,addr,x\n"
                                 "5,300,short,10.0.0.4\n  6 , 250 , spaced , 10.0.0.5 , x , more\r\n"
                                 "6,260,dup,10.0.0.6,a\n6,270,dup,10.0.0.6,b\n" +
                                 std::string("5,300,nul\0name,10.0.0.7,x\n", 26) + ",,,,,,,,,,\n\n" + big);
    EXPECT_EQ(n, 4);
    EXPECT_EQ(keys, (std::vector<std::string>{"big(10.0.0.9)", "dup(10.0.0.6)", "name(addr)", "spaced(10.0.0.5)"}));
    std::string texts;
    for (const std::string &t : log.texts())
        texts += t + "\n";
    EXPECT_NE(texts.find("model number == 0"), texts.npos) << texts;
    EXPECT_NE(texts.find("field number < 5"), texts.npos) << texts;
    EXPECT_FALSE(exists(FHOST_HOST_LIST_TMP));
    EXPECT_EQ(parse("").first, 0);

    // The value is the address; the hash given in is added to.
    PKLIBSZHASH hash = PshKLIBSzHashAlloc(0);
    ASSERT_GE(KLIBSzHashSetValue(&hash, "keep", "me"), 0);
    write_file(FHOST_HOST_LIST_TMP, "5,240,name,addr,x\n");
    EXPECT_EQ(KEMOFHOSTGet2Hash(&hash), 2);
    EXPECT_STREQ(SzKLIBSzHashGetValue(hash, "name(addr)"), "addr");
    // A missing snapshot; a link to a list elsewhere is not followed, a FIFO
    // does not block, and both are removed.
    KLIBErrSet(0);
    EXPECT_EQ(KEMOFHOSTGet2Hash(&hash), 0);
    EXPECT_EQ(KLIBErrGet(), ERR_OPEN_FAILED);
    write_file("/etc/elsewhere", "5,300,victim,10.0.0.1,x\n");
    ASSERT_EQ(::symlink("/etc/elsewhere", FHOST_HOST_LIST_TMP), 0);
    EXPECT_EQ(KEMOFHOSTGet2Hash(&hash), 0);
    EXPECT_FALSE(exists(FHOST_HOST_LIST_TMP));
    EXPECT_EQ(read_file("/etc/elsewhere"), "5,300,victim,10.0.0.1,x\n");
    ASSERT_EQ(::mkfifo(FHOST_HOST_LIST_TMP, 0666), 0);
    EXPECT_EQ(KEMOFHOSTGet2Hash(&hash), 0);
    EXPECT_FALSE(exists(FHOST_HOST_LIST_TMP));
    EXPECT_EQ(KLIBSzHashGetLength(hash), 2);
    KLIBSzHashFree(hash);
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
    for (const auto &[mode, length] : {std::pair{0, 0}, {2, 9}}) {
        KLIBErrSet(0);
        EXPECT_EQ(KEMONetSendUDPBroadCast(mode, &addr, payload, length, "lo"), -1);
        EXPECT_EQ(KLIBErrGet(), ERR_BAD_PARAMETERS);
    }
    // The frame, in a network namespace of this test's own.
    ASSERT_EQ(::unshare(CLONE_NEWNET), 0) << std::strerror(errno);
    ASSERT_TRUE(shell("ip link add va type veth peer name vb && ip link set va up && ip link set vb up && "
                      "ip addr add 10.99.0.1/24 dev va"));
    const int sock = ::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IP));
    sockaddr_ll at{};
    at.sll_family = AF_PACKET;
    at.sll_protocol = htons(ETH_P_IP);
    at.sll_ifindex = static_cast<int>(::if_nametoindex("vb"));
    ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr *>(&at), sizeof at), 0) << std::strerror(errno);
    // The interface query: va is the only one up with an IPv4 address.
    KEMONETCARD card{};
    ASSERT_EQ(KEMONetGetCard1(0, 0, &card), 1);
    EXPECT_EQ(std::string(card.szName) + " " + card.szIP + " " + card.szMask, "va 10.99.0.1 255.255.255.0");
    const std::string mac = card.szMac;
    EXPECT_EQ(mac.size(), 17u);
    EXPECT_EQ(KEMONetGetCard1(1, 0, &card), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_DEV_UNCONFIG);
    EXPECT_EQ(KEMONetSendUDPBroadCast(1, &addr, payload, sizeof payload, "nosuchif"), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_UNKNOWN);
    ASSERT_EQ(KEMONetSendUDPBroadCast(0, &addr, payload, sizeof payload, "va"), 0);
    const timeval wait{3, 0};
    ::setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    uint8_t f[2048];
    ssize_t n;
    while ((n = ::recv(sock, f, sizeof f, 0)) >= 0 && (n < 42 || f[23] != IPPROTO_UDP)) {
    }
    ::close(sock);
    ASSERT_EQ(n, 42 + static_cast<ssize_t>(sizeof payload)) << "no frame captured";
    const uint8_t *ipv4 = f + 14, *udp = f + 34;
    const auto u16 = [](const uint8_t *p) { return p[0] << 8 | p[1]; };
    EXPECT_TRUE(std::all_of(f, f + 6, [](uint8_t b) { return b == 0xff; })) << "destination MAC";
    EXPECT_EQ(fhost::mac_text({f[6], f[7], f[8], f[9], f[10], f[11]}), mac) << "source MAC";
    EXPECT_EQ(u16(f + 12), 0x0800) << "ether type";
    EXPECT_EQ(u16(ipv4), 0x4500) << "version, IHL, TOS";
    EXPECT_EQ(u16(ipv4 + 2), 28 + static_cast<int>(sizeof payload)) << "total length";
    EXPECT_EQ(u16(ipv4 + 4), 242) << "identification";
    EXPECT_EQ(u16(ipv4 + 6), 0x4000) << "DF, no fragment";
    EXPECT_EQ(u16(ipv4 + 8), 64 << 8 | 17) << "TTL, protocol";
    EXPECT_EQ(std::memcmp(ipv4 + 12, &addr.srcIp, 4) | std::memcmp(ipv4 + 16, &addr.dstIp, 4), 0) << "addresses";
    EXPECT_EQ(checksum(ipv4, 20), 0) << "IPv4 header checksum";
    EXPECT_EQ(u16(udp), 4321);
    EXPECT_EQ(u16(udp + 2), FHOST_PORT);
    EXPECT_EQ(u16(udp + 4), 8 + static_cast<int>(sizeof payload)) << "UDP length";
    const uint32_t pseudo = u16(ipv4 + 12) + u16(ipv4 + 14) + u16(ipv4 + 16) + u16(ipv4 + 18) + 17 + 8 + sizeof payload;
    EXPECT_EQ(checksum(udp, 8 + sizeof payload, pseudo), 0) << "UDP checksum";
    EXPECT_EQ(std::memcmp(udp + 8, payload, sizeof payload), 0) << "payload";
}

namespace {

std::string read_line(int fd, int timeout_ms = 30000)
{
    std::string line;
    char c = 0;
    pollfd p{fd, POLLIN, 0};
    while (::poll(&p, 1, timeout_ms) == 1 && ::read(fd, &c, 1) == 1 && c != '\n')
        line += c;
    return line;
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

// Told 'q', refreshes and answers with what it found; then, with garbage,
// sends the peer a few hundred random datagrams (with the header or
// without) and announcements cut short or with a byte changed, and answers
// whether the peer still answers a query (its announcement reaches our
// findhostd).
[[noreturn]] void appliance_main(int to, int from, const char *host, uint32_t peer, bool garbage)
{
    const auto say = [&](const std::string &line) {
        if (::write(from, (line + "\n").data(), line.size() + 1) < 0)
            ::_exit(3);
    };
    const std::string conf = std::string("hostname=\"") + host + "\"\n";
    if (::mount("proc", "/proc", "proc", 0, nullptr) != 0 || ::mount("tmp", "/tmp", "tmpfs", 0, "mode=1777") != 0 ||
        ::mount("run", "/run", "tmpfs", 0, "mode=0755") != 0 || !kemo::sandbox::place("/tmp/kemoinfo.conf", conf) ||
        ::mount("/tmp/kemoinfo.conf", "/etc/kemoinfo.conf", nullptr, MS_BIND, nullptr) != 0) {
        say("cannot make the appliance's own /proc, /tmp, /run and settings");
        ::_exit(1);
    }
    char c = 0;
    if (::read(to, &c, 1) != 1 || c != 'q')
        ::_exit(1);
    PKLIBSZHASH hash = PshKLIBSzHashAlloc(0);
    const int dumped = KEMOFHOSTDumpHost();
    std::string found = std::to_string(dumped) + " " + std::to_string(KEMOFHOSTGet2Hash(&hash)) + " ";
    for (const std::string &k : keys_of(hash))
        found += k + " ";
    say(found);
    if (garbage) {
        std::mt19937 random(15);
        const std::vector<uint8_t> valid = fhost::announce_packet(kAnnounce);
        std::vector<std::vector<uint8_t>> all(400);
        for (std::size_t i = 0; i < all.size(); ++i) {
            auto &bytes = all[i];
            bytes.resize(random() % 600);
            std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
            if (i % 3 == 0 && bytes.size() >= 8)
                std::memcpy(bytes.data(), stFHOSTHeader, 8);
            if (i % 3 == 1) {
                bytes.assign(valid.begin(), valid.begin() + static_cast<long>(random() % valid.size()));
                if (bytes.size() > 20)
                    bytes[8 + random() % (bytes.size() - 8)] = static_cast<uint8_t>(random());
            }
        }
        send_to(peer, all);
        bool heard = false;
        for (int i = 0; i < 30 && !heard; ++i) {
            send_to(peer, {{stFHOSTBroadCastZMP20, stFHOSTBroadCastZMP20 + 20}});
            ::usleep(100000);
            std::ifstream in(FHOST_HOST_LIST);
            for (std::string line; std::getline(in, line);)
                heard = heard || line.starts_with("410,262,nas-b,10.99.0.2,");
        }
        // The daemon gave up root: its list belongs to nobody.
        struct stat st {};
        const bool dropped = ::stat(FHOST_HOST_LIST, &st) == 0 && st.st_uid == 65534;
        say(!heard ? "no answer after the garbage" : dropped ? "answered" : "the list is not nobody's");
    }
    (void)::read(to, &c, 1); // until the test is done
    ::_exit(0);
}

// One appliance of the two-appliance test: a child in network, mount and
// pid namespaces of its own, so that it has its own /proc (ps sees only its
// own findhostd), /tmp (its list) and /run (its pid file), and its own host
// name (a kemoinfo.conf bound over the shared one).
struct Appliance {
    pid_t outer = -1, inner = -1; // inner: the namespace's first process, as seen from here
    int to[2] = {-1, -1}, from[2] = {-1, -1};

    Appliance(const char *host, const char *peer, bool garbage)
    {
        if (::pipe2(to, O_CLOEXEC) != 0 || ::pipe2(from, O_CLOEXEC) != 0 || (outer = ::fork()) < 0)
            return;
        if (outer == 0) {
            if (::unshare(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWPID) != 0)
                ::_exit(1);
            const pid_t pid = ::fork();
            if (pid == 0)
                appliance_main(to[0], from[1], host, ::inet_addr(peer), garbage);
            const std::string text = std::to_string(pid) + "\n";
            if (pid > 0 && ::write(from[1], text.data(), text.size()) > 0)
                ::waitpid(pid, nullptr, 0);
            ::_exit(0);
        }
        ::close(from[1]);
        inner = std::atoi(read_line(from[0], 5000).c_str());
    }
    ~Appliance()
    {
        if (inner > 0)
            ::kill(inner, SIGKILL); // takes its namespace's findhostd along
        if (outer > 0)
            ::waitpid(outer, nullptr, 0);
        for (const int fd : {to[0], to[1], from[0]})
            ::close(fd);
    }
};

} // namespace

// Both refreshes run at once: the answer period is part of the contract,
// so this takes about 10 seconds.
TEST_F(FhostTest, TwoAppliancesFindEachOther)
{
    Appliance a("nas-a", "10.99.0.2", true), b("nas-b", "10.99.0.1", false);
    ASSERT_GT(a.inner, 0);
    ASSERT_GT(b.inner, 0);
    const std::string ia = std::to_string(a.inner), ib = std::to_string(b.inner);
    ASSERT_TRUE(shell("ip link add fa netns " + ia + " type veth peer name fb netns " + ib));
    for (const auto &[pid, dev, address] : {std::tuple{ia, "fa", "10.99.0.1"}, {ib, "fb", "10.99.0.2"}})
        ASSERT_TRUE(shell("nsenter -t " + pid + " -n sh -c 'ip link set lo up && ip addr add " + address +
                          "/24 dev " + dev + " && ip link set " + dev + " up'"));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(::write(a.to[1], "q", 1) == 1 && ::write(b.to[1], "q", 1) == 1);
    const std::string found_a = read_line(a.from[0]), found_b = read_line(b.from[0]);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
    // Each lists the other (and itself: its own daemon answers too).
    EXPECT_EQ(found_a, "0 2 nas-a(10.99.0.1) nas-b(10.99.0.2) ");
    EXPECT_EQ(found_b, "0 2 nas-a(10.99.0.1) nas-b(10.99.0.2) ");
    EXPECT_EQ(read_line(a.from[0]), "answered");
}
