// Local user accounts.  An account lives in /etc/passwd, /etc/shadow and the
// file-sharing password file at once, with its mail address in /etc/mail
// and, for "admin", the web password in .htpasswd; its name also stands in
// the member lists of /etc/group and the access lists of smb.conf.  Every
// change is one account transaction: all new file contents are built in
// memory from one read of each file, then committed together, so a failure
// leaves every file as it was.
#include "kemo_accounts.hpp"
#include "kemo_io.hpp"
#include "kemo_passwd.hpp"
#include "kemo_process.hpp"

#include <pwd.h>
#include <signal.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

using namespace kemo::accounts;
using kemo::fail;

constexpr int kFirstUid = 1024, kLastUid = 2048;
constexpr int kUidProbes = 1024;
constexpr int kGuestUid = 1025;
constexpr int kUserGid = 100;
constexpr int kMaxNameChars = 64;
constexpr char kSmbFlags[] = "[U          ]";
constexpr char kAfpdConf[] = "/usr/kemo/etc/afpd.conf";
constexpr char kSchedulerPidFile[] = "/var/run/scheduler.pid";

// The bytes a KEMOUserGet answer needs besides its four texts: the record,
// the texts' four terminators and one byte more.  On the 32-bit target the
// record is four pointers and the expiry, 20 bytes, so the documented size
// is the texts plus 25 there; the same sum stays exact where pointers are
// wider.
constexpr std::size_t kUserRecordOverhead = sizeof(KEMOUSER) + 4 + 1;
static_assert(sizeof(char *) != 4 || kUserRecordOverhead == 25);

// KEMOUserSetLocal results.
constexpr int kInvalidName = -2, kNameExists = -3, kNameMissing = -4, kCrossDup = -5,
              kTooMany = -6, kUnlockFailed = -7;

// The key under which an account name is compared.  Text that is not UTF-8
// (only a damaged file holds such a name) is its own key.
std::string key_of(std::string_view name)
{
    auto key = upper(name);
    return key ? std::move(*key) : std::string(name);
}

// The name field of an account file line (before the first ':'), or "" for
// a line that is not an account entry.
std::string_view name_field(std::string_view line)
{
    const auto colon = line.find(':');
    return colon == std::string_view::npos ? std::string_view{} : line.substr(0, colon);
}

// A decimal field; nullopt when it is not a whole number.
std::optional<long> number(std::string_view text)
{
    long value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc{} || end != text.data() + text.size() || text.empty())
        return std::nullopt;
    return value;
}

// The uid (third field) of a passwd line, without splitting the rest.
std::optional<long> uid_field(std::string_view line)
{
    const auto first = line.find(':');
    const auto second = first == std::string_view::npos ? first : line.find(':', first + 1);
    if (second == std::string_view::npos)
        return std::nullopt;
    const auto third = line.find(':', second + 1);
    return number(line.substr(second + 1, third == std::string_view::npos ? third : third - second - 1));
}

// Whether a passwd line is a system account's (is_system_user); a line
// without a readable uid counts as one, so that it is never changed.
bool system_account(std::string_view passwd_line)
{
    const auto uid = uid_field(passwd_line);
    return !uid || is_system_user(*uid);
}

bool has_line_break(const char *text)
{
    return text != nullptr && std::strpbrk(text, "\r\n") != nullptr;
}

// The names a call works on, by key.  Account files are scanned for these
// names only: a line whose name is plain ASCII of another length cannot
// hold one of them (ASCII upper-casing keeps the length), so it is passed
// over without upper-casing its name.  Keeps a call's cost from growing
// with every account on the appliance.
class NameKeys {
public:
    void add(std::string key)
    {
        if (key.size() >= lengths_.size())
            lengths_.resize(key.size() + 1);
        lengths_[key.size()] = true;
        keys_.insert(std::move(key));
    }
    bool empty() const noexcept { return keys_.empty(); }
    // The key of name when it is one of these.  Plain ASCII names are
    // upper-cased on the stack: no allocation for the lines that do not match.
    std::optional<std::string> match(std::string_view name) const
    {
        const bool ascii =
            std::all_of(name.begin(), name.end(), [](char ch) { return (ch & 0x80) == 0; });
        if (!ascii) {
            std::string key = key_of(name);
            return keys_.contains(key) ? std::optional<std::string>(std::move(key)) : std::nullopt;
        }
        if (name.size() >= lengths_.size() || !lengths_[name.size()])
            return std::nullopt;
        std::array<char, 256> buffer;
        if (name.size() > buffer.size())
            return std::nullopt; // longer than any account name
        std::transform(name.begin(), name.end(), buffer.begin(), [](char ch) {
            return ch >= 'a' && ch <= 'z' ? static_cast<char>(ch - 'a' + 'A') : ch;
        });
        const std::string_view key(buffer.data(), name.size());
        const auto hit = keys_.find(key);
        return hit == keys_.end() ? std::nullopt : std::optional<std::string>(*hit);
    }

private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const noexcept
        {
            return std::hash<std::string_view>{}(text);
        }
    };
    std::unordered_set<std::string, Hash, std::equal_to<>> keys_;
    std::vector<bool> lengths_;
};

// An account file held as one block of text: its lines are views into the
// block, and only the lines a call changes or adds are strings of their
// own.  Reading, keeping and writing back thousands of accounts then costs
// one read, one scan and one copy, not an allocation per line.  Not
// movable: the views point into it.
class AccountFile {
public:
    AccountFile() = default;
    AccountFile(const AccountFile &) = delete;
    AccountFile &operator=(const AccountFile &) = delete;

    // false with ERR_OPEN_FAILED or ERR_READ_FAILED.
    bool read(const char *path)
    {
        kemo::FilePtr in = kemo::open_file(path, "r");
        if (!in)
            return fail(false, ERR_OPEN_FAILED);
        char chunk[64 * 1024];
        std::size_t n;
        while ((n = std::fread(chunk, 1, sizeof chunk, in.get())) > 0)
            text_.append(chunk, n);
        if (std::ferror(in.get()))
            return fail(false, ERR_READ_FAILED);
        std::string_view rest = text_;
        while (!rest.empty()) {
            const auto end = rest.find('\n');
            lines_.push_back(rest.substr(0, end));
            if (end == std::string_view::npos) {
                final_newline_ = false;
                break;
            }
            rest.remove_prefix(end + 1);
        }
        return true;
    }

    std::size_t size() const noexcept { return lines_.size(); }
    std::string_view operator[](std::size_t i) const noexcept { return lines_[i]; }
    void set(std::size_t i, std::string line) { lines_[i] = own(std::move(line)); }
    void append(std::string line)
    {
        lines_.push_back(own(std::move(line)));
        final_newline_ = true;
    }
    // Replaces the line at index, or appends when index is null.
    void put(const std::size_t *index, std::string line)
    {
        if (index != nullptr)
            set(*index, std::move(line));
        else
            append(std::move(line));
    }

