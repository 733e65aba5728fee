// Internal entry points of the share module (kemoshare.cpp), which reads
// the share definitions of the file-sharing configuration.
#pragma once

#include "kemo_internal.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kemo::share {

// Share names of the selected kinds (KEMO_SHARE_* bits) in file order; the
// caller holds the share reader lock.  nullopt with the error code set.
std::optional<std::vector<std::string>> names(int kinds);
// The two-call enumeration of KEMOShareEnum1 with checked arguments, under
// the share reader lock.
int enumerate(char **out, int size, int *needed, int kinds);
// Shares of external USB disks ("usbshare<digits>", "usbbackup") and of
// the external SATA disk ("satashare", "satabackup").
bool is_usb_section(std::string_view name) noexcept;
bool is_sata_section(std::string_view name) noexcept;
// KEMOShareEnumbyVolume with checked arguments.
int enum_by_volume(int volume, char **out, int size, int *needed);
// Deletes the shares named in one account transaction.  0, or -1 with the
// error code set and every share kept.
int remove(const std::vector<std::string> &names);
// SDKICheckFolderState: 1 a directory, 0 not, -1 failure.
int folder_state(const char *path);

} // namespace kemo::share
