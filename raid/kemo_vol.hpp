// Internal interface of the volume modules: the file systems on the data
// arrays (raid/kemovol*.cpp by volume index, sdk/kemovol*.cpp by volume id).
// Exported functions are shims over these; other modules (quotas, the
// stale-volume scan) call these, never the exported names.
#pragma once

#include "kemo.h"
#include "kemo_internal.hpp"

#include <cstdint>

namespace kemo::vol {

constexpr int kMaxVolumes = 4; // /volume1../volume4

// The volume module's error word; each code also sets the library's error
// code that matches (0 resets the word only).
void set_error(uint32_t code) noexcept;
uint32_t error() noexcept;

bool index_valid(long index) noexcept; // 0..3

// KEMOVolRaidGetInfo: 0, or -1 with the error word set.
int raid_get_info(int index, KEMOVOLINFO &record);
// KEMOVolRaidEnum: 0, or -1 with the error word set.
int raid_enum(uint32_t *mask, int *first, int *count);

} // namespace kemo::vol
