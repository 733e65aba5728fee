// Internal interface of the UPS settings and state (sdk/kemoups.cpp): the
// readers of the UPS client's report, for the tests.
#pragma once

#include "kemo_internal.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kemo::ups {

// The longest report line taken, in characters; the rest of a longer line
// is dropped (never read as a line of its own).
constexpr std::size_t kMaxLine = 127;
// The most report bytes read; a larger report is cut there.
constexpr std::size_t kMaxReport = 64 * 1024;

// The KEMO_UPS_* value of a "ups.status" value (blank-separated flags: LB
// anywhere gives battery low, else OB on battery, else OL on line), or
// nullopt when it holds none of them.
std::optional<uint8_t> status_of(std::string_view flags) noexcept;

// The integer part of a reported number ("23", "23.0"), or 0 for anything
// else (a sign, blanks, letters, a value beyond INT32_MAX).
int32_t number_of(std::string_view text) noexcept;

// Takes one "name: value" line of the report (without its newline) into
// the live fields of ups; other lines change nothing.
void take_line(std::string_view line, KEMOUPS &ups);

// Takes a whole report, line by line, each cut at kMaxLine characters.
void take_report(std::string_view report, KEMOUPS &ups);

// The timer line for a wait of `minutes`.
std::string timer_line(uint32_t minutes);

// KEMOUPSInfoGet and KEMOUPSInfoSet (arguments checked): 0, or -1 with the
// error code set.
int info(KEMOUPS &ups);
int set_info(const KEMOUPS &ups);

} // namespace kemo::ups
