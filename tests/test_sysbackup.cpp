// Configuration backup: the file byte for byte, the driver's choices of
// sections, restoring into a fresh appliance, damaged files, hostile
// backups and planted file names, and the host name and service switches
// the sections rely on.
#include "kemo.h"
#include "as_nobody.hpp"
#include "sandbox_fixture.hpp"
#include "syslog_capture.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <utility>
#include <vector>

using ::testing::Contains;
using ::testing::ContainsRegex;
using ::testing::ElementsAreArray;

namespace {

constexpr char kFile[] = "/tmp/backup.kemo";
constexpr char kSettings[] = "/etc/kemoinfo.conf";
constexpr char kDefaults[] = "/etc.defaults/kemoinfo.conf";

// The file's encoding, written out independently of the library.
std::string u32(uint32_t v)
{
    return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
            static_cast<char>(v)};
}
std::string text_value(const std::string &s) { return u32(1) + u32(s.size() + 1) + s + '\0'; }
std::string long_value(int32_t v) { return u32(2) + u32(4) + u32(static_cast<uint32_t>(v)); }
std::string file_header(uint32_t mask) { return "KEMO" + u32(1) + u32(mask); }
std::string section(uint32_t id, const std::string &body)
{
    return u32(id) + u32(1) + u32(body.size()) + body;
}
using Pairs = std::vector<std::pair<std::string, std::string>>;
std::string pairs_body(const Pairs &pairs)
{
    std::string body = long_value(static_cast<int32_t>(pairs.size()));
    for (const auto &[k, v] : pairs)
        body += text_value(k) + text_value(v);
    return body;
}

// Share sections: count, then per share its name, line count and pairs.
struct ShareDef {
    std::string name;
    Pairs lines;
};
std::string shares_body(const std::vector<ShareDef> &shares)
{
    std::string body = long_value(static_cast<int32_t>(shares.size()));
    for (const ShareDef &s : shares)
        body += text_value(s.name) + pairs_body(s.lines);
    return body;
}
// Group sections: count, then per group its name, description, member
// count and members.
struct GroupDef {
    std::string name, desc;
    std::vector<std::string> members;
};
std::string groups_body(const std::vector<GroupDef> &groups)
{
    std::string body = long_value(static_cast<int32_t>(groups.size()));
    for (const GroupDef &g : groups) {
        body += text_value(g.name) + text_value(g.desc) +
                long_value(static_cast<int32_t>(g.members.size()));
        for (const std::string &m : g.members)
            body += text_value(m);
    }
    return body;
}

struct Span {
    uint32_t id;
    std::size_t begin, end; // the whole section, header included
};
// The sections of a well-formed file.
std::vector<Span> sections_of(const std::string &bytes)
{
    const auto word = [&](std::size_t at) {
        const auto *p = reinterpret_cast<const unsigned char *>(bytes.data() + at);
        return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
    };
    std::vector<Span> out;
    for (std::size_t at = 12; at + 12 <= bytes.size();) {
        const std::size_t end = at + 12 + word(at + 8);
        out.push_back({word(at), at, end});
        at = end;
    }
    return out;
}
std::vector<uint32_t> ids_of(const std::string &bytes)
{
    std::vector<uint32_t> ids;
    for (const Span &s : sections_of(bytes))
        ids.push_back(s.id);
    return ids;
}

std::string setting(const char *key, const char *path = kSettings)
{
    char buf[2048] = "";
    return KLIBFileGetKeyValue(path, key, buf, sizeof buf, 0) > 0 ? buf : "";
}
void set(const char *key, const std::string &value, const char *path = kSettings)
{
    ASSERT_EQ(KLIBFileSetKeyValue(path, key, value.c_str(), "%s=\"%s\"\n"), 1) << key;
}

class BackupTest : public SandboxTest {
protected:
    std::string exported(uint32_t mask)
    {
        EXPECT_EQ(KEMOSysbkpExport(kFile, mask, 0600), 0);
        return read_file(kFile);
    }
    int import(const std::string &bytes, uint32_t mask, int apply)
    {
        write_file(kFile, bytes, 0600);
        return KEMOSysbkpImport(kFile, mask, apply);
    }
    // Throws this appliance away for a factory one.
    void fresh_appliance()
    {
        std::string why;
        ASSERT_TRUE(kemo::sandbox::fresh(&why)) << why;
    }
};

// ------------------------------------------------------------ export

TEST_F(BackupTest, ModelSectionsAreWrittenByteForByte)
{
    EXPECT_EQ(exported(0x2), file_header(0x2) + section(0x2, text_value("kemonas")));
    EXPECT_EQ(exported(0x10000), file_header(0x10000) + section(0x10000, long_value(1)));
    set("runweb", "no");
    EXPECT_EQ(exported(0x10000), file_header(0x10000) + section(0x10000, long_value(0)));
    // Without web support the section is not written at all.
    set("supportweb", "no", kDefaults);
    EXPECT_EQ(exported(0x10000), file_header(0x10000));
    // The finishing entry writes nothing.
    EXPECT_EQ(exported(0x2000000), file_header(0x2000000));
    EXPECT_EQ(mode_of(kFile), 0600u);
}

