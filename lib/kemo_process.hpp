// The command runner is part of the process module; its interface lives in
// kemomisc.hpp.  Modules that include this name keep compiling.
#pragma once

#include "kemomisc.hpp"
