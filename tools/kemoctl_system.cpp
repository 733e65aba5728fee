// kemoctl log, backup and hostname: the event logs, configuration backup
// files and the appliance's host name.
#include "kemoctl.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kemoctl {
namespace {

// The log and backup calls report some failures only in the system log,
// without an error code: the name is shown when there is one.  Callers
// clear the code before the call.
int logged_failure(std::string_view what, std::string_view why = "see the system log")
{
    if (KLIBErrGet() != ERR_SUCCESS)
        return library_failure(what);
    std::fprintf(stderr, "kemoctl: %.*s failed (%.*s)\n", static_cast<int>(what.size()), what.data(),
                 static_cast<int>(why.size()), why.data());
    return 1;
}

// An open descriptor, closed at the end of its scope.
class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// A private file made by mkstemp, removed at the end of its scope.
class TempFile {
public:
    explicit TempFile(std::string pattern) : path_(std::move(pattern)), fd_(mkstemp(path_.data())) {}
    ~TempFile()
    {
        if (fd_.get() >= 0)
            unlink(path_.c_str());
    }
    TempFile(const TempFile &) = delete;
    TempFile &operator=(const TempFile &) = delete;
    bool ok() const { return fd_.get() >= 0; }
    int fd() const { return fd_.get(); }
    const char *path() const { return path_.c_str(); }

private:
    std::string path_;
    Fd fd_;
};

} // namespace

int cmd_log_add(const Args &args)
{
    if (args.size() < 3 || args.size() > 7)
        return usage_error("log add needs CLASS TYPE ID [ARG1 [ARG2 [ARG3 [ARG4]]]]");
    const auto log_class = parse_u32(args[0], false), type = parse_u32(args[1], false);
    const auto id = parse_u32(args[2], true);
    if (!log_class || !type || !id)
        return usage_error("CLASS and TYPE are decimal numbers, ID a hexadecimal one");
    // Arguments not given are stored empty.
    std::string texts[4];
    const char *arg[4] = {};
    for (std::size_t i = 3; i < args.size(); ++i) {
        texts[i - 3] = args[i];
        arg[i - 3] = texts[i - 3].c_str();
    }
    KLIBErrSet(ERR_SUCCESS);
    if (KEMOLogSet1(*log_class, *type, *id, arg[0], arg[1], arg[2], arg[3]) != 0)
        return logged_failure("writing to log class " + std::string(args[0]));
    return 0;
}

// The library writes the text form of a log to a file: a private temporary
// one here, copied to standard output.
int cmd_log_show(const Args &args)
{
    if (args.empty() || args.size() > 2)
        return usage_error("log show needs CLASS [LANGUAGE]");
    const auto log_class = parse_u32(args[0], false);
    if (!log_class)
        return usage_error("CLASS is a decimal number");
    const std::string language = args.size() == 2 ? std::string(args[1]) : "";
    TempFile out("/tmp/kemoctl-log.XXXXXX");
    if (!out.ok()) {
        std::perror("kemoctl: making a temporary file");
        return 1;
    }
    KLIBErrSet(ERR_SUCCESS);
    if (KEMOLogGet1(*log_class, out.path(), language.empty() ? nullptr : language.c_str()) != 0)
        return logged_failure("reading log class " + std::string(args[0]),
                              "no such log, or see the system log");
    char buffer[8192];
    ssize_t n = 0;
    while ((n = read(out.fd(), buffer, sizeof buffer)) > 0)
        std::fwrite(buffer, 1, static_cast<std::size_t>(n), stdout);
    if (n < 0) {
        std::perror("kemoctl: reading the log text");
        return 1;
    }
    return 0;
}

int cmd_log_size(const Args &args)
{
    if (args.size() != 2)
        return usage_error("log size needs CLASS BYTES");
    const auto log_class = parse_u32(args[0], false), bytes = parse_u32(args[1], false);
    if (!log_class || !bytes || *log_class > INT32_MAX || *bytes > INT32_MAX)
        return usage_error("CLASS and BYTES are decimal numbers");
    KLIBErrSet(ERR_SUCCESS);
    if (KEMOLogSetSize(static_cast<int>(*bytes), static_cast<int>(*log_class)) != 0)
        return logged_failure("setting the size of log class " + std::string(args[0]));
    return 0;
}

int cmd_log_connections(const Args &args)
{
    if (!args.empty())
        return usage_error("log connections takes no arguments");
    KLIBErrSet(ERR_SUCCESS);
    const auto connections = filled_list([](PKLIBSZLIST *l) { return KEMOLogGet(2, 1, l, nullptr); });
    return connections ? print_lines(*connections) : logged_failure("listing the connections");
}

