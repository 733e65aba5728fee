// The appliance's partitioning tool: lays, deletes, resets and lists the
// four primary entries of a DOS partition table in exact sectors, through
// libfdisk.  The options, their meaning and the exit statuses are in the
// usage text (usage_text()) and the README.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace sfdisk {

// Exit statuses.
enum Exit : int {
    kOk = 0,
    kFailed = 1, // the operation failed; the disk is as it was
    kUsage = 2,  // bad usage: unknown option, missing device, bad number
};

// A failure that ends the program with `status` and one line on standard
// error ("sfdisk: " + what()).
class Failure : public std::runtime_error {
public:
    Failure(int status, const std::string &message) : std::runtime_error(message), status_(status) {}
    int status() const { return status_; }

private:
    int status_;
};

[[noreturn]] inline void fail(const std::string &message) { throw Failure(kFailed, message); }
[[noreturn]] inline void usage_error(const std::string &message) { throw Failure(kUsage, message); }

enum class Action {
    Help,   // -h: print the usage text
    Create, // -N n -z size: create or replace entry n
    Delete, // -N n -D: delete entry n
    Reset,  // -M1: a fresh empty DOS label
    List,   // -l [-N n]: list entries
};

// -z-1: the partition runs to the last sector the table can address.
inline constexpr std::int64_t kToTheEnd = -1;

struct Options {
    Action action = Action::Help;
    std::optional<unsigned> partno; // -N, 1..4 once checked
    std::uint64_t gap = 0;          // -j: sectors left free before the partition
    std::int64_t size = 0;          // -z: sectors, or kToTheEnd
    unsigned type = 0x83;           // -t, checked: 0x01..0xff
    bool quiet = false;             // -q
    bool force = false;             // -f
    bool fresh_label = false;       // -F
    bool reread = true;             // cleared by --no-reread
    std::string device;
};

// Parses and checks the command line.  Throws Failure: kUsage for a usage
// error, kFailed for a well-formed value out of range (-N5, -tzz, -z0 on
// create).
Options parse_options(int argc, char **argv);

const char *usage_text();

// The operations on the device; each throws Failure and leaves the disk as
// it was when it fails.
void create_partition(const Options &o);
void delete_partition(const Options &o);
void reset_table(const Options &o);
void list_partitions(const Options &o);

} // namespace sfdisk
