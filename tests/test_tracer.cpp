// The allocation tracer: refusals, guard damage, reallocation sites, stream
// tracking and the leak report at exit, all observed through the system log.
#include "kemo.h"
#include "sandbox_fixture.hpp"
#include "syslog_capture.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class Tracer : public SandboxTest {
protected:
    void SetUp() override
    {
        SandboxTest::SetUp();
        if (IsSkipped())
            return;
        log_.emplace();
    }

    // Texts logged since the last call, without trailing newlines.
    std::vector<std::string> logged()
    {
        std::vector<std::string> out;
        for (const auto &m : log_->messages()) {
            std::string t = m.text;
            while (!t.empty() && t.back() == '\n')
                t.pop_back();
            out.push_back(t);
        }
        return out;
    }

    // Runs body in a child process that then exits normally, so that the
    // tracer's report at exit is logged; returns what the child logged.
    template <class F>
    std::vector<std::string> logged_by_exiting_child(F body)
    {
        logged();
        const pid_t pid = ::fork();
        if (pid == 0) {
            body();
            std::exit(0);
        }
        // The log socket queues only a few datagrams: keep draining while
        // the child reports, or it would block in syslog() for ever.
        std::vector<std::string> out;
        int status = 0;
        while (::waitpid(pid, &status, WNOHANG) == 0) {
            for (auto &m : logged())
                out.push_back(std::move(m));
            ::usleep(1000);
        }
        for (auto &m : logged())
            out.push_back(std::move(m));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        return out;
    }

    std::optional<SyslogCapture> log_;
};

TEST_F(Tracer, RefusesNullUnknownAndDoubleFreesWithoutReleasing)
{
    EXPECT_EQ(KEMOMemMAlloc(0, "a.c", 1), nullptr);
    EXPECT_THAT(logged(), IsEmpty());

    KEMOMemFree(nullptr, "/src/sdk/caller.c", 7);
    EXPECT_THAT(logged(), ElementsAre("Try to free a null pointer memory at file caller.c line 7!"));

    // Releasing twice would abort under the address sanitizer: the second
    // free must not reach libc.
    char *p = static_cast<char *>(KEMOMemMAlloc(10, "a.c", 1));
    ASSERT_NE(p, nullptr);
    KEMOMemFree(p, "a.c", 2);
    EXPECT_THAT(logged(), IsEmpty());
    KEMOMemFree(p, "a.c", 3);
    auto msgs = logged();
    ASSERT_EQ(msgs.size(), 1u);
    EXPECT_THAT(msgs[0], HasSubstr("Try to free an unallocayed memory (0x"));
    EXPECT_THAT(msgs[0], HasSubstr(") at file a.c line 3!"));

    int on_stack = 0;
    KEMOMemFree(&on_stack, "a.c", 4);
    EXPECT_THAT(logged().at(0), HasSubstr("Try to free an unallocayed memory"));

    // A stream the tracer never saw is not closed.
    FILE *untracked = std::fopen("/tmp/u", "w");
    ASSERT_NE(untracked, nullptr);
    EXPECT_EQ(KEMOFileClose(untracked, "b.c", 9), -1);
    EXPECT_THAT(logged().at(0), HasSubstr(") at file b.c line 9!"));
    EXPECT_GE(std::fputs("still open", untracked), 0);
    std::fclose(untracked);
}

TEST_F(Tracer, ReallocToZeroKeepsTheBlockAndCallocZeroes)
{
    auto *p = static_cast<unsigned char *>(KEMOMemCAlloc(4, 8, "c.c", 1));
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 32; ++i)
        EXPECT_EQ(p[i], 0);
    EXPECT_EQ(KEMOMemRealloc(p, 0, "c.c", 2), nullptr);
    p[31] = 1; // still ours
    KEMOMemFree(p, "c.c", 3);
    EXPECT_EQ(KEMOMemCAlloc(SIZE_MAX / 2, 4, "c.c", 4), nullptr);
    EXPECT_THAT(logged(), ElementsAre("Memory allocated -1 bytes error at file c.c line 4!"));
}

