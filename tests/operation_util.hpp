// Helpers of the operations registry's tests: a registration and what it
// reported, the table as it stands (read under the registry's lock), and
// processes that hold a registration until they are released or killed.
#pragma once

#include "kemo.h"

#include <endian.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

using Entries = std::vector<std::pair<int, int>>; // (id, pid) in table order
constexpr int unset = -7;                          // conflict slots the library must not write

struct Outcome {
    int result = -9, count = -9, error = 0;
    int conflicts[16];
};

inline Outcome reg(int id, int flags = 0, int timeout = 0, int capacity = 16)
{
    Outcome o;
    std::fill(std::begin(o.conflicts), std::end(o.conflicts), unset);
    o.count = capacity;
    o.result = KEMOOperationRegister(id, flags, o.conflicts, &o.count, timeout);
    o.error = KLIBErrGet();
    return o;
}

// The registry segment: its id, "owner creator mode size" and its 33 words.
// With `replace`, the table is first made to hold those entries (a state
// that other processes made).
struct Segment {
    int shmid = ::shmget(KEMO_OP_KEY, 0, 0);
    std::string owners;
    std::vector<uint32_t> words = std::vector<uint32_t>(33);
    Entries entries() const
    {
        Entries out;
        for (uint32_t i = 0; i < std::min<uint32_t>(words[0], 16); ++i)
            out.emplace_back(int(words[1 + 2 * i]), int(words[2 + 2 * i]));
        return out;
    }
};

inline Segment segment(const Entries *replace = nullptr)
{
    Segment s;
    struct shmid_ds ds {};
    const int lock = ::open(KEMO_OP_LOCK_PATH, O_RDWR | O_CLOEXEC);
    auto *mem = static_cast<uint32_t *>(::shmat(s.shmid, nullptr, 0));
    if (::shmctl(s.shmid, IPC_STAT, &ds) != 0 || mem == reinterpret_cast<uint32_t *>(-1) || ::flock(lock, LOCK_EX)) {
        ADD_FAILURE() << "no registry segment or lock: " << std::strerror(errno);
        return s;
    }
    char text[64];
    std::snprintf(text, sizeof text, "%u %u %o %zu", unsigned(ds.shm_perm.uid), unsigned(ds.shm_perm.cuid),
                  unsigned(ds.shm_perm.mode & 0777), size_t(ds.shm_segsz));
    s.owners = text;
    if (replace != nullptr) {
        std::fill(mem, mem + 33, 0);
        mem[0] = htobe32(uint32_t(replace->size()));
        for (std::size_t i = 0; i < replace->size(); ++i) {
            mem[1 + 2 * i] = htobe32(uint32_t((*replace)[i].first));
            mem[2 + 2 * i] = htobe32(uint32_t((*replace)[i].second));
        }
    }
    for (int i = 0; i < 33; ++i)
        s.words[i] = be32toh(mem[i]);
    ::shmdt(mem);
    ::close(lock);
    return s;
}

// Another process: runs body(), which the constructor waits for, then stays
// until released (or for hold_ms), runs after() and exits with 0 when that
// returned true.  Released by SIGUSR1, so no descriptor ties children
// together.
class Child {
public:
    explicit Child(const std::function<bool()> &body, int hold_ms = -1, const std::function<bool()> &after = {})
    {
        int up[2];
        if (::pipe(up) != 0)
            return;
        pid_ = ::fork();
        if (pid_ == 0) {
            sigset_t release;
            ::sigemptyset(&release), ::sigaddset(&release, SIGUSR1), ::sigprocmask(SIG_BLOCK, &release, nullptr);
            const char ok = body() ? 'y' : 'n';
            if (::write(up[1], &ok, 1) != 1)
                ::_exit(2);
            const timespec hold{hold_ms / 1000, hold_ms % 1000 * 1000000L};
            while ((hold_ms < 0 ? ::sigwaitinfo(&release, nullptr) : ::sigtimedwait(&release, nullptr, &hold)) < 0 &&
                   errno == EINTR) {
            }
            ::_exit(!after || after() ? 0 : 1);
        }
        char ok = 'n';
        ready_ = pid_ > 0 && ::read(up[0], &ok, 1) == 1 && ok == 'y';
        ::close(up[0]);
        ::close(up[1]);
    }
    Child(const Child &) = delete;
    ~Child() { join(); }
    bool ready() const { return ready_; }
    pid_t pid() const { return pid_; }
    // Releases it (or kills it: its entries then belong to nobody alive) and
    // reaps it; its exit code.
    int join(int signal = SIGUSR1)
    {
        int status = -1;
        if (pid_ > 0 && ::kill(pid_, signal) == 0)
            ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid_ = -1;
    bool ready_ = false;
};

// A process that has registered id and holds it.
inline Child running(int id, int flags = 0)
{
    return Child([=] { return reg(id, flags).result == 0; });
}
