// Internal helpers of the configuration backup's section writers and
// readers, shared by the driver's module and the account sections.
#pragma once

#include "kemo_internal.hpp"

#include <cstdint>
#include <functional>
#include <string>

namespace kemo::sysbackup {

// Writes one section at the current position of fd: its header, the values
// body() writes, then the patched body size.  fn names the exported
// function in the messages.  0, or -1 (logged, and failed_event appended to
// the event log when it is not 0).
int write_section(const char *fn, int fd, uint32_t id, const std::function<bool()> &body,
                  uint32_t failed_event = 0);

// One string value into text.  false on a damaged or cut value.
bool read_text(int fd, std::string &text);

// Appends a section's failure event (an error, with arg1 as its first
// argument) to the system's event log.
void report(uint32_t event, const char *arg1 = "");

} // namespace kemo::sysbackup
