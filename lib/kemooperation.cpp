// The registry of running administrative operations.  Before it starts, an
// operation (a network change, a restore, a volume job) registers in a small
// table in System V shared memory that every process of the appliance sees;
// a running operation of a conflicting category refuses it or makes it
// wait.  There is no daemon: every registration reads the table under the
// exclusive lock file, removes the entries whose owners died, and adds its
// own entry when nothing stands in the way.
//
// Table (132 bytes, big-endian 32-bit words): the number n of entries, then
// 16 pairs of operation id and owner pid; entries 0 to n-1 are in use.
//
// Both shared objects are root's alone.  The lock file sits in /tmp, so a
// file planted there is replaced (see kemo::locks::exclusive_file); a segment
// that another user made under the key is removed, never read or used, so
// that nobody else can read the table, forge entries or block the lock.
#include "kemo_internal.hpp"

#include <endian.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>

extern "C" {

const KEMOOPID grgIDMap[KEMO_OP_ID_COUNT] = {
    {"none", 0},      {"hostname", 1},  {"network", 1},     {"datetime", 2},    {"language", 2},
    {"notify", 2},    {"codepage", 2},  {"account", 2},     {"group", 2},       {"quota", 2},
    {"home", 2},      {"share", 2},     {"right", 2},       {"nfs", 2},         {"defopt", 2},
    {"windows", 4},   {"syncpdc", 5},   {"unix", 6},        {"apple", 7},       {"novell", 8},
    {"http", 9},      {"ftp", 9},       {"telnet", 9},      {"volume", 10},     {"snmp", 11},
    {"s2s", 12},      {"ups", 2},       {"led", 2},         {"diskcache", 2},   {"snapshot", 13},
    {"backup", 14},   {"restore", 15},  {"tapebackup", 14}, {"taperestore", 15}, {"init", 16},
    {"default", 17},  {"patch", 17},    {"update", 17},     {"iron", 17},       {nullptr, 0},
};

// Category 3 has no operation; its row is kept for the table's sake.
const KEMOOPCATEGORY grgBOPack[KEMO_OP_CATEGORY_COUNT] = {
    {0x0, 0x0, 0x0},
    {0x2, 0xDBF2, 0x10000},
    {0x4, 0xC004, 0x10000},
    {0x8, 0xE478, 0x10000},
    {0x10, 0xE03A, 0x10000},
    {0x20, 0xE47A, 0x10000},
    {0x40, 0xC06A, 0x10000},
    {0x80, 0xC082, 0x10000},
    {0x100, 0xC102, 0x10000},
    {0x200, 0xC202, 0x10000},
    {0x400, 0xE428, 0x10000},
    {0x800, 0xC802, 0x10000},
    {0x1000, 0x1F002, 0x0},
    {0x2000, 0x1F438, 0x0},
    {0x4000, 0xE000, 0x7FFF1FFF},
    {0x8000, 0x7FFEFFFF, 0x10000},
    {0x10000, 0x7FFFFFFF, 0x0},
    {0x7FFFFFFF, 0x7FFFFFFF, 0x0},
};

} // extern "C"

namespace {

constexpr key_t registry_key = KEMO_OP_KEY;
constexpr std::size_t segment_size = KEMO_OP_SEGMENT_SIZE;
constexpr int max_entries = KEMO_OP_MAX_ENTRIES;
constexpr uid_t registry_owner = 0;
constexpr int step_ms = 200;
constexpr int fixed_lock_ms = 2000;

static_assert(segment_size == 4 * (1 + 2 * max_entries), "a count and 16 pairs of words");

// The category row of an operation id; ids outside the table (a damaged
// entry) have the empty row of category 0.
const KEMOOPCATEGORY &row_of(uint32_t id) noexcept
{
    return grgBOPack[id < KEMO_OP_ID_COUNT ? grgIDMap[id].category : 0];
}

// A process counts as gone only when it certainly does not exist (a
// process that we may not signal exists all the same).  A damaged pid of
// 0 or below would make kill() address a process group: gone.
bool alive(int32_t pid) noexcept { return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM); }

