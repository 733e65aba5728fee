// The allocation tracer: tracked memory blocks with guard zones and tracked
// streams.  One table per process records every live block and stream with
// the source position that created it, so that double frees are refused,
// damaged guard zones are found when a block is released, and whatever is
// still alive at exit is reported (and released) as a leak.  Every message
// goes to the system log at LOG_ERR.
#include "kemo_internal.hpp"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr std::size_t kGuard = 32;   // guard bytes on each side of a block
constexpr unsigned char kGuardByte = 0x5A;
constexpr std::uint32_t kInitialCapacity = 11;

constexpr std::uintptr_t kKeyEmpty = 0;
constexpr std::uintptr_t kKeyDeleted = 1;

enum : std::int32_t {
    kFlagGuarded = 1 << 0,
    kFlagMemory = 1 << 4,
    kFlagStream = 1 << 5,
};

struct Slot {
    std::uintptr_t key;  // user address of a block or address of a stream
    long size;           // bytes of the block, 0 for streams
    std::int32_t line;   // line of the allocation or open
    std::int32_t reline; // line of the last reallocation or reopen, 0 if none
    std::int32_t flags;
    char file[32];       // last path component of the allocating source
    char refile[32];     // same for the last reallocation or reopen
};

struct Table {
    std::uint32_t capacity;
    std::uint32_t live;
    std::uint32_t bytes;
    Slot slots[];
};

Table *g_table = nullptr;
bool g_init_failed = false;
unsigned char g_guard[kGuard];

// Every message is formatted into a local buffer first, then logged.
[[gnu::format(printf, 1, 2)]] void report(const char *format, ...)
{
    char buf[1024];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    kemo::log("%s", buf);
}

const char *base_name(const char *path)
{
    if (path == nullptr)
        return "";
    const char *slash = std::strrchr(path, '/');
    return slash ? slash + 1 : path;
}

void store_name(char (&dst)[32], const char *path)
{
    std::snprintf(dst, sizeof dst, "%s", base_name(path));
}

std::size_t table_bytes(std::uint32_t capacity)
{
    return offsetof(Table, slots) + capacity * sizeof(Slot);
}

Table *new_table(std::uint32_t capacity)
{
    auto *t = static_cast<Table *>(std::calloc(1, table_bytes(capacity)));
    if (t != nullptr) {
        t->capacity = capacity;
        t->bytes = static_cast<std::uint32_t>(table_bytes(capacity));
    }
    return t;
}

void leak_report();

bool ensure_table()
{
    if (g_table != nullptr)
        return true;
    if (g_init_failed)
        return false;
    g_table = new_table(kInitialCapacity);
    if (g_table == nullptr) {
        g_init_failed = true;
        report("Can't initialize KemoTracer\n");
        return false;
    }
    std::memset(g_guard, kGuardByte, sizeof g_guard);
    std::atexit(leak_report);
    return true;
}

// Probes from key mod capacity while slots have been used.  Returns the slot
// holding the key, or null; *first_free receives the first deleted slot met,
// else the never-used slot where probing stopped (null when the table has
// neither).
Slot *probe(Table *t, std::uintptr_t key, Slot **first_free)
{
    Slot *deleted = nullptr;
    Slot *stop = nullptr;
    std::uint32_t i = static_cast<std::uint32_t>(key % t->capacity);
    for (std::uint32_t n = 0; n < t->capacity; ++n, i = (i + 1) % t->capacity) {
        Slot &s = t->slots[i];
        if (s.key == kKeyEmpty) {
            stop = &s;
            break;
        }
        if (s.key == key)
            return &s;
        if (s.key == kKeyDeleted && deleted == nullptr)
            deleted = &s;
    }
    if (first_free != nullptr)
        *first_free = deleted ? deleted : stop;
    return nullptr;
}

Slot *find(std::uintptr_t key)
{
    if (g_table == nullptr || key <= kKeyDeleted)
        return nullptr;
    return probe(g_table, key, nullptr);
}

