// The registry under load: many processes register a mix of operations that
// refuse or wait for one another, hold them briefly and let go, while some
// of them are killed in the middle.  Every process that gets in checks,
// against what the others recorded in shared memory, that nothing running
// beside it should have kept it out, and that its entry is in the table.
#include "kemo.h"
#include "sandbox_fixture.hpp"

#include <endian.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/shm.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <new>
#include <random>

namespace {

class RegistryLoad : public SandboxTest {};

constexpr int workers = 24;
constexpr int rounds = 20;
constexpr int kills_wanted = 12;
// restore, hostname, backup, account, init, http, volume, none, apple,
// group, snapshot.
constexpr int mix[] = {31, 1, 30, 7, 34, 20, 23, 0, 18, 8, 29};

// A worker's record, one word so that a reader never sees half an update:
// state, operation, flags, and the clock before its registration began and
// after it succeeded.
enum : uint64_t { idle = 0, running = 1, killed = 2 };
struct Record {
    uint64_t state;
    int id, flags;
    uint32_t start, end;
};
uint64_t pack(const Record &r)
{
    return r.state | uint64_t(r.id) << 2 | uint64_t(r.flags) << 8 | uint64_t(r.start) << 10 | uint64_t(r.end) << 37;
}
Record unpack(uint64_t v)
{
    return {v & 3, int(v >> 2 & 63), int(v >> 8 & 3), uint32_t(v >> 10 & 0x7FFFFFF), uint32_t(v >> 37)};
}

struct Board {
    std::atomic<uint64_t> record[workers];
    std::atomic<uint32_t> clock;
    std::atomic<bool> go;
    std::atomic<int> registered, refused, waited, busy, full;
    std::atomic<int> violations, lost, overfull, odd;
    std::atomic<uint64_t> first_violation[2]; // the two records
};

const KEMOOPCATEGORY &row(int id) { return grgBOPack[grgIDMap[id].category]; }

// May `second` (registered with flags) start while `first` runs?
bool allowed(int first, int second, int flags)
{
    const uint32_t bit = row(second).bit;
    return (row(first).refuse & bit) == 0 && ((row(first).wait & bit) == 0 || (flags & KEMO_OP_IGNORE_WAIT) != 0);
}

// Two operations seen running at once: the one registered later saw the
// other's entry and must have been let in by its row.  When the clock
// cannot tell which came first, either order will do.
bool legal(const Record &me, const Record &other)
{
    const bool other_first = allowed(other.id, me.id, me.flags);
    const bool me_first = allowed(me.id, other.id, other.flags);
    if (other.end < me.start)
        return other_first;
    if (me.end < other.start)
        return me_first;
    return other_first || me_first;
}

// The conflicts a refusal or wait reported are of the kind it claims.
bool reported_right(int result, int id, const int *conflicts, int n)
{
    for (int i = 0; i < std::min(n, 16); ++i) {
        if (conflicts[i] < 0 || conflicts[i] >= KEMO_OP_ID_COUNT)
            return false;
        const KEMOOPCATEGORY &r = row(conflicts[i]);
        const uint32_t bit = row(id).bit;
        if (result == 1 ? (r.refuse & bit) == 0 : (r.wait & bit) == 0 || (r.refuse & bit) != 0)
            return false;
    }
    return n >= 1;
}

[[noreturn]] void work(Board *board, int slot, int how_many, unsigned seed)
{
    std::mt19937 rng(seed);
    const int self = ::getpid();
    while (!board->go)
        ::usleep(1000);
    for (int round = 0; round < how_many; ++round) {
        Record me{running, mix[rng() % std::size(mix)], rng() % 3 == 0 ? KEMO_OP_IGNORE_WAIT : 0, 0, 0};
        const int timeout = rng() % 2 == 0 ? 0 : 300;
        int conflicts[16], n = 16;
        me.start = board->clock++;
        const int result = KEMOOperationRegister(me.id, me.flags, conflicts, &n, timeout);
        if (result == 1 || result == 2) {
            ++(result == 1 ? board->refused : board->waited);
            if (!reported_right(result, me.id, conflicts, n))
                ++board->odd;
            continue;
        }
        if (result != 0) {
            const int error = KLIBErrGet();
            ++(error == ERR_TIMER_EXPIRED ? board->busy : error == ERR_NOT_ENOUGH_SPACE ? board->full : board->odd);
            continue;
        }
        me.end = board->clock++;
        ++board->registered;
        const uint64_t mine = pack(me);
        board->record[slot].store(mine);
        for (int j = 0; j < workers; ++j) {
            const uint64_t v = board->record[j].load();
            if (j == slot || unpack(v).state != running || legal(me, unpack(v)))
                continue;
            if (board->violations++ == 0) {
                board->first_violation[0] = mine;
                board->first_violation[1] = v;
            }
        }
        // The table as the library leaves it, read under its lock.
        const int lock = ::open(KEMO_OP_LOCK_PATH, O_RDWR | O_CLOEXEC);
        const auto *table = static_cast<const uint32_t *>(::shmat(::shmget(KEMO_OP_KEY, 0, 0), nullptr, SHM_RDONLY));
        if (lock < 0 || ::flock(lock, LOCK_EX) != 0 || table == reinterpret_cast<const uint32_t *>(-1))
            ::_exit(3);
        const uint32_t count = be32toh(table[0]);
        bool found = false;
        for (uint32_t i = 0; i < std::min<uint32_t>(count, 16); ++i)
            found |= int(be32toh(table[1 + 2 * i])) == me.id && int(be32toh(table[2 + 2 * i])) == self;
        ::shmdt(table);
        ::close(lock);
        if (count > 16)
            ++board->overfull;
        if (!found)
            ++board->lost;
        ::usleep(1000);
        // The parent may have marked us for killing: then wait for it.
        uint64_t expected = mine;
        if (!board->record[slot].compare_exchange_strong(expected, idle))
            for (;;)
                ::pause();
        if (KEMOOperationUnregister(me.id) != 0)
            ++board->lost;
    }
    ::_exit(0);
}

TEST_F(RegistryLoad, ConflictingOperationsNeverRunTogether)
{
    void *shared = ::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    Board *board = new (shared) Board{};
    int ids[16], n = 16;

    pid_t pids[workers] = {};
    unsigned generation = 0;
    const auto spawn = [&](int slot, int how_many) {
        const unsigned seed = ++generation * 7919u + static_cast<unsigned>(slot);
        pids[slot] = ::fork();
        if (pids[slot] == 0)
            work(board, slot, how_many, seed);
    };
    // All start at once: the first registrations also race to make the
    // lock file and the segment.
    for (int slot = 0; slot < workers; ++slot)
        spawn(slot, rounds);
    board->go = true;

    std::mt19937 rng(1);
    int alive = workers, bad_exits = 0;
    std::vector<pid_t> killed_pids;
    const auto t0 = std::chrono::steady_clock::now();
    while (alive > 0 && std::chrono::steady_clock::now() - t0 < std::chrono::seconds(25)) {
        ::usleep(2000 + rng() % 10000);
        const int from = static_cast<int>(rng() % workers);
        for (int k = 0; k < workers && int(killed_pids.size()) < kills_wanted; ++k) {
            const int slot = (from + k) % workers;
            uint64_t v = board->record[slot].load();
            if (pids[slot] <= 0 || unpack(v).state != running ||
                !board->record[slot].compare_exchange_strong(v, (v & ~uint64_t{3}) | killed))
                continue;
            ::kill(pids[slot], SIGKILL);
            ::waitpid(pids[slot], nullptr, 0);
            board->record[slot] = idle;
            killed_pids.push_back(pids[slot]);
            spawn(slot, rounds / 2);
            break;
        }
        int status = 0;
        for (pid_t pid; (pid = ::waitpid(-1, &status, WNOHANG)) > 0;) {
            for (pid_t &p : pids)
                if (p == pid)
                    p = 0;
            --alive;
            if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
                ++bad_exits;
        }
    }
    for (pid_t p : pids)
        if (p > 0) {
            ::kill(p, SIGKILL);
            ::waitpid(p, nullptr, 0);
        }
    ASSERT_EQ(alive, 0) << "the workers did not finish in time";

    const Record a = unpack(board->first_violation[0]), b = unpack(board->first_violation[1]);
    EXPECT_EQ(board->violations, 0) << "e.g. " << a.id << " (flags " << a.flags << ") beside " << b.id
                                    << " (flags " << b.flags << ")";
    EXPECT_EQ(board->lost, 0) << "entries missing from the table";
    EXPECT_EQ(board->overfull, 0) << "more than 16 entries";
    EXPECT_EQ(board->odd, 0) << "unexpected results or conflict reports";
    EXPECT_EQ(bad_exits, 0);
    EXPECT_EQ(int(killed_pids.size()), kills_wanted) << "killed while registered";
    EXPECT_GE(board->registered, 100);
    EXPECT_GT(board->refused + board->waited, 0);
    std::printf("registered %d, refused %d, waited %d, lock busy %d, table full %d, killed %d\n",
                board->registered.load(), board->refused.load(), board->waited.load(), board->busy.load(),
                board->full.load(), int(killed_pids.size()));

    // Only dead owners are left (three more, killed together, for sure);
    // the next registration removes them all.
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    pid_t last[3];
    for (pid_t &pid : last) {
        pid = ::fork();
        if (pid == 0) {
            n = 16;
            const char got = KEMOOperationRegister(0, 0, ids, &n, 1000) == 0 ? 'y' : 'n';
            if (::write(ready[1], &got, 1) == 1)
                ::pause();
            ::_exit(1);
        }
        char got = 'n';
        EXPECT_EQ(::read(ready[0], &got, 1), 1);
        EXPECT_EQ(got, 'y');
    }
    for (pid_t pid : last) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        killed_pids.push_back(pid);
    }
    ::close(ready[0]);
    ::close(ready[1]);
    // Every entry left is a killed process's: none leaked from the others.
    KEMOOPENTRY entries[16];
    const int dead = KEMOOperationEnum(entries, 16);
    EXPECT_GE(dead, 3);
    for (int i = 0; i < std::min(dead, 16); ++i)
        EXPECT_NE(std::find(killed_pids.begin(), killed_pids.end(), entries[i].pid), killed_pids.end())
            << "entry " << entries[i].id << " of pid " << entries[i].pid;
    std::printf("dead entries left: %d\n", dead);
    n = 16;
    ASSERT_EQ(KEMOOperationRegister(0, 0, ids, &n, 0), 0);
    ASSERT_EQ(KEMOOperationEnum(entries, 16), 1);
    EXPECT_EQ(entries[0].id, 0);
    EXPECT_EQ(entries[0].pid, ::getpid());
    ASSERT_EQ(KEMOOperationUnregister(0), 0);
    EXPECT_EQ(KEMOOperationEnum(entries, 16), 0);
    ::munmap(shared, sizeof(Board));
}

} // namespace