// The registry lock, released when it goes out of scope.
class RegistryLock {
public:
    explicit RegistryLock(int fd) noexcept : fd_(fd) {}
    ~RegistryLock() { ReleaseExclusiveFileLock(fd_); }
    RegistryLock(const RegistryLock &) = delete;
    RegistryLock &operator=(const RegistryLock &) = delete;

private:
    int fd_;
};

// The registry segment, attached for one look under the lock and detached
// when it goes out of scope.  Words are big-endian in the segment.
class Table {
public:
    // Attaches the segment, making it (zero-filled) when create is set and
    // there is none.  Empty when there is no usable segment, with errno set.
    static std::optional<Table> attach(bool create) noexcept;

    Table(Table &&other) noexcept : words_(std::exchange(other.words_, nullptr)) {}
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;
    Table &operator=(Table &&) = delete;
    ~Table()
    {
        if (words_ != nullptr)
            ::shmdt(words_);
    }

    // A damaged count beyond 16 is read as 16.
    int size() const noexcept { return static_cast<int>(std::min<uint32_t>(word(0), max_entries)); }
    KEMOOPENTRY at(int i) const noexcept
    {
        return {static_cast<int32_t>(word(1 + 2 * i)), static_cast<int32_t>(word(2 + 2 * i))};
    }
    void append(KEMOOPENTRY entry) noexcept
    {
        const int n = size();
        put(n, entry);
        set_word(0, static_cast<uint32_t>(n + 1));
    }
    // Removes entry i by moving the last entry into its place.
    void remove(int i) noexcept
    {
        const int last = size() - 1;
        put(i, at(last));
        put(last, {0, 0});
        set_word(0, static_cast<uint32_t>(last));
    }
    void put(int i, KEMOOPENTRY entry) noexcept
    {
        set_word(1 + 2 * i, static_cast<uint32_t>(entry.id));
        set_word(2 + 2 * i, static_cast<uint32_t>(entry.pid));
    }
    // The first entry of id owned by pid, or -1.
    int find(int id, int32_t pid) const noexcept
    {
        for (int i = 0; i < size(); ++i) {
            const KEMOOPENTRY e = at(i);
            if (e.id == id && e.pid == pid)
                return i;
        }
        return -1;
    }

private:
    explicit Table(uint32_t *words) noexcept : words_(words) {}
    uint32_t word(int i) const noexcept { return be32toh(words_[i]); }
    void set_word(int i, uint32_t value) noexcept { words_[i] = htobe32(value); }

    uint32_t *words_;
};

// The registry segment as only root's own can be: made by root, owned by
// root, mode 0600 and of the table's size.
bool trusted(const struct shmid_ds &ds) noexcept
{
    return ds.shm_perm.uid == registry_owner && ds.shm_perm.cuid == registry_owner &&
           (ds.shm_perm.mode & 0777) == 0600 && ds.shm_segsz == segment_size;
}