// Grows the table to 4 * capacity - 1 slots (11, 43, 171, 683, ...) when at
// most an eighth of it is free.  On failure the old table stays in use.
void grow_if_crowded()
{
    Table *old = g_table;
    if (old->capacity - old->live > old->capacity / 8)
        return;
    Table *t = new_table(old->capacity * 4 - 1);
    if (t == nullptr) {
        report("########  KemoTracer can't reallocate memory for hash!  ########\n");
        return;
    }
    for (std::uint32_t i = 0; i < old->capacity; ++i) {
        const Slot &s = old->slots[i];
        if (s.key <= kKeyDeleted)
            continue;
        Slot *dst = nullptr;
        probe(t, s.key, &dst);
        *dst = s;
        ++t->live;
    }
    std::free(old);
    g_table = t;
}

// A slot for a new key, or null when the key is already recorded (an
// insertion of an existing key is refused) or there is no room at all.
Slot *slot_for_insert(std::uintptr_t key)
{
    if (!ensure_table())
        return nullptr;
    grow_if_crowded();
    Slot *free_slot = nullptr;
    if (probe(g_table, key, &free_slot) != nullptr)
        return nullptr;
    return free_slot;
}

Slot *record(std::uintptr_t key, long size, std::int32_t flags, const char *file, int line)
{
    Slot *s = slot_for_insert(key);
    if (s == nullptr)
        return nullptr;
    *s = Slot{};
    s->key = key;
    s->size = size;
    s->line = line;
    s->flags = flags;
    store_name(s->file, file);
    ++g_table->live;
    return s;
}

void forget(Slot *s)
{
    s->key = kKeyDeleted;
    --g_table->live;
}

unsigned char *block_start(void *user)
{
    return static_cast<unsigned char *>(user) - kGuard;
}

void write_guards(unsigned char *start, std::size_t size)
{
    std::memset(start, kGuardByte, kGuard);
    std::memset(start + kGuard + size, kGuardByte, kGuard);
}

// Which guard zone of a block is damaged: null when both are intact.
const char *damaged_side(const Slot &s)
{
    const unsigned char *user = reinterpret_cast<const unsigned char *>(s.key);
    const bool prefix = std::memcmp(user - kGuard, g_guard, kGuard) != 0;
    const bool postfix = std::memcmp(user + s.size, g_guard, kGuard) != 0;
    if (prefix && postfix)
        return "both side";
    if (prefix)
        return "prefix";
    if (postfix)
        return "postfix";
    return nullptr;
}

void report_if_corrupted(const Slot &s)
{
    if (!(s.flags & kFlagGuarded))
        return;
    const char *side = damaged_side(s);
    if (side == nullptr)
        return;
    if (s.reline == 0)
        report("Memory allocated %ld bytes at file %s line %d was corrupted (%s)!\n", s.size, s.file,
               s.line, side);
    else
        report("Memory reallocated %ld bytes at file %s line %d (allocated at %s:%d)) was corrupted (%s)!\n",
               s.size, s.refile, s.reline, s.file, s.line, side);
}

void report_stream_leak(const Slot &s)
{
    std::fclose(reinterpret_cast<FILE *>(s.key));
    if (s.reline == 0)
        report("File stream (0x%08lX) opened at file %s line %d was not closed!\n",
               static_cast<unsigned long>(s.key), s.file, s.line);
    else if (s.line == 0)
        report("File reopened at file %s line %d was not closed!\n", s.refile, s.reline);
    else
        report("File reopened at file %s line %d (opened at %s:%d) was not closed!\n", s.refile, s.reline,
               s.file, s.line);
}

