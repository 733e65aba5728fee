// Internal helpers shared by the user, group and share modules: the account
// files' paths and locks, case-insensitive name keys, whole-file line
// access, the account transaction (several files replaced together, with a
// commit record that lets the next call finish a commit a killed process
// left half done), and the rewrite of member and access lists.
#pragma once

#include "kemo_internal.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kemo::accounts {

inline constexpr char kPasswd[] = "/etc/passwd";
inline constexpr char kShadow[] = "/etc/shadow";
inline constexpr char kSmbpasswd[] = "/usr/kemo/etc/private/smbpasswd";
inline constexpr char kGroup[] = "/etc/group";
inline constexpr char kSmbConf[] = "/usr/kemo/etc/smb.conf";
inline constexpr char kMail[] = "/etc/mail";
inline constexpr char kCurUid[] = "/etc/curUID.conf";
inline constexpr char kHtpasswd[] = "/usr/kemo/etc/.htpasswd";
inline constexpr char kGroupDesc[] = "/etc/group_desc";
inline constexpr char kDefaults[] = "/etc.defaults/kemoinfo.conf";
inline constexpr char kSettings[] = "/etc/kemoinfo.conf";
// The commit record of a transaction whose renames have begun.
inline constexpr char kCommitRecord[] = "/etc/.accounts.commit";

// Lock requests and release masks of the account operations: the files a
// call reads or changes, and how (shared or exclusive, never waiting for a
// lock forever: the request retries for kLockTimeout seconds).
inline constexpr int kNoWait = KLIB_LOCK_NB;
inline constexpr int kUserReadUnlock = KLIB_LOCK_PW;
inline constexpr int kUserReadLock = kUserReadUnlock | KLIB_LOCK_SH | kNoWait;
inline constexpr int kAccountWriteUnlock = KLIB_LOCK_PW | KLIB_LOCK_GR | KLIB_LOCK_SMB;
inline constexpr int kAccountWriteLock = kAccountWriteUnlock | KLIB_LOCK_EX | kNoWait;
inline constexpr int kGroupReadUnlock = KLIB_LOCK_PW | KLIB_LOCK_GR;
inline constexpr int kGroupReadLock = kGroupReadUnlock | KLIB_LOCK_SH | kNoWait;
inline constexpr int kGroupDeleteUnlock = KLIB_LOCK_GR | KLIB_LOCK_SMB;
inline constexpr int kGroupDeleteLock = kGroupDeleteUnlock | KLIB_LOCK_EX | kNoWait;
inline constexpr int kGroupDescUnlock = KLIB_LOCK_GR;
inline constexpr int kGroupDescLock = kGroupDescUnlock | KLIB_LOCK_SH | kNoWait;
inline constexpr int kShareReadUnlock = KLIB_LOCK_SMB;
inline constexpr int kShareReadLock = kShareReadUnlock | KLIB_LOCK_SH | kNoWait;
static_assert(kUserReadLock == 21 && kAccountWriteLock == 118 && kGroupReadLock == 53 &&
              kGroupDeleteLock == 102 && kGroupDescLock == 37 && kShareReadLock == 69);
inline constexpr int kLockTimeout = 5;

// Takes the configuration locks of an account operation for a scope:
//   auto lock = account_lock(kAccountWriteLock, kAccountWriteUnlock);
//   if (!lock.held()) return fail(-1, ERR_LOCK_FAILED);
// Taking a writer lock first finishes a commit that a killed process left
// half done; reader locks do the same (briefly taking the writer lock)
// when a commit record is present.
ConfigLock account_lock(int request, int unlock_mask);

// Accounts and groups of the system itself, which no account function may
// rename, change, give a password, delete or restore over: users below uid
// 1024 (root, the daemons) and from 65534 up (the "nobody" ids, whose name
// is also the sentinel member of every list); groups below gid 100, and
// "wheel" under any gid (its members may become root).  The appliance's own
// accounts "admin" (1024) and "guest" (1025) are not system accounts.
inline constexpr long kFirstUserUid = 1024;
inline constexpr long kNobodyUid = 65534;
inline constexpr long kFirstUserGid = 100;
constexpr bool is_system_user(long uid) noexcept
{
    return uid < kFirstUserUid || uid >= kNobodyUid;
}
bool is_system_group(std::string_view name, long gid) noexcept;
// Groups the appliance relies on by name: "users" (every local user) and
// "administrators".  They keep their names and are never deleted, though
// their members may change.
bool is_fixed_group(std::string_view name) noexcept;

// The key under which a name compares without regard to case (UTF-8
// upper-cased in the current locale); nullopt for text that is not UTF-8.
std::optional<std::string> upper(std::string_view name);
// True when a and b name the same account.
bool same_name(std::string_view a, std::string_view b);

// A whole text file as lines without their newlines.
struct Lines {
    std::vector<std::string> lines;
    bool final_newline = true; // the last line ended with a newline
};
// Reads path into out.  A missing file gives no lines when missing_ok.
// false with ERR_OPEN_FAILED or ERR_READ_FAILED.
bool read_lines(const char *path, Lines &out, bool missing_ok = false);
// The lines joined again, each with its newline (the last one only when the
// file had it).
std::string join_lines(const Lines &lines);

