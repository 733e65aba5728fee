// The table operations of sfdisk, all through libfdisk: every check runs on
// the table in memory first, so a refusal writes nothing; a success writes
// the table sectors once (fdisk_write_disklabel) and nothing else.
#include "sfdisk.hpp"

#include <libfdisk/libfdisk.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>

namespace sfdisk {
namespace {

// A DOS entry holds 32-bit sector numbers: its last sector is at most this.
constexpr std::uint64_t kDosLastSector = 0xFFFFFFFFu;

struct ContextFree {
    void operator()(fdisk_context *c) const { fdisk_unref_context(c); }
};
struct PartitionFree {
    void operator()(fdisk_partition *p) const { fdisk_unref_partition(p); }
};
struct TableFree {
    void operator()(fdisk_table *t) const { fdisk_unref_table(t); }
};
struct TypeFree {
    void operator()(fdisk_parttype *t) const { fdisk_unref_parttype(t); }
};
struct IterFree {
    void operator()(fdisk_iter *i) const { fdisk_free_iter(i); }
};
struct MallocFree {
    void operator()(char *p) const { std::free(p); }
};
using PartitionPtr = std::unique_ptr<fdisk_partition, PartitionFree>;

class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd()
    {
        if (fd_ >= 0) ::close(fd_);
    }
    int get() const { return fd_; }
    void reset(int fd)
    {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

std::string errno_text(int error) { return std::strerror(error); }

// Information and warnings: standard error, silenced by -q.
void tell(const Options &o, const std::string &text)
{
    if (!o.quiet) std::fprintf(stderr, "sfdisk: %s\n", text.c_str());
}

// A check that only warns: refused without -f, a warning with it.
void unless_forced(const Options &o, bool problem, const std::string &what)
{
    if (!problem) return;
    if (!o.force) fail(what + " (-f to proceed)");
    tell(o, "warning: " + what);
}

// libfdisk's dialogs: its information is dropped (the tool says what it did
// itself), its warnings shown unless -q, every question answered "no" and
// nothing else answered at all, so that it never waits for a person.
int answer(fdisk_context *, fdisk_ask *ask, void *data)
{
    const bool quiet = *static_cast<const bool *>(data);
    switch (fdisk_ask_get_type(ask)) {
    case FDISK_ASKTYPE_INFO:
        return 0;
    case FDISK_ASKTYPE_WARN:
    case FDISK_ASKTYPE_WARNX: {
        const char *message = fdisk_ask_print_get_mesg(ask);
        if (!quiet && message) {
            if (fdisk_ask_get_type(ask) == FDISK_ASKTYPE_WARN && fdisk_ask_print_get_errno(ask) != 0)
                std::fprintf(stderr, "sfdisk: %s: %s\n", message,
                             std::strerror(fdisk_ask_print_get_errno(ask)));
            else
                std::fprintf(stderr, "sfdisk: %s\n", message);
        }
        return 0;
    }
    case FDISK_ASKTYPE_YESNO:
        fdisk_ask_yesno_set_result(ask, 0);
        return 0;
    default:
        return -EINVAL;
    }
}

struct Entry {
    std::uint64_t start = 0, size = 0;
    unsigned type = 0;
    std::uint64_t end() const { return start + size - 1; }
};

std::string range_text(std::uint64_t first, std::uint64_t last)
{
    return std::to_string(first) + "-" + std::to_string(last);
}

// A device opened once, with its libfdisk context.
class Disk {
public:
    // A listing shows no warnings of libfdisk's (such as that a DOS table
    // cannot address all of a 2 TiB disk): it changes nothing.
    Disk(const Options &o, bool writable) : o_(o), quiet_(o.quiet || !writable)
    {
        fd_.reset(::open(o.device.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NOCTTY));
        if (fd_.get() < 0) fail(o.device + ": cannot open: " + errno_text(errno));
        if (::fstat(fd_.get(), &st_) != 0) fail(o.device + ": cannot examine: " + errno_text(errno));
        if (!S_ISREG(st_.st_mode) && !S_ISBLK(st_.st_mode))
            fail(o.device + ": neither a block device nor a regular file");
        if (S_ISBLK(st_.st_mode)) {
            const std::string sys = "/sys/dev/block/" + std::to_string(major(st_.st_rdev)) + ":" +
                                    std::to_string(minor(st_.st_rdev)) + "/partition";
            if (::access(sys.c_str(), F_OK) == 0) fail(o.device + ": a partition, not a whole disk");
            if (writable) in_use_ = claimed_elsewhere();
        }
        ctx_.reset(fdisk_new_context());
        if (!ctx_) throw std::bad_alloc();
        fdisk_set_ask(ctx_.get(), answer, &quiet_);
        // Sector grain: starts and sizes are taken exactly as given.
        fdisk_save_user_grain(ctx_.get(), 512);
        const int rc = fdisk_assign_device_by_fd(ctx_.get(), fd_.get(), o.device.c_str(), !writable);
        if (rc < 0) fail(o.device + ": cannot read the device: " + errno_text(-rc));
        assigned_ = true;
        // What the kernel knows now, to tell it the differences afterwards.
        fdisk_table *before = nullptr;
        if (fdisk_has_label(ctx_.get()) && fdisk_get_partitions(ctx_.get(), &before) == 0)
            before_.reset(before);
        else
            before_.reset(fdisk_new_table());
        if (!before_) throw std::bad_alloc();
    }
    Disk(const Disk &) = delete;
    Disk &operator=(const Disk &) = delete;
    ~Disk()
    {
        if (assigned_) fdisk_deassign_device(ctx_.get(), 1);
    }

    fdisk_context *ctx() const { return ctx_.get(); }
    bool in_use() const { return in_use_; }
    bool has_label() const { return fdisk_has_label(ctx_.get()) == 1; }

    // Refuses a device without a DOS table; with `fresh` a device without
    // any table gets an empty DOS table in memory.
    void require_dos(bool fresh)
    {
        if (!has_label()) {
            if (!fresh) fail(o_.device + ": no partition table (-F writes an empty DOS one first)");
            const char *other = fdisk_get_collision(ctx_.get());
            unless_forced(o_, other != nullptr,
                          o_.device + ": holds a " + std::string(other ? other : "") + " signature");
            new_label(false);
            return;
        }
        if (!fdisk_is_label(ctx_.get(), DOS)) {
            fdisk_label *label = fdisk_get_label(ctx_.get(), nullptr);
            fail(o_.device + ": carries a " + (label ? fdisk_label_get_name(label) : "foreign") +
                 " partition table, not DOS (-M1 resets it)");
        }
        exact_sectors();
    }

    // An empty DOS table in memory; `wipe`: the write erases the signatures
    // of other tables and file systems on the device.
    void new_label(bool wipe)
    {
        fdisk_enable_wipe(ctx_.get(), wipe ? 1 : 0);
        const int rc = fdisk_create_disklabel(ctx_.get(), "dos");
        if (rc < 0) fail(o_.device + ": cannot make a DOS partition table: " + errno_text(-rc));
        exact_sectors();
    }

    // The four primary entries; empty ones are nullopt.
    std::array<std::optional<Entry>, 4> primaries() const
    {
        std::array<std::optional<Entry>, 4> entries;
        for (std::size_t i = 0; i < entries.size(); ++i)
            entries[i] = entry(i);
        return entries;
    }

    std::optional<Entry> entry(std::size_t index) const
    {
        if (fdisk_is_partition_used(ctx_.get(), index) != 1) return std::nullopt;
        fdisk_partition *raw = nullptr;
        if (fdisk_get_partition(ctx_.get(), index, &raw) != 0) return std::nullopt;
        const PartitionPtr pa(raw);
        Entry e;
        e.start = fdisk_partition_get_start(raw);
        e.size = fdisk_partition_get_size(raw);
        fdisk_parttype *type = fdisk_partition_get_type(raw);
        e.type = type ? fdisk_parttype_get_code(type) : 0;
        return e;
    }

    // The last sector a partition may use: the disk's, or the last a DOS
    // entry can address on a larger disk.
    std::uint64_t last_sector() const
    {
        const std::uint64_t last = fdisk_get_last_lba(ctx_.get());
        return last < kDosLastSector ? last : kDosLastSector;
    }
    std::uint64_t sectors() const { return fdisk_get_nsectors(ctx_.get()); }

    // Entry `index` becomes `e`, checked afterwards to hold exactly that.
    void put(std::size_t index, const Entry &e)
    {
        if (fdisk_is_partition_used(ctx_.get(), index) == 1) remove(index);
        const PartitionPtr pa(fdisk_new_partition());
        if (!pa) throw std::bad_alloc();
        fdisk_label *label = fdisk_get_label(ctx_.get(), nullptr);
        std::unique_ptr<fdisk_parttype, TypeFree> unknown;
        fdisk_parttype *type = fdisk_label_get_parttype_from_code(label, e.type);
        if (!type) {
            unknown.reset(fdisk_new_unknown_parttype(e.type, nullptr));
            if (!unknown) throw std::bad_alloc();
            type = unknown.get();
        }
        if (fdisk_partition_set_partno(pa.get(), index) != 0 || fdisk_partition_set_start(pa.get(), e.start) != 0 ||
            fdisk_partition_set_size(pa.get(), e.size) != 0 || fdisk_partition_size_explicit(pa.get(), 1) != 0 ||
            fdisk_partition_set_type(pa.get(), type) != 0)
            throw std::bad_alloc();
        const int rc = fdisk_add_partition(ctx_.get(), pa.get(), nullptr);
        if (rc < 0) fail(o_.device + ": cannot add partition " + std::to_string(index + 1) + ": " + errno_text(-rc));
        const std::optional<Entry> got = entry(index);
        if (!got || got->start != e.start || got->size != e.size || got->type != e.type)
            fail(o_.device + ": the table would not hold partition " + std::to_string(index + 1) +
                 " exactly as asked");
    }

    void remove(std::size_t index)
    {
        const int rc = fdisk_delete_partition(ctx_.get(), index);
        if (rc < 0)
            fail(o_.device + ": cannot delete partition " + std::to_string(index + 1) + ": " + errno_text(-rc));
    }

    // Writes the table sectors and flushes them to the device, then tells
    // the kernel of a block device what changed, unless --no-reread.
    void write()
    {
        int rc = fdisk_write_disklabel(ctx_.get());
        if (rc < 0) fail(o_.device + ": writing the partition table failed: " + errno_text(-rc));
        if (::fsync(fd_.get()) != 0) fail(o_.device + ": flushing the partition table failed: " + errno_text(errno));
        if (!o_.reread || !S_ISBLK(st_.st_mode)) return;
        // Changed entries one by one when the disk is busy, else the whole
        // table; a kernel that keeps the old table is only a warning: the
        // table on the disk is right and holds from the next start on.
        rc = fdisk_reread_changes(ctx_.get(), before_.get());
        if (rc < 0)
            tell(o_, "warning: " + o_.device + ": the kernel still uses the old partition table: " +
                         errno_text(-rc));
    }

private:
    // No alignment and no reserved area: any sector after the table's own
    // sector 0 may start a partition.
    void exact_sectors() { fdisk_set_first_lba(ctx_.get(), 1); }

    // Whether something (a mounted file system, an array) holds the disk or
    // one of its partitions: an exclusive open of the same device fails.
    bool claimed_elsewhere() const
    {
        const std::string self = "/proc/self/fd/" + std::to_string(fd_.get());
        const UniqueFd probe(::open(self.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC | O_NOCTTY));
        return probe.get() < 0 && errno == EBUSY;
    }

    const Options &o_;
    bool quiet_;
    struct stat st_ {};
    bool in_use_ = false;
    bool assigned_ = false;
    UniqueFd fd_; // outlives the context, which only borrows it
    std::unique_ptr<fdisk_context, ContextFree> ctx_;
    std::unique_ptr<fdisk_table, TableFree> before_;
};

std::string type_hex(unsigned type)
{
    char text[8];
    std::snprintf(text, sizeof text, "%x", type);
    return text;
}

} // namespace

void create_partition(const Options &o)
{
    Disk disk(o, true);
    disk.require_dos(o.fresh_label);
    const std::size_t index = *o.partno - 1;
    const auto entries = disk.primaries();
    const std::uint64_t last = disk.last_sector();

    // Start after the nearest used lower entry, or from the disk's start.
    std::uint64_t base = 0;
    for (std::size_t i = index; i-- > 0;) {
        if (entries[i]) {
            base = entries[i]->end() + 1;
            break;
        }
    }
    Entry e;
    e.type = o.type;
    if (__builtin_add_overflow(base, o.gap, &e.start) || e.start > last)
        fail(o.device + ": partition " + std::to_string(*o.partno) + " would start beyond the end of the disk " +
             "(last usable sector " + std::to_string(last) + ")");
    if (e.start == 0) fail(o.device + ": sector 0 holds the partition table; no partition can start there");
    if (o.size == kToTheEnd) {
        e.size = last - e.start + 1;
    } else {
        e.size = static_cast<std::uint64_t>(o.size);
        std::uint64_t end;
        if (__builtin_add_overflow(e.start, e.size - 1, &end) || end > last)
            fail(o.device + ": partition " + std::to_string(*o.partno) + " (sectors from " + std::to_string(e.start) +
                 ", " + std::to_string(e.size) + " sectors) would end beyond the end of the disk (last usable sector " +
                 std::to_string(last) + ")");
    }
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (i == index || !entries[i]) continue;
        if (e.start <= entries[i]->end() && entries[i]->start <= e.end())
            fail(o.device + ": sectors " + range_text(e.start, e.end()) + " overlap partition " +
                 std::to_string(i + 1) + " (" + range_text(entries[i]->start, entries[i]->end()) + ")");
    }
    unless_forced(o, entries[index].has_value(),
                  o.device + ": partition " + std::to_string(*o.partno) + " exists and would be replaced");
    unless_forced(o, disk.in_use(), o.device + ": the disk is in use");
    unless_forced(o, disk.sectors() > kDosLastSector + 1,
                  o.device + ": a DOS table addresses only the first 4294967296 of the disk's " +
                      std::to_string(disk.sectors()) + " sectors");

