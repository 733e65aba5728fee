// The settings sections of the configuration backup: the host name and
// web switch (the models of every section), and the sections made of keys
// of /etc/kemoinfo.conf, each with its fixed key list.
#include "kemo_accounts.hpp"
#include "kemostr.hpp"
#include "kemofile.hpp"
#include "kemo_io.hpp"
#include "kemo_net.hpp"
#include "kemo_sysbackup.hpp"
#include "kemo_quota.hpp"

#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kemo::sysbackup {
namespace {

constexpr char kSettings[] = "/etc/kemoinfo.conf";
constexpr char kDefaults[] = "/etc.defaults/kemoinfo.conf";
constexpr char kSmbConf[] = "/usr/kemo/etc/smb.conf";
constexpr char kQuotedPair[] = "%s=\"%s\"\n";

// ------------------------------------------------------------ settings

// A string hash that is freed with its scope (the address is handed to
// the functions that may move the block).
struct HashHolder {
    PKLIBSZHASH hash = PshKLIBSzHashAlloc(1024);
    HashHolder() = default;
    ~HashHolder() { KLIBSzHashFree(hash); }
    HashHolder(const HashHolder &) = delete;
    HashHolder &operator=(const HashHolder &) = delete;
};

// The value of key in a settings file: its text, "" when the key's line is
// there with nothing after the "=", nullopt when there is no such line;
// false when the file cannot be read.
bool read_setting(const char *path, const char *key, std::optional<std::string> &value)
{
    value.reset();
    const int found = kemo::settings::find_key(path, key, 0, false, value);
    if (found != 0)
        return found > 0;
    // No value: the key's line may still be there, with nothing after "=".
    std::optional<std::string> line;
    const int listed = kemo::settings::find_key(path, key, 0, true, line);
    if (listed > 0)
        value.emplace();
    return listed >= 0;
}

using kemo::accounts::equal_nocase;

// True when the model's defaults say "yes" (in any letter case) for key.
bool supported(const char *key)
{
    const auto value = kemo::settings::get_value(kDefaults, key);
    return value && equal_nocase(*value, "yes");
}


// ------------------------------------------------------------ sections

// What a settings value must look like.
enum class Kind { text, number, yes_no };

struct Key {
    const char *name;
    Kind kind;
};

// A section made of keys of /etc/kemoinfo.conf.  Its body: long count,
// then count pairs (string key, string value) of the keys that are set.
// With a capability key (gate) the section exists only on models whose
// defaults say "yes" for it: elsewhere the exporter writes nothing and the
// importer reads nothing.
struct SettingsSection {
    uint32_t id;
    uint32_t export_event;
    uint32_t import_event;
    const char *gate;
    std::span<const Key> keys;
};

constexpr Key kTimeKeys[] = {{"timezone", Kind::text},
                             {"run_ntpdate", Kind::yes_no},
                             {"ntpdate_period", Kind::text},
                             {"ntpdate_server", Kind::text},
                             {"ntpdate_server_backup", Kind::text}};
constexpr Key kInterfaceKeys[] = {{"dhcp", Kind::yes_no},   {"ipaddr", Kind::text},
                                  {"netmask", Kind::text},  {"gateway", Kind::text},
                                  {"dns", Kind::text},      {"dns2", Kind::text}};
constexpr Key kLangKeys[] = {{"language", Kind::text},
                             {"codepage", Kind::text},
                             {"codepage_mediaservice", Kind::text}};
constexpr Key kMailKeys[] = {{"mail_notify", Kind::yes_no},   {"smtp_server", Kind::text},
                             {"smtp_port", Kind::number},     {"smtp_auth", Kind::yes_no},
                             {"smtp_user", Kind::text},       {"smtp_password", Kind::text},
                             {"mail_sender", Kind::text},     {"mail_recipients", Kind::text}};
constexpr Key kAppleKeys[] = {{"runafpd", Kind::yes_no},
                              {"codepage_apple", Kind::text},
                              {"apple_zone", Kind::text}};
constexpr Key kWindowsKeys[] = {{"workgroup", Kind::text},
                                {"runsmbd", Kind::yes_no},
                                {"wins_server", Kind::text}};
constexpr Key kHDSleepKeys[] = {{"hddsleep_time", Kind::number}};
constexpr Key kFtpKeys[] = {{"runftpd", Kind::yes_no},
                            {"ftp_port", Kind::number},
                            {"ftp_max_users", Kind::number},
                            {"ftp_anonymous", Kind::yes_no}};
constexpr Key kUSBScheduleKeys[] = {{"usbbkp_schedule", Kind::yes_no},
                                    {"usbbkp_schedule_period", Kind::text},
                                    {"usbbkp_schedule_time", Kind::text}};
constexpr Key kPPPoEKeys[] = {{"runpppoe", Kind::yes_no},
                              {"pppoe_user", Kind::text},
                              {"pppoe_password", Kind::text}};
constexpr Key kUSBShareListKeys[] = {{"usbbkp_sharelist", Kind::text}};
constexpr Key kPhotoKeys[] = {{"runphoto", Kind::yes_no}, {"photo_guest", Kind::yes_no}};
constexpr Key kHttpPortKeys[] = {{"httpport", Kind::number}};
constexpr Key kMTUKeys[] = {{"mtu", Kind::number}};
constexpr Key kRCPowerKeys[] = {{"rcpower", Kind::yes_no}, {"rcpower_schedule", Kind::text}};
constexpr Key kUSBCopyKeys[] = {{"usbcopy", Kind::yes_no},
                                {"usbcopy_share", Kind::text},
                                {"usbcopy_mode", Kind::text}};
constexpr Key kDCacheKeys[] = {{"diskcache", Kind::yes_no}};
constexpr Key kGrabdockKeys[] = {{"rungrabdock", Kind::yes_no},
                                 {"grabdock_share", Kind::text},
                                 {"grabdock_max_tasks", Kind::number}};
constexpr Key kMySQLKeys[] = {{"runmysql", Kind::yes_no}, {"mysql_port", Kind::number}};
// The quota switch and default limit; the users' own limits follow them in
// the section's body (kemosysbkpquota.cpp).
constexpr Key kUserQuotaKeys[] = {{"userquota", Kind::yes_no},
                                  {"userquota_default", Kind::number}};

// The time section sets the keys only: the clock is never touched, and the
// zone file and time-server schedule follow the keys when the time
// settings are next applied.  Service switches (FTP, AFP, PPPoE...) are
// restored as keys; only the web section runs its control script.
constexpr SettingsSection kTime{0x1, 0x12100001, 0x12100002, nullptr, kTimeKeys};
constexpr SettingsSection kInterface{kInterfaceId, 0x12100005, 0x12100006, nullptr, kInterfaceKeys};
constexpr SettingsSection kLang{0x8, 0x12100007, 0x12100008, nullptr, kLangKeys};
constexpr SettingsSection kMail{0x10, 0x12100009, 0x1210000A, nullptr, kMailKeys};
constexpr SettingsSection kApple{0x40, 0x1210000D, 0x1210000E, nullptr, kAppleKeys};
constexpr SettingsSection kWindows{0x80, 0x1210000F, 0x12100010, nullptr, kWindowsKeys};
constexpr SettingsSection kHDSleep{0x400, 0x12100015, 0x12100016, nullptr, kHDSleepKeys};
constexpr SettingsSection kFtp{0x800, 0x12100017, 0x12100018, nullptr, kFtpKeys};
constexpr SettingsSection kUSBSchedule{0x1000, 0x12100019, 0x1210001A, nullptr, kUSBScheduleKeys};
constexpr SettingsSection kPPPoE{0x2000, 0x1210001B, 0x1210001C, nullptr, kPPPoEKeys};
constexpr SettingsSection kUSBShareList{0x4000, 0x1210001D, 0x1210001E, nullptr,
                                        kUSBShareListKeys};
constexpr SettingsSection kPhoto{0x8000, 0x1210001F, 0x12100020, "supportphoto", kPhotoKeys};
constexpr SettingsSection kHttpPort{0x100000, 0x12100109, 0x1210010A, nullptr, kHttpPortKeys};
constexpr SettingsSection kMTU{0x20000, 0x12100103, 0x12100104, "supportMTU", kMTUKeys};
constexpr SettingsSection kRCPower{0x40000, 0x12100105, 0x12100106, "supportrcpower",
                                   kRCPowerKeys};
constexpr SettingsSection kUSBCopy{0x80000, 0x12100107, 0x12100108, nullptr, kUSBCopyKeys};
constexpr SettingsSection kDCache{0x200000, 0x1210010B, 0x1210010C, "supportdcacheui",
                                  kDCacheKeys};
constexpr SettingsSection kGrabdock{0x400000, 0x1210010D, 0x1210010E, nullptr, kGrabdockKeys};
constexpr SettingsSection kMySQL{0x800000, 0x1210010F, 0x12100110, "supportmysql", kMySQLKeys};
// The quota exporter shares its failure event with the user exporter.
constexpr SettingsSection kUserQuota{0x1000000, 0x12100011, 0x12100116, nullptr, kUserQuotaKeys};

constexpr uint32_t kHostnameId = 0x2, kHostnameExportEvent = 0x12100003,
                   kHostnameImportEvent = 0x12100004;
constexpr uint32_t kWebId = 0x10000, kWebExportEvent = 0x12100101, kWebImportEvent = 0x12100102;

// True when value may be stored for a key of that kind: never a line end,
// digits for a number, "yes" or "no" for a switch.
bool value_ok(Kind kind, std::string_view value) noexcept
{
    if (value.find_first_of("\r\n") != std::string_view::npos)
        return false;
    switch (kind) {
    case Kind::number:
        return !value.empty() && value.size() <= 9 &&
               value.find_first_not_of("0123456789") == std::string_view::npos;
    case Kind::yes_no:
        return equal_nocase(value, "yes") || equal_nocase(value, "no");
    case Kind::text:
        break;
    }
    return true;
}

// Sets "workgroup" of the [global] section of the file-sharing
// configuration, so that it names the same workgroup as the settings.
bool set_smb_workgroup(const char *fn, const std::string &workgroup)
{
    const kemo::ConfigLock lock(KLIB_LOCK_SMB | KLIB_LOCK_EX);
    if (!lock.held()) {
        BKP_LOG(fn, "lock file failed");
        return false;
    }
    const std::string line = "\tworkgroup=" + workgroup + "\n";
    kemo::FilePtr in;
    int result = kemo::open_or_create(kSmbConf, "r", "[global]\n" + line, in);
    if (result > 0) {
        bool in_global = false, done = false;
        result = kemo::rewrite_file(
            in.get(), kSmbConf,
            [&](std::string_view text, kemo::Twin &twin) {
                const std::string_view t = kemo::trimmed(kemo::chomp(text));
                if (t.size() >= 2 && t.front() == '[' && t.back() == ']') {
                    if (in_global && !done)
                        twin.write(line), done = true;
                    in_global = equal_nocase(kemo::trimmed(t.substr(1, t.size() - 2)), "global");
                } else if (in_global && !t.empty() && t[0] != '#' && t[0] != ';') {
                    const auto pair = kemo::split_pair(t);
                    if (pair && equal_nocase(pair->key, "workgroup")) {
                        if (!done)
                            twin.write(line), done = true;
                        return true; // a second workgroup line would contradict
                    }
                }
                twin.write(text);
                return true;
            },
            [&](kemo::Twin &twin, bool ended) {
                if (!done) {
                    if (!ended)
                        twin.write("\n");
                    twin.write(in_global ? line : "[global]\n" + line);
                }
                return 1;
            });
    }
    if (result < 0) {
        BKP_LOG(fn, "fail to set workgroup in %s (%X)", kSmbConf, KLIBErrGet());
        return false;
    }
    return true;
}

// Stores the pairs in the settings file in one rewrite.
bool store_settings(const char *fn, const std::vector<std::pair<std::string, std::string>> &pairs)
{
    HashHolder holder;
    if (holder.hash == nullptr)
        return false;
    for (const auto &[key, value] : pairs)
        if (KLIBSzHashSetValue(&holder.hash, key.c_str(), value.c_str()) < 0)
            return false;
    const kemo::ConfigLock lock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_EX);
    if (!lock.held()) {
        BKP_LOG(fn, "lock file failed");
        return false;
    }
    if (kemo::settings::set_pairs(kSettings, holder.hash, kQuotedPair) < 0) {
        BKP_LOG(fn, "fail to set keys in %s (%X)", kSettings, KLIBErrGet());
        return false;
    }
    return true;
}