    // The content, without the lines for which drop(line) holds.
    template <class Drop>
    std::string text(Drop &&drop) const
    {
        std::string out;
        out.reserve(text_.size() + 256);
        for (const std::string_view line : lines_)
            if (!drop(line))
                out.append(line).push_back('\n');
        if (!final_newline_ && !out.empty())
            out.pop_back();
        return out;
    }
    std::string text() const
    {
        return text([](std::string_view) { return false; });
    }

private:
    std::string_view own(std::string line)
    {
        owned_.push_back(std::move(line)); // a deque keeps its elements in place
        return owned_.back();
    }

    std::string text_;
    std::vector<std::string_view> lines_;
    std::deque<std::string> owned_;
    bool final_newline_ = true;
};

// Account lines of the wanted names by key (the first line of a name wins).
using LineIndex = std::unordered_map<std::string, std::size_t>;

LineIndex index_lines(const AccountFile &file, const NameKeys &wanted)
{
    LineIndex index;
    for (std::size_t i = 0; i < file.size(); ++i) {
        const std::string_view name = name_field(file[i]);
        if (name.empty())
            continue;
        if (auto key = wanted.match(name))
            index.emplace(std::move(*key), i);
    }
    return index;
}

// The content without the lines of the dropped names.
std::string without_accounts(const AccountFile &file, const NameKeys &drop)
{
    return file.text([&](std::string_view line) {
        const std::string_view name = name_field(line);
        return !name.empty() && drop.match(name).has_value();
    });
}

// Puts a line at index, or appends it (with a newline after the old last
// line) when index is null.
void put_line(Lines &file, const std::size_t *index, std::string line)
{
    if (index != nullptr) {
        file.lines[*index] = std::move(line);
    } else {
        file.lines.push_back(std::move(line));
        file.final_newline = true;
    }
}

// ------------------------------------------------------------ settings

std::string setting_of_defaults(const char *key)
{
    return setting(kDefaults, key);
}

bool domain_joined()
{
    return setting(kSettings, "domainjoined") == "yes";
}

// Has the download scheduler reread its users, on models that have one.
void signal_download_scheduler()
{
    if (setting_of_defaults("support_download") == "yes")
        kemo::signal_pid_file(kSchedulerPidFile, SIGUSR1);
}

// ------------------------------------------------------------ /etc/mail

// The address of an account (compared by name key), "" when none.
std::string mail_of(std::string_view name)
{
    const std::string key = key_of(name);
    std::string address;
    kemo::for_each_line(kMail, [&](std::string_view line) {
        if (line.empty() || line[0] == '#' || line[0] == ';')
            return 1;
        const auto pair = kemo::split_pair(kemo::chomp(line));
        if (!pair || key_of(pair->key) != key)
            return 1;
        address = pair->value;
        return 0;
    });
    return address;
}

std::string mail_line(std::string_view name, std::string_view address)
{
    std::string line(name);
    line += "=\"";
    line += address;
    line += '"';
    return line;
}

// Changes of /etc/mail by account key, applied in one pass over the file:
// the first line of a key is removed, replaced, or keeps its address under
// a new name; later lines of the key are dropped; addresses set for keys
// without a line are appended in the order they were set.
class MailEdit {
public:
    void remove(const std::string &key) { changes_[key] = {Kind::remove, {}, {}}; }
    void set(const std::string &key, std::string_view name, std::string_view address)
    {
        changes_.insert_or_assign(key, Change{Kind::set, std::string(name), std::string(address)});
        order_.push_back(key); // a key set twice is appended once (see apply)
    }
    // The address of old_key moves to new_name (unless new_key gets its own).
    void rename(const std::string &old_key, const std::string &new_key, std::string_view new_name)
    {
        changes_[old_key] = {Kind::rename, std::string(new_name), {}};
        changes_.try_emplace(new_key, Change{Kind::remove, {}, {}});
    }
    bool empty() const noexcept { return changes_.empty(); }

    // The new content, or nullopt when nothing changes.
    std::optional<std::string> apply(const Lines &mail)
    {
        Lines out;
        out.final_newline = mail.final_newline;
        std::unordered_set<std::string> seen;
        bool changed = false;
        for (const std::string &line : mail.lines) {
            const auto pair = line.empty() || line[0] == '#' || line[0] == ';'
                                  ? std::nullopt
                                  : kemo::split_pair(line);
            const std::string key = pair ? key_of(pair->key) : std::string();
            const auto it = pair ? changes_.find(key) : changes_.end();
            if (it == changes_.end()) {
                out.lines.push_back(line);
                continue;
            }
            changed = true;
            if (!seen.insert(key).second)
                continue; // a later line of the same account
            if (it->second.kind == Kind::set)
                out.lines.push_back(mail_line(it->second.name, it->second.address));
            else if (it->second.kind == Kind::rename)
                out.lines.push_back(mail_line(it->second.name, pair->value));
        }
        for (const std::string &key : order_) {
            const Change &change = changes_.at(key);
            if (change.kind == Kind::set && seen.insert(key).second) {
                out.lines.push_back(mail_line(change.name, change.address));
                out.final_newline = true;
                changed = true;
            }
        }
        if (!changed)
            return std::nullopt;
        return join_lines(out);
    }

private:
    enum class Kind { remove, set, rename };
    struct Change {
        Kind kind;
        std::string name, address;
    };
    std::unordered_map<std::string, Change> changes_;
    std::vector<std::string> order_;
};

// Stages the new /etc/mail when the edit changes it.  false with the code
// set when the file cannot be read.
bool stage_mail(Transaction &txn, MailEdit &edit)
{
    if (edit.empty())
        return true;
    Lines mail;
    if (!read_lines(kMail, mail, true))
        return false;
    if (auto content = edit.apply(mail))
        txn.stage(kMail, std::move(*content));
    return true;
}

// ------------------------------------------------------------ hashing

// A fresh MD5-crypt setting: "$1$", two characters from the clock and six
// from the kernel's random source, all over the salt alphabet.
std::string fresh_salt()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::string salt = "$1$";
    salt += static_cast<char>(KEMOUserRandomNumMap2Seed(static_cast<int>(now.tv_sec % 4096)));
    salt += static_cast<char>(KEMOUserRandomNumMap2Seed(static_cast<int>(now.tv_nsec / 1000)));
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
        salt += static_cast<char>(KEMOUserRandomNumMap2Seed(c));
    return salt;
}

// The three hashes of a password.
struct Hashes {
    std::string unix_hash, lm, nt;
};

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
    char tail[32];
    std::snprintf(tail, sizeof tail, ":%s:LCT-%08X:", kSmbFlags,
                  static_cast<unsigned>(std::time(nullptr)));
    std::string line(name);
    line += ':';
    line += std::to_string(uid);
    line += ':';
    line += h.lm;
    line += ':';
    line += h.nt;
    line += tail;
    return line;
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
    const int size = 2 * static_cast<int>(std::strlen(desc));
    std::string out(static_cast<std::size_t>(size) + 1, '\0');
    const int length = KLIBStrEncodeColon(desc, out.data(), size);
    out.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return out;
}