void report_memory_leak(const Slot &s)
{
    const char *side = (s.flags & kFlagGuarded) ? damaged_side(s) : nullptr;
    std::free(block_start(reinterpret_cast<void *>(s.key)));
    if (s.reline == 0) {
        if (side == nullptr)
            report("Memory allocated %ld bytes at file %s line %d was not freed!\n", s.size, s.file, s.line);
        else
            report("Memory allocated %ld bytes at file %s line %d was not freed and corrupted (%s)!\n", s.size,
                   s.file, s.line, side);
    } else if (side == nullptr) {
        report("Memory reallocated %ld bytes at file %s line %d (allocated at %s:%d) was not freed!\n", s.size,
               s.refile, s.reline, s.file, s.line);
    } else {
        report("Memory reallocated %ld bytes at file %s line %d (allocated at %s:%d) was not freed and "
               "corrupted! (%s)\n",
               s.size, s.refile, s.reline, s.file, s.line, side);
    }
}

// Registered with atexit when the table is created.
void leak_report()
{
    Table *t = g_table;
    if (t == nullptr)
        return;
    g_table = nullptr;
    if (t->live > 0) {
        report("\n========  KemoTracer detected %d memory leaks or unclosed files!  ========\n",
               static_cast<int>(t->live));
        for (std::uint32_t i = 0; i < t->capacity; ++i) {
            const Slot &s = t->slots[i];
            if (s.key <= kKeyDeleted)
                continue;
            if (s.flags & kFlagStream)
                report_stream_leak(s);
            else
                report_memory_leak(s);
        }
        report("\n");
    }
    std::free(t);
}

void *allocate(std::size_t size, const char *file, int line)
{
    unsigned char *start = nullptr;
    if (size <= SIZE_MAX - 2 * kGuard)
        start = static_cast<unsigned char *>(std::malloc(size + 2 * kGuard));
    if (start == nullptr) {
        report("Memory allocated %ld bytes error at file %s line %d!\n", static_cast<long>(size),
               base_name(file), line);
        return nullptr;
    }
    void *user = start + kGuard;
    record(reinterpret_cast<std::uintptr_t>(user), static_cast<long>(size), kFlagMemory | kFlagGuarded, file,
           line);
    write_guards(start, size);
    return user;
}

void release(void *ptr, const char *file, int line)
{
    if (ptr == nullptr) {
        report("Try to free a null pointer memory at file %s line %d!\n", base_name(file), line);
        return;
    }
    Slot *s = find(reinterpret_cast<std::uintptr_t>(ptr));
    if (s == nullptr || !(s->flags & kFlagMemory)) {
        report("Try to free an unallocayed memory (0x%08lX) at file %s line %d!\n",
               static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(ptr)), base_name(file), line);
        return;
    }
    report_if_corrupted(*s);
    forget(s);
    std::free(block_start(ptr));
}

void track_stream(FILE *stream, const char *file, int line)
{
    if (stream != nullptr)
        record(reinterpret_cast<std::uintptr_t>(stream), 0, kFlagStream, file, line);
}

} // namespace

extern "C" {

KEMO_API void *KEMOMemMAlloc(size_t size, const char *file, int line)
{
    if (size == 0)
        return nullptr;
    return allocate(size, file, line);
}

KEMO_API void *KEMOMemCAlloc(size_t count, size_t size, const char *file, int line)
{
    if (size != 0 && count > SIZE_MAX / size) {
        report("Memory allocated %ld bytes error at file %s line %d!\n", -1L, base_name(file), line);
        return nullptr;
    }
    void *p = KEMOMemMAlloc(count * size, file, line);
    if (p != nullptr)
        std::memset(p, 0, count * size);
    return p;
}

KEMO_API void *KEMOMemRealloc(void *ptr, size_t size, const char *file, int line)
{
    if (ptr == nullptr)
        return KEMOMemMAlloc(size, file, line);
    if (size == 0)
        return nullptr;
    if (size > SIZE_MAX - 2 * kGuard)
        return nullptr;

    Slot *s = find(reinterpret_cast<std::uintptr_t>(ptr));
    Slot old{};
    if (s == nullptr) {
        report("Try to reallocate an invalid memory (0x%08lX) at file %s line %d!\n",
               static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(ptr)), base_name(file), line);
    } else {
        // The copy would carry damaged guards along and the new guards would
        // hide the damage: report it now, while the block is still known.
        report_if_corrupted(*s);
        old = *s;
    }

    auto *start = static_cast<unsigned char *>(std::realloc(block_start(ptr), size + 2 * kGuard));
    if (start == nullptr)
        return nullptr;
    void *user = start + kGuard;
    if (s != nullptr)
        forget(s);
    Slot *fresh = record(reinterpret_cast<std::uintptr_t>(user), static_cast<long>(size),
                         kFlagMemory | kFlagGuarded, file, line);
    if (fresh != nullptr) {
        if (old.key != kKeyEmpty) {
            // The first allocation's site stays; this call becomes the
            // reallocation site.
            fresh->line = old.line;
            std::memcpy(fresh->file, old.file, sizeof fresh->file);
        }
        fresh->reline = line;
        store_name(fresh->refile, file);
    }
    write_guards(start, size);
    return user;
}

