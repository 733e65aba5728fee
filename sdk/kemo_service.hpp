// Internal interface of the service module (kemoservice.cpp): the file and
// network services as the storage code stops, starts and moves them.
#pragma once

namespace kemo::service {

// 1 stops every service, 2 starts them (the control script
// rc.netservice); another action is ERR_BAD_PARAMETERS.  0, or -1 with the
// error code set.
int on_off_all(int action);
// Takes the services registered on volume id 1..4 off it: stopped through
// their scripts, switched off, their registry keys removed.  0, or -1 with
// the error code set (ERR_OP_FAILURE when a script failed or a registry
// key names no acceptable service).
int remove_by_volume(int volume);

} // namespace kemo::service
