// Users' space limits on the data volumes: the kernel's user quotas in the
// "vfsv0" format, switched on per volume with the quota tools and read and
// set per user through quotactl(2).  Amounts cross the interface in
// megabytes as single-precision numbers; the kernel counts limits in 1 KiB
// quota blocks and use in bytes.
#include "kemo_quota.hpp"
#include "kemo_accounts.hpp"
#include "kemo_domain.hpp"
#include "kemo_io.hpp"
#include "kemo_raid.hpp"
#include "kemo_records.hpp"
#include "kemo_text.hpp"
#include "kemo_vol.hpp"
#include "kemofile.hpp"
#include "kemomisc.hpp"
#include "kemounicode.hpp"
#include "kemouser_internal.hpp"

#include <sys/quota.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace kemo::quota {

namespace {

// The quota commands on user quotas: the kernel's command number shifted
// left by 8, or-ed with the quota type (0, user quotas).
constexpr int kGetQuota = static_cast<int>(QCMD(Q_GETQUOTA, USRQUOTA));
constexpr int kSetQuota = static_cast<int>(QCMD(Q_SETQUOTA, USRQUOTA));
constexpr int kSync = static_cast<int>(QCMD(Q_SYNC, USRQUOTA));
constexpr int kQuotaOff = static_cast<int>(QCMD(Q_QUOTAOFF, USRQUOTA));
constexpr int kGetFormat = static_cast<int>(QCMD(Q_GETFMT, USRQUOTA));
static_assert(static_cast<unsigned>(kGetQuota) == 0x80000700u &&
              static_cast<unsigned>(kSetQuota) == 0x80000800u &&
              static_cast<unsigned>(kSync) == 0x80000100u &&
              static_cast<unsigned>(kQuotaOff) == 0x80000300u &&
              static_cast<unsigned>(kGetFormat) == 0x80000400u);

// Block limits, inode limits and both grace times are valid in a record
// the setter hands over: 0x1 + 0x4 + 0x10 + 0x20.
constexpr uint32_t kSetValid = QIF_BLIMITS | QIF_ILIMITS | QIF_BTIME | QIF_ITIME;
static_assert(kSetValid == 53);

constexpr char kDefaults[] = "/etc.defaults/kemoinfo.conf";
constexpr char kMounts[] = "/proc/mounts";
constexpr char kSingleDiskData[] = "/dev/hda3";
constexpr std::size_t kMaxNameChars = 64;

// The error code of a failed quota request: quotas off, an invalid
// request, no such device, anything else.
int code_of(int err) noexcept
{
    switch (err) {
    case ESRCH: return KEMO_ERR_QUOTA_OFF;
    case EINVAL: return KEMO_ERR_QUOTA_INVALID;
    case ENOENT: return ERR_FILE_NOT_FOUND;
    default: return ERR_SYS_UNKNOWN;
    }
}

// The user-facing name of a uid that may never get a limit.
bool refused_uid(long uid, bool local) noexcept
{
    return local ? kemo::accounts::is_system_user(uid) : uid < kemo::accounts::kFirstUserUid;
}

// A command of KEMOQuotaInit from its literal template (checked by the
// compiler) and the volume number.
__attribute__((format(printf, 1, 2))) std::string formatted(const char *tmpl, ...)
{
    char command[160];
    va_list args;
    va_start(args, tmpl);
    std::vsnprintf(command, sizeof command, tmpl, args);
    va_end(args);
    return command;
}

// One step of KEMOQuotaInit: the command's exit status decides.  A shell
// that could not run at all is KEMO_ERR_QUOTA_SHELL, a failed command
// `code`.
bool step(const std::string &command, int code)
{
    const int status = kemo::shell_run(command);
    if (status == -1) {
        KEMO_LOG("fail to run [%s]", command.c_str());
        return fail(false, KEMO_ERR_QUOTA_SHELL);
    }
    if (kemo::exit_code(status) != 0) {
        KEMO_LOG("[%s] failed (%d)", command.c_str(), kemo::exit_code(status));
        return fail(false, code);
    }
    return true;
}

bool exists(const std::string &path)
{
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

} // namespace

bool supported()
{
    const auto value = kemo::settings::get_value(kDefaults, "supportquota");
    return value && value->size() < 5 && kemo::accounts::equal_nocase(*value, "yes");
}

bool mounted_volumes(std::vector<MountedVolume> &out)
{
    out.clear();
    return kemo::for_each_line(kMounts, [&](std::string_view line) {
        const auto entry = kemo::text::mount_line(kemo::chomp(line));
        if (!entry || entry->dir.size() != 8 || !entry->dir.starts_with("/volume"))
            return 1;
        const int id = entry->dir[7] - '0';
        if (id < 1 || id > kemo::vol::kMaxVolumes)
            return 1;
        for (const MountedVolume &seen : out)
            if (seen.id == id)
                return 1; // the first mount of a directory is the one below
        out.push_back({id, entry->device});
        return 1;
    }) == 0;
}

// The four steps are the quota tools' own.  Two cases are kept from
// harming a volume whose quotas were set up before: quotas that are on
// already are left on (a second check would be refused by the tools and a
// second switch-on fail), and quota files that exist are checked without
// "-c", which would build them anew and drop every user's limit.
int init(int volume)
{
    if (!step(formatted("grep volume%d /proc/mounts > /dev/null 2>&1", volume), ERR_BAD_PARAMETERS))
        return -1;
    std::vector<MountedVolume> volumes;
    if (mounted_volumes(volumes))
        for (const MountedVolume &v : volumes) {
            uint32_t fmt = 0;
            if (v.id == volume &&
                ::quotactl(kGetFormat, v.device.c_str(), 0, reinterpret_cast<caddr_t>(&fmt)) == 0)
                return 0;
        }
    if (!step(formatted("mount -o remount,usrquota,grpquota /volume%d > /dev/null 2>&1", volume),
              KEMO_ERR_QUOTA_REMOUNT))
        return -1;
    const std::string dir = "/volume" + std::to_string(volume);
    const bool kept = exists(dir + "/aquota.user") || exists(dir + "/aquota.group");
    if (!step(kept ? formatted("quotacheck -g -u -F vfsv0 /volume%d  > /dev/null 2>&1", volume)
                   : formatted("quotacheck -c -g -u -F vfsv0 /volume%d  > /dev/null 2>&1", volume),
              KEMO_ERR_QUOTA_CHECK))
        return -1;
    if (!step(formatted("quotaon -F vfsv0 /volume%d > /dev/null 2>&1", volume), KEMO_ERR_QUOTA_ON))
        return -1;
    return 0;
}

std::optional<uid_t> local_uid(const char *name)
{
    const std::string_view text = name;
    const int chars = kemo::unicode::count_chars(text);
    if (chars <= 0 || static_cast<std::size_t>(chars) > kMaxNameChars ||
        text.find_first_of(":\r\n") != std::string_view::npos)
        return fail(std::optional<uid_t>(), ERR_NO_SUCH_USER);
    std::string line;
    const int found = kemo::accounts::find_line(kemo::accounts::kPasswd, text, line);
    if (found < 0)
        return std::nullopt;
    const auto entry = found > 0 ? kemo::records::parse_passwd(line) : std::nullopt;
    if (!entry)
        return fail(std::optional<uid_t>(), ERR_NO_SUCH_USER);
    if (refused_uid(entry->uid, true)) {
        KEMO_LOG("no quota for system account [%s]", name);
        return fail(std::optional<uid_t>(), ERR_BAD_PARAMETERS);
    }
    return static_cast<uid_t>(entry->uid);
}

std::optional<uid_t> uid_of(const char *name)
{
    switch (kemo::domain::name_kind(name)) {
    case 1:
        return local_uid(name);
    case 2: {
        const int uid = kemo::domain::user_uid(name);
        if (uid < 0)
            return fail(std::optional<uid_t>(), ERR_NO_SUCH_USER);
        if (refused_uid(uid, false)) {
            KEMO_LOG("no quota for domain user [%s] of uid %d", name, uid);
            return fail(std::optional<uid_t>(), ERR_BAD_PARAMETERS);
        }
        return static_cast<uid_t>(uid);
    }
    default:
        return fail(std::optional<uid_t>(), ERR_SYS_UNKNOWN);
    }
}

int read_limit(uid_t uid, const char *device, uint64_t &blocks)
{
    struct dqblk record {};
    if (::quotactl(kGetQuota, device, static_cast<int>(uid), reinterpret_cast<caddr_t>(&record)) != 0)
        return fail(-1, errno == ESRCH ? KEMO_ERR_QUOTA_OFF : ERR_SYS_UNKNOWN);
    blocks = record.dqb_bhardlimit;
    return 0;
}

int write_limit(uid_t uid, const char *device, uint64_t blocks)
{
    struct dqblk record {};
    record.dqb_bhardlimit = blocks;
    record.dqb_bsoftlimit = blocks;
    record.dqb_valid = kSetValid;
    if (::quotactl(kSetQuota, device, static_cast<int>(uid), reinterpret_cast<caddr_t>(&record)) != 0 ||
        ::quotactl(kSync, device, 0, nullptr) != 0) {
        const int err = errno;
        KEMO_LOG("quota of uid %u on %s not set, errno = %d", static_cast<unsigned>(uid), device, err);
        return fail(-1, code_of(err));
    }
    return 0;
}

int get(const char *name, const char *device, KEMOQUOTA &reading)
{
    const auto uid = uid_of(name);
    if (!uid)
        return -1;
    struct dqblk record {};
    if (::quotactl(kGetQuota, device, static_cast<int>(*uid), reinterpret_cast<caddr_t>(&record)) != 0)
        return fail(-1, errno == ESRCH ? KEMO_ERR_QUOTA_OFF : ERR_SYS_UNKNOWN);
    reading.limitMB = record.dqb_bhardlimit == 0
                          ? 0.0f
                          : static_cast<float>(unit_trans(5, static_cast<float>(record.dqb_bhardlimit)));
    reading.usedMB = static_cast<float>(unit_trans(1, static_cast<float>(record.dqb_curspace)));
    return 0;
}

// A positive limit never becomes "no limit" by rounding: a part of a
// quota block counts as a whole one.  Limits beyond the 32-bit block count
// (4 TiB) are refused rather than cut to a small one.
int set(const char *name, const char *device, float limit_mb)
{
    const float blocks = static_cast<float>(unit_trans(4, limit_mb));
    if (!std::isfinite(blocks) || blocks < 0.0f || blocks >= 4294967296.0f)
        return fail(-1, ERR_BAD_PARAMETERS);
    const auto uid = uid_of(name);
    if (!uid)
        return -1;
    return write_limit(*uid, device, static_cast<uint32_t>(std::ceil(blocks)));
}

int clean(const std::vector<std::string> &names, const std::vector<std::string> &devices)
{
    bool ok = true;
    int last = 0;
    std::vector<uid_t> uids;
    for (const std::string &name : names) {
        const auto uid = uid_of(name.c_str());
        if (uid) {
            uids.push_back(*uid);
        } else {
            KEMO_LOG("no quota to clear for [%s] (%X)", name.c_str(), KLIBErrGet());
            ok = false;
            last = KLIBErrGet();
        }
    }
    for (const std::string &device : devices)
        for (const uid_t uid : uids)
            if (write_limit(uid, device.c_str(), 0) != 0) {
                ok = false;
                last = KLIBErrGet();
            }
    return ok ? 0 : fail(-1, last);
}

int clean_raid(const std::vector<std::string> &names)
{
    int max = kemo::raid::max_disks_by_pipe();
    if (max <= 0) {
        kemo::log("(%s)%s(%d):Failed to get Max volume number, give default value 1", __FILE__,
                  __func__, __LINE__);
        max = 1;
    }
    uint32_t mask = 0;
    if (kemo::vol::raid_enum(&mask, nullptr, nullptr) != 0)
        return fail(-1, KEMO_ERR_QUOTA_ENUM);
    std::vector<std::string> devices;
    for (int v = 0; v < max && v < kemo::vol::kMaxVolumes; ++v)
        if ((mask & (1u << v)) != 0)
            devices.push_back("/dev/md" + std::to_string(v + 2));
    return clean(names, devices);
}

int clean_one(const std::vector<std::string> &names)
{
    return clean(names, {kSingleDiskData});
}

int off(const char *device)
{
    if (::quotactl(kQuotaOff, device, 0, nullptr) != 0) {
        const int err = errno;
        KEMO_LOG("quota off on %s failed, errno = %d", device, err);
        KLIBErrSet(code_of(err));
    }
    return 0;
}

int format(const char *device)
{
    uint32_t fmt = 0;
    if (::quotactl(kGetFormat, device, 0, reinterpret_cast<caddr_t>(&fmt)) != 0)
        return fail(0, code_of(errno));
    return static_cast<int>(fmt);
}

double unit_trans(int kind, double value) noexcept
{
    const float v = static_cast<float>(value);
    switch (kind) {
    case 0: return v * 1048576.0f;
    case 1: return v / 1048576.0f;
    case 2:
    case 5: return v / 1024.0f;
    case 3:
    case 4: return v * 1024.0f;
    default: return 0.0;
    }
}

} // namespace kemo::quota