KEMO_API void *KEMOMemReallocFree(void *ptr, size_t size, const char *file, int line)
{
    void *p = KEMOMemRealloc(ptr, size, file, line);
    if (p == nullptr && ptr != nullptr)
        KEMOMemFree(ptr, "gpl/kemotracer", 439);
    return p;
}

KEMO_API void KEMOMemFree(void *ptr, const char *file, int line)
{
    release(ptr, file, line);
}

KEMO_API FILE *KEMOFileOpen(const char *path, const char *mode, const char *file, int line)
{
    FILE *f = (path && mode) ? fopen64(path, mode) : nullptr;
    if (f == nullptr) {
        report("Can't open file \"%s\" with \"%s\" mode at file %s line %d!\n", path ? path : "(null)",
               mode ? mode : "(null)", base_name(file), line);
        return nullptr;
    }
    track_stream(f, file, line);
    return f;
}

KEMO_API FILE *KEMOFileDescOpen(int fd, const char *mode, const char *file, int line)
{
    FILE *f = mode ? ::fdopen(fd, mode) : nullptr;
    if (f == nullptr) {
        report("Can't open file descriptor \"%d\" with \"%s\" mode at file %s line %d!\n", fd,
               mode ? mode : "(null)", base_name(file), line);
        return nullptr;
    }
    track_stream(f, file, line);
    return f;
}

KEMO_API FILE *KEMOFileReopen(const char *path, const char *mode, FILE *stream, const char *file, int line)
{
    Slot *s = find(reinterpret_cast<std::uintptr_t>(stream));
    Slot old{};
    if (s != nullptr) {
        old = *s;
        forget(s);
    }
    FILE *f = (mode && stream) ? freopen64(path, mode, stream) : nullptr;
    if (f == nullptr) {
        report("Can't reopen file \"%s\" with \"%s\" mode at file %s line %d!\n", path ? path : "(null)",
               mode ? mode : "(null)", base_name(file), line);
        return nullptr;
    }
    Slot *fresh = record(reinterpret_cast<std::uintptr_t>(f), 0, kFlagStream, file, line);
    if (fresh != nullptr) {
        // A stream the tracer did not know has no open site of its own.
        fresh->line = old.line;
        std::memcpy(fresh->file, old.file, sizeof fresh->file);
        fresh->reline = line;
        store_name(fresh->refile, file);
    }
    return f;
}

KEMO_API int KEMOFileClose(FILE *stream, const char *file, int line)
{
    Slot *s = find(reinterpret_cast<std::uintptr_t>(stream));
    if (s == nullptr || !(s->flags & kFlagStream)) {
        report("Try to close an unopened file stream (0x%08lX) at file %s line %d!\n",
               static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(stream)), base_name(file), line);
        return -1;
    }
    forget(s);
    return std::fclose(stream);
}

} // extern "C"