// ------------------------------------------------------------ uids

// Hands out uids 1024..2048 after the last one given (/etc/curUID.conf),
// wrapping at the top.  A uid is free when neither our passwd file nor the
// system's account database (glibc, which also sees any other account
// source) uses it.  Our file is read once into a map of the range.  The
// database is asked with getpwuid about each candidate our file leaves
// free, which for a small batch is one lookup per new account; a larger
// batch reads the database once with getpwent into the map instead, since
// one getpwuid per account scans the whole database every time and would
// make a batch of a thousand users quadratic.
class UidAllocator {
public:
    UidAllocator(const AccountFile &passwd_file, int last, std::size_t creations)
        : last_(last), used_(kLastUid - kFirstUid + 1), snapshot_(creations > kSmallBatch)
    {
        for (std::size_t i = 0; i < passwd_file.size(); ++i)
            mark(uid_field(passwd_file[i]).value_or(-1));
        if (snapshot_) {
            setpwent();
            while (const passwd *entry = getpwent())
                mark(static_cast<long>(entry->pw_uid));
            endpwent();
        }
    }

    std::optional<int> next()
    {
        int candidate = last_;
        for (int probe = 0; probe < kUidProbes; ++probe) {
            candidate = candidate + 1;
            if (candidate > kLastUid || candidate < kFirstUid)
                candidate = kFirstUid;
            if (used_[static_cast<std::size_t>(candidate - kFirstUid)])
                continue;
            used_[static_cast<std::size_t>(candidate - kFirstUid)] = true;
            if (!snapshot_ && getpwuid(static_cast<uid_t>(candidate)) != nullptr)
                continue;
            last_ = candidate;
            return candidate;
        }
        KEMO_LOG("Out of UID, counts=%d", kUidProbes);
        return fail(std::optional<int>{}, ERR_TOO_MANY_USERS);
    }

    // Takes uid itself when it is in range and free (a restored account
    // keeps the uid its files on the volumes are owned by).
    bool take(long uid)
    {
        if (uid < kFirstUid || uid > kLastUid || used_[static_cast<std::size_t>(uid - kFirstUid)])
            return false;
        if (!snapshot_ && getpwuid(static_cast<uid_t>(uid)) != nullptr)
            return false;
        used_[static_cast<std::size_t>(uid - kFirstUid)] = true;
        return true;
    }

    int last() const noexcept { return last_; }

private:
    static constexpr std::size_t kSmallBatch = 8;

    void mark(long uid)
    {
        if (uid >= kFirstUid && uid <= kLastUid)
            used_[static_cast<std::size_t>(uid - kFirstUid)] = true;
    }

    int last_;
    std::vector<bool> used_;
    bool snapshot_;
};

// The last uid handed out; 1024 when the counter is absent or unreadable.
int last_uid()
{
    const auto value = number(setting(kCurUid, "UID"));
    return value && *value >= 0 && *value <= INT_MAX ? static_cast<int>(*value) : kFirstUid;
}

// Stages /etc/curUID.conf with "UID" set to uid, other lines kept.
bool stage_uid_counter(Transaction &txn, int uid)
{
    Lines file;
    if (!read_lines(kCurUid, file, true))
        return false;
    const std::string line = "UID=" + std::to_string(uid);
    bool placed = false;
    Lines out;
    out.final_newline = file.final_newline;
    for (const std::string &old : file.lines) {
        if (KLIBILineKeyMatch(old.c_str(), "UID") != 1)
            out.lines.push_back(old);
        else if (!placed)
            out.lines.push_back(line), placed = true;
    }
    if (!placed)
        put_line(out, nullptr, line);
    txn.stage(kCurUid, join_lines(out));
    return true;
}

// ------------------------------------------------------------ enumeration

// The local part of the user filter over /etc/passwd lines.  Every entry
// counts toward the sanity check; users are the entries that are no system
// accounts, guest (1025) only with guest support.
struct LocalScan {
    int entries = 0;
    int users = 0;
    bool guest = false;
    std::vector<std::string> *names = nullptr;

    void line(std::string_view text)
    {
        text = kemo::chomp(text);
        const auto colon = text.find(':');
        const auto uid = uid_field(text);
        if (colon == 0 || colon == std::string_view::npos || !uid)
            return;
        ++entries;
        if (is_system_user(*uid) || (*uid == kGuestUid && !guest))
            return;
        ++users;
        if (names != nullptr)
            names->emplace_back(text.substr(0, colon));
    }
    // A passwd file that lost its users is refused rather than shown empty.
    bool truncated() const noexcept { return entries <= 1 || (entries == 2 && guest); }
};

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
        const int found = (flags & KEMO_USER_DOMAIN_ALL) != 0 ? KEMOPushDUser(&list)
                                                               : KEMOPushDUserUsed(&list);
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

// ------------------------------------------------------------ records

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
    const int chars = KLIBUnicodeUTF8StrCountChar(name);
    return chars > 0 && chars <= kMaxNameChars;
}

// The first line of path that begins with "name:", without its newline.
// 1 found, 0 not, -1 with the read error set.
int find_line(const char *path, std::string_view name, std::string &out)
{
    bool found = false;
    const int r = kemo::for_each_line(path, [&](std::string_view line) {
        if (line.size() > name.size() && line[name.size()] == ':' && line.starts_with(name)) {
            out = kemo::chomp(line);
            found = true;
            return 0;
        }
        return 1;
    });
    return r < 0 ? -1 : found ? 1 : 0;
}

// The user's shadow hash and expiry day (0 = none).  false with the code
// set: ERR_NO_SUCH_USER (no line), ERR_FORMAT_ERROR (not 9 fields), or the
// read error.
bool shadow_of(const char *name, std::string &hash, long &expire)
{
    std::string line;
    const int found = find_line(kShadow, name, line);
    if (found <= 0) {
        if (found == 0)
            KLIBErrSet(ERR_NO_SUCH_USER);
        KEMO_LOG("cant get line by %s(%X)", name, static_cast<unsigned>(KLIBErrGet()));
        return false;
    }
    const auto fields = split(line);
    if (fields.size() != 9) {
        // The line itself holds the hash and stays out of the log.
        KEMO_LOG("szLine[%s] has %d entries format error", name, static_cast<int>(fields.size()));
        return fail(false, ERR_FORMAT_ERROR);
    }
    hash = fields[1];
    expire = number(fields[7]).value_or(0);
    return true;
}

// ------------------------------------------------------------ AFP guest