// The section's keys that are set in the settings file, read under the
// shared kemoinfo lock; false (logged) when the lock or a read fails.
bool read_section_pairs(const char *fn, const SettingsSection &section, SettingPairs &pairs)
{
    const kemo::ConfigLock lock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_SH);
    if (!lock.held()) {
        BKP_LOG(fn, "lock file failed");
        return false;
    }
    for (const Key &key : section.keys) {
        std::optional<std::string> value;
        if (!read_setting(kSettings, key.name, value)) {
            BKP_LOG(fn, "fail to read %s from %s (%X)", key.name, kSettings, KLIBErrGet());
            return false;
        }
        if (value)
            pairs.emplace_back(key.name, std::move(*value));
    }
    return true;
}

// The long count and the (key, value) strings of a settings section body.
bool write_pairs(const char *fn, int fd, const SettingPairs &pairs)
{
    if (write_long(fd, static_cast<int32_t>(pairs.size())) < 0) {
        BKP_LOG(fn, "fail to write count");
        return false;
    }
    for (const auto &[key, value] : pairs)
        if (write_string(fd, key) < 0 || write_string(fd, value) < 0) {
            BKP_LOG(fn, "fail to write %s", key.c_str());
            return false;
        }
    return true;
}

int export_settings(const char *fn, int fd, const SettingsSection &section)
{
    if (section.gate != nullptr && !supported(section.gate))
        return 0;
    SettingPairs pairs;
    if (!read_section_pairs(fn, section, pairs)) {
        report(section.export_event);
        return -1;
    }
    return write_section(fn, fd, section.id, [&] { return write_pairs(fn, fd, pairs); }, section.export_event);
}