    disk.put(index, e);
    disk.write();
    tell(o, o.device + ": partition " + std::to_string(*o.partno) + ": start " + std::to_string(e.start) + ", " +
                std::to_string(e.size) + " sectors, type " + type_hex(e.type));
}

void delete_partition(const Options &o)
{
    Disk disk(o, true);
    const std::size_t index = *o.partno - 1;
    if (!disk.has_label() || (fdisk_is_label(disk.ctx(), DOS) && !disk.entry(index))) {
        tell(o, o.device + ": no partition " + std::to_string(*o.partno) + ", nothing to delete");
        return;
    }
    disk.require_dos(false);
    unless_forced(o, disk.in_use(), o.device + ": the disk is in use");
    disk.remove(index);
    disk.write();
    tell(o, o.device + ": partition " + std::to_string(*o.partno) + " deleted");
}

void reset_table(const Options &o)
{
    Disk disk(o, true);
    unless_forced(o, disk.in_use(), o.device + ": the disk is in use");
    disk.new_label(true);
    disk.write();
    tell(o, o.device + ": a fresh empty DOS partition table");
}

void list_partitions(const Options &o)
{
    Disk disk(o, false);
    // Entry n of a disk without it (or without a table) lists as nothing:
    // the status tells, and no message adds to the caller's standard error.
    if (o.partno && !disk.has_label()) throw Failure(kFailed, "");
    disk.require_dos(false);
    auto line = [&](std::size_t number, const Entry &e) {
        const std::unique_ptr<char, MallocFree> name(fdisk_partname(o.device.c_str(), number));
        if (!name) throw std::bad_alloc();
        std::printf("%s %llu %llu %s\n", name.get(), static_cast<unsigned long long>(e.start),
                    static_cast<unsigned long long>(e.size), type_hex(e.type).c_str());
    };
    if (o.partno) {
        const std::optional<Entry> e = disk.entry(*o.partno - 1);
        if (!e) throw Failure(kFailed, "");
        line(*o.partno, *e);
        return;
    }
    // Every used entry, logical ones included, in table order.
    fdisk_table *raw = nullptr;
    if (fdisk_get_partitions(disk.ctx(), &raw) != 0) fail(o.device + ": cannot read the partition table");
    const std::unique_ptr<fdisk_table, TableFree> table(raw);
    const std::unique_ptr<fdisk_iter, IterFree> it(fdisk_new_iter(FDISK_ITER_FORWARD));
    if (!it) throw std::bad_alloc();
    fdisk_partition *pa = nullptr;
    while (fdisk_table_next_partition(table.get(), it.get(), &pa) == 0) {
        if (!fdisk_partition_is_used(pa) || !fdisk_partition_has_partno(pa)) continue;
        Entry e;
        e.start = fdisk_partition_get_start(pa);
        e.size = fdisk_partition_get_size(pa);
        fdisk_parttype *type = fdisk_partition_get_type(pa);
        e.type = type ? fdisk_parttype_get_code(type) : 0;
        line(fdisk_partition_get_partno(pa) + 1, e);
    }
}

} // namespace sfdisk
