// (being written)
#include "kemo_internal.hpp"
