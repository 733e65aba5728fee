// UPS settings and live state.
#include "kemo_internal.hpp"
