// Any bytes as a configuration backup file: the import must refuse or
// partly restore them, never crash, leak or allocate without bound.  The
// importer writes the appliance's own paths, so the target runs inside the
// appliance sandbox.  Most inputs are checked only (apply 0); every 8th is
// applied, on a fresh factory sandbox so that earlier inputs leave no trace.
#include "kemo.h"
#include "kemo_sandbox.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr char kFile[] = "/tmp/fuzz-backup.kemo";
// Every section, the database one included (the "all" value leaves it out).
constexpr uint32_t kEverySection = KEMO_SYSBKP_ALL | 0x800000;
unsigned long inputs = 0;

[[noreturn]] void die(const std::string &why)
{
    std::fprintf(stderr, "fuzz_backup: %s\n", why.c_str());
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    std::string why;
    if (!kemo::sandbox::enter(&why))
        die("cannot enter the appliance sandbox: " + why);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const bool apply = ++inputs % 8 == 0;
    std::string why;
    if (apply && !kemo::sandbox::fresh(&why))
        die("cannot renew the appliance sandbox: " + why);
    const int fd = ::open(kFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        die("cannot write the input file");
    for (std::size_t done = 0; done < size;) {
        const ssize_t n = ::write(fd, data + done, size - done);
        if (n <= 0)
            die("cannot write the input file");
        done += static_cast<std::size_t>(n);
    }
    ::close(fd);
    KEMOSysbkpImport(kFile, kEverySection, apply ? 1 : 0);
    return 0;
}
