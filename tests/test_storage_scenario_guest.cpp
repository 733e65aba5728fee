#include "guest_only.hpp"
KEMO_GUEST_ONLY_MAIN()
