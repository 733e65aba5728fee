// get_key_value FILE KEY - prints the value of KEY in a "key=value" settings
// file.  Exit status: 0 when found, 1 when the key is absent or empty or the
// file cannot be read (the reason on standard error), 2 on a usage error.
#include "kemo.h"

#include <cstdio>
#include <vector>

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: get_key_value FILE KEY\n");
        return 2;
    }
    char small[256];
    int n = KLIBFileGetKeyValue(argv[1], argv[2], small, sizeof small, 0);
    std::vector<char> large;
    const char *value = small;
    if (n < 0 && KLIBErrGet() == ERR_NOT_ENOUGH_MEMORY) {
        // A long value: ask for its size, then read it whole.
        n = KLIBFileGetKeyValue(argv[1], argv[2], nullptr, 0, 0);
        if (n > 0) {
            large.resize(static_cast<std::size_t>(n));
            n = KLIBFileGetKeyValue(argv[1], argv[2], large.data(), n, 0);
            value = large.data();
        }
    }
    if (n <= 0) {
        const int code = KLIBErrGet();
        if (code != ERR_KEY_NOT_FOUND)
            std::fprintf(stderr, "get_key_value: %s: %s\n", argv[1],
                         (code >> 8) < KEMO_ERR_TABLE_SIZE && rgszErrMsg[code >> 8] ? rgszErrMsg[code >> 8]
                                                                                  : "failed");
        return 1;
    }
    std::printf("%s\n", value);
    return std::fflush(stdout) == 0 ? 0 : 1;
}