// Lets the Apple file server accept guests (guest_has_password false) or
// not, by its login modules in afpd.conf, rewritten through a twin that
// keeps the file's owner and mode.  A file without a "-uamlist" line is
// left alone.  false with the code set.
bool set_guest_afpd(bool guest_has_password)
{
    Lines conf;
    if (!read_lines(kAfpdConf, conf)) {
        KEMO_LOG("kemouser: SDKISetGuestAfpd(): %s not found!", kAfpdConf);
        return fail(false, ERR_FILE_NOT_FOUND);
    }
    if (std::none_of(conf.lines.begin(), conf.lines.end(), [](const std::string &line) {
            return line.find("-uamlist") != std::string::npos;
        }))
        return true;
    const std::string_view from = guest_has_password ? "uams_guest.so" : "uams_noguest.so";
    const std::string_view to = guest_has_password ? "uams_noguest.so" : "uams_guest.so";
    for (std::string &line : conf.lines)
        for (auto at = line.find(from); at != std::string::npos; at = line.find(from, at + to.size()))
            line.replace(at, from.size(), to);
    kemo::Twin twin(kAfpdConf);
    if (!twin.open() || !twin.write(join_lines(conf)) || !twin.commit()) {
        KEMO_LOG("kemouser: SDKISetGuestAfpd(): writing %s failed!", kAfpdConf);
        return false;
    }
    return true;
}

// ------------------------------------------------------------ set

// One element of a KEMOUserSetLocal batch that passed the checks.
struct Change {
    const KEMOUSERSET *in = nullptr;
    std::string key;               // key of the (new) name
    std::string old_key;           // key of the old name (modifications)
    bool modify = false;
    bool rename() const { return modify && old_key != key; }
    bool new_password = false;     // modifications whose password changes
    const StoredUser *stored = nullptr; // restored from a backup: hashes given
    long uid = -1;                 // the account's uid once built
};

enum class Fault { none, invalid, exists, missing, denied };

int fault_result(Fault fault)
{
    switch (fault) {
    case Fault::invalid:
        return fail(kInvalidName, ERR_INVALID_USERNAME);
    case Fault::exists:
        return fail(kNameExists, ERR_USER_EXISTS);
    case Fault::missing:
        return fail(kNameMissing, ERR_NO_SUCH_USER);
    case Fault::denied:
        return fail(-1, ERR_ACCESS_DENIED);
    case Fault::none:
        break;
    }
    return 0;
}

// The batch of KEMOUserSetLocal under the writer lock.
class UserBatch {
public:
    // stored, when given, runs parallel to users: the accounts take those
    // hashes instead of hashing a password.
    UserBatch(const KEMOUSERSET *users, int count, PKLIBSZLIST *errors,
              const StoredUser *stored = nullptr)
        : users_(users), count_(count), errors_(errors), stored_(stored)
    {
    }
    // Each account of the batch with its uid, after run().
    std::vector<std::pair<std::string, long>> uids() const
    {
        std::vector<std::pair<std::string, long>> out;
        for (const Change &c : changes_)
            out.emplace_back(c.in->szName, c.uid);
        return out;
    }

    int run();
    // After a successful commit: hands changed passwords to the network
    // backup and switches the AFP guest login.
    void after_commit();

private:
    bool load();
    int classify();
    int check_limit();
    bool build();
    bool build_modified(Change &c);
    bool build_new(Change &c, UidAllocator &uids);
    void build_htpasswd();
    void push_error(const char *name) { KLIBSzListPush(errors_, name != nullptr ? name : ""); }

    const KEMOUSERSET *users_;
    int count_;
    PKLIBSZLIST *errors_;
    const StoredUser *stored_;

    AccountFile passwd_, shadow_, smbpasswd_;
    LineIndex passwd_index_, shadow_index_, smb_index_;
    std::vector<Change> changes_;
    MailEdit mail_;
    MemberMap renames_;
    Transaction txn_;
    const KEMOUSERSET *guest_ = nullptr;
    std::string admin_hash_;
    bool admin_hash_known_ = false;
};

bool UserBatch::load()
{
    if (!passwd_.read(kPasswd)) {
        KEMO_LOG("kemouser: SDKIGetPwdInfo(): KEMOFOpen(SZF_PASSWD, \"r\") failed");
        return false;
    }
    if (!shadow_.read(kShadow) || !smbpasswd_.read(kSmbpasswd))
        return false;
    NameKeys wanted;
    for (int i = 0; i < count_; ++i)
        for (const char *name : {users_[i].szName, users_[i].szOldName})
            if (name != nullptr && *name != '\0')
                wanted.add(key_of(name));
    passwd_index_ = index_lines(passwd_, wanted);
    shadow_index_ = index_lines(shadow_, wanted);
    smb_index_ = index_lines(smbpasswd_, wanted);
    return true;
}

// Sorts the elements into creations and modifications and records the
// first kind of fault: only names of that kind go to the error list.
int UserBatch::classify()
{
    Fault first = Fault::none;
    auto record = [&](Fault kind, const char *name) {
        if (first == Fault::none)
            first = kind;
        if (kind == first)
            push_error(name);
    };
    std::unordered_map<std::string, bool> targets; // new names: true created, false renamed to
    std::unordered_set<std::string> olds;          // modified accounts
    bool any = false;
    for (int i = 0; i < count_; ++i) {
        const KEMOUSERSET &u = users_[i];
        if (u.szName == nullptr || *u.szName == '\0')
            continue;
        any = true;
        if (BlKLIBIsUserName(u.szName) != 1) {
            KEMO_LOG("kemouser: KEMOUserSet(): Bad parameter; [i] = [%d], type = [%d], szName = [%s]",
                     i, u.type, u.szName);
            record(Fault::invalid, u.szName);
            continue;
        }
        Change c;
        c.in = &u;
        c.stored = stored_ != nullptr ? &stored_[i] : nullptr;
        c.key = key_of(u.szName);
        c.modify = u.szOldName != nullptr && *u.szOldName != '\0';
        bool faulty = false;
        if (c.modify)
            c.old_key = key_of(u.szOldName);
        if (!(c.modify && c.old_key == c.key) && passwd_index_.contains(c.key)) {
            KEMO_LOG("kemouser: KEMOUserSet(): user [%s] exists", u.szName);
            record(Fault::exists, u.szName);
            faulty = true;
        }
        if (c.modify && !passwd_index_.contains(c.old_key)) {
            KEMO_LOG("kemouser: KEMOUserSet(): user [%s] does not exist", u.szOldName);
            record(Fault::missing, u.szName);
            faulty = true;
        }
        if (!faulty && c.modify && system_account(passwd_[passwd_index_.at(c.old_key)])) {
            KEMO_LOG("kemouser: KEMOUserSet(): user [%s] is a system account", u.szOldName);
            record(Fault::denied, u.szName);
            faulty = true;
        }
        if (faulty)
            continue;
        // An account may be the subject of one modification only, a name
        // created or renamed to once.  A name created by one element and
        // renamed to by another is the cross case checked below.
        bool duplicate = c.modify && !olds.insert(c.old_key).second;
        if (!duplicate && (!c.modify || c.rename())) {
            const auto [it, fresh] = targets.try_emplace(c.key, !c.modify);
            duplicate = !fresh && it->second == !c.modify;
        }
        if (duplicate) {
            KEMO_LOG("kemouser: SDKISetUserPtr(): Duplicate user names");
            record(Fault::invalid, u.szName);
            continue;
        }
        changes_.push_back(std::move(c));
    }
    if (!any) {
        KEMO_LOG("kemouser: KEMOUserSet(): no one is allowed to set");
        return fail(-1, ERR_BAD_PARAMETERS);
    }
    if (first != Fault::none)
        return fault_result(first);

    // A name created by one element and renamed to by another.
    std::unordered_set<std::string> renamed_to;
    for (const Change &c : changes_)
        if (c.rename())
            renamed_to.insert(c.key);
    bool cross = false;
    for (const Change &c : changes_) {
        if (!c.modify && renamed_to.contains(c.key)) {
            push_error(c.in->szName);
            cross = true;
        }
    }
    if (cross) {
        KEMO_LOG("kemouser: KEMOUserSet(): SDKICheckCrossDupName() found a name both created and renamed to");
        return fail(kCrossDup, KEMO_ERR_CROSS_DUP_NAME);
    }
    return 0;
}

