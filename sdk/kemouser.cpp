// Local user accounts, read side: the static passwd-style records, one
// user's record in the two-call layout, the enumeration filter, the expiry
// check, and the users a configuration backup carries.  An account lives in
// /etc/passwd, /etc/shadow and the file-sharing password file at once, with
// its mail address in /etc/mail; the changes are in kemouser_set.cpp and
// kemouser_delete.cpp.
#include "kemouser_internal.hpp"
#include "kemounicode.hpp"
#include "kemostr.hpp"

#include <pwd.h>

#include <climits>
#include <cstring>
#include <ctime>
#include <memory>

namespace kemo::accounts {

namespace {

// The bytes a KEMOUserGet answer needs besides its four texts: the record,
// the texts' four terminators and one byte more.  On the 32-bit target the
// record is four pointers and the expiry, 20 bytes, so the documented size
// is the texts plus 25 there; the same sum stays exact where pointers are
// wider.
constexpr std::size_t kUserRecordOverhead = sizeof(KEMOUSER) + 4 + 1;
static_assert(sizeof(char *) != 4 || kUserRecordOverhead == 25);

// One static passwd record and its text buffers.
struct PwRecord {
    passwd pw{};
    char name[493]{}, password[1024]{}, gecos[1024]{}, dir[32]{}, shell[256]{};
};
PwRecord g_local_record, g_domain_record;

void copy_text(char *dst, std::size_t size, std::string_view src)
{
    const std::size_t n = std::min(size - 1, src.size());
    std::memcpy(dst, src.data(), n);
    dst[n] = '\0';
}

bool name_length_ok(const char *name)
{
    if (name == nullptr || *name == '\0')
        return false;
    const int chars = kemo::unicode::count_chars(name);
    return chars > 0 && chars <= kMaxNameChars;
}

// The passwd line of name as the static local record; null with
// ERR_NO_SUCH_USER, ERR_FORMAT_ERROR or the read error set.
passwd *local_record(const char *name)
{
    std::string line;
    const int found = find_line(kPasswd, name, line);
    if (found <= 0)
        return found == 0 ? fail<passwd *>(nullptr, ERR_NO_SUCH_USER) : nullptr;
    const auto entry = records::parse_passwd(line);
    if (!entry)
        return fail<passwd *>(nullptr, ERR_FORMAT_ERROR);
    PwRecord &r = g_local_record;
    copy_text(r.name, sizeof r.name, entry->name);
    copy_text(r.password, sizeof r.password, entry->password);
    copy_text(r.gecos, sizeof r.gecos, entry->gecos);
    copy_text(r.dir, sizeof r.dir, entry->home);
    copy_text(r.shell, sizeof r.shell, entry->shell);
    r.pw = passwd{};
    r.pw.pw_name = r.name;
    r.pw.pw_passwd = r.password;
    r.pw.pw_uid = static_cast<uid_t>(entry->uid);
    r.pw.pw_gid = static_cast<gid_t>(entry->gid);
    r.pw.pw_gecos = r.gecos;
    r.pw.pw_dir = r.dir;
    r.pw.pw_shell = r.shell;
    return &r.pw;
}

} // namespace

// The users of a filter (local 0x01 or flags 0; domain 0x10 all, 0x20 in
// use) into names (when given): their number, or -1.
int collect_users(int flags, std::vector<std::string> *names)
{
    const bool local = flags == 0 || (flags & KEMO_USER_LOCAL) != 0;
    int count = 0;
    if (local) {
        LocalScan scan;
        scan.guest = guest_support();
        scan.names = names;
        if (kemo::for_each_line(kPasswd, [&](std::string_view line) {
                scan.line(line);
                return 1;
            }) != 0)
            return -1;
        if (scan.truncated())
            return fail(-1, ERR_SYS_UNKNOWN);
        count = scan.users;
    }
    if ((flags & (KEMO_USER_DOMAIN_ALL | KEMO_USER_DOMAIN_USED)) != 0 && domain_joined()) {
        PKLIBSZLIST list = PslKLIBSzListAlloc(1024);
        if (list == nullptr)
            return -1;
        const int found = (flags & KEMO_USER_DOMAIN_ALL) != 0 ? kemo::domain::push_users(&list)
                                                               : kemo::domain::push_used_users(&list);
        // A domain that cannot be listed adds no users.
        if (found > 0) {
            count += list->nItem;
            if (names != nullptr)
                for (int i = 0; i < list->nItem; ++i)
                    names->emplace_back(list->pszItem[i]);
        }
        KLIBSzListFree(list);
    }
    return count;
}


bool stored_users(std::vector<StoredUser> &out)
{
    auto lock = account_lock(kUserReadLock, kUserReadUnlock);
    if (!lock.held())
        return fail(false, ERR_LOCK_FAILED);
    AccountFile passwd_file, shadow_file, smb_file;
    if (!passwd_file.read(kPasswd) || !shadow_file.read(kShadow) || !smb_file.read(kSmbpasswd))
        return false;
    // The other files by account key, the first line of a name winning.
    auto by_key = [](const AccountFile &file) {
        std::unordered_map<std::string, std::string_view> lines;
        for (std::size_t i = 0; i < file.size(); ++i)
            if (const auto name = name_of(file[i]); !name.empty())
                lines.try_emplace(key_of(name), file[i]);
        return lines;
    };
    const auto shadows = by_key(shadow_file);
    const auto smb_lines = by_key(smb_file);
    std::unordered_map<std::string, std::string> mail;
    kemo::for_each_line(kMail, [&](std::string_view line) {
        if (const auto entry = records::parse_mail(kemo::chomp(line)))
            mail.try_emplace(key_of(entry->name), entry->address);
        return 1;
    });

    for (std::size_t i = 0; i < passwd_file.size(); ++i) {
        const auto pw = records::parse_passwd(passwd_file[i]);
        if (!pw || is_system_user(pw->uid))
            continue;
        StoredUser user;
        user.name = pw->name;
        user.uid = pw->uid;
        user.desc = kemo::strings::decode_colon(pw->gecos);
        const std::string key = key_of(user.name);
        if (const auto it = shadows.find(key); it != shadows.end()) {
            if (const auto sh = records::parse_shadow(it->second)) {
                user.unix_hash = sh->hash;
                user.expire =
                    static_cast<int32_t>(std::clamp<long>(decimal(sh->expire).value_or(0), 0, INT32_MAX));
            }
        }
        if (const auto it = smb_lines.find(key); it != smb_lines.end()) {
            if (const auto smb = records::parse_smbpasswd(it->second))
                user.lm = smb->lm, user.nt = smb->nt;
        }
        if (const auto it = mail.find(key); it != mail.end())
            user.email = it->second;
        out.push_back(std::move(user));
    }
    return true;
}

namespace {

// One user's record in the two-call layout, read under the user reader
// lock: KEMOUserGet's results.
int user_record(const char *name, PKEMOUSER out, int size, int *needed)
{
    auto lock = account_lock(kUserReadLock, kUserReadUnlock);
    if (!lock.held())
        return fail(-1, ERR_LOCK_FAILED);
    const passwd *pw = local_record(name);
    if (pw == nullptr)
        return fail(-1, ERR_NO_SUCH_USER);
    const std::string stored_name = pw->pw_name;
    const std::string stored_desc = pw->pw_gecos;
    std::string hash;
    long expire = 0;
    if (!shadow_of(stored_name.c_str(), hash, expire))
        return -1;
    const std::string mail = mail_of(stored_name);

    const std::size_t need = kUserRecordOverhead + stored_name.size() + hash.size() +
                             stored_desc.size() + mail.size();
    *needed = static_cast<int>(need);
    if (out == nullptr)
        return 0;
    if (static_cast<std::size_t>(size) < need)
        return fail(-1, ERR_NOT_ENOUGH_MEMORY);

    char *text = reinterpret_cast<char *>(out + 1);
    auto put = [&](std::string_view s) {
        char *at = text;
        std::memcpy(text, s.data(), s.size());
        text[s.size()] = '\0';
        text += s.size() + 1;
        return at;
    };
    out->szName = put(stored_name);
    out->szPasswd = put(hash);
    // Decoding only shortens the text: it fits where the stored one was counted.
    out->szDesc = put(kemo::strings::decode_colon(stored_desc));
    out->expire = static_cast<int32_t>(std::clamp<long>(expire, 0, INT32_MAX));
    out->szEmail = put(mail);
    return 1;
}

} // namespace

passwd *local_pw_record(const char *name)
{
    passwd *pw = local_record(name);
    if (pw == nullptr)
        return nullptr;
    std::string hash;
    long expire = 0;
    if (!shadow_of(name, hash, expire))
        return nullptr;
    copy_text(g_local_record.password, sizeof g_local_record.password, hash);
    return pw;
}

passwd *domain_pw_record(const char *name)
{
    const int uid = kemo::domain::user_uid(name);
    if (uid < 0)
        return nullptr;
    const int gid = kemo::domain::user_gid(name);
    if (gid < 0)
        return nullptr;
    PwRecord &r = g_domain_record;
    copy_text(r.name, sizeof r.name, name);
    copy_text(r.gecos, sizeof r.gecos, r.name);
    r.password[0] = '\0';
    copy_text(r.dir, sizeof r.dir, "/");
    copy_text(r.shell, sizeof r.shell, "/bin/csh");
    r.pw = passwd{};
    r.pw.pw_name = r.name;
    r.pw.pw_passwd = r.password;
    r.pw.pw_uid = static_cast<uid_t>(uid);
    r.pw.pw_gid = static_cast<gid_t>(gid);
    r.pw.pw_gecos = r.gecos;
    r.pw.pw_dir = r.dir;
    r.pw.pw_shell = r.shell;
    return &r.pw;
}

// A local or domain account's record, by the form of its name.
passwd *pw_record(const char *name)
{
    const bool domain = kemo::domain::name_kind(name) == 2;
    if (!name_length_ok(name)) {
        if (domain)
            KEMO_LOG("KLIBUnicodeUTF8StrCountChar fail");
        return fail<passwd *>(nullptr, ERR_BAD_PARAMETERS);
    }
    return domain ? domain_pw_record(name) : local_pw_record(name);
}

// The body of KEMOUserEnum, with its arguments checked.
int enum_users(int flags, char **out, int size, int *needed)
{
    auto lock = account_lock(kUserReadLock, kUserReadUnlock);
    if (!lock.held())
        return fail(-1, ERR_LOCK_FAILED);
    std::vector<std::string> names;
    if (collect_users(flags, &names) < 0)
        return -1;
    return store_names(names, out, size, needed);
}

// The body of KEMOUserTotalNum, with its arguments checked.
int count_users(int flags)
{
    auto lock = account_lock(kUserReadLock, kUserReadUnlock);
    if (!lock.held())
        return fail(-1, ERR_LOCK_FAILED);
    return collect_users(flags, nullptr);
}

// The body of KEMOUserCheckExpired, with its arguments checked.
int check_expired(const char *name)
{
    int need = 0;
    if (user_record(name, nullptr, 0, &need) != 0) {
        KEMO_LOG("KEMOUserCheckExpired: %s ask size error.(%X)", name,
                 static_cast<unsigned>(KLIBErrGet()));
        return -1;
    }
    // Storage aligned for the record at the buffer's start.
    const std::size_t words = (static_cast<std::size_t>(need) + sizeof(KEMOUSER) - 1) / sizeof(KEMOUSER);
    std::unique_ptr<KEMOUSER[]> buffer;
    try {
        buffer = std::make_unique<KEMOUSER[]>(words);
    } catch (const std::bad_alloc &) {
        KEMO_LOG("KEMOMAlloc %d failed.", need);
        return fail(-1, ERR_OUT_OF_MEMORY);
    }
    if (user_record(name, buffer.get(), need, &need) != 1)
        return -1;
    const int32_t day = buffer[0].expire;
    if (day <= 0)
        return 0;
    // The account ends with day D in local time: at local midnight that
    // starts day D + 1 (mktime also accounts for summer time).
    const time_t start = static_cast<time_t>(day) * 86400;
    tm date{};
    gmtime_r(&start, &date);
    tm end{};
    end.tm_year = date.tm_year;
    end.tm_mon = date.tm_mon;
    end.tm_mday = date.tm_mday + 1;
    end.tm_isdst = -1;
    const time_t expires = mktime(&end);
    return std::time(nullptr) >= expires ? 1 : 0;
}

} // namespace kemo::accounts

