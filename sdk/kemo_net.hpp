// Internal interface of the host name and the network services
// (sdk/kemonet.cpp), for the modules that back them up and restore them.
#pragma once

#include "kemo_internal.hpp"

#include <string>

namespace kemo::net {

// The appliance's name: the "hostname" setting, else the kernel's name.
// 0, or -1 with the error code set.
int hostname(std::string &name);
// The same copied into buf of size bytes (size > 0): ERR_NOT_ENOUGH_MEMORY
// when it does not fit.
int hostname_into(char *buf, int size);
// Gives the kernel, /etc/kemoinfo.conf and /etc/hostname the name, which
// the caller has checked with BlKLIBIsHostname.  Should a file not take
// it, the kernel gets its old name back.  0, or -1 with the error code.
int set_hostname(const char *name);
// Starts or stops the file and network services through their control
// script.  0, or -1 with ERR_OP_FAILURE.
int net_services(bool start);
// Stores the "runweb" setting and starts or stops the web service.  0, or
// -1 with the error code.
int web_service(bool on);

} // namespace kemo::net