namespace {

// A device argument: an absolute path on one line.
bool device_ok(const char *device)
{
    return device != nullptr && device[0] == '/' && kemo::fits_on_line(device);
}

// The names of a string list; false for a null item.
bool names_of(const KLIBSZLIST *list, std::vector<std::string> &names)
{
    for (int i = 0; i < list->nItem; ++i) {
        if (list->pszItem[i] == nullptr)
            return false;
        names.emplace_back(list->pszItem[i]);
    }
    return true;
}

// Runs clean(names) for the names of a caller's list, refusing a null list
// or item; the body of the three clean functions.
template <class Clean>
int with_names(const KLIBSZLIST *list, Clean &&clean)
{
    if (list == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] {
        std::vector<std::string> names;
        if (!names_of(list, names))
            return kemo::fail(-1, ERR_BAD_PARAMETERS);
        return clean(names);
    });
}

} // namespace

extern "C" {

KEMO_API int KEMOSupportQUOTA(void)
{
    return kemo::edge(0, [] { return kemo::quota::supported() ? 1 : 0; });
}

KEMO_API int KEMOQuotaInit(int volume)
{
    if (volume < 1 || volume > kemo::vol::kMaxVolumes)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::quota::init(volume); });
}

KEMO_API int KEMOQuotaGet(const char *name, const char *device, PKEMOQUOTA reading)
{
    if (name == nullptr || *name == '\0' || !device_ok(device) || reading == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::quota::get(name, device, *reading); });
}