// The account limit: "maxaccounts" of the model minus the local users,
// counted from the passwd lines already read, by the same rule as
// KEMOUserTotalNum(7).
int UserBatch::check_limit()
{
    LocalScan scan;
    scan.guest = guest_support();
    for (std::size_t i = 0; i < passwd_.size(); ++i)
        scan.line(passwd_[i]);
    if (scan.truncated()) {
        KEMO_LOG("kemouser: KEMOUserSet(): SDKIGetUserLimit() returned < 0");
        return fail(-1, ERR_SYS_UNKNOWN);
    }
    const long allowed = number(setting_of_defaults("maxaccounts")).value_or(0) - scan.users;
    const long wanted = std::count_if(changes_.begin(), changes_.end(),
                                      [](const Change &c) { return !c.modify; });
    if (wanted > 0 && wanted > allowed) {
        KEMO_LOG("kemouser: KEMOUserSet():  numNew > numAllowedNewUsers");
        return fail(kTooMany, ERR_TOO_MANY_USERS);
    }
    return 0;
}

bool UserBatch::build_modified(Change &c)
{
    const KEMOUSERSET &u = *c.in;
    const std::size_t pw_at = passwd_index_.at(c.old_key);
    const auto sh_it = shadow_index_.find(c.old_key);
    if (sh_it == shadow_index_.end()) {
        KEMO_LOG("kemouser: SDKIGetUserPasswd(): master.passwd corrupt; [user name] = [%s]",
                 u.szOldName);
        return fail(false, ERR_FORMAT_ERROR);
    }
    const std::string old_pw(passwd_[pw_at]);
    const std::string old_sh(shadow_[sh_it->second]);
    const auto pw = split(old_pw);
    const auto sh = split(old_sh);
    if (pw.size() != 7 || !number(pw[2])) {
        KEMO_LOG("writing SZF_PASSWD failed");
        return fail(false, ERR_FORMAT_ERROR);
    }
    if (sh.size() != 9) {
        KEMO_LOG("shadow file corrupted");
        return fail(false, ERR_FORMAT_ERROR);
    }
    const long uid = *number(pw[2]);
    c.uid = uid;

    // The same-password rule: the stored hash given back keeps everything.
    c.new_password = u.szPasswd != nullptr && sh[1] != u.szPasswd;
    std::optional<Hashes> hashes;
    if (c.new_password && c.stored != nullptr)
        hashes = Hashes{c.stored->unix_hash, c.stored->lm, c.stored->nt};
    else if (c.new_password && !(hashes = hash_password(u.szPasswd, sh[1])))
        return false;

    const std::string desc = u.szDesc != nullptr ? encoded_desc(u.szDesc) : std::string(pw[4]);
    passwd_.set(pw_at, std::string(u.szName) + ":x:" + std::to_string(uid) + ':' +
                           std::to_string(kUserGid) + ':' + desc + ':' + std::string(pw[5]) + ':' +
                           std::string(pw[6]));

    const std::string hash = hashes ? hashes->unix_hash : std::string(sh[1]);
    const std::string changed_day = hashes ? std::to_string(today()) : std::string(sh[2]);
    std::vector<std::string_view> fields = {u.szName, hash, changed_day, sh[3], sh[4],
                                            sh[5], sh[6], {}, sh[8]};
    const std::string expire = expire_field(u.expire);
    fields[7] = expire;
    shadow_.set(sh_it->second, join(fields));
    if (same_name(u.szName, "admin"))
        admin_hash_ = hash, admin_hash_known_ = true;

    const auto smb_it = smb_index_.find(c.old_key);
    if (hashes && hashes->nt.empty()) {
        // A restored account without file-sharing hashes keeps its line.
    } else if (hashes) {
        smbpasswd_.put(smb_it == smb_index_.end() ? nullptr : &smb_it->second,
                       smbpasswd_line(u.szName, uid, *hashes));
    } else if (smb_it != smb_index_.end() && name_field(smbpasswd_[smb_it->second]) != u.szName) {
        // Renamed (or respelled): the line keeps its hashes under the new name.
        const std::string old_smb(smbpasswd_[smb_it->second]);
        auto smb = split(old_smb);
        if (smb.size() < 6) {
            KEMO_LOG("smbpasswd format error");
            return fail(false, ERR_FORMAT_ERROR);
        }
        if (number(smb[1]) != uid) {
            KEMO_LOG("internal error: mismatch in smbpasswd uid");
            return fail(false, ERR_FORMAT_ERROR);
        }
        smb[0] = u.szName;
        smbpasswd_.set(smb_it->second, join(smb));
    }

    if (c.rename()) {
        renames_[c.old_key] = std::string(u.szName);
        if (u.szEmail == nullptr)
            mail_.rename(c.old_key, c.key, u.szName);
        else
            mail_.remove(c.old_key);
    }
    if (u.szEmail != nullptr)
        mail_.set(c.key, u.szName, u.szEmail);
    return true;
}

