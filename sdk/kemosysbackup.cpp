// Configuration backup: one file that carries chosen parts of the
// appliance's configuration, section by section.  This module holds the
// file format (every integer a big-endian u32), the typed-value primitives,
// the section registry, the export and import drivers, and every section
// but users, groups and shares (sdk/kemosysbkpacct.cpp).
//
// File:    "KEMO", u32 category 1, u32 mask, sections in registry order.
// Section: u32 id, u32 version, u32 body size, body.
// Body:    typed values: string (1, strlen + 1, text and its NUL) or
//          long (2, 4, value).
#include "kemo_accounts.hpp"
#include "kemo_io.hpp"
#include "kemo_sysbackup.hpp"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Messages begin with the name of the exported function and the line.
#define BKP_LOG(fn, fmt, ...) \
    ::syslog(LOG_ERR, "%s(%d): " fmt, fn, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

namespace {

constexpr char kSettings[] = "/etc/kemoinfo.conf";
constexpr char kDefaults[] = "/etc.defaults/kemoinfo.conf";
constexpr char kSmbConf[] = "/usr/kemo/etc/smb.conf";
constexpr char kScratch[] = "/tmp/importprocess";
constexpr char kQuotedPair[] = "%s=\"%s\"\n";

constexpr uint32_t kCategory = 1;
constexpr uint32_t kVersion = 1;
constexpr uint32_t kTypeString = 1;
constexpr uint32_t kTypeLong = 2;
constexpr uint32_t kInterfaceId = 0x4;
constexpr uint32_t kFinishId = 0x2000000;
constexpr uint32_t kImportCheckedEvent = 0x12100042;
constexpr uint32_t kImportAppliedEvent = 0x12100043;

// ------------------------------------------------------------ byte order

// The one place where the file's byte order is decided.
void put_u32(unsigned char *p, uint32_t v) noexcept
{
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

uint32_t get_u32(const unsigned char *p) noexcept
{
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}

// ------------------------------------------------------------ descriptors

// Writes every byte (retrying short writes and EINTR).
bool write_all(int fd, const void *data, std::size_t size) noexcept
{
    const auto *p = static_cast<const unsigned char *>(data);
    while (size > 0) {
        const ssize_t n = ::write(fd, p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

// Reads up to size bytes, stopping early only at the end of the file.  The
// count read, or -1 on a read error.
ssize_t read_full(int fd, void *data, std::size_t size) noexcept
{
    auto *p = static_cast<unsigned char *>(data);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::read(fd, p + done, size - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        done += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

bool write_u32(int fd, uint32_t v) noexcept
{
    unsigned char word[4];
    put_u32(word, v);
    return write_all(fd, word, sizeof word);
}

bool read_u32(int fd, uint32_t &v) noexcept
{
    unsigned char word[4];
    if (read_full(fd, word, sizeof word) != 4)
        return false;
    v = get_u32(word);
    return true;
}

// Bytes left between the position and the end of a regular file; nullopt
// for anything else (a pipe has no known end).
std::optional<long long> remaining(int fd) noexcept
{
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
        return std::nullopt;
    const off_t at = ::lseek(fd, 0, SEEK_CUR);
    if (at < 0)
        return std::nullopt;
    return at >= st.st_size ? 0 : static_cast<long long>(st.st_size - at);
}

// A descriptor closed when it goes out of scope.
class Fd {
public:
    explicit Fd(int fd) noexcept : fd_(fd) {}
    ~Fd()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const noexcept { return fd_; }
    // Gives the descriptor up without closing it.
    int release() noexcept { return std::exchange(fd_, -1); }
    // Closes now; false when close reported an error.
    bool close() noexcept
    {
        const int fd = std::exchange(fd_, -1);
        return fd < 0 || ::close(fd) == 0;
    }

private:
    int fd_;
};

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
    const int needed = KLIBFileGetKeyValue(path, key, nullptr, 0, 0);
    if (needed < 0)
        return false;
    if (needed == 0) {
        const int line = KLIBFileGetLineByKey(path, key, nullptr, 0, 0);
        if (line < 0)
            return false;
        if (line > 0)
            value.emplace();
        return true;
    }
    std::string text(static_cast<std::size_t>(needed), '\0');
    if (KLIBFileGetKeyValue(path, key, text.data(), needed, 0) != needed)
        return false;
    text.resize(static_cast<std::size_t>(needed - 1));
    value = std::move(text);
    return true;
}

// True when the model's defaults say "yes" (in any letter case) for key.
bool supported(const char *key)
{
    char value[16] = "";
    return KLIBFileGetKeyValue(kDefaults, key, value, sizeof value, 0) > 0 &&
           ::strcasecmp(value, "yes") == 0;
}

using kemo::accounts::equal_nocase;
using kemo::sysbackup::read_text;
using kemo::sysbackup::report;
using kemo::sysbackup::write_section;

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
// The quota switch and default limit only; the users' own limits are not
// carried yet.
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

// ------------------------------------------------------------ primitives

// Index of id in the registry (the closing all-zero entry never matches).
int index_of(uint32_t id) noexcept
{
    for (int i = 0; grgSysRoutine[i].id != 0; ++i)
        if (grgSysRoutine[i].id == id)
            return i;
    return -1;
}

// A section header with a zero size, to be patched once the body is done.
bool write_header_words(const char *fn, int fd, uint32_t id, uint32_t version)
{
    if (!write_u32(fd, id)) {
        BKP_LOG(fn, "write id fail, errno = %d", errno);
        return false;
    }
    if (!write_u32(fd, version)) {
        BKP_LOG(fn, "write ver fail, errno = %d", errno);
        return false;
    }
    if (!write_u32(fd, 0)) {
        BKP_LOG(fn, "write fake size fail, errno = %d", errno);
        return false;
    }
    return true;
}

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
    if (ErrKLIBFileSetPair(kSettings, holder.hash, kQuotedPair) < 0) {
        BKP_LOG(fn, "fail to set keys in %s (%X)", kSettings, KLIBErrGet());
        return false;
    }
    return true;
}

int export_settings(const char *fn, int fd, const SettingsSection &section)
{
    if (section.gate != nullptr && !supported(section.gate))
        return 0;
    std::vector<std::pair<std::string, std::string>> pairs;
    {
        const kemo::ConfigLock lock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_SH);
        if (!lock.held()) {
            BKP_LOG(fn, "lock file failed");
            report(section.export_event);
            return -1;
        }
        for (const Key &key : section.keys) {
            std::optional<std::string> value;
            if (!read_setting(kSettings, key.name, value)) {
                BKP_LOG(fn, "fail to read %s from %s (%X)", key.name, kSettings, KLIBErrGet());
                report(section.export_event);
                return -1;
            }
            if (value)
                pairs.emplace_back(key.name, std::move(*value));
        }
    }
    return write_section(fn, fd, section.id, [&] {
        if (KEMOSysbkpIWriteLong(fd, static_cast<int32_t>(pairs.size())) < 0) {
            BKP_LOG(fn, "fail to write count");
            return false;
        }
        for (const auto &[key, value] : pairs)
            if (KEMOSysbkpIWriteString(fd, key.c_str()) < 0 ||
                KEMOSysbkpIWriteString(fd, value.c_str()) < 0) {
                BKP_LOG(fn, "fail to write %s", key.c_str());
                return false;
            }
        return true;
    }, section.export_event);
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
    if (KEMOSysbkpIReadLong(fd, &count) < 0 || count < 0) {
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
            !BlKLIBIsWorkGroupName(value.c_str())) {
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

// ------------------------------------------------------------ drivers

// Opens the export target, empty and private (mode & 0600: the file holds
// password hashes).  A new file is created; an existing one is reused only
// when the opened descriptor shows a regular file of the caller's with no
// other name, so a name planted by another user (a link, a FIFO, a file
// of theirs, a second name of a private file) is never written through.
// The descriptor, or -1 with errno set.
int open_target(const char *path, unsigned int mode)
{
    Fd out(::open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    if (out.get() < 0)
        return -1;
    struct stat st;
    if (::fstat(out.get(), &st) != 0)
        return -1;
    if (!S_ISREG(st.st_mode) || st.st_uid != ::geteuid() || st.st_nlink != 1) {
        errno = EPERM;
        return -1;
    }
    if (::ftruncate(out.get(), 0) != 0 || ::fchmod(out.get(), mode & 0600) != 0)
        return -1;
    return out.release();
}

int export_file(const char *fn, const char *path, uint32_t mask, unsigned int mode)
{
    Fd out(open_target(path, mode));
    if (out.get() < 0) {
        BKP_LOG(fn, "fail to open %s(%d)", path, errno);
        return -1;
    }
    bool ok = true;
    if (!write_all(out.get(), "KEMO", 4)) {
        BKP_LOG(fn, "write magic fail, errno = %d", errno);
        ok = false;
    } else if (!write_u32(out.get(), kCategory)) {
        BKP_LOG(fn, "write category fail, errno = %d", errno);
        ok = false;
    } else if (!write_u32(out.get(), mask)) {
        BKP_LOG(fn, "write content type fail, errno = %d", errno);
        ok = false;
    }
    // The "all" mask leaves out the database bit, yet exports every entry:
    // it is compared as a whole before any bit is tested.
    for (int i = 0; ok && grgSysRoutine[i].id != 0; ++i) {
        const KEMOSYSBKPROUTINE &entry = grgSysRoutine[i];
        if (mask != KEMO_SYSBKP_ALL && (mask & entry.id) == 0)
            continue;
        if (entry.pfExport(out.get()) < 0) {
            ::syslog(LOG_ERR, "%s:Fail to export %s\n", fn, entry.szDesc);
            ok = false;
        }
    }
    if (ok && ::fsync(out.get()) != 0) {
        BKP_LOG(fn, "fail to sync %s, errno = %d", path, errno);
        ok = false;
    }
    if (!out.close() && ok) {
        BKP_LOG(fn, "fail to close %s, errno = %d", path, errno);
        ok = false;
    }
    if (ok)
        return 0;
    if (::unlink(path) != 0)
        BKP_LOG(fn, "fail to remove %s", path);
    return -1;
}

// Copies a section body of size bytes from in to the start of the scratch
// file.  The scratch file is then cut to the body's size, so an importer
// that reads past its own values meets the end of the file rather than
// bytes of an earlier, longer section (importers get only the descriptor).
bool copy_body(const char *fn, int in, int scratch, uint32_t size)
{
    if (::lseek(scratch, 0, SEEK_SET) != 0) {
        BKP_LOG(fn, "seek fdHandle to begining error.");
        return false;
    }
    constexpr std::size_t kBlock = 1024;
    unsigned char block[kBlock];
    for (uint32_t left = size / kBlock; left > 0; --left) {
        if (read_full(in, block, kBlock) != static_cast<ssize_t>(kBlock)) {
            BKP_LOG(fn, "read fdin failed 1");
            return false;
        }
        if (!write_all(scratch, block, kBlock)) {
            BKP_LOG(fn, "write fdHandle failed 1");
            return false;
        }
    }
    const std::size_t rest = size % kBlock;
    if (rest > 0) {
        if (read_full(in, block, rest) != static_cast<ssize_t>(rest)) {
            BKP_LOG(fn, "read fdin failed 2");
            return false;
        }
        if (!write_all(scratch, block, rest)) {
            BKP_LOG(fn, "write fdHandle failed 2");
            return false;
        }
    }
    if (::ftruncate(scratch, size) != 0) {
        BKP_LOG(fn, "fail to truncate fdHandle, errno = %d", errno);
        return false;
    }
    if (::lseek(scratch, 0, SEEK_SET) != 0) {
        BKP_LOG(fn, "seek fdHandle to begining error.");
        return false;
    }
    return true;
}

// The file header and the section loop.  false when the file is unreadable
// or malformed or a section failed.
bool import_sections(const char *fn, int in, int scratch, uint32_t mask, int apply)
{
    unsigned char magic[4];
    const ssize_t got = read_full(in, magic, sizeof magic);
    if (got != 4) {
        BKP_LOG(fn, "fail to read magic %d", static_cast<int>(got));
        return false;
    }
    if (std::memcmp(magic, "KEMO", 4) != 0) {
        char shown[5];
        for (int i = 0; i < 4; ++i)
            shown[i] = magic[i] >= 0x20 && magic[i] < 0x7F ? static_cast<char>(magic[i]) : '?';
        shown[4] = '\0';
        BKP_LOG(fn, "wrong magic [%s]", shown);
        return false;
    }
    uint32_t category = 0, stored_mask = 0;
    if (!read_u32(in, category)) {
        BKP_LOG(fn, "fail to read category %d", errno);
        return false;
    }
    if (category != kCategory) {
        BKP_LOG(fn, "wrong category [%ld]", static_cast<long>(category));
        return false;
    }
    if (!read_u32(in, stored_mask)) {
        BKP_LOG(fn, "fail to read option %d", errno);
        return false;
    }
    const std::optional<long long> size_left = remaining(in);
    const long long file_size = size_left ? ::lseek(in, 0, SEEK_CUR) + *size_left : -1;

    bool restored = true;
    for (;;) {
        unsigned char head[12];
        const ssize_t n = read_full(in, head, sizeof head);
        if (n < 0) {
            BKP_LOG(fn, "fail to read section header, errno = %d", errno);
            return false;
        }
        if (n < static_cast<ssize_t>(sizeof head))
            break; // the end of the sections
        const uint32_t id = get_u32(head), version = get_u32(head + 4), size = get_u32(head + 8);
        const int index = index_of(id);
        if (index < 0) {
            BKP_LOG(fn, "unknown command [%ld]", static_cast<long>(id));
            return false;
        }
        if ((mask & id) == 0) {
            // A body that runs past the end of the file is a cut file.
            const off_t at = ::lseek(in, static_cast<off_t>(size), SEEK_CUR);
            if (at < 0 || (file_size >= 0 && at > file_size)) {
                BKP_LOG(fn, "fail to skip ");
                return false;
            }
            continue;
        }
        if (!copy_body(fn, in, scratch, size)) {
            gimp_status &= ~id;
            return false;
        }
        if (grgSysRoutine[index].pfImport(scratch, version, apply) < 0) {
            BKP_LOG(fn, "Failed to restore %s\n", grgSysRoutine[index].szDesc);
            gimp_status &= ~id;
            restored = false;
        }
    }
    return restored;
}

// The scratch copy of the section bodies has a fixed name in a directory
// every user may write to.  Whatever stands there (a link, a FIFO, another
// user's file that they keep open) is removed, and the file is created
// anew, private and exclusively, never through a link.  The descriptor, or
// -1 with errno set.
int open_scratch()
{
    if (::unlink(kScratch) != 0 && errno != ENOENT)
        return -1;
    return ::open(kScratch, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
}

// Removes the scratch name when it still names the open scratch file.
bool remove_scratch(int scratch)
{
    struct stat held, named;
    if (::fstat(scratch, &held) != 0 || ::lstat(kScratch, &named) != 0 ||
        held.st_dev != named.st_dev || held.st_ino != named.st_ino)
        return false;
    return ::unlink(kScratch) == 0;
}

int import_file(const char *fn, const char *path, uint32_t mask, int apply)
{
    Fd in(::open(path, O_RDONLY | O_CLOEXEC));
    if (in.get() < 0) {
        BKP_LOG(fn, "fail to open import file [%s], errno = %d ", path, errno);
        return -1;
    }
    Fd scratch(open_scratch());
    if (scratch.get() < 0) {
        BKP_LOG(fn, "fail to open handle file [%s], errno = %d ", kScratch, errno);
        return -1;
    }
    // The services stay stopped for the whole import.  Should stopping
    // fail halfway, they are started again before giving up.
    if (ErrNetServiceStop() < 0) {
        BKP_LOG(fn, "failed to stop net service");
        in.close();
        remove_scratch(scratch.get());
        scratch.close();
        if (ErrNetServiceStart() < 0)
            BKP_LOG(fn, "failed to start net service");
        return -1;
    }
    bool ok = import_sections(fn, in.get(), scratch.get(), mask, apply);
    // The finishing section writes no bytes, so it never appears in a file:
    // its importer (which frees the user map) runs here, after the loop,
    // whenever its bit is asked for, also after a malformed file.
    if ((mask & kFinishId) != 0)
        KEMOSysbkpFinishImport(scratch.get(), kVersion, apply);
    in.close();
    if (!remove_scratch(scratch.get()))
        kemo::log("unlink %s failed", kScratch);
    scratch.close();
    if (ErrNetServiceStart() < 0) {
        BKP_LOG(fn, "failed to start net service");
        ok = false;
    }
    if (!ok)
        return -1;
    KEMOLogSet1(1, 1, apply ? kImportAppliedEvent : kImportCheckedEvent, "", "", "", "");
    return 0;
}

// The temporary buffer of a raw block after checking the arguments: count
// a multiple of 4, a buffer unless count is 0.  false (logged) otherwise.
bool raw_block(const char *fn, const void *buffer, int count, std::vector<unsigned char> &words)
{
    if (count < 0 || count % 4 != 0) {
        ::syslog(LOG_ERR, "%s:%d(%s) bytes error:[%d]", __FILE__, __LINE__, fn, count);
        return false;
    }
    if (buffer == nullptr && count > 0) {
        ::syslog(LOG_ERR, "%s:%d(%s) parameter error", __FILE__, __LINE__, fn);
        return false;
    }
    try {
        words.resize(static_cast<std::size_t>(count));
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        ::syslog(LOG_ERR, "%s:%d(%s) malloc:[%d(%m)]", __FILE__, __LINE__, fn, count);
        return false;
    }
    return true;
}

} // namespace

namespace kemo::sysbackup {

// The interface section has no registry entry, so its
// header is written here with the common version instead of through
// KEMOSysbkpIWriteHeader.
// The section proper; the caller reports a failure.
int write_section_body(const char *fn, int fd, uint32_t id, const std::function<bool()> &body)
{
    const bool headed = id == kInterfaceId ? write_header_words(fn, fd, id, kVersion)
                                           : KEMOSysbkpIWriteHeader(fd, id) == 0;
    if (!headed) {
        BKP_LOG(fn, "fail to write header");
        return -1;
    }
    const off_t begin = ::lseek(fd, 0, SEEK_CUR);
    if (begin < 0) {
        BKP_LOG(fn, "fail to get current location, errno =%d", errno);
        return -1;
    }
    if (!body())
        return -1;
    const off_t end = ::lseek(fd, 0, SEEK_CUR);
    if (end < 0) {
        BKP_LOG(fn, "fail to get current location, errno =%d", errno);
        return -1;
    }
    if (KEMOSysbkpIWriteBlkSize(fd, begin, end) < 0) {
        BKP_LOG(fn, "fail to write block size");
        return -1;
    }
    return 0;
}

int write_section(const char *fn, int fd, uint32_t id, const std::function<bool()> &body,
                  uint32_t failed_event)
{
    const int result = write_section_body(fn, fd, id, body);
    if (result < 0 && failed_event != 0)
        report(failed_event);
    return result;
}

// One string value read into text.
bool read_text(int fd, std::string &text)
{
    char *raw = nullptr;
    if (KEMOSysbkpIReadString(fd, &raw) < 0)
        return false;
    const std::unique_ptr<char, decltype(&std::free)> owned(raw, &std::free);
    text = raw;
    return true;
}

void report(uint32_t event, const char *arg1)
{
    KEMOLogSet1(KEMO_LOG_SYSTEM, KEMO_EVENT_ERROR, event, arg1, "", "", "");
}

} // namespace kemo::sysbackup

extern "C" {

// Exporter, importer, description key, id, version; in file order.
// (Exported through its declaration in the header.)
const KEMOSYSBKPROUTINE grgSysRoutine[] = {
    {KEMOSysbkpTimeExport, KEMOSysbkpTimeImport, "time_desc", 0x1, 1},
    {KEMOSysbkpHostnameExport, KEMOSysbkpHostnameImport, "hostname_desc", 0x2, 1},
    {KEMOSysbkpLangExport, KEMOSysbkpLangImport, "language_desc", 0x8, 1},
    {KEMOSysbkpMailExport, KEMOSysbkpMailImport, "mail_desc", 0x10, 1},
    {KEMOSysbkpAppleExport, KEMOSysbkpAppleImport, "apple_desc", 0x40, 1},
    {KEMOSysbkpWindowsExport, KEMOSysbkpWindowsImport, "windows_desc", 0x80, 1},
    {KEMOSysbkpUserExport, KEMOSysbkpUserImport, "user_desc", 0x100, 1},
    {KEMOSysbkpGroupExport, KEMOSysbkpGroupImport, "group_desc", 0x200, 1},
    {KEMOSysbkpShareExport, KEMOSysbkpShareImport, "share_desc", 0x20, 1},
    {KEMOSysbkpHDSleepTimeExport, KEMOSysbkpHDSleepTimeImport, "hddsleep_desc", 0x400, 1},
    {KEMOSysbkpRunFtpdExport, KEMOSysbkpRunFtpdImport, "runftpd_desc", 0x800, 1},
    {KEMOSysbkpUSBBkpScheduleExport, KEMOSysbkpUSBBkpScheduleImport, "usb_bkp_schedule_desc",
     0x1000, 1},
    {KEMOSysbkpPPPoEExport, KEMOSysbkpPPPoEImport, "pppoe_desc", 0x2000, 1},
    {KEMOSysbkpUSBBkpShareListExport, KEMOSysbkpUSBBkpShareListImport, "usb_bkp_sharelist_desc",
     0x4000, 1},
    {KEMOSysbkpPhotoExport, KEMOSysbkpPhotoImport, "runphoto_desc", 0x8000, 1},
    {KEMOSysbkpHttpPortExport, KEMOSysbkpHttpPortImport, "httpport_desc", 0x100000, 1},
    {KEMOSysbkpMTUExport, KEMOSysbkpMTUImport, "MTU_desc", 0x20000, 1},
    {KEMOSysbkpRCPowerExport, KEMOSysbkpRCPowerImport, "rcpower_desc", 0x40000, 1},
    {KEMOSysbkpUSBCopySetExport, KEMOSysbkpUSBCopySetImport, "usbcopyset_desc", 0x80000, 1},
    {KEMOSysbkpWebExport, KEMOSysbkpWebImport, "runweb_desc", 0x10000, 1},
    {KEMOSysbkpDCacheExport, KEMOSysbkpDCacheImport, "dcache_desc", 0x200000, 1},
    {KEMOSysbkpGrabdockExport, KEMOSysbkpGrabdockImport, "grabdock_desc", 0x400000, 1},
    {KEMOSysbkpMySQLExport, KEMOSysbkpMySQLImport, "runmysql_desc", 0x800000, 1},
    {KEMOSysbkpUserQuotaExport, KEMOSysbkpUserQuotaImport, "user_quota_desc", 0x1000000, 1},
    {KEMOSysbkpFinishExport, KEMOSysbkpFinishImport, "", kFinishId, 1},
    {nullptr, nullptr, nullptr, 0, 0},
};

KEMO_API uint32_t gimp_status = 0;
KEMO_API PKLIBSZHASH gpshUser = nullptr;

KEMO_API int KEMOSysbkpExport(const char *path, uint32_t mask, unsigned int mode)
{
    const char *const fn = __func__;
    if (path == nullptr) {
        BKP_LOG(fn, "parameter error");
        return -1;
    }
    return kemo::edge(-1, [&] { return export_file(fn, path, mask, mode); });
}

KEMO_API int KEMOSysbkpImport(const char *path, uint32_t mask, int apply)
{
    const char *const fn = __func__;
    if (path == nullptr) {
        BKP_LOG(fn, "parameter error");
        return -1;
    }
    gimp_status = KEMO_SYSBKP_ALL;
    return kemo::edge(-1, [&] { return import_file(fn, path, mask, apply); });
}

KEMO_API int KEMOSysbkpIGetIdx(uint32_t id)
{
    const int index = index_of(id);
    if (index < 0)
        ::syslog(LOG_ERR, "%s: unknown id [%ld]", __func__, static_cast<long>(id));
    return index;
}

KEMO_API int KEMOSysbkpIWriteHeader(int fd, uint32_t id)
{
    const char *const fn = __func__;
    if (!write_u32(fd, id)) {
        BKP_LOG(fn, "write id fail, errno = %d", errno);
        return -1;
    }
    const int index = KEMOSysbkpIGetIdx(id);
    if (index < 0) {
        BKP_LOG(fn, "fail to get id");
        return -1;
    }
    if (!write_u32(fd, grgSysRoutine[index].version)) {
        BKP_LOG(fn, "write ver fail, errno = %d", errno);
        return -1;
    }
    if (!write_u32(fd, 0)) {
        BKP_LOG(fn, "write fake size fail, errno = %d", errno);
        return -1;
    }
    return 0;
}

KEMO_API int KEMOSysbkpIWriteBlkSize(int fd, int64_t offBegin, int64_t offEnd)
{
    const char *const fn = __func__;
    if (offBegin < 4 || offEnd < offBegin || offEnd - offBegin > UINT32_MAX) {
        BKP_LOG(fn, "parameter error");
        return -1;
    }
    if (::lseek(fd, static_cast<off_t>(offBegin - 4), SEEK_SET) < 0) {
        BKP_LOG(fn, "fail to seek to offBegin - sizeof(long), errno =%d", errno);
        return -1;
    }
    if (!write_u32(fd, static_cast<uint32_t>(offEnd - offBegin))) {
        BKP_LOG(fn, "write len fail, errno = %d", errno);
        return -1;
    }
    if (::lseek(fd, static_cast<off_t>(offEnd), SEEK_SET) < 0) {
        BKP_LOG(fn, "fail to seek to offEnd, errno =%d", errno);
        return -1;
    }
    return 0;
}

KEMO_API int KEMOSysbkpIWriteString(int fd, const char *text)
{
    const char *const fn = __func__;
    if (text == nullptr) {
        BKP_LOG(fn, "parameter error");
        return -1;
    }
    return kemo::edge(-1, [&] {
        const std::size_t length = std::strlen(text) + 1;
        if (length > INT32_MAX) {
            BKP_LOG(fn, "string too long (%zu)", length);
            return -1;
        }
        // One write for the whole value.
        std::string value(8, '\0');
        put_u32(reinterpret_cast<unsigned char *>(value.data()), kTypeString);
        put_u32(reinterpret_cast<unsigned char *>(value.data()) + 4, static_cast<uint32_t>(length));
        value.append(text, length);
        if (!write_all(fd, value.data(), value.size())) {
            BKP_LOG(fn, "write string fail, errno = %d", errno);
            return -1;
        }
        return 0;
    });
}

KEMO_API int KEMOSysbkpIReadString(int fd, char **text)
{
    const char *const fn = __func__;
    if (text == nullptr) {
        BKP_LOG(fn, "parameter error");
        return -1;
    }
    *text = nullptr;
    return kemo::edge(-1, [&] {
        unsigned char head[8];
        if (read_full(fd, head, sizeof head) != static_cast<ssize_t>(sizeof head)) {
            BKP_LOG(fn, "fail to read string header, errno = %d", errno);
            return -1;
        }
        const uint32_t type = get_u32(head);
        const auto length = static_cast<int32_t>(get_u32(head + 4));
        if (type != kTypeString || length <= 0) {
            BKP_LOG(fn, "invalid type(%ld, %ld)", static_cast<long>(type),
                    static_cast<long>(length));
            return -1;
        }
        // Never allocate more than the value can hold: a length beyond the
        // rest of the body is refused, and from a descriptor without a known
        // end the text grows only as bytes arrive.
        const std::optional<long long> left = remaining(fd);
        if (left && length > *left) {
            BKP_LOG(fn, "string length %ld beyond the body (%lld left)", static_cast<long>(length),
                    *left);
            return -1;
        }
        std::string value;
        constexpr std::size_t kChunk = 64 * 1024;
        while (value.size() < static_cast<std::size_t>(length)) {
            const std::size_t want =
                std::min(kChunk, static_cast<std::size_t>(length) - value.size());
            const std::size_t at = value.size();
            value.resize(at + want);
            if (read_full(fd, value.data() + at, want) != static_cast<ssize_t>(want)) {
                BKP_LOG(fn, "fail to read string, errno = %d", errno);
                return -1;
            }
        }
        // The text ends at its one NUL, the value's last byte.
        if (std::strlen(value.c_str()) + 1 != value.size()) {
            BKP_LOG(fn, "string not terminated");
            return -1;
        }
        char *copy = static_cast<char *>(std::malloc(value.size()));
        if (copy == nullptr) {
            BKP_LOG(fn, "malloc fail");
            return -1;
        }
        std::memcpy(copy, value.data(), value.size());
        *text = copy;
        return 0;
    });
}

KEMO_API int KEMOSysbkpIWriteLong(int fd, int32_t value)
{
    unsigned char word[12];
    put_u32(word, kTypeLong);
    put_u32(word + 4, 4);
    put_u32(word + 8, static_cast<uint32_t>(value));
    if (!write_all(fd, word, sizeof word)) {
        BKP_LOG(__func__, "write long fail, errno = %d", errno);
        return -1;
    }
    return 0;
}

KEMO_API int KEMOSysbkpIReadLong(int fd, int32_t *value)
{
    const char *const fn = __func__;
    if (value == nullptr) {
        BKP_LOG(fn, "parameter error");
        return -1;
    }
    unsigned char word[12];
    if (read_full(fd, word, sizeof word) != static_cast<ssize_t>(sizeof word)) {
        BKP_LOG(fn, "fail to read long, errno = %d", errno);
        return -1;
    }
    const uint32_t type = get_u32(word), length = get_u32(word + 4);
    if (type != kTypeLong || length != 4) {
        BKP_LOG(fn, "invalid type(%ld, %ld)", static_cast<long>(type), static_cast<long>(length));
        return -1;
    }
    *value = static_cast<int32_t>(get_u32(word + 8));
    return 0;
}

// Raw blocks hold words in the host's order; in the file each word is
// big-endian, so a block written on this (little-endian) host reads back
// the same on every host.
KEMO_API int KEMOSysbkpRawIntWrite(int fd, const void *buffer, int count)
{
    const char *const fn = __func__;
    std::vector<unsigned char> words;
    if (!raw_block(fn, buffer, count, words))
        return -1;
    const auto *in = static_cast<const unsigned char *>(buffer);
    for (int i = 0; i < count; i += 4) {
        uint32_t word;
        std::memcpy(&word, in + i, 4);
        put_u32(words.data() + i, word);
    }
    if (!write_all(fd, words.data(), words.size())) {
        ::syslog(LOG_ERR, "%s:%d(%s) write:[%d(%m)]", __FILE__, __LINE__, fn, errno);
        return -1;
    }
    return 0;
}

KEMO_API int KEMOSysbkpRawIntRead(int fd, void *buffer, int count)
{
    const char *const fn = __func__;
    std::vector<unsigned char> words;
    if (!raw_block(fn, buffer, count, words))
        return -1;
    const ssize_t got = read_full(fd, words.data(), words.size());
    if (got == 0)
        return 0; // the end of the file
    if (got != count) {
        ::syslog(LOG_ERR, "%s:%d(%s) read(%d/%d):[%d(%m)]", __FILE__, __LINE__, fn,
                 static_cast<int>(got), count, errno);
        return -1;
    }
    auto *out = static_cast<unsigned char *>(buffer);
    for (int i = 0; i < count; i += 4) {
        const uint32_t word = get_u32(words.data() + i);
        std::memcpy(out + i, &word, 4);
    }
    return count;
}

// ------------------------------------------------------------ model sections

KEMO_API int KEMOSysbkpHostnameExport(int fd)
{
    const char *const fn = __func__;
    return kemo::edge(-1, [&] {
        char name[256];
        if (KEMOLnxGetHostname(name, sizeof name) < 0) {
            BKP_LOG(fn, "KEMOLnxGetHostname failed.(%X)", KLIBErrGet());
            report(kHostnameExportEvent);
            return -1;
        }
        return write_section(fn, fd, kHostnameId, [&] {
            if (KEMOSysbkpIWriteString(fd, name) < 0) {
                BKP_LOG(fn, "fail to write hostname");
                return false;
            }
            return true;
        }, kHostnameExportEvent);
    });
}

KEMO_API int KEMOSysbkpHostnameImport(int fd, uint32_t version, int apply)
{
    const char *const fn = __func__;
    return kemo::edge(-1, [&] {
        const auto body = [&] {
            std::string name;
            if (version != kVersion) {
                BKP_LOG(fn, "unsupported version %u", version);
                return false;
            }
            if (!read_text(fd, name)) {
                BKP_LOG(fn, "fail to read hostname");
                return false;
            }
            if (!BlKLIBIsHostname(name.c_str())) {
                BKP_LOG(fn, "invalid host name [%s]", name.c_str());
                return false;
            }
            if (!apply)
                return true;
            char current[256];
            if (KEMOLnxGetHostname(current, sizeof current) < 0) {
                BKP_LOG(fn, "KEMOLnxGetHostname failed.(%X)", KLIBErrGet());
                return false;
            }
            if (name == current)
                return true;
            const int result = KEMOLnxSetHostname(name.c_str());
            if (result < 0) {
                BKP_LOG(fn, "call KEMOLnxSetHostname and fail and return %d, errno=0x%04X\n",
                        result, KLIBErrGet());
                return false;
            }
            return true;
        };
        if (body())
            return 0;
        report(kHostnameImportEvent);
        return -1;
    });
}

KEMO_API int KEMOSysbkpWebExport(int fd)
{
    const char *const fn = __func__;
    return kemo::edge(-1, [&] {
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
            if (KEMOSysbkpIWriteLong(fd, on) < 0) {
                BKP_LOG(fn, "fail to write runweb");
                return false;
            }
            return true;
        }, kWebExportEvent);
    });
}

KEMO_API int KEMOSysbkpWebImport(int fd, uint32_t version, int apply)
{
    const char *const fn = __func__;
    return kemo::edge(-1, [&] {
        if (!supported("supportweb"))
            return 0;
        int32_t on = 0;
        bool ok = true;
        if (version != kVersion) {
            BKP_LOG(fn, "unsupported version %u", version);
            ok = false;
        } else if (KEMOSysbkpIReadLong(fd, &on) < 0) {
            BKP_LOG(fn, "fail to read runweb");
            ok = false;
        } else if (apply && KEMOWebService(on != 0 ? 1 : 0) < 0) {
            BKP_LOG(fn, "KEMOWebService(%d) failed (%X)", on != 0 ? 1 : 0, KLIBErrGet());
            ok = false;
        }
        if (ok)
            return 0;
        report(kWebImportEvent);
        return -1;
    });
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
KEMO_SETTINGS_SECTION(UserQuota, kUserQuota)

#undef KEMO_SETTINGS_SECTION

// ------------------------------------------------------------ finishing entry

KEMO_API int KEMOSysbkpFinishExport(int)
{
    return 0;
}

KEMO_API int KEMOSysbkpFinishImport(int, uint32_t, int)
{
    KLIBSzHashFree(gpshUser);
    gpshUser = nullptr;
    return 0;
}

} // extern "C"
