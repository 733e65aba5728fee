// Password hashes of the user accounts: MD5-crypt for the Unix and web
// passwords (salted from the clock and the kernel's random source), and the
// file-sharing hashes in their line of the SMB password file.
#include "kemouser_internal.hpp"
#include "kemostr.hpp"
#include "kemo_passwd.hpp"

#include <sys/random.h>
#include <unistd.h>

#include <ctime>

namespace kemo::accounts {

namespace {

constexpr char kSmbFlags[] = "[U          ]";

// A fresh MD5-crypt setting: "$1$", two characters from the clock and six
// from the kernel's random source, all over the salt alphabet.
std::string fresh_salt()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::string salt = "$1$";
    salt += static_cast<char>(salt_char(static_cast<int>(now.tv_sec % 4096)));
    salt += static_cast<char>(salt_char(static_cast<int>(now.tv_nsec / 1000)));
    unsigned char random[6] = {};
    if (getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
        // No random source: spread the clock and the process id instead.
        unsigned long mix = static_cast<unsigned long>(now.tv_nsec) ^
                            (static_cast<unsigned long>(getpid()) << 16);
        for (unsigned char &c : random) {
            c = static_cast<unsigned char>(mix);
            mix = mix * 6364136223846793005UL + 1442695040888963407UL;
        }
    }
    for (const unsigned char c : random)
        salt += static_cast<char>(salt_char(c));
    return salt;
}

} // namespace

// Hashes plain.  An existing MD5-crypt hash given as stored is used as the
// setting, so the account keeps its salt; otherwise the salt is fresh.
std::optional<Hashes> hash_password(const char *plain, std::string_view stored)
{
    Hashes out;
    const std::string setting_text =
        stored.starts_with("$1$") ? std::string(stored) : fresh_salt();
    auto unix_hash = kemo::md5_crypt(plain, setting_text.c_str());
    if (!unix_hash || !kemo::smb_hashes_hex(plain, out.lm, out.nt))
        return std::nullopt;
    out.unix_hash = std::move(*unix_hash);
    return out;
}

std::string smbpasswd_line(std::string_view name, long uid, const Hashes &h)
{
    char changed[16];
    std::snprintf(changed, sizeof changed, "LCT-%08X", static_cast<unsigned>(std::time(nullptr)));
    return records::format_smbpasswd({name, uid, h.lm, h.nt, kSmbFlags, changed, ":"});
}

long today()
{
    return static_cast<long>(std::time(nullptr) / 86400);
}

std::string expire_field(int32_t expire)
{
    return expire > 0 ? std::to_string(expire) : std::string();
}

// The description as stored: colons encoded.
std::string encoded_desc(const char *desc)
{
    if (desc == nullptr || *desc == '\0')
        return {};
    return kemo::strings::encode_colon(desc);
}

int salt_char(int n) noexcept
{
    static constexpr char alphabet[] =
        "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz./";
    const long long magnitude = n < 0 ? -static_cast<long long>(n) : n;
    return alphabet[magnitude % 64];
}

} // namespace kemo::accounts

extern "C" {

KEMO_API int KEMOUserRandomNumMap2Seed(int n)
{
    return kemo::accounts::salt_char(n);
}

} // extern "C"
