// Internal password hashing for the account modules: MD5-crypt for the Unix
// and web password files, and the LAN Manager / NT hashes of the file-sharing
// password file in the hexadecimal form that file stores.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kemo {

// crypt_r(plain, setting) with an MD5-crypt setting: "$1$" and up to eight
// salt characters, or a whole stored "$1$salt$hash" (crypt reads the salt
// from it).  nullopt with ERR_BAD_PARAMETERS for a setting that is not
// MD5-crypt, ERR_UNKNOWN when crypt fails.
std::optional<std::string> md5_crypt(const char *plain, const char *setting);

// Bytes as upper-case hexadecimal, two digits per byte.
std::string hex_upper(const unsigned char *bytes, std::size_t count);

// The LAN Manager hash of plain: upper-cased (UTF-8, current locale), cut or
// padded with NULs to 14 bytes.  false with ERR_UNKNOWN when plain is not
// valid UTF-8.  Throws std::bad_alloc.
bool smb_lm_hash(std::string_view plain, unsigned char hash[16]);

// The NT hash of plain: MD4 of its UTF-16 little-endian form.  false with
// ERR_UNKNOWN when plain is not valid UTF-8.  Throws std::bad_alloc.
bool smb_nt_hash(std::string_view plain, unsigned char hash[16]);

// The LM and NT hashes of plain as 32 hexadecimal digits each.  false with
// the error code of KLIBSmbLmHash / KLIBSmbNtHash.
bool smb_hashes_hex(const char *plain, std::string &lm, std::string &nt);

} // namespace kemo
