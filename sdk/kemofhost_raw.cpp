// A UDP broadcast built by hand on the raw link layer.
#include "kemo_internal.hpp"