using namespace kemo::accounts;
using kemo::fail;

extern "C" {

KEMO_API struct passwd *KLIBGetPwNam(const char *name)
{
    if (!name_length_ok(name))
        return fail<passwd *>(nullptr, ERR_BAD_PARAMETERS);
    return kemo::edge<passwd *>(nullptr, [&] { return local_record(name); });
}

KEMO_API struct passwd *PpwGetLocalPwNam(const char *name)
{
    if (!name_length_ok(name))
        return fail<passwd *>(nullptr, ERR_BAD_PARAMETERS);
    return kemo::edge<passwd *>(nullptr, [&] { return local_pw_record(name); });
}

KEMO_API struct passwd *PpwGetDomainPwNam(const char *name)
{
    if (name == nullptr)
        return fail<passwd *>(nullptr, ERR_BAD_PARAMETERS);
    if (!name_length_ok(name)) {
        KEMO_LOG("KLIBUnicodeUTF8StrCountChar fail");
        return fail<passwd *>(nullptr, ERR_BAD_PARAMETERS);
    }
    return kemo::edge<passwd *>(nullptr, [&] { return domain_pw_record(name); });
}

KEMO_API struct passwd *PpwGetPwNam(const char *name)
{
    if (name == nullptr)
        return fail<passwd *>(nullptr, ERR_BAD_PARAMETERS);
    return kemo::edge<passwd *>(nullptr, [&] { return pw_record(name); });
}

KEMO_API void KLIBEndPwEnt(void)
{
    // The records are static and no file stays open: nothing to end.
}

KEMO_API int KEMOUserGet(int /*reserved*/, int type, const char *name, PKEMOUSER out, int size,
                         int *needed)
{
    if (type != KEMO_ACCOUNT_LOCAL || name == nullptr || needed == nullptr || size < 0 ||
        (out == nullptr && size != 0))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return user_record(name, out, size, needed); });
}

KEMO_API int KEMOUserEnum(int flags, char **out, int size, int *needed)
{
    if ((flags != 0 && (flags & (KEMO_USER_LOCAL | KEMO_USER_DOMAIN_ALL | KEMO_USER_DOMAIN_USED)) == 0) ||
        !enum_arguments_ok(out, size, needed))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return enum_users(flags, out, size, needed); });
}

// The flags are checked against 0x01, 0x02 and 0x04 but filtered like
// KEMOUserEnum's, whose domain bits are 0x10 and 0x20: so 7 counts the
// local users only, which is what the account limit needs.
KEMO_API int KEMOUserTotalNum(int flags)
{
    if (flags != 0 && (flags & 0x07) == 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return count_users(flags); });
}

KEMO_API int KEMOUserCheckExpired(const char *name)
{
    if (name == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return check_expired(name); });
}

} // extern "C"
