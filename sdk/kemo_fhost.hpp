// Internal interface of appliance discovery: the interface query
// (sdk/kemonetcard.cpp), the query and the host list (sdk/kemofhost.cpp),
// and the packet format that the discovery daemon speaks.
//
// The packet functions are inline and use nothing but the C++ library and
// the exported packet tables, because findhostd (a program linked with the
// shared library, whose C++ symbols stay hidden) compiles them too: the
// daemon, the tests and the fuzzer run the same parser.
#pragma once

#include "kemo.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kemo::net {

// Interface `index` among those that are up, not loopback and carry an
// IPv4 address, in the kernel's order: 1, or -1 with ERR_DEV_UNCONFIG (no
// such interface) or ERR_OP_FAILURE (the kernel could not be asked).
int get_card(int index, KEMONETCARD &card);

} // namespace kemo::net

namespace kemo::fhost {

inline constexpr char kDaemon[] = "/usr/kemo/bin/findhostd";
inline constexpr char kDaemonName[] = "findhostd";
inline constexpr char kPidFile[] = "/var/run/findhostd.pid";
// The daemon gives up root for this user once its port is bound; the host
// list it writes in /tmp belongs to it.
inline constexpr char kDaemonUser[] = "nobody";
// Bounds of the snapshot read by the parser and of the daemon's list.
inline constexpr std::size_t kMaxListBytes = 4u << 20;
inline constexpr std::size_t kMaxHosts = 1024;

// The host list's lines (text as the daemon wrote it) set into *hash: key
// "name(address)", value the address.  Lines that do not qualify are
// skipped (logged where a broken line deserves it).  The number of pairs in
// the hash, or -1 (the hash could not take a pair, error code set).
int parse_host_list(std::string_view text, PKLIBSZHASH *hash);

// Sends the ZMP20 query twice through send; the AND of both results.
using Sender = int (*)(const void *packet, int length);
int send_query(Sender send);

// packet as one UDP broadcast to 255.255.255.255:9999 from local_address
// (network order): 0, or -1 (logged).
int broadcast_from(const void *packet, int length, uint32_t local_address);
// The same from the address of interface 0.
int broadcast_from_card(const void *packet, int length);

// Starts the daemon when needed, sends the query, waits the answer period
// and moves the list to the snapshot: 0 or -1.
int dump_hosts();
// Parses and removes the snapshot.
int snapshot_to_hash(PKLIBSZHASH *hash);
// KEMONetSendUDPBroadCast once its arguments are checked.
int send_raw_udp(const KEMOUDPADDR &addr, const void *payload, int length, const char *interface);

// ------------------------------------------------------------------ packets
//
// A packet is the 8-byte header followed by fields: one byte of id, one of
// length, the value.  Integers are big-endian.  A query is any of the three
// exported query packets (or any well-formed packet whose kind is 1 or that
// names no kind, as the 10-byte one); an announcement carries kind 2 and
// the appliance's details.
enum Field : uint8_t {
    field_kind = 0x01,     // 4 bytes: 01 00 00 00 query, 02 00 00 00 announce
    field_model = 0x02,    // 4 bytes: model number, non-zero
    field_build = 0x03,    // 4 bytes: firmware build number
    field_host = 0x04,     // 1-63 bytes: host name
    field_address = 0x05,  // 4 bytes: IPv4 address of the answering interface
    field_mac = 0x06,      // 6 bytes: its hardware address
    field_protocol = 0xA4, // 4 bytes: protocol version, 00 00 02 01
};
enum class Kind { query = 1, announce = 2 };

struct Announce {
    uint32_t model = 0;
    uint32_t build = 0;
    std::string host;
    uint32_t address = 0; // network order
    std::array<uint8_t, 6> mac{};
};

struct Packet {
    Kind kind = Kind::query;
    Announce announce; // kind announce only
};

// Host names an announcement may carry into the list: 1-63 letters,
// digits, "-", "_" and ".", so that a name can never add a field or a line.
inline bool host_name_ok(std::string_view name) noexcept
{
    if (name.empty() || name.size() > 63)
        return false;
    for (const char c : name)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
              c == '_' || c == '.'))
            return false;
    return true;
}

