// The registry under load: many processes register a mix of operations that
// refuse or wait for one another, hold them briefly and let go, while some
// of them are killed in the middle.  Every process that gets in checks,
// against what the others recorded in shared memory, that nothing running
// beside it should have kept it out, and that its entry is in the table.
#include "kemo.h"
#include "operation_util.hpp"
#include "sandbox_fixture.hpp"

#include <sys/mman.h>

#include <atomic>
#include <chrono>
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
enum : uint64_t { idle = 0, holding = 1, killed = 2 };
struct Record {
    uint64_t state : 2, id : 6, flags : 2, start : 27, end : 27;
};
static_assert(std::atomic<Record>::is_always_lock_free, "shared between processes");

struct Board {
    std::atomic<Record> record[workers];
    std::atomic<uint32_t> clock;
    std::atomic<bool> go;
    std::atomic<int> registered, refused, waited, busy, full;
    std::atomic<int> violations, lost, overfull, odd;
    std::atomic<Record> first_violation[2];
};

const KEMOOPCATEGORY &row(int id) { return grgBOPack[grgIDMap[id].category]; }

// May `second` (registered with its flags) start while `first` runs?
bool allowed(const Record &first, const Record &second)
{
    const uint32_t bit = row(int(second.id)).bit;
    const KEMOOPCATEGORY &r = row(int(first.id));
    return (r.refuse & bit) == 0 && ((r.wait & bit) == 0 || (second.flags & KEMO_OP_IGNORE_WAIT) != 0);
}

// Two operations seen running at once: the one registered later saw the
// other's entry and must have been let in by its row.  When the clock
// cannot tell which came first, either order will do.
bool legal(const Record &me, const Record &other)
{
    if (other.end < me.start)
        return allowed(other, me);
    if (me.end < other.start)
        return allowed(me, other);
    return allowed(other, me) || allowed(me, other);
}

// The conflicts a refusal or wait reported are of the kind it claims.
bool reported_right(const Outcome &o, int id)
{
    const uint32_t bit = row(id).bit;
    for (int i = 0; i < std::min(o.count, 16); ++i) {
        if (o.conflicts[i] < 0 || o.conflicts[i] >= KEMO_OP_ID_COUNT)
            return false;
        const KEMOOPCATEGORY &r = row(o.conflicts[i]);
        if (o.result == 1 ? (r.refuse & bit) == 0 : (r.wait & bit) == 0 || (r.refuse & bit) != 0)
            return false;
    }
    return o.count >= 1;
}

[[noreturn]] void work(Board *board, int slot, int how_many, unsigned seed)
{
    std::mt19937 rng(seed);
    const int self = ::getpid();
    while (!board->go)
        ::usleep(1000);
    for (int round = 0; round < how_many; ++round) {
        Record me{holding, uint64_t(mix[rng() % std::size(mix)]), 0, 0, 0};
        me.flags = rng() % 3 == 0 ? KEMO_OP_IGNORE_WAIT : 0;
        const int timeout = rng() % 2 == 0 ? 0 : 300;
        me.start = board->clock++;
        const Outcome o = reg(int(me.id), int(me.flags), timeout);
        if (o.result == 1 || o.result == 2) {
            ++(o.result == 1 ? board->refused : board->waited);
            board->odd += !reported_right(o, int(me.id));
            continue;
        }
        if (o.result != 0) {
            ++(o.error == ERR_TIMER_EXPIRED ? board->busy : o.error == ERR_NOT_ENOUGH_SPACE ? board->full : board->odd);
            continue;
        }
        me.end = board->clock++;
        ++board->registered;
        board->record[slot].store(me);
        for (int j = 0; j < workers; ++j) {
            const Record other = board->record[j].load();
            if (j != slot && other.state == holding && !legal(me, other) && board->violations++ == 0)
                board->first_violation[0] = me, board->first_violation[1] = other;
        }
        // The table as the library leaves it.
        const Segment table = segment();
        const Entries entries = table.entries();
        board->overfull += table.words[0] > 16;
        board->lost += std::find(entries.begin(), entries.end(), std::make_pair(int(me.id), self)) == entries.end();
        ::usleep(1000);
        // The parent may have marked us for killing: then wait for it.
        Record expected = me;
        if (!board->record[slot].compare_exchange_strong(expected, Record{}))
            for (;;)
                ::pause();
        board->lost += KEMOOperationUnregister(int(me.id)) != 0;
    }
    ::_exit(0);
}

TEST_F(RegistryLoad, ConflictingOperationsNeverRunTogether)
{
    void *shared = ::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    Board *board = new (shared) Board{};

    pid_t pids[workers] = {};
    unsigned generation = 0;
    const auto spawn = [&](int slot, int how_many) {
        const unsigned seed = ++generation * 7919u + static_cast<unsigned>(slot);
        if ((pids[slot] = ::fork()) == 0)
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
            Record r = board->record[slot].load();
            Record marked = r;
            marked.state = killed;
            if (pids[slot] <= 0 || r.state != holding || !board->record[slot].compare_exchange_strong(r, marked))
                continue;
            ::kill(pids[slot], SIGKILL);
            ::waitpid(pids[slot], nullptr, 0);
            board->record[slot] = Record{};
            killed_pids.push_back(pids[slot]);
            spawn(slot, rounds / 2);
            break;
        }
        int status = 0;
        for (pid_t pid; (pid = ::waitpid(-1, &status, WNOHANG)) > 0; --alive) {
            std::replace(std::begin(pids), std::end(pids), pid, 0);
            bad_exits += !WIFEXITED(status) || WEXITSTATUS(status) != 0;
        }
    }
    for (pid_t p : pids)
        if (p > 0 && ::kill(p, SIGKILL) == 0)
            ::waitpid(p, nullptr, 0);
    ASSERT_EQ(alive, 0) << "the workers did not finish in time";

    const Record a = board->first_violation[0], b = board->first_violation[1];
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
    // every entry is a killed process's: none leaked from the others.
    Child last[3] = {running(0), running(0), running(0)};
    for (Child &c : last) {
        EXPECT_TRUE(c.ready());
        killed_pids.push_back(c.pid());
    }
    for (Child &c : last)
        c.join(SIGKILL);
    const Entries dead = segment().entries();
    EXPECT_GE(dead.size(), 3u);
    for (const auto &[id, pid] : dead)
        EXPECT_NE(std::find(killed_pids.begin(), killed_pids.end(), pid), killed_pids.end()) << id << " of " << pid;
    // The next registration removes them all.
    ASSERT_EQ(reg(0).result, 0);
    EXPECT_EQ(segment().entries(), (Entries{{0, ::getpid()}}));
    ASSERT_EQ(KEMOOperationUnregister(0), 0);
    EXPECT_EQ(KEMOOperationEnum(nullptr, 0), 0);
    ::munmap(shared, sizeof(Board));
}

} // namespace