// Reads the whole body first and refuses it unless every pair is sound;
// keys of other sections are skipped.  With apply, every key is set in one
// rewrite of the settings file.
bool import_settings_body(const char *fn, int fd, uint32_t version, int apply,
                          const SettingsSection &section)
{
    if (version != kVersion) {
        BKP_LOG(fn, "unsupported version %u", version);
        return false;
    }
    int32_t count = 0;
    if (read_long(fd, count) < 0 || count < 0) {
        BKP_LOG(fn, "fail to read count");
        return false;
    }
    std::vector<std::pair<std::string, std::string>> pairs;
    std::string key, value;
    for (int32_t i = 0; i < count; ++i) {
        if (!read_text(fd, key) || !read_text(fd, value)) {
            BKP_LOG(fn, "fail to read pair %d of %d", i + 1, count);
            return false;
        }
        const Key *known = nullptr;
        for (const Key &k : section.keys)
            if (key == k.name)
                known = &k;
        if (known == nullptr)
            continue;
        if (!value_ok(known->kind, value)) {
            BKP_LOG(fn, "invalid value for %s", known->name);
            return false;
        }
        if (section.id == kWindows.id && key == "workgroup" &&
            !kemo::strings::is_workgroup_name(value)) {
            BKP_LOG(fn, "invalid workgroup [%s]", value.c_str());
            return false;
        }
        pairs.emplace_back(key, value);
    }
    if (!apply || pairs.empty())
        return true;
    if (!store_settings(fn, pairs))
        return false;
    if (section.id == kWindows.id)
        for (const auto &[k, v] : pairs)
            if (k == "workgroup" && !set_smb_workgroup(fn, v))
                return false;
    return true;
}

