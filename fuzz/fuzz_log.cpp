// Fuzz target for the event-log ring files: any bytes as a log must be read
// without a crash, an endless walk or a leak, and repaired; a record must
// then be appended (or refused) without damage, and a compaction must give
// a log that reads back without any repair.
#include "fuzz_scratch.hpp"
#include "kemo.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

using kemo::fuzz::put;
using kemo::fuzz::scratch;
using kemo::fuzz::whole;

uint32_t get32(const std::string &s, std::size_t at)
{
    return static_cast<uint32_t>(static_cast<unsigned char>(s[at])) << 24 |
           static_cast<uint32_t>(static_cast<unsigned char>(s[at + 1])) << 16 |
           static_cast<uint32_t>(static_cast<unsigned char>(s[at + 2])) << 8 |
           static_cast<unsigned char>(s[at + 3]);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // The reader reports every unknown event and every repair; keep the
    // machine's system log out of it.
    ::setlogmask(LOG_MASK(LOG_EMERG));
    ::setenv("USERNAME", "fuzz", 1);
    ::setenv("TZ", "UTC", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string log = scratch() + "/ring.log";
    const std::string out = scratch() + "/out.txt";
    put(log, std::string_view(reinterpret_cast<const char *>(data), size));
    // "zz" has no catalogue: no event has a text, every record is decoded.
    KEMOLogGet1a(log.c_str(), out.c_str(), "zz");

    // The last two bytes choose the size limit and the first argument's
    // length, so that appends reach the writer's wrap-around, exact-fit and
    // refusal paths on small files.
    glogsizeMax = size >= 1 ? 24 + data[size - 1] * 4 : 4096;
    const std::string arg(size >= 2 ? data[size - 2] % 96 : 1, 'a');
    KEMOLogSet1a(log.c_str(), 1, 0x12200001, arg.c_str(), "b", "", nullptr);
    KEMOLogGet1a(log.c_str(), out.c_str(), "zz");

    // A compacted log starts at 16, ends at its tail and needs no repair.
    const int drop = size > 0 ? data[0] * 4 : 0;
    if (KEMOLogChangeSize_a(drop, log.c_str()) == 0) {
        const std::string compact = whole(log);
        if (compact.size() < 16 || compact.compare(0, 4, "KEMO") != 0 || get32(compact, 8) != 16 ||
            get32(compact, 12) != compact.size())
            std::abort();
        if (KEMOLogGet1a(log.c_str(), out.c_str(), "zz") != 0 || whole(log) != compact)
            std::abort();
    }
    ::unlink(log.c_str());
    ::unlink(out.c_str());
    return 0;
}
