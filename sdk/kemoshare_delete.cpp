// (being written) Deleting shares, and the folder check.
#include "kemo_share.hpp"
#include "kemo_internal.hpp"

namespace kemo::share {
int remove(const std::vector<std::string> &) { return fail(-1, ERR_OP_FAILURE); }
int folder_state(const char *) { return fail(-1, ERR_OP_FAILURE); }
} // namespace kemo::share

extern "C" {
KEMO_API int KEMOShareDelete(char **, int) { return kemo::fail(-1, ERR_OP_FAILURE); }
KEMO_API int SDKICheckFolderState(const char *path) { return kemo::edge(-1, [&] { return kemo::share::folder_state(path); }); }
}
