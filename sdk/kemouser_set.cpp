// Creation, change and rename of local users: one batch of requests is
// checked as a whole and becomes one account transaction over passwd,
// shadow, the SMB password file, the mail addresses, the uid counter, the
// member and access lists and the web password.  A configuration backup
// restores its users through the same batch.
#include "kemouser_internal.hpp"
#include "kemofile.hpp"
#include "kemostr.hpp"

#include <pwd.h>

#include <climits>

namespace kemo::accounts {

namespace {

constexpr int kFirstUid = 1024, kLastUid = 2048;
constexpr int kUidProbes = 1024;

// KEMOUserSetLocal results.
constexpr int kInvalidName = -2, kNameExists = -3, kNameMissing = -4, kCrossDup = -5,
              kTooMany = -6, kUnlockFailed = -7;

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
            mark(records::passwd_uid(passwd_file[i]).value_or(-1));
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
    const auto value = decimal(setting(kCurUid, "UID"));
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
        if (!kemo::settings::key_matches(old, "UID"))
            out.lines.push_back(old);
        else if (!placed)
            out.lines.push_back(line), placed = true;
    }
    if (!placed)
        put_line(out, nullptr, line);
    txn.stage(kCurUid, join_lines(out));
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
        if (!kemo::strings::is_user_name(u.szName)) {
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
    const long allowed = decimal(setting_of_defaults("maxaccounts")).value_or(0) - scan.users;
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
    auto pw = records::parse_passwd(old_pw);
    auto sh = records::parse_shadow(old_sh);
    if (!pw) {
        KEMO_LOG("writing SZF_PASSWD failed");
        return fail(false, ERR_FORMAT_ERROR);
    }
    if (!sh) {
        KEMO_LOG("shadow file corrupted");
        return fail(false, ERR_FORMAT_ERROR);
    }
    const long uid = pw->uid;
    c.uid = uid;

    // The same-password rule: the stored hash given back keeps everything.
    c.new_password = u.szPasswd != nullptr && sh->hash != u.szPasswd;
    std::optional<Hashes> hashes;
    if (c.new_password && c.stored != nullptr)
        hashes = Hashes{c.stored->unix_hash, c.stored->lm, c.stored->nt};
    else if (c.new_password && !(hashes = hash_password(u.szPasswd, sh->hash)))
        return false;

    // The name, the description and the group change; the home and shell
    // stay.
    const std::string desc = u.szDesc != nullptr ? encoded_desc(u.szDesc) : std::string(pw->gecos);
    pw->name = u.szName;
    pw->password = "x";
    pw->gid = kUserGid;
    pw->gecos = desc;
    passwd_.set(pw_at, records::format_passwd(*pw));

    // A new hash restarts the password's age; the other aging fields stay.
    const std::string hash = hashes ? hashes->unix_hash : std::string(sh->hash);
    const std::string changed_day = hashes ? std::to_string(today()) : std::string(sh->changed);
    const std::string expire = expire_field(u.expire);
    sh->name = u.szName;
    sh->hash = hash;
    sh->changed = changed_day;
    sh->expire = expire;
    shadow_.set(sh_it->second, records::format_shadow(*sh));
    if (same_name(u.szName, "admin"))
        admin_hash_ = hash, admin_hash_known_ = true;

    const auto smb_it = smb_index_.find(c.old_key);
    if (hashes && hashes->nt.empty()) {
        // A restored account without file-sharing hashes keeps its line.
    } else if (hashes) {
        smbpasswd_.put(smb_it == smb_index_.end() ? nullptr : &smb_it->second,
                       smbpasswd_line(u.szName, uid, *hashes));
    } else if (smb_it != smb_index_.end() && name_of(smbpasswd_[smb_it->second]) != u.szName) {
        // Renamed (or respelled): the line keeps its hashes under the new name.
        const std::string old_smb(smbpasswd_[smb_it->second]);
        auto smb = records::parse_smbpasswd(old_smb);
        if (!smb) {
            KEMO_LOG("smbpasswd format error");
            return fail(false, ERR_FORMAT_ERROR);
        }
        if (smb->uid != uid) {
            KEMO_LOG("internal error: mismatch in smbpasswd uid");
            return fail(false, ERR_FORMAT_ERROR);
        }
        smb->name = u.szName;
        smbpasswd_.set(smb_it->second, records::format_smbpasswd(*smb));
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
    // A new account's home is "/" and its shell /bin/csh; its password
    // ages from today with the appliance's fixed aging fields.
    const std::string desc = encoded_desc(u.szDesc);
    passwd_.append(records::format_passwd({u.szName, "x", *uid, kUserGid, desc, "/", "/bin/csh"}));
    // A line left behind by an account removed by other means is replaced.
    const auto sh_it = shadow_index_.find(c.key);
    const std::string changed_day = std::to_string(today()), expire = expire_field(u.expire);
    shadow_.put(sh_it == shadow_index_.end() ? nullptr : &sh_it->second,
                records::format_shadow({u.szName, hashes->unix_hash, changed_day, "0", "99999", "7",
                                        "", expire, ""}));
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
    if (admin_hash_known_)
        stage_web_password(txn_, admin_hash_);
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
            kemo::domain::set_backup_password(c.in->szName, c.in->szPasswd);
    if (guest_ != nullptr && guest_->szPasswd != nullptr &&
        !set_guest_afpd(*guest_->szPasswd != '\0'))
        KEMO_LOG("SDKISetGuestAfpd failed");
}

} // namespace

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
    auto lock = account_lock(kAccountWriteLock, kAccountWriteUnlock);
    if (!lock.held())
        return fail(-1, ERR_LOCK_FAILED);
    AccountFile passwd_file;
    if (!passwd_file.read(kPasswd))
        return -1;
    NameKeys present;
    for (std::size_t i = 0; i < passwd_file.size(); ++i)
        if (const auto name = name_of(passwd_file[i]); !name.empty())
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

namespace {

// KEMOUserSetLocal with its arguments checked.
int set_local(const KEMOUSERSET *users, int count, PKLIBSZLIST *errorList)
{
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
    auto lock = account_lock(kAccountWriteLock, kAccountWriteUnlock);
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
}

} // namespace

int set_users(const KEMOUSERSET *users, int count)
{
    PKLIBSZLIST errors = PslKLIBSzListAlloc(512);
    if (errors == nullptr)
        return -1;
    const int result = set_local(users, count, &errors);
    KLIBSzListFree(errors);
    if (result == 0)
        signal_download_scheduler();
    return result;
}

} // namespace kemo::accounts

using namespace kemo::accounts;
using kemo::fail;

extern "C" {

KEMO_API int KEMOUserSetLocal(const KEMOUSERSET *users, int count, PKLIBSZLIST *errorList)
{
    if (users == nullptr || count <= 0 || errorList == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return set_local(users, count, errorList); });
}

KEMO_API int KEMOUserSet(int type, const KEMOUSERSET *users, int count)
{
    if (type != KEMO_ACCOUNT_LOCAL || users == nullptr || count <= 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::accounts::set_users(users, count); });
}

} // extern "C"