int import_settings(const char *fn, int fd, uint32_t version, int apply,
                    const SettingsSection &section)
{
    if (section.gate != nullptr && !supported(section.gate))
        return 0;
    if (import_settings_body(fn, fd, version, apply, section))
        return 0;
    report(section.import_event);
    return -1;
}

// ------------------------------------------------------------ model sections

int export_hostname(const char *fn, int fd)
{
    std::string name;
    if (kemo::net::hostname(name) < 0) {
        BKP_LOG(fn, "KEMOLnxGetHostname failed.(%X)", KLIBErrGet());
        report(kHostnameExportEvent);
        return -1;
    }
    return write_section(fn, fd, kHostnameId, [&] {
        if (write_string(fd, name) < 0) {
            BKP_LOG(fn, "fail to write hostname");
            return false;
        }
        return true;
    }, kHostnameExportEvent);
}

bool import_hostname_body(const char *fn, int fd, uint32_t version, int apply)
{
    std::string name;
    if (version != kVersion) {
        BKP_LOG(fn, "unsupported version %u", version);
        return false;
    }
    if (!read_text(fd, name)) {
        BKP_LOG(fn, "fail to read hostname");
        return false;
    }
    if (!kemo::strings::is_hostname(name)) {
        BKP_LOG(fn, "invalid host name [%s]", name.c_str());
        return false;
    }
    if (!apply)
        return true;
    std::string current;
    if (kemo::net::hostname(current) < 0) {
        BKP_LOG(fn, "KEMOLnxGetHostname failed.(%X)", KLIBErrGet());
        return false;
    }
    if (name == current)
        return true;
    const int result = kemo::net::set_hostname(name.c_str());
    if (result < 0) {
        BKP_LOG(fn, "call KEMOLnxSetHostname and fail and return %d, errno=0x%04X\n", result, KLIBErrGet());
        return false;
    }
    return true;
}

