// The time zone.
#include "kemo_internal.hpp"
