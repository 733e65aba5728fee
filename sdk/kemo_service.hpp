// Internal interface of the service module (kemoservice.cpp): the file and
// network services as the storage code stops, starts and moves them.
#pragma once

namespace kemo::service {

// 1 stops every service, 2 starts them.  0, or -1 with the error code set.
int on_off_all(int action);
// Takes the services off volume id 1..4.  0, or -1 with the error code set.
int remove_by_volume(int volume);

} // namespace kemo::service
