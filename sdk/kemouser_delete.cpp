// Deletion of local users: their lines in every account file and their
// names in every member and access list go in one account transaction; the
// system's accounts, root and admin always stay.
#include "kemouser_internal.hpp"
#include "kemo_quota.hpp"

namespace kemo::accounts {

namespace {

// Ids of the file server's sessions of user (up to 1024).
void record_sessions(const char *user, std::vector<int32_t> &pids)
{
    std::vector<int32_t> found(1024);
    const int n = kemo::domain::session_pids(user, found.data(), static_cast<int>(found.size()));
    if (n > 0)
        pids.insert(pids.end(), found.begin(), found.begin() + std::min(n, static_cast<int>(found.size())));
}


} // namespace

int delete_users(const char *const *names, int count)
{
    auto lock = account_lock(kAccountWriteLock, kAccountWriteUnlock);
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
    std::vector<std::string> stored_names; // as /etc/passwd spells them
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
        stored_names.emplace_back(name_of(passwd_file[account->second]));
        record_sessions(stored_names.back().c_str(), pids);
        deleted.emplace(key, std::nullopt);
        dropped.add(key);
        mail.remove(key);
    }
    if (deleted.empty())
        return fail(0, ERR_INVALID_USERNAME);
    // Their space limits go first, while the names still lead to the uids
    // (a later account could be given the same uid).  A limit that cannot
    // be cleared is logged and does not keep the account.
    if (kemo::quota::supported()) {
        const bool raid = equal_nocase(setting_of_defaults("supportraid"), "yes");
        if ((raid ? kemo::quota::clean_raid(stored_names) : kemo::quota::clean_one(stored_names)) != 0)
            KEMO_LOG("Quota Clean error.");
    }

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
        kemo::domain::end_sessions(pids.data(), static_cast<int>(pids.size()));
    return static_cast<int>(deleted.size());
}

} // namespace kemo::accounts

using namespace kemo::accounts;
using kemo::fail;

extern "C" {

KEMO_API int KEMOUserDelete(const char *const *names, int count)
{
    if (names == nullptr || count <= 0) {
        KEMO_LOG("kemouser: KEMOUserDelete(): Bad arguments; nItem = [%d], pszList = [%p]", count,
                 static_cast<const void *>(names));
        return fail(-1, ERR_BAD_PARAMETERS);
    }
    return kemo::edge(-1, [&] { return kemo::accounts::delete_users(names, count); });
}

} // extern "C"