bool UserBatch::build_new(Change &c, UidAllocator &uids)
{
    const KEMOUSERSET &u = *c.in;
    const auto uid = c.stored != nullptr && uids.take(c.stored->uid)
                         ? std::optional<int>(static_cast<int>(c.stored->uid))
                         : uids.next();
    if (!uid)
        return false;
    c.uid = *uid;
    const auto hashes = c.stored != nullptr
                            ? std::optional<Hashes>(Hashes{c.stored->unix_hash, c.stored->lm,
                                                           c.stored->nt})
                            : hash_password(u.szPasswd, {});
    if (!hashes)
        return false;
    passwd_.append(
             std::string(u.szName) + ":x:" + std::to_string(*uid) + ':' + std::to_string(kUserGid) +
                 ':' + encoded_desc(u.szDesc) + ":/:/bin/csh");
    // A line left behind by an account removed by other means is replaced.
    const auto sh_it = shadow_index_.find(c.key);
    shadow_.put(sh_it == shadow_index_.end() ? nullptr : &sh_it->second,
             std::string(u.szName) + ':' + hashes->unix_hash + ':' + std::to_string(today()) +
                 ":0:99999:7::" + expire_field(u.expire) + ':');
    const auto smb_it = smb_index_.find(c.key);
    if (!hashes->nt.empty())
        smbpasswd_.put(smb_it == smb_index_.end() ? nullptr : &smb_it->second,
                       smbpasswd_line(u.szName, *uid, *hashes));
    if (same_name(u.szName, "admin"))
        admin_hash_ = hashes->unix_hash, admin_hash_known_ = true;
    if (u.szEmail != nullptr)
        mail_.set(c.key, u.szName, u.szEmail);
    return true;
}

// The web password of "admin" follows its Unix hash.  Not fatal: the
// account change goes on without it.
void UserBatch::build_htpasswd()
{
    if (!admin_hash_known_)
        return;
    Lines file;
    if (!read_lines(kHtpasswd, file, true)) {
        KEMO_LOG("KLIBFileSetLine() write %s failed", kHtpasswd);
        return;
    }
    const std::string line = "admin:" + admin_hash_;
    std::size_t at = file.lines.size();
    for (std::size_t i = 0; i < file.lines.size(); ++i)
        if (file.lines[i].starts_with("admin:")) {
            at = i;
            break;
        }
    if (at < file.lines.size() && file.lines[at] == line)
        return;
    put_line(file, at < file.lines.size() ? &at : nullptr, line);
    txn_.stage(kHtpasswd, join_lines(file));
}

bool UserBatch::build()
{
    std::optional<UidAllocator> uids;
    for (Change &c : changes_) {
        if (c.modify) {
            if (!build_modified(c))
                return false;
        } else {
            if (!uids)
                uids.emplace(passwd_, last_uid(),
                             std::count_if(changes_.begin(), changes_.end(),
                                           [](const Change &n) { return !n.modify; }));
            if (!build_new(c, *uids))
                return false;
        }
        if (same_name(c.in->szName, "guest"))
            guest_ = c.in;
    }
    txn_.stage(kPasswd, passwd_.text());
    txn_.stage(kShadow, shadow_.text());
    txn_.stage(kSmbpasswd, smbpasswd_.text());
    if (uids && !stage_uid_counter(txn_, uids->last()))
        return false;
    if (!stage_mail(txn_, mail_)) {
        KEMO_LOG("Set Mail failed");
        return false;
    }
    if (!renames_.empty() && !stage_list_rewrite(txn_, renames_, "", true)) {
        KEMO_LOG("kemouser: SDKIModifyGroup(): the member lists could not be rewritten");
        return false;
    }
    build_htpasswd();
    return true;
}

int UserBatch::run()
{
    if (!load())
        return -1;
    if (const int r = classify(); r != 0)
        return r;
    if (const int r = check_limit(); r != 0)
        return r;
    if (!build())
        return -1;
    if (!txn_.commit()) {
        KEMO_LOG("kemouser: KEMOUserSet(): SDKIRenameTmpFiles() returned -1");
        return -1;
    }
    return 0;
}

void UserBatch::after_commit()
{
    for (const Change &c : changes_)
        if (c.new_password && c.stored == nullptr) // a restored hash has no plain text
            KEMONetBackupSetServerPasswd(c.in->szName, c.in->szPasswd);
    if (guest_ != nullptr && guest_->szPasswd != nullptr &&
        !set_guest_afpd(*guest_->szPasswd != '\0'))
        KEMO_LOG("SDKISetGuestAfpd failed");
}

// ------------------------------------------------------------ delete

// Ids of the file server's sessions of user (up to 1024).
void record_sessions(const char *user, std::vector<int32_t> &pids)
{
    std::vector<int32_t> found(1024);
    const int n = KEMOGetConnPidOfSmb(user, found.data(), static_cast<int>(found.size()));
    if (n > 0)
        pids.insert(pids.end(), found.begin(), found.begin() + std::min(n, static_cast<int>(found.size())));
}

} // namespace

