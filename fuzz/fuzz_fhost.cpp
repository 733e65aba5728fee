// The host-list parser and the discovery daemon's packet parser on any
// bytes: the first byte chooses (even: the list, odd: a packet), the rest
// is the input.  Besides not crashing, what they accept must keep the
// shapes their users rely on.
#include "kemo_fhost.hpp"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace fhost = kemo::fhost;

namespace {

void check(bool ok)
{
    if (!ok)
        __builtin_trap();
}

void list(std::string_view text)
{
    PKLIBSZHASH hash = PshKLIBSzHashAlloc(0);
    check(hash != nullptr);
    const int n = fhost::parse_host_list(text, &hash);
    check(n == -1 || n == hash->nPair);
    // Every key is "name(address)" with the address as its value.
    for (int i = 0; i < hash->nSlot; ++i) {
        const KLIBSZHASHSLOT &slot = hash->rgSlot[i];
        if (slot.pszKey == nullptr)
            continue;
        const std::string_view key = slot.pszKey, value = slot.pszValue;
        check(!value.empty() && key.ends_with("(" + std::string(value) + ")") && key.size() > value.size() + 2);
    }
    KLIBSzHashFree(hash);
}

void packet(const uint8_t *data, std::size_t size)
{
    const auto p = fhost::parse_packet(data, size);
    if (!p || p->kind != fhost::Kind::announce)
        return;
    // An accepted announcement gives one line of five fields, and
    // survives being sent again.
    const std::string line = fhost::list_line(p->announce);
    check(line.find('\n') == line.size() - 1);
    std::size_t commas = 0;
    for (const char c : line)
        commas += c == ',';
    check(commas == 4);
    const auto again = fhost::announce_packet(p->announce);
    const auto back = fhost::parse_packet(again.data(), again.size());
    check(back && back->kind == fhost::Kind::announce && fhost::list_line(back->announce) == line);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    if (data[0] % 2 == 0)
        list(std::string_view(reinterpret_cast<const char *>(data + 1), size - 1));
    else
        packet(data + 1, size - 1);
    return 0;
}
