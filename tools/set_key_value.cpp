// set_key_value FILE KEY VALUE - sets KEY to VALUE in a "key=value" settings
// file (the line of KEY is replaced in place, or one is appended; a missing
// file is created).  The change is made under the settings lock, so that
// concurrent callers lose no update.  Exit status: 0 on success, 1 when the
// change failed (the reason on standard error), 2 on a usage error.
#include "kemo.h"

#include <cstdio>

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: set_key_value FILE KEY VALUE\n");
        return 2;
    }
    const bool locked = ErrKLIBFileLock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_EX, 10) == 0;
    const int result = locked ? KLIBFileSetKeyValue(argv[1], argv[2], argv[3], nullptr) : -1;
    const int code = KLIBErrGet();
    if (locked)
        ErrKLIBFileUnlock(KLIB_LOCK_KEMOINFO);
    if (result != 1) {
        std::fprintf(stderr, "set_key_value: %s: %s\n", argv[1],
                     code > 0 && (code >> 8) < KEMO_ERR_TABLE_SIZE && rgszErrMsg[code >> 8] ? rgszErrMsg[code >> 8]
                                                                                        : "failed");
        return 1;
    }
    return 0;
}