inline uint32_t big_endian(const uint8_t *p) noexcept
{
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}

// Any bytes: the packet, or nullopt for anything malformed (wrong header,
// a field running past the end, an unknown kind, an announcement lacking a
// detail or holding a bad one).  Unknown fields are skipped.
inline std::optional<Packet> parse_packet(const uint8_t *data, std::size_t size)
{
    const auto header = static_cast<std::size_t>(FHOSTHeaderSize);
    if (data == nullptr || size < header || std::memcmp(data, stFHOSTHeader, header) != 0)
        return std::nullopt;
    Packet packet;
    int kind = 0;
    unsigned seen = 0; // bit per announcement detail
    for (std::size_t pos = header; pos < size;) {
        if (size - pos < 2 || size - pos - 2 < data[pos + 1])
            return std::nullopt;
        const uint8_t id = data[pos], length = data[pos + 1];
        const uint8_t *value = data + pos + 2;
        pos += 2u + length;
        // A known field of the wrong size, or a bad host name, spoils the packet.
        const auto fixed = [&](uint8_t want, unsigned bit) {
            seen |= bit;
            return length == want;
        };
        Announce &a = packet.announce;
        switch (id) {
        case field_kind:
            if (length != 4 || value[1] != 0 || value[2] != 0 || value[3] != 0)
                return std::nullopt;
            kind = value[0];
            break;
        case field_model:
            if (!fixed(4, 1))
                return std::nullopt;
            a.model = big_endian(value);
            break;
        case field_build:
            if (!fixed(4, 2))
                return std::nullopt;
            a.build = big_endian(value);
            break;
        case field_host:
            a.host.assign(reinterpret_cast<const char *>(value), length);
            if (!fixed(length, 4) || !host_name_ok(a.host))
                return std::nullopt;
            break;
        case field_address:
            if (!fixed(4, 8))
                return std::nullopt;
            std::memcpy(&a.address, value, 4);
            break;
        case field_mac:
            if (!fixed(6, 16))
                return std::nullopt;
            std::memcpy(a.mac.data(), value, 6);
            break;
        default:
            break;
        }
    }
    if (kind == 0 || kind == static_cast<int>(Kind::query)) {
        packet.kind = Kind::query;
        packet.announce = {};
        return packet;
    }
    if (kind != static_cast<int>(Kind::announce) || seen != 31 || packet.announce.model == 0 ||
        packet.announce.address == 0 || packet.announce.address == 0xFFFFFFFFu)
        return std::nullopt;
    packet.kind = Kind::announce;
    return packet;
}

inline std::vector<uint8_t> announce_packet(const Announce &a)
{
    std::vector<uint8_t> out(stFHOSTHeader, stFHOSTHeader + FHOSTHeaderSize);
    const auto field = [&](uint8_t id, const void *value, std::size_t length) {
        out.push_back(id);
        out.push_back(static_cast<uint8_t>(length));
        const auto *bytes = static_cast<const uint8_t *>(value);
        out.insert(out.end(), bytes, bytes + length);
    };
    const auto number = [&](uint8_t id, uint32_t v) {
        const uint8_t be[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
        field(id, be, 4);
    };
    number(field_kind, 0x02000000u);
    number(field_protocol, 0x00000201u);
    number(field_model, a.model);
    number(field_build, a.build);
    field(field_host, a.host.data(), std::min<std::size_t>(a.host.size(), 255));
    field(field_address, &a.address, 4);
    field(field_mac, a.mac.data(), 6);
    return out;
}

// "aa:bb:cc:dd:ee:ff"
inline std::string mac_text(const std::array<uint8_t, 6> &mac)
{
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                  mac[5]);
    return text;
}

// The host list line of an announcement: "model,build,host,address,mac\n".
inline std::string list_line(const Announce &a)
{
    char address[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &a.address, address, sizeof address);
    return std::to_string(a.model) + ',' + std::to_string(a.build) + ',' + a.host + ',' + address + ',' +
           mac_text(a.mac) + '\n';
}

} // namespace kemo::fhost