std::optional<Table> Table::attach(bool create) noexcept
{
    for (int attempt = 0; attempt < 8; ++attempt) {
        bool made = false;
        int id = ::shmget(registry_key, 0, 0);
        if (id < 0) {
            if (errno != ENOENT || !create)
                return std::nullopt;
            id = ::shmget(registry_key, segment_size, IPC_CREAT | IPC_EXCL | 0600);
            if (id < 0) {
                if (errno == EEXIST)
                    continue; // another user's, made just now: examine it
                return std::nullopt;
            }
            made = true;
        }
        struct shmid_ds ds {};
        if (::shmctl(id, IPC_STAT, &ds) != 0)
            continue; // removed meanwhile
        if (!trusted(ds)) {
            // Another user made it (or it is not the table): never read
            // or written; root removes it so that the key is free again.
            KEMO_LOG("untrusted segment under key %d (owner %u, creator %u, mode %o, %zu bytes) removed",
                     static_cast<int>(registry_key), static_cast<unsigned>(ds.shm_perm.uid),
                     static_cast<unsigned>(ds.shm_perm.cuid), static_cast<unsigned>(ds.shm_perm.mode & 0777),
                     static_cast<std::size_t>(ds.shm_segsz));
            if (::shmctl(id, IPC_RMID, nullptr) != 0 && errno != EINVAL && errno != EIDRM)
                return std::nullopt;
            continue;
        }
        void *addr = ::shmat(id, nullptr, 0);
        if (addr == reinterpret_cast<void *>(-1))
            return std::nullopt;
        if (made)
            std::memset(addr, 0, segment_size);
        return Table(static_cast<uint32_t *>(addr));
    }
    errno = EACCES;
    return std::nullopt;
}

// The running operations that stand in the way of a registration.
struct Conflicts {
    std::array<int, max_entries> refusing{}, waiting{};
    int refusing_n = 0, waiting_n = 0;

    void clear() noexcept { refusing_n = waiting_n = 0; }
    // 1 with the refusing ids, else 2 with the waiting ids, else 0.
    int report(int *ids, int *count, int capacity) const noexcept
    {
        const bool refused = refusing_n > 0;
        const int n = refused ? refusing_n : waiting_n;
        const int *from = refused ? refusing.data() : waiting.data();
        if (capacity > 0)
            std::copy_n(from, std::min(n, capacity), ids);
        *count = n;
        return refused ? 1 : n > 0 ? 2 : 0;
    }
};

// Looks at every entry once, removing those whose owner died, and sorts
// the living ones' conflicts with an operation of category bit `bit`.
void scan(Table &table, uint32_t bit, Conflicts &out) noexcept
{
    out.clear();
    for (int i = 0; i < table.size();) {
        const KEMOOPENTRY e = table.at(i);
        if (!alive(e.pid)) {
            table.remove(i); // the moved entry is examined in its new place
            continue;
        }
        const KEMOOPCATEGORY &row = row_of(static_cast<uint32_t>(e.id));
        if ((row.refuse & bit) != 0)
            out.refusing[out.refusing_n++] = e.id;
        else if ((row.wait & bit) != 0)
            out.waiting[out.waiting_n++] = e.id;
        ++i;
    }
}

// Takes the lock for unregister, transfer and the listing: -1 with the
// lock's error code when it cannot be had within the fixed limit.
int take_fixed_lock() noexcept
{
    int remaining = fixed_lock_ms;
    const int fd = kemo::locks::exclusive_file(KEMO_OP_LOCK_PATH, &remaining, true);
    return fd < 0 ? -1 : fd;
}

} // namespace