KEMO_API int KEMOQuotaSet(const char *name, const char *device, const float *limitMB)
{
    if (name == nullptr || *name == '\0' || !device_ok(device) || limitMB == nullptr ||
        !std::isfinite(*limitMB) || *limitMB < 0.0f)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::quota::set(name, device, *limitMB); });
}

KEMO_API int KEMOQuotaClean(PKLIBSZLIST list, const char *device)
{
    if (!device_ok(device))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return with_names(list, [&](const std::vector<std::string> &names) { return kemo::quota::clean(names, {device}); });
}

KEMO_API int KEMOQuotaCleanOne(PKLIBSZLIST list)
{
    return with_names(list, [](const std::vector<std::string> &names) { return kemo::quota::clean_one(names); });
}

KEMO_API int KEMOQuotaCleanRAID(PKLIBSZLIST list)
{
    return with_names(list, [](const std::vector<std::string> &names) { return kemo::quota::clean_raid(names); });
}

KEMO_API int KEMOQuotaOff(const char *device)
{
    if (!device_ok(device)) {
        KLIBErrSet(ERR_BAD_PARAMETERS);
        return 0;
    }
    return kemo::edge(0, [&] { return kemo::quota::off(device); });
}

KEMO_API int KEMOQuotaFmtGet(const char *device)
{
    if (!device_ok(device))
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return kemo::edge(0, [&] { return kemo::quota::format(device); });
}

KEMO_API double KEMOUnitTrans(int kind, double value)
{
    return kemo::quota::unit_trans(kind, value);
}

} // extern "C"