// Splits at every separator, keeping empty fields.
std::vector<std::string_view> split(std::string_view text, char separator = ':');

// One change of several account files that succeeds or fails as a whole.
//   Transaction txn;
//   txn.stage(kPasswd, new_passwd);  txn.stage(kShadow, new_shadow);
//   if (!txn.commit()) return -1;    // every file as it was
// commit() writes every staged file's twin ("<path>.tmp", owner and mode of
// the file it replaces; a file created anew gets 0600 when it holds
// password hashes (shadow, smbpasswd, .htpasswd), else 0644; fsynced),
// then the commit record naming them, then
// renames the twins in a fixed order: smb.conf, smbpasswd, group, shadow,
// passwd, then any other file in staging order.  Should a rename fail, the
// files already replaced are put back and the call fails with
// ERR_RENAME_FAILED.  Should the process die once the record is written,
// recover() (run by the next account_lock) completes the renames, so the files
// never tell different stories.
class Transaction {
public:
    // Sets the complete new content of a file (replacing an earlier stage).
    void stage(const char *path, std::string content);
    // The staged content of path, or null.
    const std::string *staged(const char *path) const;
    // The staged content, else the file's current content ("" when the file
    // is missing and missing_ok).  false with the read error set.
    bool current(const char *path, std::string &out, bool missing_ok = false) const;
    bool empty() const noexcept { return files_.empty(); }
    // true when everything is in place; false with the error code set and
    // every file unchanged.
    bool commit();

private:
    std::vector<std::pair<std::string, std::string>> files_;
};

// Completes or discards what a killed writer left behind: with a commit
// record, renames the twins still present in the record's order and drops
// the record; without one, removes stale twins of the account files.  Call
// with the writer lock held.  false when a rename failed (the record stays
// for the next attempt).
bool recover();

// Renames and deletions of members, keyed by upper-cased name: the new name,
// or nullopt for a member that is dropped.
using MemberMap = std::unordered_map<std::string, std::optional<std::string>>;

// A comma-separated member list with the map applied; members that the map
// does not name stay as they are, in order.  prefix "@" applies the map to
// group members ("@name") only, "" to plain (user) members only.
std::string rewrite_members(std::string_view list, const MemberMap &map, std::string_view prefix);

// Stages the rewrite of the access lists of the share file ("\twrite list=",
// "\tread list=", "\tvalid users=", "\tinvalid users=" lines) and, when
// with_group_file, of the member field of every /etc/group line, starting
// from whatever the transaction already staged for them.  Files in which
// nothing changes are not staged.  false with the error code set.
bool stage_list_rewrite(Transaction &txn, const MemberMap &map, std::string_view prefix,
                        bool with_group_file);

// ASCII comparison without case, for the fixed ASCII words of the account
// and share files ("nobody", "@users", "global", domain prefixes).
bool equal_nocase(std::string_view a, std::string_view b) noexcept;

// The two-call layout of the enumerators: a NULL-terminated array of text
// pointers at the buffer's start, the texts copied from its end backwards.
// Bytes that texts take in it; -1 when that exceeds an int.
long long packed_size(const std::vector<std::string> &texts);
// Fills out (size bytes, at least packed_size) with texts.
void pack(const std::vector<std::string> &texts, char **out, int size);
// The whole two-call answer: sets *needed; 0 for a size query (out NULL),
// the number of texts when out was filled, -1 with ERR_NOT_ENOUGH_MEMORY
// when size is too small.
int store_names(const std::vector<std::string> &texts, char **out, int size, int *needed);
// The enumerators' argument rules: needed given, a buffer only with room
// for at least its terminating pointer, no size without a buffer.
bool enum_arguments_ok(char *const *out, int size, const int *needed) noexcept;

// A local account as a configuration backup carries it: its hashes rather
// than a password.
struct StoredUser {
    std::string name;
    long uid = -1;          // the uid it had; a restore keeps it when free
    std::string desc;       // as KEMOUserGet gives it
    std::string unix_hash;  // the shadow hash ("" for an account without one)
    std::string lm, nt;     // the file-sharing hashes in hex ("" without a line)
    int32_t expire = 0;     // day number, 0 = never
    std::string email;
};
// Every local user (uid 1024 up to the "nobody" ids) in passwd order, read
// under the user reader lock.  false with the error code set.
bool stored_users(std::vector<StoredUser> &out);
// Creates the accounts that are missing and sets those present (by name,
// without case) to the stored hashes, description, expiry and address, in
// one account transaction: all or nothing.  Accounts not named stay as they
// are.  uids gets each name with the uid it has now.  The KEMOUserSetLocal
// result (0, or -1..-7 with the error code set); errors names the faulty
// accounts.
int restore_users(const std::vector<StoredUser> &users,
                  std::vector<std::pair<std::string, long>> &uids, PKLIBSZLIST *errors);

// A settings value of /etc.defaults/kemoinfo.conf (or another file), ""
// when absent.
std::string setting(const char *path, const char *key);
// True when guest support ("guestsupport" of the defaults) is on.
bool guest_support();

} // namespace kemo::accounts
