// Finding appliances on the network segment.
#include "kemo_internal.hpp"
