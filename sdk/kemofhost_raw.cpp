// A UDP datagram in an Ethernet frame built by hand and written on the raw
// link layer of a named interface (libnet 1.1), for broadcasts that must
// leave by one interface whatever the routing table says.
#include "kemo_fhost.hpp"
#include "kemo_internal.hpp"

#include <libnet.h>

#include <cstring>
#include <memory>

namespace kemo::fhost {

namespace {

constexpr uint16_t kIdentification = 242;
constexpr uint8_t kTtl = 64;
constexpr uint16_t kDontFragment = 0x4000;
// The largest payload an IPv4 datagram can carry in UDP.
constexpr int kMaxPayload = 0xFFFF - LIBNET_IPV4_H - LIBNET_UDP_H;

struct LibnetClose {
    void operator()(libnet_t *l) const noexcept { ::libnet_destroy(l); }
};

bool all_zero(const uint8_t (&mac)[6]) noexcept
{
    for (const uint8_t b : mac)
        if (b != 0)
            return false;
    return true;
}

} // namespace

// Checksums are left to libnet (0 in the builders); it fills in the UDP
// checksum over the pseudo-header and the IPv4 header checksum when the
// frame is written.
int send_raw_udp(const KEMOUDPADDR &addr, const void *payload, int length, const char *interface)
{
    char error[LIBNET_ERRBUF_SIZE] = "";
    const std::unique_ptr<libnet_t, LibnetClose> l(::libnet_init(LIBNET_LINK, interface, error));
    if (!l) {
        KEMO_LOG("libnet_init(%s) failed: %s", interface, error);
        return fail(-1, ERR_UNKNOWN);
    }
    uint8_t source[6];
    std::memcpy(source, addr.srcMac, sizeof source);
    if (all_zero(addr.srcMac)) {
        const libnet_ether_addr *own = ::libnet_get_hwaddr(l.get());
        if (own == nullptr) {
            KEMO_LOG("libnet_get_hwaddr(%s) failed: %s", interface, ::libnet_geterror(l.get()));
            return fail(-1, ERR_UNKNOWN);
        }
        std::memcpy(source, own->ether_addr_octet, sizeof source);
    }
    uint8_t target[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    if (!all_zero(addr.dstMac))
        std::memcpy(target, addr.dstMac, sizeof target);

    const auto size = static_cast<uint32_t>(length);
    const auto udp_length = static_cast<uint16_t>(LIBNET_UDP_H + size);
    if (::libnet_build_udp(addr.srcPort, addr.dstPort, udp_length, 0, static_cast<const uint8_t *>(payload),
                           size, l.get(), 0) == -1 ||
        ::libnet_build_ipv4(static_cast<uint16_t>(LIBNET_IPV4_H + udp_length), 0, kIdentification, kDontFragment,
                            kTtl, IPPROTO_UDP, 0, addr.srcIp, addr.dstIp, nullptr, 0, l.get(), 0) == -1 ||
        ::libnet_build_ethernet(target, source, ETHERTYPE_IP, nullptr, 0, l.get(), 0) == -1) {
        KEMO_LOG("cannot build the frame for %s: %s", interface, ::libnet_geterror(l.get()));
        return fail(-1, ERR_UNKNOWN);
    }
    const int frame = LIBNET_ETH_H + LIBNET_IPV4_H + udp_length;
    const int written = ::libnet_write(l.get());
    if (written != frame) {
        KEMO_LOG("libnet_write(%s) wrote %d of %d bytes: %s", interface, written, frame,
                 ::libnet_geterror(l.get()));
        return fail(-1, ERR_UNKNOWN);
    }
    return 0;
}

} // namespace kemo::fhost

extern "C" {

// mode 0 and 1 send alike; both are accepted for the callers that pass
// either.
KEMO_API int KEMONetSendUDPBroadCast(int mode, const KEMOUDPADDR *addr, const void *payload, int payloadLength,
                                     const char *interfaceName)
{
    if ((mode != 0 && mode != 1) || addr == nullptr || payload == nullptr || payloadLength <= 0 ||
        payloadLength > kemo::fhost::kMaxPayload || interfaceName == nullptr || interfaceName[0] == '\0' ||
        std::strlen(interfaceName) >= IFNAMSIZ)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::fhost::send_raw_udp(*addr, payload, payloadLength, interfaceName); });
}

} // extern "C"