TEST_F(BackupTest, SettingsSectionCarriesTheKeysThatAreSet)
{
    EXPECT_EQ(exported(0x800000),
              file_header(0x800000) +
                  section(0x800000, pairs_body({{"runmysql", "no"}, {"mysql_port", "3306"}})));
    // An empty value is carried as such; a missing key is left out.
    set("gateway", "");
    ASSERT_EQ(KLIBFileRemoveKey(kSettings, "dns2"), 1);
    const int fd = ::open(kFile, O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(KEMOSysbkpInterfaceExport(fd), 0);
    ::close(fd);
    EXPECT_EQ(read_file(kFile), section(0x4, pairs_body({{"dhcp", "yes"},
                                                         {"ipaddr", "192.168.1.100"},
                                                         {"netmask", "255.255.255.0"},
                                                         {"gateway", ""},
                                                         {"dns", ""}})));
}

TEST_F(BackupTest, AllMaskExportsEveryEntryInRegistryOrder)
{
    set("supportrcpower", "yes", kDefaults);
    set("supportdcacheui", "yes", kDefaults);
    const std::string bytes = exported(KEMO_SYSBKP_ALL);
    EXPECT_EQ(bytes.substr(0, 12), file_header(KEMO_SYSBKP_ALL));
    const uint32_t order[] = {0x1,     0x2,     0x8,      0x10,     0x40,     0x80,
                              0x100,   0x200,   0x20,     0x400,    0x800,    0x1000,
                              0x2000,  0x4000,  0x8000,   0x100000, 0x20000,  0x40000,
                              0x80000, 0x10000, 0x200000, 0x400000, 0x800000, 0x1000000};
    EXPECT_THAT(ids_of(bytes), ElementsAreArray(order));
    // Any other mask tests bits: the database bit alone selects only it,
    // and the sections that are not supported here drop out.
    EXPECT_THAT(ids_of(exported(0x800000 | 0x1)), ElementsAreArray({0x1u, 0x800000u}));
    set("supportmysql", "no", kDefaults);
    EXPECT_THAT(ids_of(exported(0x800000 | 0x1)), ElementsAreArray({0x1u}));
}

TEST_F(BackupTest, FailedExportRemovesTheFile)
{
    ASSERT_EQ(KEMOSysbkpExport("/tmp/nodir/backup", 0x2, 0600), -1);
    // A section that cannot be read: the partial file is removed.
    ASSERT_EQ(::unlink(kSettings), 0);
    EXPECT_EQ(KEMOSysbkpExport(kFile, 0x1, 0600), -1);
    EXPECT_FALSE(exists(kFile));
    EXPECT_EQ(KEMOSysbkpExport(nullptr, 0x1, 0600), -1);
}

// ------------------------------------------------------------ import

TEST_F(BackupTest, HeaderOnlyFileRestoresNothing)
{
    const std::string before = read_file(kSettings);
    EXPECT_EQ(import(file_header(KEMO_SYSBKP_ALL), KEMO_SYSBKP_ALL, 1), 0);
    EXPECT_EQ(gimp_status, KEMO_SYSBKP_ALL);
    EXPECT_EQ(read_file(kSettings), before);
    EXPECT_FALSE(exists("/tmp/importprocess"));
    // The services were stopped and started again.
    EXPECT_EQ(read_file("/var/run/netservice.state"), "started\n");
}

TEST_F(BackupTest, MalformedFilesAreRefused)
{
    EXPECT_EQ(KEMOSysbkpImport("/tmp/missing", KEMO_SYSBKP_ALL, 0), -1);
    EXPECT_EQ(import("KEM", KEMO_SYSBKP_ALL, 0), -1);
    EXPECT_EQ(import("KEMA" + u32(1) + u32(0), KEMO_SYSBKP_ALL, 0), -1);
    EXPECT_EQ(import("KEMO" + u32(2) + u32(0), KEMO_SYSBKP_ALL, 0), -1);
    EXPECT_EQ(import("KEMO" + u32(1), KEMO_SYSBKP_ALL, 0), -1);
    // A skipped section whose body runs past the end is a cut file.
    EXPECT_EQ(import(file_header(0x1) + u32(0x1) + u32(1) + u32(100), 0x2, 0), -1);
    // Services are running again after every refusal.
    EXPECT_EQ(read_file("/var/run/netservice.state"), "started\n");
}

TEST_F(BackupTest, UnknownSectionStopsTheImport)
{
    const std::string bytes = file_header(0xB) +
                              section(0x1, pairs_body({{"timezone", "Asia/Tokyo"}})) +
                              section(0x4, pairs_body({{"dhcp", "no"}})) +
                              section(0x8, pairs_body({{"language", "deu"}}));
    SyslogCapture log;
    EXPECT_EQ(import(bytes, KEMO_SYSBKP_ALL, 1), -1);
    EXPECT_THAT(log.texts(),
                Contains(ContainsRegex("^KEMOSysbkpImport\\([0-9]+\\): unknown command \\[4\\]")));
    EXPECT_EQ(setting("timezone"), "Asia/Tokyo");
    EXPECT_EQ(setting("dhcp"), "yes");
    EXPECT_EQ(setting("language"), "enu");
}

TEST_F(BackupTest, FailedSectionClearsOnlyItsBit)
{
    const std::string bytes = file_header(0x19) +
                              section(0x1, pairs_body({{"timezone", "Asia/Tokyo"}})) +
                              section(0x8, pairs_body({{"language", "deu"}})) +
                              section(0x10, pairs_body({{"smtp_server", "mx.example.org"},
                                                        {"smtp_port", "twenty-five"}}));
    SyslogCapture log;
    EXPECT_EQ(import(bytes, KEMO_SYSBKP_ALL, 1), -1);
    EXPECT_THAT(log.texts(), Contains(ContainsRegex(
                                 "^KEMOSysbkpImport\\([0-9]+\\): Failed to restore mail_desc")));
    EXPECT_EQ(gimp_status, KEMO_SYSBKP_ALL & ~0x10u);
    EXPECT_EQ(setting("timezone"), "Asia/Tokyo");
    EXPECT_EQ(setting("language"), "deu");
    // The mail section was refused whole, its sound pair included.
    EXPECT_EQ(setting("smtp_server"), "");
    EXPECT_EQ(setting("smtp_port"), "25");
}

TEST_F(BackupTest, ImportTestsBitsEvenForTheAllMask)
{
    const std::string bytes =
        file_header(0x800000) + section(0x800000, pairs_body({{"runmysql", "yes"}}));
    EXPECT_EQ(import(bytes, KEMO_SYSBKP_ALL, 1), 0);
    EXPECT_EQ(setting("runmysql"), "no");
    EXPECT_EQ(import(bytes, 0x800000, 1), 0);
    EXPECT_EQ(setting("runmysql"), "yes");
}

TEST_F(BackupTest, BodiesAroundOneBlockAreCopiedWhole)
{
    // count (12) + key (8 + 9) + value (8 + length + 1) = 38 + length
    for (const std::size_t body_size : {1023u, 1024u, 1025u, 2048u, 2049u}) {
        const std::string zone(body_size - 38, 'z');
        const std::string body = pairs_body({{"timezone", zone}});
        ASSERT_EQ(body.size(), body_size);
        EXPECT_EQ(import(file_header(0x1) + section(0x1, body) +
                             section(0x8, pairs_body({{"language", "fra"}})),
                         0x9, 1),
                  0);
        EXPECT_EQ(setting("timezone"), zone) << body_size;
        EXPECT_EQ(setting("language"), "fra");
        set("language", "enu");
    }
}

TEST_F(BackupTest, ImporterNeverReadsAnEarlierSectionsBytes)
{
    // The language body claims two pairs but holds one; the bytes of the
    // second pair exist only in the longer time section before it.
    const Pairs time_pairs = {{"timezone", "Asia/Tokyo"}, {"language", "deu"}};
    std::string short_body = pairs_body(time_pairs);
    short_body.resize(short_body.size() - text_value("language").size() - text_value("deu").size());
    const std::string bytes = file_header(0x9) + section(0x1, pairs_body(time_pairs)) +
                              section(0x8, short_body);
    EXPECT_EQ(import(bytes, 0x9, 1), -1);
    EXPECT_EQ(gimp_status, KEMO_SYSBKP_ALL & ~0x8u);
    EXPECT_EQ(setting("language"), "enu");
}

TEST_F(BackupTest, TypedValuesAreCheckedBeforeUse)
{
    const auto time_section = [](const std::string &body) {
        return file_header(0x1) + section(0x1, body);
    };
    const std::string count = long_value(1);
    const std::string key = text_value("timezone");
    // A wrong type, a length past the body, a negative length, a text
    // without its NUL, a negative count: each refused.
    EXPECT_EQ(import(time_section(count + u32(2) + u32(9) + "timezone"), 0x1, 1), -1);
    EXPECT_EQ(import(time_section(count + u32(1) + u32(1000) + "timezone"), 0x1, 1), -1);
    EXPECT_EQ(import(time_section(count + u32(1) + u32(0xFFFFFFF0) + "timezone"), 0x1, 1), -1);
    EXPECT_EQ(import(time_section(count + key + u32(1) + u32(3) + "UTC"), 0x1, 1), -1);
    EXPECT_EQ(import(time_section(long_value(-1)), 0x1, 1), -1);
    EXPECT_EQ(import(time_section(u32(2) + u32(8) + u32(1) + u32(0)), 0x1, 1), -1);
    // A value with a line end would add a line to the settings file.
    EXPECT_EQ(import(time_section(pairs_body({{"timezone", "UTC\nhostname=evil"}})), 0x1, 1), -1);
    EXPECT_EQ(import(time_section(pairs_body({{"timezone", "UTC\rhostname=evil"}})), 0x1, 1), -1);
    EXPECT_EQ(setting("timezone"), "Greenwich");
    // Keys of other sections are skipped; the empty text is one NUL.
    EXPECT_EQ(import(time_section(pairs_body({{"hostname", "evil"}, {"ntpdate_server", ""}})),
                     0x1, 1),
              0);
    EXPECT_EQ(setting("hostname"), "kemonas");
    EXPECT_THAT(lines_of(kSettings), Contains("ntpdate_server=\"\""));
    EXPECT_EQ(text_value(""), u32(1) + u32(1) + std::string(1, '\0'));
}

// ------------------------------------------------------------ round trips

// Values unlike the factory's, one or more per section.
const Pairs kChanged = {
    {"timezone", "Europe/Paris"},     {"run_ntpdate", "yes"},      {"language", "deu"},
    {"codepage", "1252"},             {"smtp_server", "mx.example.org"},
    {"mail_recipients", "a@example.org,b@example.org"},            {"runafpd", "yes"},
    {"apple_zone", "Office"},         {"workgroup", "OFFICE"},     {"wins_server", "10.0.0.2"},
    {"hddsleep_time", "30"},          {"runftpd", "yes"},          {"ftp_port", "2121"},
    {"usbbkp_schedule", "yes"},       {"runpppoe", "yes"},         {"pppoe_user", "dsl user"},
    {"usbbkp_sharelist", "public,photo"},                          {"runphoto", "yes"},
    {"httpport", "8080"},             {"mtu", "9000"},             {"usbcopy_share", "incoming"},
    {"rungrabdock", "yes"},           {"runmysql", "yes"},         {"userquota", "yes"},
};
constexpr uint32_t kSettingsSections = (KEMO_SYSBKP_ALL | 0x800000) & ~(0x100u | 0x200 | 0x20);

// A backup of every settings section after kChanged, a new host name and
// the web service off; the test goes on on a fresh factory appliance.
class SettingsBackupTest : public BackupTest {
protected:
    std::string changed_settings_backup()
    {
        for (const auto &[k, v] : kChanged)
            set(k.c_str(), v);
        EXPECT_EQ(KEMOLnxSetHostname("elsewhere"), 0);
        set("runweb", "no");
        std::string bytes = exported(kSettingsSections);
        fresh_appliance();
        return bytes;
    }
};

TEST_F(SettingsBackupTest, CheckOnlyImportChangesNothing)
{
    const std::string bytes = changed_settings_backup();
    const std::string files[] = {kSettings, "/usr/kemo/etc/smb.conf", "/etc/hostname"};
    std::vector<std::string> before;
    for (const std::string &f : files)
        before.push_back(read_file(f));
    EXPECT_EQ(import(bytes, kSettingsSections, 0), 0);
    EXPECT_EQ(gimp_status, KEMO_SYSBKP_ALL);
    for (std::size_t i = 0; i < std::size(files); ++i)
        EXPECT_EQ(read_file(files[i]), before[i]) << files[i];
}

TEST_F(SettingsBackupTest, ApplyRestoresEverySectionOnAFactoryAppliance)
{
    const std::string bytes = changed_settings_backup();
    ASSERT_EQ(setting("timezone"), "Greenwich");
    EXPECT_EQ(import(bytes, kSettingsSections, 1), 0);
    EXPECT_EQ(gimp_status, KEMO_SYSBKP_ALL);
    for (const auto &[k, v] : kChanged)
        EXPECT_EQ(setting(k.c_str()), v) << k;
    char name[64] = "";
    ASSERT_EQ(KEMOLnxGetHostname(name, sizeof name), 0);
    EXPECT_STREQ(name, "elsewhere");
    EXPECT_EQ(read_file("/etc/hostname"), "elsewhere\n");
    EXPECT_EQ(setting("runweb"), "no");
    EXPECT_EQ(read_file("/var/run/web.state"), "stopped\n");
    // The file-sharing configuration names the same workgroup.
    const auto smb = lines_of("/usr/kemo/etc/smb.conf");
    EXPECT_EQ(std::count(smb.begin(), smb.end(), "\tworkgroup=OFFICE"), 1);
    EXPECT_EQ(std::count(smb.begin(), smb.end(), "\tworkgroup=WORKGROUP"), 0);
    // Exporting again gives the same file.
    EXPECT_EQ(exported(kSettingsSections), bytes);
}

// ------------------------------------------------------------ damage

// A backup of a few sections with values unlike the factory's; damage
// anywhere in it leaves the sections before the damage restored.
class DamagedBackupTest : public BackupTest {
protected:
    static constexpr uint32_t kMask = 0x1 | 0x2 | 0x100000 | 0x10000 | 0x800000;

    void SetUp() override
    {
        BackupTest::SetUp();
        if (IsSkipped())
            return;
        factory_ = read_file(kSettings);
        set("timezone", "Europe/Paris");
        set("hostname", "elsewhere");
        set("httpport", "8080");
        set("runweb", "no");
        set("runmysql", "yes");
        bytes_ = exported(kMask);
        sections_ = sections_of(bytes_);
        ASSERT_EQ(sections_.size(), 5u);
    }

    // The exported value of one key of each section.
    static constexpr std::pair<const char *, const char *> kProbe[] = {
        {"timezone", "Europe/Paris"}, {"hostname", "elsewhere"}, {"httpport", "8080"},
        {"runweb", "no"},             {"runmysql", "yes"}};

    // Imports damaged bytes that match the backup before `intact`: with
    // apply 0 nothing changes; with apply 1 every section that ends by
    // then is restored.  The result of both, which must agree.
    int check(const std::string &damaged, std::size_t intact)
    {
        const int checked = import(damaged, kMask, 0);
        EXPECT_TRUE(checked == 0 || checked == -1);
        EXPECT_EQ(read_file(kSettings), factory_);
        const int applied = import(damaged, kMask, 1);
        EXPECT_EQ(applied, checked);
        for (std::size_t i = 0; i < sections_.size(); ++i)
            if (sections_[i].end <= intact) {
                EXPECT_EQ(setting(kProbe[i].first), kProbe[i].second) << "intact up to " << intact;
            }
        write_file(kSettings, factory_);
        return applied;
    }

    std::string factory_, bytes_;
    std::vector<Span> sections_;
};

TEST_F(DamagedBackupTest, CutAtEveryByte)
{
    write_file(kSettings, factory_);
    for (std::size_t cut = 0; cut < bytes_.size(); ++cut) {
        SCOPED_TRACE(cut);
        // Cut in a header: the sections before it are all there is (0);
        // cut in a body: the file is refused (-1), after the earlier ones.
        bool at_boundary = cut >= 12;
        for (const Span &s : sections_)
            if (cut >= s.begin + 12 && cut < s.end)
                at_boundary = false;
        EXPECT_EQ(check(bytes_.substr(0, cut), cut), at_boundary ? 0 : -1);
    }
}

TEST_F(DamagedBackupTest, RandomBytesOverAValidFile)
{
    write_file(kSettings, factory_);
    std::mt19937 random(20240601);
    for (int round = 0; round < 300; ++round) {
        std::string damaged = bytes_;
        std::size_t first = damaged.size();
        for (int n = 1 + static_cast<int>(random() % 4); n > 0; --n) {
            const std::size_t at = 12 + random() % (damaged.size() - 12);
            const auto value = static_cast<char>(random());
            if (damaged[at] != value)
                first = std::min(first, at);
            damaged[at] = value;
        }
        SCOPED_TRACE(round);
        check(damaged, first);
    }
}

// ------------------------------------------------------------ hostile backups

constexpr char kSmbConf[] = "/usr/kemo/etc/smb.conf";
// A share as the appliance writes it.
const Pairs kSafeShare = {{"comment", "Team"},           {"path", "/volume1/team"},
                          {"browseable", "yes"},         {"guest ok", "no"},
                          {"writeable", "no"},           {"invalid users", "nobody,nobody"},
                          {"write list", "nobody,@users,nobody"}, {"read list", "nobody,nobody"}};

TEST_F(BackupTest, RestoredShareKeepsOnlyTheKeysOfAShare)
{
    Pairs lines = kSafeShare;
    lines.insert(lines.begin() + 2, {"force user", "root"});
    lines.push_back({"root preexec", "/bin/sh -c 'id > /tmp/owned'"});
    lines.push_back({"valid users", "nobody,@users,nobody"});
    lines.push_back({"path", "/"}); // a second path: the first one counts
    const std::string before = read_file(kSmbConf);
    ASSERT_EQ(import(file_header(0x20) + section(0x20, shares_body({{"team", lines}})), 0x20, 1), 0);
    std::string expected = before + "[team]\n";
    for (const auto &[k, v] : kSafeShare)
        expected += "\t" + k + "=" + v + "\n";
    expected += "\tvalid users=nobody,@users,nobody\n";
    EXPECT_EQ(read_file(kSmbConf), expected);
}

TEST_F(BackupTest, ShareOutsideAVolumeOrUnderAReservedNameIsRefused)
{
    const std::string before = read_file(kSmbConf);
    const auto with_path = [](const char *path) {
        Pairs p = kSafeShare;
        p[1].second = path;
        return p;
    };
    // The appliance's root, served as root, with a command run on connect.
    Pairs attack = with_path("/");
    attack.push_back({"force user", "root"});
    attack.push_back({"root preexec", "/bin/sh -c 'id > /tmp/owned'"});
    std::vector<ShareDef> bad = {{"all", attack}};
    for (const char *path : {"/volume1/../etc", "/volume1/a/..", "/volume", "/volumes/a", "/volumeX",
                             "/volume1a", "volume1/a", "/tmp/volume1", "/volume1/%H", ""})
        bad.push_back({"x", with_path(path)});
    Pairs no_path = kSafeShare;
    no_path.erase(no_path.begin() + 1);
    bad.push_back({"x", no_path});
    for (const char *name : {"global", "Homes", "home", "PRINTERS", "usbshare1", "satashare", ""})
        bad.push_back({name, kSafeShare});
    for (const ShareDef &share : bad) {
        SCOPED_TRACE(share.name + " " + (share.lines.size() > 1 ? share.lines[1].second : ""));
        // Next to a sound share: the section is refused whole.
        const std::string body = shares_body({{"fine", kSafeShare}, share});
        EXPECT_EQ(import(file_header(0x20) + section(0x20, body), 0x20, 1), -1);
        EXPECT_EQ(gimp_status & 0x20, 0u);
        EXPECT_EQ(read_file(kSmbConf), before);
    }
    for (const char *path : {"/volume1", "/volume2/", "/volume4/a/b c/d..e"}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(import(file_header(0x20) + section(0x20, shares_body({{"fine", with_path(path)}})),
                         0x20, 1),
                  0);
        EXPECT_THAT(lines_of(kSmbConf), Contains(std::string("\tpath=") + path));
    }
}

TEST_F(BackupTest, RestoredGroupsLeaveSystemGroupsAlone)
{
    const std::string body = groups_body({{"wheel", "Root by su", {"guest"}},
                                          {"root", "", {"root", "guest"}},
                                          {"administrators", "Owned", {"admin", "guest"}},
                                          {"team", "The team", {"guest"}}});
    ASSERT_EQ(import(file_header(0x200) + section(0x200, body), 0x200, 1), 0);
    const auto group = lines_of("/etc/group");
    EXPECT_THAT(group, Contains("root:x:0:root"));
    EXPECT_THAT(group, Contains(ContainsRegex("^administrators:x:101:.*guest")));
    EXPECT_THAT(group, Contains(ContainsRegex("^team:x:[0-9]+:.*guest")));
    for (const std::string &line : group)
        EXPECT_NE(line.rfind("wheel:", 0), 0u) << line;
    const std::string desc = read_file("/etc/group_desc");
    EXPECT_THAT(desc, ::testing::HasSubstr("administrators:System administrators\n"));
    EXPECT_THAT(desc, ::testing::HasSubstr("team:The team\n"));
}

// ------------------------------------------------------------ planted names

TEST_F(BackupTest, ImportNeverWritesThroughAPlantedScratchFile)
{
    constexpr char kScratch[] = "/tmp/importprocess";
    const std::string shadow = read_file("/etc/shadow");
    const std::string bytes =
        file_header(0x1) + section(0x1, pairs_body({{"timezone", "Asia/Tokyo"}}));
    // A link to the shadow file, even for a check-only import.
    ASSERT_TRUE(as_nobody([&] { return ::symlink("/etc/shadow", kScratch) == 0; }));
    EXPECT_EQ(import(bytes, 0x1, 0), 0);
    EXPECT_EQ(read_file("/etc/shadow"), shadow);
    EXPECT_FALSE(exists(kScratch));
    // A FIFO would hang or fail the import.
    ASSERT_TRUE(as_nobody([&] { return ::mkfifo(kScratch, 0666) == 0; }));
    EXPECT_EQ(import(bytes, 0x1, 0), 0);
    EXPECT_FALSE(exists(kScratch));
    // A file of its own that the planter keeps open would show every body.
    ASSERT_TRUE(as_nobody([&] {
        const int fd = ::open(kScratch, O_WRONLY | O_CREAT | O_EXCL, 0666);
        return fd >= 0 && ::fchmod(fd, 0666) == 0 && ::close(fd) == 0;
    }));
    const int planted = ::open(kScratch, O_RDONLY);
    ASSERT_GE(planted, 0);
    EXPECT_EQ(import(bytes, 0x1, 1), 0);
    struct stat st {};
    ASSERT_EQ(::fstat(planted, &st), 0);
    EXPECT_EQ(st.st_size, 0);
    ::close(planted);
    EXPECT_EQ(setting("timezone"), "Asia/Tokyo");
}

TEST_F(BackupTest, ExportNeverWritesIntoAFileItDoesNotOwn)
{
    constexpr uint32_t kUsers = 0x100;
    // Planted by another user, readable by all: no password hash goes in.
    ASSERT_TRUE(as_nobody([] {
        const int fd = ::open(kFile, O_WRONLY | O_CREAT | O_EXCL, 0666);
        return fd >= 0 && ::fchmod(fd, 0666) == 0 && ::close(fd) == 0;
    }));
    EXPECT_EQ(KEMOSysbkpExport(kFile, kUsers, 0600), -1);
    EXPECT_EQ(read_file(kFile), "");
    ASSERT_EQ(::unlink(kFile), 0);
    // A link: not followed.
    const std::string shadow = read_file("/etc/shadow");
    ASSERT_TRUE(as_nobody([] { return ::symlink("/etc/shadow", kFile) == 0; }));
    EXPECT_EQ(KEMOSysbkpExport(kFile, kUsers, 0600), -1);
    ASSERT_EQ(::unlink(kFile), 0);
    EXPECT_EQ(read_file("/etc/shadow"), shadow);
    // A second name of a private file of root's.
    write_file("/tmp/private", "secret\n", 0600);
    ASSERT_EQ(::link("/tmp/private", kFile), 0);
    EXPECT_EQ(KEMOSysbkpExport(kFile, kUsers, 0600), -1);
    EXPECT_EQ(read_file("/tmp/private"), "secret\n");
    ASSERT_EQ(::unlink(kFile), 0);
    // A FIFO: refused at once, nobody has to open its other end.
    ASSERT_TRUE(as_nobody([] { return ::mkfifo(kFile, 0666) == 0; }));
    EXPECT_EQ(KEMOSysbkpExport(kFile, kUsers, 0600), -1);
    ASSERT_EQ(::unlink(kFile), 0);
    // The caller's own file is replaced and made private, whatever its mode
    // was and whatever mode is asked for.
    write_file(kFile, std::string(5000, 'x'), 0666);
    ASSERT_EQ(KEMOSysbkpExport(kFile, 0x2, 0644), 0);
    EXPECT_EQ(read_file(kFile), file_header(0x2) + section(0x2, text_value("kemonas")));
    EXPECT_EQ(mode_of(kFile), 0600u);
    ASSERT_EQ(::unlink(kFile), 0);
    ASSERT_EQ(KEMOSysbkpExport(kFile, 0x2, 0666), 0);
    EXPECT_EQ(mode_of(kFile), 0600u);
}

// ------------------------------------------------------------ primitives

TEST_F(BackupTest, PrimitivesRoundTripInBigEndian)
{
    const int fd = ::open(kFile, O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    const uint32_t words[] = {0x01020304, 0xA0B0C0D0};
    ASSERT_EQ(KEMOSysbkpIWriteString(fd, ""), 0);
    ASSERT_EQ(KEMOSysbkpIWriteLong(fd, -2), 0);
    ASSERT_EQ(KEMOSysbkpRawIntWrite(fd, words, sizeof words), 0);
    EXPECT_EQ(KEMOSysbkpRawIntWrite(fd, words, 6), -1);
    EXPECT_EQ(read_file(kFile), text_value("") + long_value(-2) + u32(words[0]) + u32(words[1]));

    ASSERT_EQ(::lseek(fd, 0, SEEK_SET), 0);
    char *text = nullptr;
    int32_t value = 0;
    uint32_t back[2] = {};
    ASSERT_EQ(KEMOSysbkpIReadString(fd, &text), 0);
    EXPECT_STREQ(text, "");
    std::free(text);
    ASSERT_EQ(KEMOSysbkpIReadLong(fd, &value), 0);
    EXPECT_EQ(value, -2);
    EXPECT_EQ(KEMOSysbkpRawIntRead(fd, back, sizeof back), 8);
    EXPECT_EQ(back[0], words[0]);
    EXPECT_EQ(back[1], words[1]);
    EXPECT_EQ(KEMOSysbkpRawIntRead(fd, back, sizeof back), 0); // the end
    ASSERT_EQ(::lseek(fd, -4, SEEK_END), 9 + 12 + 4);
    EXPECT_EQ(KEMOSysbkpRawIntRead(fd, back, sizeof back), -1); // short
    // A long where a string stands.
    ASSERT_EQ(::lseek(fd, 9, SEEK_SET), 9);
    EXPECT_EQ(KEMOSysbkpIReadString(fd, &text), -1);
    EXPECT_EQ(text, nullptr);
    ::close(fd);

    EXPECT_EQ(KEMOSysbkpIGetIdx(0x20), 8);
    EXPECT_EQ(KEMOSysbkpIGetIdx(0x4), -1);
    EXPECT_EQ(KEMOSysbkpIGetIdx(0), -1);
}

// ------------------------------------------------------------ host name and services

TEST_F(BackupTest, HostNameIsKeptInStepEverywhere)
{
    ASSERT_EQ(KEMOLnxSetHostname("nas-2"), 0);
    char name[16] = "";
    ASSERT_EQ(KEMOLnxGetHostname(name, sizeof name), 0);
    EXPECT_STREQ(name, "nas-2");
    EXPECT_EQ(setting("hostname"), "nas-2");
    EXPECT_EQ(read_file("/etc/hostname"), "nas-2\n");
    char kernel[64] = "";
    ASSERT_EQ(::gethostname(kernel, sizeof kernel), 0);
    EXPECT_STREQ(kernel, "nas-2");

    for (const char *bad : {"", "2nas", "name with blank", "name-of-16-chars", "nas.local"}) {
        EXPECT_EQ(KEMOLnxSetHostname(bad), -1) << bad;
        EXPECT_EQ(KLIBErrGet(), ERR_INVALID_SERVERNAME);
    }
    EXPECT_EQ(KEMOLnxSetHostname(nullptr), -1);
    EXPECT_EQ(setting("hostname"), "nas-2");
    EXPECT_EQ(KEMOLnxGetHostname(name, 5), -1);
    EXPECT_EQ(KLIBErrGet(), ERR_NOT_ENOUGH_MEMORY);
    // Without a setting, the kernel's name.
    ASSERT_EQ(KLIBFileRemoveKey(kSettings, "hostname"), 1);
    ASSERT_EQ(KEMOLnxGetHostname(name, sizeof name), 0);
    EXPECT_STREQ(name, "nas-2");
}

TEST_F(BackupTest, ServicesSwitchThroughTheirScripts)
{
    ASSERT_EQ(ErrNetServiceStop(), 0);
    EXPECT_EQ(read_file("/var/run/netservice.state"), "stopped\n");
    EXPECT_EQ(read_file("/var/run/web.state"), "stopped\n");
    ASSERT_EQ(ErrNetServiceStart(), 0);
    EXPECT_EQ(read_file("/var/run/netservice.state"), "started\n");
    EXPECT_EQ(read_file("/var/run/web.state"), "running\n");

    ASSERT_EQ(KEMOWebService(0), 0);
    EXPECT_EQ(setting("runweb"), "no");
    EXPECT_EQ(read_file("/var/run/web.state"), "stopped\n");
    // The switched-off web service stays off when the services restart.
    ASSERT_EQ(ErrNetServiceStart(), 0);
    EXPECT_EQ(read_file("/var/run/web.state"), "stopped\n");
    ASSERT_EQ(KEMOWebService(1), 0);
    EXPECT_EQ(setting("runweb"), "yes");
    EXPECT_EQ(read_file("/var/run/web.state"), "running\n");

    // Without the control script the import cannot stop the services.
    ASSERT_EQ(::unlink("/usr/kemo/etc/rc.d/rc.netservice"), 0);
    EXPECT_EQ(ErrNetServiceStop(), -1);
    EXPECT_EQ(import(file_header(0), KEMO_SYSBKP_ALL, 0), -1);
}

// ------------------------------------------------------------ user quotas

// A limit entry of the user-quota section: name, volume id, quota blocks.
std::string limit_entry(const std::string &name, int32_t volume, const std::string &blocks)
{
    return text_value(name) + long_value(volume) + text_value(blocks);
}

TEST_F(BackupTest, UserQuotaSectionCarriesItsKeysThenTheLimits)
{
    // No volume is mounted here: the keys and an empty list of limits.
    EXPECT_EQ(exported(0x1000000),
              file_header(0x1000000) +
                  section(0x1000000,
                          pairs_body({{"userquota", "no"}, {"userquota_default", "0"}}) + long_value(0)));
    // Limits for volumes that are not mounted here are left out; the keys
    // are restored all the same.
    write_file("/etc/passwd", read_file("/etc/passwd") + "bob:x:1100:100::/:/bin/csh\n");
    const std::string body = pairs_body({{"userquota", "yes"}, {"userquota_default", "512"}}) +
                             long_value(2) + limit_entry("bob", 4, "1536") +
                             limit_entry("nosuch", 3, "2048");
    EXPECT_EQ(import(file_header(0x1000000) + section(0x1000000, body), 0x1000000, 1), 0);
    EXPECT_EQ(gimp_status, KEMO_SYSBKP_ALL);
    EXPECT_EQ(setting("userquota"), "yes");
    EXPECT_EQ(setting("userquota_default"), "512");
}

TEST_F(BackupTest, UserQuotaEntriesOfAnyOtherFormAreRefusedWhole)
{
    write_file("/etc/passwd", read_file("/etc/passwd") + "bob:x:1100:100::/:/bin/csh\n");
    const std::string keys = pairs_body({{"userquota", "yes"}});
    const std::string good = limit_entry("bob", 4, "1536");
    const std::string bad[] = {
        limit_entry("bob", 0, "1536"),         limit_entry("bob", 5, "1536"),
        limit_entry("bob", 4, "0"),            limit_entry("bob", 4, "01536"),
        limit_entry("bob", 4, "-1536"),        limit_entry("bob", 4, "1536 "),
        limit_entry("bob", 4, "1.5"),          limit_entry("bob", 4, "99999999999999999999"),
        limit_entry("bob:x", 4, "1536"),       limit_entry("", 4, "1536"),
        limit_entry("BOB", 4, "2048"),         // the same user and volume twice
        text_value("bob") + long_value(4) + long_value(1536),
    };
    for (const std::string &entry : bad) {
        const std::string body = keys + long_value(2) + good + entry;
        EXPECT_EQ(import(file_header(0x1000000) + section(0x1000000, body), 0x1000000, 1), -1);
        EXPECT_EQ(gimp_status, KEMO_SYSBKP_ALL & ~0x1000000u);
        EXPECT_EQ(setting("userquota"), "no");
    }
    // A count that runs past the entries, or a negative one.
    for (int32_t count : {3, -1}) {
        const std::string body = keys + long_value(count) + good;
        EXPECT_EQ(import(file_header(0x1000000) + section(0x1000000, body), 0x1000000, 1), -1);
        EXPECT_EQ(setting("userquota"), "no");
    }
}

} // namespace
