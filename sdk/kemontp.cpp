// The time-server schedule and the scheduler table.
#include "kemo_internal.hpp"
