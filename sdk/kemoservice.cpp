// (being written) The file and network services as storage code switches them.
#include "kemo_service.hpp"
#include "kemo_internal.hpp"

namespace kemo::service {
int on_off_all(int) { return fail(-1, ERR_OP_FAILURE); }
int remove_by_volume(int) { return fail(-1, ERR_OP_FAILURE); }
} // namespace kemo::service

extern "C" {
KEMO_API int KEMOServiceOnOffALL(int action) { return kemo::edge(-1, [&] { return kemo::service::on_off_all(action); }); }
KEMO_API int KEMOServiceRemovebyVolume(int volume) { return kemo::edge(-1, [&] { return kemo::service::remove_by_volume(volume); }); }
}
