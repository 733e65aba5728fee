// The date, the system clock and the board clock.
#include "kemo_internal.hpp"