int import_hostname(const char *fn, int fd, uint32_t version, int apply)
{
    if (import_hostname_body(fn, fd, version, apply))
        return 0;
    report(kHostnameImportEvent);
    return -1;
}

int export_web(const char *fn, int fd)
{
    if (!supported("supportweb"))
        return 0;
    std::optional<std::string> run;
    if (!read_setting(kSettings, "runweb", run)) {
        BKP_LOG(fn, "fail to read runweb (%X)", KLIBErrGet());
        report(kWebExportEvent);
        return -1;
    }
    const int32_t on = run && equal_nocase(*run, "yes") ? 1 : 0;
    return write_section(fn, fd, kWebId, [&] {
        if (write_long(fd, on) < 0) {
            BKP_LOG(fn, "fail to write runweb");
            return false;
        }
        return true;
    }, kWebExportEvent);
}

int import_web(const char *fn, int fd, uint32_t version, int apply)
{
    if (!supported("supportweb"))
        return 0;
    int32_t on = 0;
    bool ok = true;
    if (version != kVersion) {
        BKP_LOG(fn, "unsupported version %u", version);
        ok = false;
    } else if (read_long(fd, on) < 0) {
        BKP_LOG(fn, "fail to read runweb");
        ok = false;
    } else if (apply && kemo::net::web_service(on != 0) < 0) {
        BKP_LOG(fn, "KEMOWebService(%d) failed (%X)", on != 0 ? 1 : 0, KLIBErrGet());
        ok = false;
    }
    if (ok)
        return 0;
    report(kWebImportEvent);
    return -1;
}

} // namespace

// ------------------------------------------------------------ user quotas

bool write_user_quota_settings(const char *fn, int fd)
{
    SettingPairs pairs;
    return read_section_pairs(fn, kUserQuota, pairs) && write_pairs(fn, fd, pairs);
}

