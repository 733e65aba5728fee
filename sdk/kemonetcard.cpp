// The network interfaces as the network settings see them: those that are
// up, not loopback and carry an IPv4 address, numbered in the kernel's
// order.
#include "kemo_fhost.hpp"
#include "kemo_internal.hpp"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

namespace {

struct IfaddrsFree {
    void operator()(ifaddrs *list) const noexcept { ::freeifaddrs(list); }
};

void dotted(const sockaddr *address, char (&out)[16])
{
    out[0] = '\0';
    if (address != nullptr && address->sa_family == AF_INET)
        ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(address)->sin_addr, out, sizeof out);
}

} // namespace

namespace kemo::net {

// getifaddrs lists the IPv4 addresses in the kernel's order of interfaces;
// an interface with several addresses counts once, with its first one.
// The hardware address comes from the interface's AF_PACKET entry.
int get_card(int index, KEMONETCARD &card)
{
    ifaddrs *raw = nullptr;
    if (::getifaddrs(&raw) != 0) {
        KEMO_LOG("getifaddrs failed, errno = %d", errno);
        return fail(-1, ERR_OP_FAILURE);
    }
    const std::unique_ptr<ifaddrs, IfaddrsFree> list(raw);
    std::vector<std::string_view> counted;
    const ifaddrs *found = nullptr;
    for (const ifaddrs *a = list.get(); a != nullptr && found == nullptr; a = a->ifa_next) {
        if (a->ifa_addr == nullptr || a->ifa_addr->sa_family != AF_INET || (a->ifa_flags & IFF_UP) == 0 ||
            (a->ifa_flags & IFF_LOOPBACK) != 0 || std::strlen(a->ifa_name) >= sizeof card.szName)
            continue;
        const std::string_view name = a->ifa_name;
        if (std::find(counted.begin(), counted.end(), name) != counted.end())
            continue;
        if (static_cast<int>(counted.size()) == index)
            found = a;
        counted.push_back(name);
    }
    if (found == nullptr)
        return fail(-1, ERR_DEV_UNCONFIG);

    card = KEMONETCARD{};
    std::memcpy(card.szName, found->ifa_name, std::strlen(found->ifa_name) + 1);
    dotted(found->ifa_addr, card.szIP);
    dotted(found->ifa_netmask, card.szMask);
    card.flags = found->ifa_flags;
    for (const ifaddrs *a = list.get(); a != nullptr; a = a->ifa_next) {
        if (a->ifa_addr == nullptr || a->ifa_addr->sa_family != AF_PACKET ||
            std::strcmp(a->ifa_name, card.szName) != 0)
            continue;
        const auto *link = reinterpret_cast<const sockaddr_ll *>(a->ifa_addr);
        if (link->sll_halen == 6) {
            const unsigned char *m = link->sll_addr;
            std::snprintf(card.szMac, sizeof card.szMac, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3],
                          m[4], m[5]);
        }
        break;
    }
    return 1;
}

} // namespace kemo::net

extern "C" {

KEMO_API int KEMONetGetCard1(int index, int flags, KEMONETCARD *card)
{
    if (card == nullptr || index < 0 || flags != 0)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::net::get_card(index, *card); });
}

} // extern "C"
