// Internal helpers of the configuration backup, shared by its modules:
//   sdk/kemosysbackup.cpp       the section registry, export and import drivers
//   sdk/kemosysbkpformat.cpp    file format: byte order, typed values, section writer
//   sdk/kemosysbkpsettings.cpp  the host name, web and settings sections
//   sdk/kemosysbkpacct.cpp      the user, group and share sections
//
// File:    "KEMO", u32 category 1, u32 mask, sections in registry order.
// Section: u32 id, u32 version, u32 body size, body.
// Body:    typed values: string (1, strlen + 1, text and its NUL) or
//          long (2, 4, value).  Every integer is a big-endian u32.
#pragma once

#include "kemo_internal.hpp"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

// Messages begin with the name of the exported function and the line.
#define BKP_LOG(fn, fmt, ...) \
    ::kemo::log("%s(%d): " fmt, fn, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

namespace kemo::sysbackup {

inline constexpr uint32_t kCategory = 1;
inline constexpr uint32_t kVersion = 1;
inline constexpr uint32_t kTypeString = 1;
inline constexpr uint32_t kTypeLong = 2;
// The interface section has no registry entry (its header carries the
// common version).
inline constexpr uint32_t kInterfaceId = 0x4;
// The finishing registry entry: it writes no bytes.
inline constexpr uint32_t kFinishId = 0x2000000;

// The one place where the file's byte order is decided.
inline void put_u32(unsigned char *p, uint32_t v) noexcept
{
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

inline uint32_t get_u32(const unsigned char *p) noexcept
{
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}

// Writes every byte (retrying short writes and EINTR).
bool write_all(int fd, const void *data, std::size_t size) noexcept;
// Reads up to size bytes, stopping early only at the end of the file.  The
// count read, or -1 on a read error.
ssize_t read_full(int fd, void *data, std::size_t size) noexcept;
bool write_u32(int fd, uint32_t v) noexcept;
bool read_u32(int fd, uint32_t &v) noexcept;
// Bytes left between the position and the end of a regular file; nullopt
// for anything else (a pipe has no known end).
std::optional<long long> remaining(int fd) noexcept;


// ------------------------------------------------------------ typed values
// Each writes or reads at the position of fd and logs a failure under the
// name of the exported function it serves; none sets the error code.

// A section header (id, the registry's version, a zero size).  0 or -1.
int write_header(int fd, uint32_t id);
// Patches the size word in front of begin with end - begin, then moves to
// end.  0, or -1 (also for offsets that cannot be a section body).
int write_block_size(int fd, int64_t begin, int64_t end);
// A string value: type 1, strlen + 1, the text and its NUL.  0 or -1.
int write_string(int fd, std::string_view text);
// One string value into text.  false on a damaged or cut value, or one
// whose length runs past the end of a regular file.
bool read_text(int fd, std::string &text);
// The same into memory the caller frees (*text null on failure).  0 or -1.
int read_string(int fd, char **text);
// A long value: type 2, 4, the value.  0 or -1.
int write_long(int fd, int32_t value);
int read_long(int fd, int32_t &value);
// count bytes (a multiple of 4) of host-order words, each stored
// big-endian.  write: 0 or -1; read: count, 0 at the end of the file, or -1.
int raw_write(int fd, const void *buffer, int count);
int raw_read(int fd, void *buffer, int count);

// ------------------------------------------------------------ registry

// Index of id in the registry, or -1 (silently).
int index_of(uint32_t id) noexcept;
// The same, logging an unknown id.
int section_index(uint32_t id) noexcept;
// Exports the sections of mask into a new file at path (made for the
// caller, at most owner read and write).  fn names the exported function
// in the messages.  0 or -1.
int export_file(const char *fn, const char *path, uint32_t mask, unsigned int mode);
// Checks (apply 0) or restores the sections of mask from the file at path,
// with the file and network services stopped meanwhile; gimp_status keeps
// the bits of the sections that did not fail.  0 or -1.
int import_file(const char *fn, const char *path, uint32_t mask, int apply);
// The finishing entry's import: drops the user map that the account
// sections built.  Always 0.
int finish_import();

// Writes one section at the current position of fd: its header, the values
// body() writes, then the patched body size.  fn names the exported
// function in the messages.  0, or -1 (logged, and failed_event appended to
// the event log when it is not 0).
int write_section(const char *fn, int fd, uint32_t id, const std::function<bool()> &body,
                  uint32_t failed_event = 0);

// Appends a section's failure event (an error, with arg1 as its first
// argument) to the system's event log.
void report(uint32_t event, const char *arg1 = "");

} // namespace kemo::sysbackup

// The short spelling of the backup's namespace.
namespace kemo {
namespace sysbkp = sysbackup;
} // namespace kemo
