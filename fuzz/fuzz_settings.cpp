// Fuzz target for the settings-file readers and the one-key writer: any
// bytes as a key/value or sectioned file must be read without a crash or a
// leak, and a key set in such a file must read back as set.
#include "fuzz_scratch.hpp"
#include "kemo.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

using kemo::fuzz::put;
using kemo::fuzz::scratch;

// The key of the input's first line, so that lookups also hit.
std::string first_key(std::string_view text)
{
    text = text.substr(0, text.find_first_of("=\n"));
    std::string key(text.substr(0, 64));
    const auto nul = key.find('\0');
    return nul == std::string::npos ? key : key.substr(0, nul);
}

void read_everything(const char *path, const std::string &key)
{
    char buf[128];
    for (const char *k : {key.c_str(), "codepage", "path", ""}) {
        KLIBFileGetKeyValue(path, k, buf, sizeof buf, 0);
        KLIBFileGetKeyValue(path, k, buf, sizeof buf, 1);
        KLIBFileGetKeyValue(path, k, nullptr, 0, 0);
        KLIBFileGetLineByKey(path, k, buf, sizeof buf, 0);
        KLIBFileGetLine(path, k[0] ? k : "=", buf, sizeof buf, 0x402);
        KLIBFileGetLine(path, k[0] ? k : "=", buf, sizeof buf, 0x5);
    }
    PKLIBSZHASH hash = PshKLIBSzHashAlloc(0);
    KLIBFileGetPair(path, &hash);
    PslSzHashRemoveAll(hash);
    PKLIBSZLIST list = PslKLIBSzListAlloc(0);
    KLIBFileEnumSection(path, &list);
    for (int i = 0; list != nullptr && i < list->nItem && i < 8; ++i)
        KLIBFileGetSection(path, list->pszItem[i], &hash);
    KLIBFileGetSection(path, key.c_str(), &hash);
    KLIBSzListFree(list);
    KLIBSzHashFree(hash);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const std::string path = scratch() + "/settings.conf";
    put(path, text);
    const std::string key = first_key(text);
    read_everything(path.c_str(), key);

    // Whatever the file held, a key set in it reads back as set.
    if (KLIBFileSetKeyValue(path.c_str(), "fuzzkey", "fuzz value", nullptr) != 1)
        std::abort();
    char value[32];
    if (KLIBFileGetKeyValue(path.c_str(), "fuzzkey", value, sizeof value, 0) != 11 ||
        std::strcmp(value, "fuzz value") != 0)
        std::abort();
    ErrSetSecKeyVal(path.c_str(), "fuzz", "k", "v", nullptr);
    ErrKLIBFileRemoveSection(path.c_str(), key.c_str());
    read_everything(path.c_str(), key);
    ::unlink(path.c_str());
    return 0;
}