namespace kemo::accounts {

bool stored_users(std::vector<StoredUser> &out)
{
    FileLock lock(kUserReadLock, kUserReadUnlock);
    if (!lock.held())
        return fail(false, ERR_LOCK_FAILED);
    AccountFile passwd_file, shadow_file, smb_file;
    if (!passwd_file.read(kPasswd) || !shadow_file.read(kShadow) || !smb_file.read(kSmbpasswd))
        return false;
    // The other files by account key, the first line of a name winning.
    auto by_key = [](const AccountFile &file) {
        std::unordered_map<std::string, std::string_view> lines;
        for (std::size_t i = 0; i < file.size(); ++i)
            if (const auto name = name_field(file[i]); !name.empty())
                lines.try_emplace(key_of(name), file[i]);
        return lines;
    };
    const auto shadows = by_key(shadow_file);
    const auto smb_lines = by_key(smb_file);
    std::unordered_map<std::string, std::string> mail;
    kemo::for_each_line(kMail, [&](std::string_view line) {
        if (!line.empty() && line[0] != '#' && line[0] != ';')
            if (const auto pair = kemo::split_pair(kemo::chomp(line)))
                mail.try_emplace(key_of(pair->key), pair->value);
        return 1;
    });

    for (std::size_t i = 0; i < passwd_file.size(); ++i) {
        const auto pw = split(passwd_file[i]);
        const auto uid = pw.size() == 7 ? number(pw[2]) : std::nullopt;
        if (!uid || is_system_user(*uid))
            continue;
        StoredUser user;
        user.name = pw[0];
        user.uid = *uid;
        const std::string encoded(pw[4]);
        user.desc.assign(encoded.size() + 1, '\0');
        if (KLIBStrDecodeColon(encoded.c_str(), user.desc.data(), static_cast<int>(encoded.size())) < 0)
            user.desc = encoded;
        else
            user.desc.resize(std::strlen(user.desc.c_str()));
        const std::string key = key_of(user.name);
        if (const auto it = shadows.find(key); it != shadows.end()) {
            const auto sh = split(it->second);
            if (sh.size() == 9) {
                user.unix_hash = sh[1];
                user.expire = static_cast<int32_t>(std::clamp<long>(number(sh[7]).value_or(0), 0, INT32_MAX));
            }
        }
        if (const auto it = smb_lines.find(key); it != smb_lines.end()) {
            const auto smb = split(it->second);
            if (smb.size() >= 6)
                user.lm = smb[2], user.nt = smb[3];
        }
        if (const auto it = mail.find(key); it != mail.end())
            user.email = it->second;
        out.push_back(std::move(user));
    }
    return true;
}

int restore_users(const std::vector<StoredUser> &users,
                  std::vector<std::pair<std::string, long>> &uids, PKLIBSZLIST *errors)
{
    if (users.empty())
        return 0;
    if (*errors == nullptr && (*errors = PslKLIBSzListAlloc(512)) == nullptr)
        return -1;
    KLIBSzListRemoveAll(*errors);
    // Texts that would break a line of an account file are refused, as are
    // file-sharing hashes that are not 32 hex digits.
    const auto hex32 = [](std::string_view h) {
        return h.size() == 32 && std::all_of(h.begin(), h.end(), [](char ch) {
                   return std::isxdigit(static_cast<unsigned char>(ch)) != 0;
               });
    };
    for (const StoredUser &u : users) {
        const bool hashes_ok = (u.lm.empty() && u.nt.empty()) || (hex32(u.lm) && hex32(u.nt));
        if (has_line_break(u.desc.c_str()) || has_line_break(u.email.c_str()) ||
            u.unix_hash.find_first_of(":\r\n") != std::string::npos || !hashes_ok) {
            KLIBSzListPush(errors, u.name.c_str());
            return fail(-1, ERR_BAD_PARAMETERS);
        }
    }
    FileLock lock(kAccountWriteLock, kAccountWriteUnlock);
    if (!lock.held())
        return fail(-1, ERR_LOCK_FAILED);
    AccountFile passwd_file;
    if (!passwd_file.read(kPasswd))
        return -1;
    NameKeys present;
    for (std::size_t i = 0; i < passwd_file.size(); ++i)
        if (const auto name = name_field(passwd_file[i]); !name.empty())
            present.add(key_of(name));
    // An account present under the name is modified (and takes the stored
    // spelling), a missing one created.
    std::vector<KEMOUSERSET> set(users.size());
    for (std::size_t i = 0; i < users.size(); ++i) {
        const StoredUser &u = users[i];
        set[i] = KEMOUSERSET{KEMO_ACCOUNT_LOCAL,
                             present.match(u.name) ? u.name.c_str() : nullptr,
                             u.name.c_str(),
                             u.unix_hash.c_str(),
                             u.desc.c_str(),
                             u.expire,
                             u.email.empty() ? nullptr : u.email.c_str()};
    }
    UserBatch batch(set.data(), static_cast<int>(set.size()), errors, users.data());
    const int result = batch.run();
    if (result == 0) {
        batch.after_commit();
        uids = batch.uids();
    }
    if (!lock.release() && result == 0)
        return fail(kUnlockFailed, ERR_UNLOCK_FAILED);
    return result;
}

} // namespace kemo::accounts

extern "C" {

KEMO_API int KEMOUserRandomNumMap2Seed(int n)
{
    static constexpr char alphabet[] =
        "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz./";
    const long long magnitude = n < 0 ? -static_cast<long long>(n) : n;
    return alphabet[magnitude % 64];
}

KEMO_API struct passwd *KLIBGetPwNam(const char *name)
{
    if (!name_length_ok(name))
        return fail<passwd *>(nullptr, ERR_BAD_PARAMETERS);
    return kemo::edge<passwd *>(nullptr, [&]() -> passwd * {
        std::string line;
        const int found = find_line(kPasswd, name, line);
        if (found <= 0)
            return found == 0 ? fail<passwd *>(nullptr, ERR_NO_SUCH_USER) : nullptr;
        const auto fields = split(line);
        if (fields.size() != 7)
            return fail<passwd *>(nullptr, ERR_FORMAT_ERROR);
        PwRecord &r = g_local_record;
        copy_text(r.name, sizeof r.name, fields[0]);
        copy_text(r.password, sizeof r.password, fields[1]);
        copy_text(r.gecos, sizeof r.gecos, fields[4]);
        copy_text(r.dir, sizeof r.dir, fields[5]);
        copy_text(r.shell, sizeof r.shell, fields[6]);
        r.pw = passwd{};
        r.pw.pw_name = r.name;
        r.pw.pw_passwd = r.password;
        r.pw.pw_uid = static_cast<uid_t>(number(fields[2]).value_or(-1));
        r.pw.pw_gid = static_cast<gid_t>(number(fields[3]).value_or(-1));
        r.pw.pw_gecos = r.gecos;
        r.pw.pw_dir = r.dir;
        r.pw.pw_shell = r.shell;
        return &r.pw;
    });
}

KEMO_API struct passwd *PpwGetLocalPwNam(const char *name)
{
    passwd *pw = KLIBGetPwNam(name);
    if (pw == nullptr)
        return nullptr;
    return kemo::edge<passwd *>(nullptr, [&]() -> passwd * {
        std::string hash;
        long expire = 0;
        if (!shadow_of(name, hash, expire))
            return nullptr;
        copy_text(g_local_record.password, sizeof g_local_record.password, hash);
        return pw;
    });
}

KEMO_API struct passwd *PpwGetDomainPwNam(const char *name)
{
    if (name == nullptr)
        return fail<passwd *>(nullptr, ERR_BAD_PARAMETERS);
    if (!name_length_ok(name)) {
        KEMO_LOG("KLIBUnicodeUTF8StrCountChar fail");
        return fail<passwd *>(nullptr, ERR_BAD_PARAMETERS);
    }
    const int uid = KEMOGetDUserUid(name);
    if (uid < 0)
        return nullptr;
    const int gid = KEMOGetDUserGid(name);
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

KEMO_API struct passwd *PpwGetPwNam(const char *name)
{
    switch (IsDomainUG(name)) {
    case 1:
        return PpwGetLocalPwNam(name);
    case 2:
        return PpwGetDomainPwNam(name);
    default:
        return nullptr;
    }
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
    return kemo::edge(-1, [&] {
        FileLock lock(kUserReadLock, kUserReadUnlock);
        if (!lock.held())
            return fail(-1, ERR_LOCK_FAILED);
        const passwd *pw = KLIBGetPwNam(name);
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
        out->szDesc = text;
        if (KLIBStrDecodeColon(stored_desc.c_str(), text, static_cast<int>(stored_desc.size())) < 0) {
            KEMO_LOG("KLIBStrDecodeColon failed.(%X)", static_cast<unsigned>(KLIBErrGet()));
            put(stored_desc);
        } else {
            text += std::strlen(text) + 1;
        }
        out->expire = static_cast<int32_t>(std::clamp<long>(expire, 0, INT32_MAX));
        out->szEmail = put(mail);
        return 1;
    });
}

KEMO_API int KEMOUserEnum(int flags, char **out, int size, int *needed)
{
    if ((flags != 0 && (flags & (KEMO_USER_LOCAL | KEMO_USER_DOMAIN_ALL | KEMO_USER_DOMAIN_USED)) == 0) ||
        !enum_arguments_ok(out, size, needed))
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        FileLock lock(kUserReadLock, kUserReadUnlock);
        if (!lock.held())
            return fail(-1, ERR_LOCK_FAILED);
        std::vector<std::string> names;
        if (collect_users(flags, &names) < 0)
            return -1;
        return store_names(names, out, size, needed);
    });
}