bool read_user_quota_settings(const char *fn, int fd, SettingPairs &pairs)
{
    int32_t count = 0;
    if (read_long(fd, count) < 0 || count < 0) {
        BKP_LOG(fn, "fail to read count");
        return false;
    }
    std::string key, value;
    for (int32_t i = 0; i < count; ++i) {
        if (!read_text(fd, key) || !read_text(fd, value)) {
            BKP_LOG(fn, "fail to read pair %d of %d", i + 1, count);
            return false;
        }
        for (const Key &k : kUserQuota.keys)
            if (key == k.name) {
                if (!value_ok(k.kind, value)) {
                    BKP_LOG(fn, "invalid value for %s", k.name);
                    return false;
                }
                pairs.emplace_back(key, value);
            }
    }
    return true;
}

bool store_user_quota_settings(const char *fn, const SettingPairs &pairs)
{
    return pairs.empty() || store_settings(fn, pairs);
}

} // namespace kemo::sysbackup

using namespace kemo::sysbackup;

extern "C" {

// ------------------------------------------------------------ model sections

KEMO_API int KEMOSysbkpHostnameExport(int fd)
{
    const char *const fn = __func__;
    return kemo::edge(-1, [&] { return export_hostname(fn, fd); });
}

KEMO_API int KEMOSysbkpHostnameImport(int fd, uint32_t version, int apply)
{
    const char *const fn = __func__;
    return kemo::edge(-1, [&] { return import_hostname(fn, fd, version, apply); });
}

KEMO_API int KEMOSysbkpWebExport(int fd)
{
    const char *const fn = __func__;
    return kemo::edge(-1, [&] { return export_web(fn, fd); });
}

KEMO_API int KEMOSysbkpWebImport(int fd, uint32_t version, int apply)
{
    const char *const fn = __func__;
    return kemo::edge(-1, [&] { return import_web(fn, fd, version, apply); });
}

// ------------------------------------------------------------ settings sections

#define KEMO_SETTINGS_SECTION(Name, table)                                           \
    KEMO_API int KEMOSysbkp##Name##Export(int fd)                                    \
    {                                                                                \
        const char *const fn = __func__;                                             \
        return kemo::edge(-1, [&] { return export_settings(fn, fd, table); });       \
    }                                                                                \
    KEMO_API int KEMOSysbkp##Name##Import(int fd, uint32_t version, int apply)       \
    {                                                                                \
        const char *const fn = __func__;                                             \
        return kemo::edge(-1,                                                        \
                          [&] { return import_settings(fn, fd, version, apply, table); }); \
    }

KEMO_SETTINGS_SECTION(Time, kTime)
KEMO_SETTINGS_SECTION(Interface, kInterface)
KEMO_SETTINGS_SECTION(Lang, kLang)
KEMO_SETTINGS_SECTION(Mail, kMail)
KEMO_SETTINGS_SECTION(Apple, kApple)
KEMO_SETTINGS_SECTION(Windows, kWindows)
KEMO_SETTINGS_SECTION(HDSleepTime, kHDSleep)
KEMO_SETTINGS_SECTION(RunFtpd, kFtp)
KEMO_SETTINGS_SECTION(USBBkpSchedule, kUSBSchedule)
KEMO_SETTINGS_SECTION(PPPoE, kPPPoE)
KEMO_SETTINGS_SECTION(USBBkpShareList, kUSBShareList)
KEMO_SETTINGS_SECTION(Photo, kPhoto)
KEMO_SETTINGS_SECTION(HttpPort, kHttpPort)
KEMO_SETTINGS_SECTION(MTU, kMTU)
KEMO_SETTINGS_SECTION(RCPower, kRCPower)
KEMO_SETTINGS_SECTION(USBCopySet, kUSBCopy)
KEMO_SETTINGS_SECTION(DCache, kDCache)
KEMO_SETTINGS_SECTION(Grabdock, kGrabdock)
KEMO_SETTINGS_SECTION(MySQL, kMySQL)

#undef KEMO_SETTINGS_SECTION

} // extern "C"
