// Configuration backup: one file that carries chosen parts of the
// appliance's configuration, section by section.  This module holds the
// section registry and the export and import drivers; the file format is
// in sdk/kemosysbkpformat.cpp, the sections in sdk/kemosysbkpsettings.cpp
// and sdk/kemosysbkpacct.cpp.
//
// File:    "KEMO", u32 category 1, u32 mask, sections in registry order.
// Section: u32 id, u32 version, u32 body size, body.
// Body:    typed values: string (1, strlen + 1, text and its NUL) or
//          long (2, 4, value).
#include "kemo_io.hpp"
#include "kemo_log.hpp"
#include "kemo_net.hpp"
#include "kemo_sysbackup.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <utility>

namespace {

using namespace kemo::sysbackup;

constexpr char kScratch[] = "/tmp/importprocess";
constexpr uint32_t kImportCheckedEvent = 0x12100042;
constexpr uint32_t kImportAppliedEvent = 0x12100043;

using kemo::Fd;

} // namespace

namespace kemo::sysbackup {

// Index of id in the registry (the closing all-zero entry never matches).
int index_of(uint32_t id) noexcept
{
    for (int i = 0; grgSysRoutine[i].id != 0; ++i)
        if (grgSysRoutine[i].id == id)
            return i;
    return -1;
}

int section_index(uint32_t id) noexcept
{
    const int index = index_of(id);
    if (index < 0)
        kemo::log("%s: unknown id [%ld]", "KEMOSysbkpIGetIdx", static_cast<long>(id));
    return index;
}

int export_file(const char *fn, const char *path, uint32_t mask, unsigned int mode)
{
    // The file holds password hashes: never more than owner read and write.
    Fd out(kemo::open_for_caller(path, mode & 0600));
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
            kemo::log("%s:Fail to export %s\n", fn, entry.szDesc);
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

} // namespace kemo::sysbackup

namespace {

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

} // namespace

namespace kemo::sysbackup {

int import_file(const char *fn, const char *path, uint32_t mask, int apply)
{
    gimp_status = KEMO_SYSBKP_ALL;
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
    if (kemo::net::net_services(false) < 0) {
        BKP_LOG(fn, "failed to stop net service");
        in.close();
        remove_scratch(scratch.get());
        scratch.close();
        if (kemo::net::net_services(true) < 0)
            BKP_LOG(fn, "failed to start net service");
        return -1;
    }
    bool ok = import_sections(fn, in.get(), scratch.get(), mask, apply);
    // The finishing section writes no bytes, so it never appears in a file:
    // its importer (which frees the user map) runs here, after the loop,
    // whenever its bit is asked for, also after a malformed file.
    if ((mask & kFinishId) != 0)
        finish_import();
    in.close();
    if (!remove_scratch(scratch.get()))
        kemo::log("unlink %s failed", kScratch);
    scratch.close();
    if (kemo::net::net_services(true) < 0) {
        BKP_LOG(fn, "failed to start net service");
        ok = false;
    }
    if (!ok)
        return -1;
    kemo::eventlog::write_event(1, 1, apply ? kImportAppliedEvent : kImportCheckedEvent, {"", "", "", ""});
    return 0;
}

int finish_import()
{
    KLIBSzHashFree(gpshUser);
    gpshUser = nullptr;
    return 0;
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
    return kemo::edge(-1, [&] { return import_file(fn, path, mask, apply); });
}

KEMO_API int KEMOSysbkpIGetIdx(uint32_t id)
{
    return section_index(id);
}

// ------------------------------------------------------------ finishing entry

KEMO_API int KEMOSysbkpFinishExport(int)
{
    return 0;
}

KEMO_API int KEMOSysbkpFinishImport(int, uint32_t, int)
{
    return finish_import();
}

} // extern "C"
