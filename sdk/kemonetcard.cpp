// The network interfaces as the network settings see them.
#include "kemo_internal.hpp"
