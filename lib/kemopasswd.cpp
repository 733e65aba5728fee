// Password hashes: the LAN Manager and NT hashes of the file-sharing
// password file (DES and MD4 from nettle, the password's UTF-16 form from
// ICU) and MD5-crypt through libcrypt.
#include "kemo_internal.hpp"
#include "kemo_passwd.hpp"
#include "kemounicode.hpp"

#include <crypt.h>
#include <nettle/des.h>
#include <nettle/md4.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

// Spreads 7 key bytes over the 8 bytes DES takes: 7 bits each, the low bit
// of every byte being the parity bit, which DES ignores.
std::array<uint8_t, DES_KEY_SIZE> des_key_from_7(const uint8_t *s)
{
    std::array<uint8_t, DES_KEY_SIZE> key{
        static_cast<uint8_t>(s[0] >> 1),
        static_cast<uint8_t>(((s[0] & 0x01) << 6) | (s[1] >> 2)),
        static_cast<uint8_t>(((s[1] & 0x03) << 5) | (s[2] >> 3)),
        static_cast<uint8_t>(((s[2] & 0x07) << 4) | (s[3] >> 4)),
        static_cast<uint8_t>(((s[3] & 0x0F) << 3) | (s[4] >> 5)),
        static_cast<uint8_t>(((s[4] & 0x1F) << 2) | (s[5] >> 6)),
        static_cast<uint8_t>(((s[5] & 0x3F) << 1) | (s[6] >> 7)),
        static_cast<uint8_t>(s[6] & 0x7F),
    };
    for (uint8_t &b : key)
        b = static_cast<uint8_t>(b << 1);
    return key;
}

// The LM construction: the constant "KGS!@#$%" encrypted with DES under
// each 7-byte half of the 14-byte password.
void lm_from_14(const uint8_t *pw14, unsigned char hash[16])
{
    static constexpr uint8_t magic[DES_BLOCK_SIZE] = {'K', 'G', 'S', '!', '@', '#', '$', '%'};
    for (int half = 0; half < 2; ++half) {
        const auto key = des_key_from_7(pw14 + 7 * half);
        des_ctx ctx{};
        // The result only reports a weak key (the all-zero key of an empty
        // half is one); the key is set either way, and LM must use it.
        (void)des_set_key(&ctx, key.data());
        des_encrypt(&ctx, DES_BLOCK_SIZE, hash + 8 * half, magic);
    }
}

} // namespace

namespace kemo {

std::optional<std::string> md5_crypt(const char *plain, const char *setting)
{
    if (plain == nullptr || setting == nullptr || std::strncmp(setting, "$1$", 3) != 0)
        return fail(std::optional<std::string>{}, ERR_BAD_PARAMETERS);
    // crypt_data is large; it must start zeroed before its first use.
    auto data = std::make_unique<crypt_data>();
    const char *hash = crypt_r(plain, setting, data.get());
    if (hash == nullptr || std::strncmp(hash, "$1$", 3) != 0)
        return fail(std::optional<std::string>{}, ERR_UNKNOWN);
    return std::string(hash);
}

std::string hex_upper(const unsigned char *bytes, std::size_t count)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(2 * count);
    for (std::size_t i = 0; i < count; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 0x0F];
    }
    return out;
}

bool smb_hashes_hex(const char *plain, std::string &lm, std::string &nt)
{
    unsigned char lm_hash[16], nt_hash[16];
    if (plain == nullptr)
        return kemo::fail(false, ERR_BAD_PARAMETERS);
    if (!smb_lm_hash(plain, lm_hash) || !smb_nt_hash(plain, nt_hash))
        return false;
    lm = hex_upper(lm_hash, sizeof lm_hash);
    nt = hex_upper(nt_hash, sizeof nt_hash);
    return true;
}

// Longer passwords are cut, as LM always did: only their first 14 bytes
// count for LM (the NT hash covers the whole password).
bool smb_lm_hash(std::string_view plain, unsigned char hash[16])
{
    const auto upper = kemo::unicode::upper(plain);
    if (!upper)
        return false;
    std::array<uint8_t, 14> pw14{};
    std::memcpy(pw14.data(), upper->data(), std::min(pw14.size(), upper->size()));
    lm_from_14(pw14.data(), hash);
    return true;
}

// Byte order fixed here so the hash is the same on a big-endian host.
bool smb_nt_hash(std::string_view plain, unsigned char hash[16])
{
    if (plain.size() > static_cast<std::size_t>(INT32_MAX))
        return kemo::fail(false, ERR_UNKNOWN);
    const auto length = static_cast<int32_t>(plain.size());
    UErrorCode status = U_ZERO_ERROR;
    int32_t units = 0;
    u_strFromUTF8(nullptr, 0, &units, plain.data(), length, &status);
    if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status))
        return kemo::fail(false, ERR_UNKNOWN);
    std::vector<UChar> text(static_cast<std::size_t>(units) + 1);
    status = U_ZERO_ERROR;
    u_strFromUTF8(text.data(), units + 1, &units, plain.data(), length, &status);
    if (U_FAILURE(status))
        return kemo::fail(false, ERR_UNKNOWN);
    std::vector<uint8_t> bytes;
    bytes.reserve(2 * static_cast<std::size_t>(units));
    for (int32_t i = 0; i < units; ++i) {
        bytes.push_back(static_cast<uint8_t>(text[i] & 0xFF));
        bytes.push_back(static_cast<uint8_t>(text[i] >> 8));
    }
    md4_ctx ctx{};
    md4_init(&ctx);
    md4_update(&ctx, bytes.size(), bytes.data());
    md4_digest(&ctx, MD4_DIGEST_SIZE, hash);
    return true;
}

} // namespace kemo

extern "C" {

// The password upper-cased and cut or padded to 14 bytes, the LAN Manager
// way.
KEMO_API int KLIBSmbLmHash(const char *plain, unsigned char hash[16])
{
    if (plain == nullptr || hash == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::smb_lm_hash(plain, hash) ? 0 : -1; });
}

// MD4 of the password in UTF-16 little-endian.
KEMO_API int KLIBSmbNtHash(const char *plain, unsigned char hash[16])
{
    if (plain == nullptr || hash == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::smb_nt_hash(plain, hash) ? 0 : -1; });
}

} // extern "C"
