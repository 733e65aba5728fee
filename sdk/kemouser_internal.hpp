// Internal helpers of the user modules (kemouser*.cpp): the account files
// held as blocks of lines, name keys, the mail address file, password
// hashes, the local user filter, and the login services that follow an
// account change.
#pragma once

#include "kemo_accounts.hpp"
#include "kemo_domain.hpp"
#include "kemo_io.hpp"
#include "kemo_records.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace kemo::accounts {

using records::decimal;
using records::name_of;

inline constexpr int kGuestUid = 1025;
inline constexpr int kUserGid = 100;
inline constexpr int kMaxNameChars = 64;

// The key under which an account name is compared.  Text that is not UTF-8
// (only a damaged file holds such a name) is its own key.
inline std::string key_of(std::string_view name)
{
    auto key = upper(name);
    return key ? std::move(*key) : std::string(name);
}

// Whether a passwd line is a system account's (is_system_user); a line
// without a readable uid counts as one, so that it is never changed.
inline bool system_account(std::string_view passwd_line)
{
    const auto uid = records::passwd_uid(passwd_line);
    return !uid || is_system_user(*uid);
}

inline bool has_line_break(const char *text)
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

inline LineIndex index_lines(const AccountFile &file, const NameKeys &wanted)
{
    LineIndex index;
    for (std::size_t i = 0; i < file.size(); ++i) {
        const std::string_view name = name_of(file[i]);
        if (name.empty())
            continue;
        if (auto key = wanted.match(name))
            index.emplace(std::move(*key), i);
    }
    return index;
}

// The content without the lines of the dropped names.
inline std::string without_accounts(const AccountFile &file, const NameKeys &drop)
{
    return file.text([&](std::string_view line) {
        const std::string_view name = name_of(line);
        return !name.empty() && drop.match(name).has_value();
    });
}

// Puts a line at index, or appends it (with a newline after the old last
// line) when index is null.
inline void put_line(Lines &file, const std::size_t *index, std::string line)
{
    if (index != nullptr) {
        file.lines[*index] = std::move(line);
    } else {
        file.lines.push_back(std::move(line));
        file.final_newline = true;
    }
}


// ------------------------------------------------------------ settings

std::string setting_of_defaults(const char *key);
bool domain_joined();
// Has the download scheduler reread its users, on models that have one.
void signal_download_scheduler();

// ------------------------------------------------------------ /etc/mail

// The address of an account (compared by name key), "" when none.
std::string mail_of(std::string_view name);

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
            const auto pair = records::parse_mail(line);
            const std::string key = pair ? key_of(pair->name) : std::string();
            const auto it = pair ? changes_.find(key) : changes_.end();
            if (it == changes_.end()) {
                out.lines.push_back(line);
                continue;
            }
            changed = true;
            if (!seen.insert(key).second)
                continue; // a later line of the same account
            if (it->second.kind == Kind::set)
                out.lines.push_back(records::format_mail(it->second.name, it->second.address));
            else if (it->second.kind == Kind::rename)
                out.lines.push_back(records::format_mail(it->second.name, pair->address));
        }
        for (const std::string &key : order_) {
            const Change &change = changes_.at(key);
            if (change.kind == Kind::set && seen.insert(key).second) {
                out.lines.push_back(records::format_mail(change.name, change.address));
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
bool stage_mail(Transaction &txn, MailEdit &edit);

// ------------------------------------------------------------ hashing

// The three hashes of a password.
struct Hashes {
    std::string unix_hash, lm, nt;
};

// Hashes plain.  An existing MD5-crypt hash given as stored is used as the
// setting, so the account keeps its salt; otherwise the salt is fresh.
std::optional<Hashes> hash_password(const char *plain, std::string_view stored);
// The file-sharing password line of an account.
std::string smbpasswd_line(std::string_view name, long uid, const Hashes &h);
// The current day number.
long today();
// The expiry field of a shadow line: the day, or empty for none.
std::string expire_field(int32_t expire);
// The description as stored: colons encoded.
std::string encoded_desc(const char *desc);

// ------------------------------------------------------------ enumeration

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
        const auto uid = records::passwd_uid(text);
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
int collect_users(int flags, std::vector<std::string> *names);

// ------------------------------------------------------------ lookups

// The first line of path that begins with "name:", without its newline.
// 1 found, 0 not, -1 with the read error set.
int find_line(const char *path, std::string_view name, std::string &out);
// The user's shadow hash and expiry day (0 = none).  false with the code
// set: ERR_NO_SUCH_USER (no line), ERR_FORMAT_ERROR (not 9 fields), or the
// read error.
bool shadow_of(const char *name, std::string &hash, long &expire);

// ------------------------------------------------------------ login services

// Stages the web password of "admin" (its Unix hash) into .htpasswd when
// it differs.  Not fatal: a file that cannot be read is logged and left.
void stage_web_password(Transaction &txn, std::string_view admin_hash);
// Lets the Apple file server accept guests (guest_has_password false) or
// not.  false with the code set.
bool set_guest_afpd(bool guest_has_password);

// The bodies of the public user functions, with checked arguments.
// Creates or changes local users (KEMOUserSet): 0, or -1..-7 with the
// error code set.
int set_users(const KEMOUSERSET *users, int count);
// Deletes local users (KEMOUserDelete): the number deleted, or < 0.
int delete_users(const char *const *names, int count);
// The salt alphabet's character for n (any int, sign ignored).
int salt_char(int n) noexcept;

} // namespace kemo::accounts