TEST_F(Tracer, NamesTheDamagedGuardZoneWhenABlockIsFreed)
{
    struct Case {
        bool before, after;
        const char *side;
    };
    for (const Case c : {Case{false, true, "postfix"}, Case{true, false, "prefix"}, Case{true, true, "both side"}}) {
        auto *p = static_cast<char *>(KEMOMemMAlloc(24, "/build/lib/kemofile.cpp", 120));
        ASSERT_NE(p, nullptr);
        if (c.before)
            p[-32] = 0;
        if (c.after)
            p[24] = 0;
        KEMOMemFree(p, "x.c", 1);
        EXPECT_THAT(logged(), ElementsAre(std::string("Memory allocated 24 bytes at file kemofile.cpp line 120 "
                                                      "was corrupted (") + c.side + ")!"));
    }
    // Writing the last user byte is not damage.
    auto *p = static_cast<char *>(KEMOMemMAlloc(24, "a.c", 1));
    p[23] = 0;
    KEMOMemFree(p, "a.c", 2);
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(Tracer, ReallocationKeepsTheFirstSiteAndRecordsTheLatest)
{
    auto *p = static_cast<char *>(KEMOMemMAlloc(8, "first.c", 10));
    p = static_cast<char *>(KEMOMemRealloc(p, 4000, "second.c", 20));
    ASSERT_NE(p, nullptr);
    p = static_cast<char *>(KEMOMemRealloc(p, 40, "third.c", 30));
    ASSERT_NE(p, nullptr);
    p[40] = 'x';
    KEMOMemFree(p, "free.c", 40);
    EXPECT_THAT(logged(), ElementsAre("Memory reallocated 40 bytes at file third.c line 30 (allocated at "
                                      "first.c:10)) was corrupted (postfix)!"));

    // Only the last path component is kept, cut to 31 characters.
    const std::string long_name(40, 'n');
    p = static_cast<char *>(KEMOMemMAlloc(1, ("/x/" + long_name).c_str(), 5));
    p[1] = 0;
    KEMOMemFree(p, "a.c", 1);
    EXPECT_THAT(logged(), ElementsAre("Memory allocated 1 bytes at file " + long_name.substr(0, 31) +
                                      " line 5 was corrupted (postfix)!"));

    // Reallocating a block the tracer never handed out is reported; a null
    // pointer is a plain allocation.
    void *q = KEMOMemRealloc(nullptr, 16, "r.c", 1);
    ASSERT_NE(q, nullptr);
    KEMOMemFree(q, "r.c", 2);
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(Tracer, TracksStreamsThroughReopen)
{
    FILE *f = KEMOFileOpen("/tmp/s", "w", "open.c", 3);
    ASSERT_NE(f, nullptr);
    FILE *g = KEMOFileReopen("/tmp/s", "r", f, "reopen.c", 4);
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(KEMOFileClose(g, "close.c", 5), 0);
    EXPECT_THAT(logged(), IsEmpty());

    EXPECT_EQ(KEMOFileOpen("/tmp/missing/file", "r", "/a/open.c", 6), nullptr);
    EXPECT_THAT(logged(), ElementsAre("Can't open file \"/tmp/missing/file\" with \"r\" mode at file open.c line 6!"));
    EXPECT_EQ(KEMOFileDescOpen(-1, "r", "fd.c", 7), nullptr);
    EXPECT_THAT(logged(), ElementsAre("Can't open file descriptor \"-1\" with \"r\" mode at file fd.c line 7!"));
}

TEST_F(Tracer, ReportsAndReleasesLeaksAtExit)
{
    const auto msgs = logged_by_exiting_child([] {
        KEMOMemMAlloc(11, "leak.c", 1);
        auto *damaged = static_cast<char *>(KEMOMemMAlloc(12, "leak.c", 2));
        damaged[-1] = 0;
        void *moved = KEMOMemMAlloc(13, "leak.c", 3);
        KEMOMemRealloc(moved, 14, "grow.c", 4);
        KEMOFileOpen("/tmp/leak", "w", "stream.c", 5);
        FILE *untracked = std::fopen("/tmp/leak2", "w");
        KEMOFileReopen("/tmp/leak2", "w", untracked, "reopen.c", 6);
        KEMOMemFree(KEMOMemMAlloc(99, "freed.c", 7), "freed.c", 8);
    });
    ASSERT_GE(msgs.size(), 2u);
    EXPECT_EQ(msgs.front(), "\n========  KemoTracer detected 5 memory leaks or unclosed files!  ========");
    EXPECT_EQ(msgs.back(), "");
    const std::vector<std::string> body(msgs.begin() + 1, msgs.end() - 1);
    EXPECT_THAT(body, testing::UnorderedElementsAre(
                          "Memory allocated 11 bytes at file leak.c line 1 was not freed!",
                          "Memory allocated 12 bytes at file leak.c line 2 was not freed and corrupted (prefix)!",
                          "Memory reallocated 14 bytes at file grow.c line 4 (allocated at leak.c:3) was not freed!",
                          testing::MatchesRegex("File stream \\(0x[0-9A-F]+\\) opened at file stream.c line 5 "
                                                "was not closed!"),
                          "File reopened at file reopen.c line 6 was not closed!"));

    // Nothing left: nothing logged.
    EXPECT_THAT(logged_by_exiting_child([] { KEMOMemFree(KEMOMemMAlloc(1, "a.c", 1), "a.c", 2); }), IsEmpty());
}

// The leak report walks the table in slot order, and a key's home slot is
// its address modulo the capacity; so the order of the report shows which
// capacity the table had.  Replays the table's placement for a capacity
// series and compares.
std::vector<long> expected_report_order(const std::vector<std::uintptr_t> &keys)
{
    std::vector<std::uintptr_t> slots(11, 0);
    auto place = [](std::vector<std::uintptr_t> &t, std::uintptr_t k) {
        std::size_t i = k % t.size();
        while (t[i] != 0)
            i = (i + 1) % t.size();
        t[i] = k;
    };
    std::size_t live = 0;
    for (auto k : keys) {
        if (slots.size() - live <= slots.size() / 8) {
            std::vector<std::uintptr_t> bigger(slots.size() * 4 - 1, 0);
            for (auto old : slots)
                if (old != 0)
                    place(bigger, old);
            slots.swap(bigger);
        }
        place(slots, k);
        ++live;
    }
    std::vector<long> sizes;
    for (auto k : slots)
        for (std::size_t i = 0; i < keys.size(); ++i)
            if (keys[i] == k && k != 0)
                sizes.push_back(static_cast<long>(i + 1));
    return sizes;
}

TEST_F(Tracer, GrowsItsTableWhenAnEighthIsLeftFree)
{
    for (int count : {10, 11, 42, 200}) {
        const auto msgs = logged_by_exiting_child([count] {
            std::ofstream keys("/tmp/keys");
            for (int i = 1; i <= count; ++i)
                keys << reinterpret_cast<std::uintptr_t>(KEMOMemMAlloc(i, "t.c", i)) << '\n';
        });
        std::vector<std::uintptr_t> keys;
        std::ifstream in("/tmp/keys");
        for (std::uintptr_t k; in >> k;)
            keys.push_back(k);
        ASSERT_EQ(keys.size(), static_cast<std::size_t>(count));
        std::vector<long> reported;
        for (const auto &m : msgs) {
            long size = 0;
            if (std::sscanf(m.c_str(), "Memory allocated %ld bytes", &size) == 1)
                reported.push_back(size);
        }
        EXPECT_EQ(reported, expected_report_order(keys)) << count << " blocks";
    }
}

TEST_F(Tracer, KeepsEveryBlockFindableAcrossGrowthAndChurn)
{
    std::vector<void *> blocks;
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 700; ++i)
            blocks.push_back(KEMOMemMAlloc(1 + i % 50, "churn.c", i));
        // Free every other block, so deleted slots pile up between live ones.
        for (std::size_t i = 0; i < blocks.size(); i += 2)
            KEMOMemFree(blocks[i], "churn.c", 0);
        std::vector<void *> kept;
        for (std::size_t i = 1; i < blocks.size(); i += 2)
            kept.push_back(blocks[i]);
        blocks.swap(kept);
    }
    for (void *p : blocks)
        KEMOMemFree(p, "churn.c", 0);
    EXPECT_THAT(logged(), IsEmpty());
}

} // namespace