namespace kemo::operations {

int register_op(int id, int flags, int *conflicts, int *count, int timeout_ms)
{
    if (count == nullptr)
        return fail(-1, ERR_BAD_PARAMETERS);
    const int capacity = *count;
    *count = 0;
    if (id < 0 || id >= KEMO_OP_ID_COUNT || conflicts == nullptr || timeout_ms < 0 || capacity < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    const uint32_t bit = row_of(static_cast<uint32_t>(id)).bit;
    const pid_t self = ::getpid();
    Conflicts found;
    int remaining = timeout_ms;
    for (int round = 0;; ++round) {
        const int fd = locks::exclusive_file(KEMO_OP_LOCK_PATH, &remaining, true);
        if (fd == -2) {
            if (round == 0)
                return fail(-1, ERR_TIMER_EXPIRED);
            break; // report what the last round found
        }
        if (fd < 0)
            return -1;
        {
            RegistryLock lock(fd);
            std::optional<Table> table = Table::attach(true);
            if (!table) {
                KEMO_LOG("the operations registry segment cannot be had: %m");
                return fail(-1, ERR_OUT_OF_MEMORY);
            }
            scan(*table, bit, found);
            const bool only_waits = found.refusing_n == 0 && (flags & KEMO_OP_IGNORE_WAIT) != 0;
            if (found.refusing_n == 0 && (found.waiting_n == 0 || only_waits)) {
                if (table->size() >= max_entries)
                    return fail(-1, ERR_NOT_ENOUGH_SPACE);
                if ((flags & KEMO_OP_CHECK_ONLY) == 0)
                    table->append({id, self});
                return 0;
            }
        }
        sleep_ms(step_ms);
        remaining -= step_ms;
        if (remaining < 0)
            break;
    }
    return found.report(conflicts, count, capacity);
}

// Runs use(table) under the lock (at most 2 s) on the existing segment,
// without making one; table is null when there is no usable segment (errno
// says why).  use's result, or -1 when the lock cannot be had.
template <class Use>
int with_existing_table(Use &&use)
{
    const int fd = take_fixed_lock();
    if (fd < 0)
        return -1;
    RegistryLock lock(fd);
    std::optional<Table> table = Table::attach(false);
    return use(table ? &*table : nullptr);
}

// Runs change(table, i) on the calling process's first entry of id.  0
// changed; -2 with ERR_OP_UNREGISTERED when there is no such entry (the
// code is set before the search, so it stays set after a success too); -1
// when the lock or the segment cannot be had.
template <class Change>
int on_own_entry(int id, Change &&change)
{
    return with_existing_table([&](Table *table) {
        if (table == nullptr)
            return fail(-1, ERR_OUT_OF_MEMORY);
        KLIBErrSet(ERR_OP_UNREGISTERED);
        const int i = table->find(id, ::getpid());
        if (i < 0)
            return -2;
        change(*table, i);
        return 0;
    });
}

int unregister_op(int id)
{
    return on_own_entry(id, [](Table &table, int i) { table.remove(i); });
}

int transfer_op(int id, int pid)
{
    int result = -1;
    if (pid <= 0 || !alive(pid))
        result = fail(-1, ERR_BAD_PARAMETERS);
    else
        result = on_own_entry(id, [&](Table &table, int i) { table.put(i, {id, pid}); });
    if (result != 0)
        log("%s(%d) transfer error", "KEMOOperationTransfer", __LINE__);
    return result;
}

int list_ops(KEMOOPENTRY *entries, int capacity)
{
    if (capacity < 0 || (entries == nullptr && capacity > 0))
        return fail(-1, ERR_BAD_PARAMETERS);
    return with_existing_table([&](Table *table) {
        if (table == nullptr)
            return errno == ENOENT ? 0 : fail(-1, ERR_OUT_OF_MEMORY);
        const int n = table->size();
        for (int k = 0; k < n && k < capacity; ++k)
            entries[k] = table->at(k);
        return n;
    });
}

} // namespace kemo::operations

extern "C" {

KEMO_API int KEMOOperationRegister(int id, int flags, int *conflicts, int *count, int timeoutMs)
{
    return kemo::edge(-1, [&] { return kemo::operations::register_op(id, flags, conflicts, count, timeoutMs); });
}

KEMO_API int KEMOOperationUnregister(int id)
{
    return kemo::edge(-1, [&] { return kemo::operations::unregister_op(id); });
}

KEMO_API int KEMOOperationTransfer(int id, int pid)
{
    return kemo::edge(-1, [&] { return kemo::operations::transfer_op(id, pid); });
}

KEMO_API const char *KEMOOperationGetName(int id)
{
    if (id < 0 || id >= KEMO_OP_ID_COUNT)
        return "";
    return grgIDMap[id].szName;
}

KEMO_API int KEMOOperationEnum(KEMOOPENTRY *entries, int capacity)
{
    return kemo::edge(-1, [&] { return kemo::operations::list_ops(entries, capacity); });
}

} // extern "C"