namespace {

// The registry entry of a section id, or null.
const KEMOSYSBKPROUTINE *backup_entry(uint32_t id)
{
    for (const KEMOSYSBKPROUTINE *r = grgSysRoutine; r->id != 0; ++r)
        if (r->id == id)
            return r;
    return nullptr;
}

// What a backup file's headers say: the mask it was written for and its
// sections (id, body size) in file order.  Like the import, reading stops
// at the first id the registry does not know (that one is listed).
struct BackupContents {
    uint32_t mask = 0;
    std::vector<std::pair<uint32_t, uint32_t>> sections;
    std::string error; // empty when the file reads to its end
};

BackupContents read_backup(const std::string &path)
{
    BackupContents c;
    const Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    char magic[4];
    uint32_t words[3];
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0) {
        c.error = std::strerror(errno);
        return c;
    }
    if (read(fd.get(), magic, 4) != 4 || std::string_view(magic, 4) != "KEMO" ||
        KEMOSysbkpRawIntRead(fd.get(), words, 8) != 8 || words[0] != 1) {
        c.error = "not a configuration backup";
        return c;
    }
    c.mask = words[1];
    // The words come back in host order: id, version, body size.
    for (int got; (got = KEMOSysbkpRawIntRead(fd.get(), words, 12)) != 0;) {
        if (got != 12) {
            c.error = "a cut section header at the end";
            return c;
        }
        c.sections.emplace_back(words[0], words[2]);
        if (backup_entry(words[0]) == nullptr) {
            c.error = "unknown section id";
            return c;
        }
        const off_t end = lseek(fd.get(), static_cast<off_t>(words[2]), SEEK_CUR);
        if (end < 0 || end > st.st_size) {
            c.error = "a section runs past the end of the file";
            return c;
        }
    }
    return c;
}

std::optional<uint32_t> backup_mask(const Args &args)
{
    return args.size() == 2 ? parse_u32(args[1], true) : std::optional<uint32_t>(KEMO_SYSBKP_ALL);
}

} // namespace

int cmd_backup_export(const Args &args)
{
    if (args.empty() || args.size() > 2)
        return usage_error("backup export needs FILE [MASK]");
    const auto mask = backup_mask(args);
    if (!mask)
        return usage_error("MASK is a hexadecimal number");
    const std::string path(args[0]);
    KLIBErrSet(ERR_SUCCESS);
    if (KEMOSysbkpExport(path.c_str(), *mask, 0600) != 0)
        return logged_failure("exporting to " + path);
    struct stat st {};
    if (stat(path.c_str(), &st) == 0)
        std::printf("wrote %s: %zu section(s), %lld bytes\n", path.c_str(), read_backup(path).sections.size(),
                    static_cast<long long>(st.st_size));
    return 0;
}

namespace {

// Check (apply 0) or restore; then one line per selected section the file
// holds, by the import status.
int backup_import(const Args &args, int apply)
{
    const char *verb = apply ? "import" : "check";
    if (args.empty() || args.size() > 2)
        return usage_error(std::string("backup ") + verb + " needs FILE [MASK]");
    const auto mask = backup_mask(args);
    if (!mask)
        return usage_error("MASK is a hexadecimal number");
    const std::string path(args[0]);
    const BackupContents contents = read_backup(path);
    KLIBErrSet(ERR_SUCCESS);
    const int result = KEMOSysbkpImport(path.c_str(), *mask, apply);
    const int code = KLIBErrGet();
    KEMOSysbkpFinishImport(-1, 1, 1); // frees the user map unless the import's own last entry did
    for (const KEMOSYSBKPROUTINE *r = grgSysRoutine; r->id != 0; ++r) {
        if (r->szDesc == nullptr || r->szDesc[0] == '\0' || (r->id & *mask) == 0 ||
            std::none_of(contents.sections.begin(), contents.sections.end(),
                         [&](const auto &s) { return s.first == r->id; }))
            continue;
        std::printf("  %-24s %s\n", r->szDesc,
                    (gimp_status & r->id) == 0 ? "failed" : apply ? "restored" : "checked");
    }
    if (result != 0) {
        KLIBErrSet(code);
        return logged_failure(std::string(apply ? "importing " : "checking ") + path,
                              contents.error.empty() ? "see the system log" : contents.error);
    }
    return 0;
}

} // namespace

int cmd_backup_check(const Args &args)
{
    return backup_import(args, 0);
}

int cmd_backup_import(const Args &args)
{
    return backup_import(args, 1);
}

int cmd_backup_list(const Args &args)
{
    if (args.size() != 1)
        return usage_error("backup list needs FILE");
    const std::string path(args[0]);
    const BackupContents contents = read_backup(path);
    if (contents.sections.empty() && !contents.error.empty())
        return file_failure(path, contents.error);
    std::printf("mask 0x%X, %zu section(s)\n", contents.mask, contents.sections.size());
    for (const auto &[id, size] : contents.sections) {
        const KEMOSYSBKPROUTINE *entry = backup_entry(id);
        std::printf("  0x%08X  %-24s %6u bytes\n", id, entry != nullptr ? entry->szDesc : "(unknown)", size);
    }
    return contents.error.empty() ? 0 : file_failure(path, contents.error);
}

int cmd_hostname(const Args &args)
{
    if (args.size() > 1)
        return usage_error("hostname takes at most one NAME");
    if (args.size() == 1) {
        const std::string name(args[0]);
        if (KEMOLnxSetHostname(name.c_str()) != 0)
            return library_failure("setting the host name to " + name);
        return 0;
    }
    char name[256];
    if (KEMOLnxGetHostname(name, sizeof name) != 0)
        return library_failure("reading the host name");
    std::printf("%s\n", name);
    return 0;
}

} // namespace kemoctl
