// Internal interface of the current-connections listing: who is connected
// to the file services right now.
#pragma once

#include "kemo_internal.hpp"

namespace kemo::connections {

// Appends one entry per current connection of the file server, the Apple
// file server and the FTP server to *list, as
// "user\taddress\tYYYY/MM/DD hh:mm:ss\tservice\tpid".  The number of
// entries added, or -1 with the error code set.  Stale lines of the Apple
// and FTP connection files (their server process is gone) are pruned.
int current(PKLIBSZLIST *list);

} // namespace kemo::connections