// The flags are checked against 0x01, 0x02 and 0x04 but filtered like
// KEMOUserEnum's, whose domain bits are 0x10 and 0x20: so 7 counts the
// local users only, which is what the account limit needs.
KEMO_API int KEMOUserTotalNum(int flags)
{
    if (flags != 0 && (flags & 0x07) == 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        FileLock lock(kUserReadLock, kUserReadUnlock);
        if (!lock.held())
            return fail(-1, ERR_LOCK_FAILED);
        return collect_users(flags, nullptr);
    });
}

KEMO_API int KEMOUserSetLocal(const KEMOUSERSET *users, int count, PKLIBSZLIST *errorList)
{
    if (users == nullptr || count <= 0 || errorList == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        if (*errorList == nullptr && (*errorList = PslKLIBSzListAlloc(512)) == nullptr)
            return -1;
        KLIBSzListRemoveAll(*errorList);
        // Texts that would break a line are refused: descriptions (whose
        // colons are encoded) and addresses may not hold a line end, and a
        // password may hold neither a line end nor a colon, because the
        // network backup keeps it in plain "user:password" lines.  A new
        // account needs a password.
        for (int i = 0; i < count; ++i) {
            const KEMOUSERSET &u = users[i];
            const bool creation = u.szOldName == nullptr || *u.szOldName == '\0';
            const bool named = u.szName != nullptr && *u.szName != '\0';
            const bool bad_password = u.szPasswd != nullptr && std::strpbrk(u.szPasswd, ":\r\n") != nullptr;
            if (named && (has_line_break(u.szDesc) || has_line_break(u.szEmail) || bad_password ||
                          (creation && u.szPasswd == nullptr))) {
                KLIBSzListPush(errorList, u.szName);
                return fail(-1, ERR_BAD_PARAMETERS);
            }
        }
        FileLock lock(kAccountWriteLock, kAccountWriteUnlock);
        if (!lock.held()) {
            KEMO_LOG("lock file failed");
            return fail(-1, ERR_LOCK_FAILED);
        }
        UserBatch batch(users, count, errorList);
        const int result = batch.run();
        if (result == 0)
            batch.after_commit();
        if (!lock.release() && result == 0)
            return fail(kUnlockFailed, ERR_UNLOCK_FAILED);
        return result;
    });
}

KEMO_API int KEMOUserSet(int type, const KEMOUSERSET *users, int count)
{
    if (type != KEMO_ACCOUNT_LOCAL || users == nullptr || count <= 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        PKLIBSZLIST errors = PslKLIBSzListAlloc(512);
        if (errors == nullptr)
            return -1;
        const int result = KEMOUserSetLocal(users, count, &errors);
        KLIBSzListFree(errors);
        if (result == 0)
            signal_download_scheduler();
        return result;
    });
}

KEMO_API int KEMOUserDelete(const char *const *names, int count)
{
    if (names == nullptr || count <= 0) {
        KEMO_LOG("kemouser: KEMOUserDelete(): Bad arguments; nItem = [%d], pszList = [%p]", count,
                 static_cast<const void *>(names));
        return fail(-1, ERR_BAD_PARAMETERS);
    }
    return kemo::edge(-1, [&] {
        FileLock lock(kAccountWriteLock, kAccountWriteUnlock);
        if (!lock.held())
            return fail(-1, ERR_LOCK_FAILED);
        const bool guest = guest_support();
        AccountFile passwd_file, shadow, smbpasswd;
        if (!passwd_file.read(kPasswd)) {
            KEMO_LOG("kemouser: KEMOUserDelete(): SDKIDelPasswd() returned -1!");
            return -1;
        }
        NameKeys asked;
        for (int i = 0; i < count; ++i)
            if (names[i] != nullptr)
                asked.add(key_of(names[i]));
        const LineIndex accounts = index_lines(passwd_file, asked);

        MemberMap deleted;
        NameKeys dropped;
        MailEdit mail;
        std::vector<int32_t> pids;
        for (int i = 0; i < count; ++i) {
            const char *name = names[i];
            if (name == nullptr || same_name(name, "root") || same_name(name, "admin") ||
                (guest && same_name(name, "guest")))
                continue;
            std::string key = key_of(name);
            const auto account = accounts.find(key);
            if (account == accounts.end() || deleted.contains(key) ||
                system_account(passwd_file[account->second]))
                continue;
            record_sessions(std::string(name_field(passwd_file[account->second])).c_str(), pids);
            deleted.emplace(key, std::nullopt);
            dropped.add(key);
            mail.remove(key);
        }
        if (deleted.empty())
            return fail(0, ERR_INVALID_USERNAME);
        // Clearing the deleted users' quotas goes here, before the files change.

        Transaction txn;
        txn.stage(kPasswd, without_accounts(passwd_file, dropped));
        if (!shadow.read(kShadow)) {
            KEMO_LOG("kemouser: KEMOUserDelete(): SDKIDelShadow() returned -1!");
            return -1;
        }
        txn.stage(kShadow, without_accounts(shadow, dropped));
        if (!smbpasswd.read(kSmbpasswd)) {
            KEMO_LOG("kemouser: KEMOUserDelete(): SDKIDelSmbpasswd() returned -1!");
            return -1;
        }
        txn.stage(kSmbpasswd, without_accounts(smbpasswd, dropped));
        if (!stage_mail(txn, mail)) {
            KEMO_LOG("remove mail failed");
            return -1;
        }
        if (!stage_list_rewrite(txn, deleted, "", true)) {
            KEMO_LOG("kemouser: KEMOUserDelete(): SDKIModifySmbConf() returned -1!");
            return -1;
        }
        if (!txn.commit()) {
            KEMO_LOG("kemouser: KEMOUserDelete(): SDKIDelRenameTmpFile() returned -1!");
            return -2;
        }
        lock.release();
        signal_download_scheduler();
        if (!pids.empty())
            KEMODelConnOfSmb(pids.data(), static_cast<int>(pids.size()));
        return static_cast<int>(deleted.size());
    });
}

KEMO_API int KEMOUserCheckExpired(const char *name)
{
    if (name == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        int need = 0;
        if (KEMOUserGet(0, KEMO_ACCOUNT_LOCAL, name, nullptr, 0, &need) != 0) {
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
        if (KEMOUserGet(0, KEMO_ACCOUNT_LOCAL, name, buffer.get(), need, &need) != 1)
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
    });
}

} // extern "C"
