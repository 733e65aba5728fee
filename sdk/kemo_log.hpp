// Internal interface shared by the event-log modules: the ring file's byte
// order and layout constants, the log classes, opening and locking a log,
// and the text form of one record.
//
//   sdk/kemolog.cpp      ring file format and the writer
//   sdk/kemologread.cpp  the reader and compaction
//   sdk/kemologtext.cpp  event texts, type names and time in the reader's language
//   sdk/kemologconf.cpp  /etc/kemolog.conf: files and size limits per class
#pragma once

#include "kemo_internal.hpp"
#include "kemo_io.hpp"

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

namespace kemo::eventlog {

inline constexpr uint32_t kArea = 16;         // first byte of the record area
inline constexpr uint32_t kNone = 0xFFFFFFFF; // head or tail that could not be read
inline constexpr int64_t kFixed = 24;         // record bytes before the texts
inline constexpr int kTries = 10;             // opens and locks: 10 tries a second apart
inline constexpr char kConf[] = "/etc/kemolog.conf";

// ------------------------------------------------------------ byte order

inline void put_u16(unsigned char *p, uint16_t v)
{
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}

inline void put_u32(unsigned char *p, uint32_t v)
{
    put_u16(p, static_cast<uint16_t>(v >> 16));
    put_u16(p + 2, static_cast<uint16_t>(v));
}

inline uint16_t get_u16(const unsigned char *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

inline uint32_t get_u32(const unsigned char *p)
{
    return static_cast<uint32_t>(get_u16(p)) << 16 | get_u16(p + 2);
}

// ------------------------------------------------------------ classes

struct LogClass {
    const char *file_key;
    const char *default_file;
    const char *size_key;
    int32_t default_size; // the size of a first write, before the file exists
};

inline constexpr LogClass kSystem{"syslogfile", "/var/log/kemosys.log", "syslogfilesize_MAX", 131072};
inline constexpr LogClass kManage{"manlogfile", "/var/log/kemoman1.log", "manlogfilesize_MAX", 131072};
inline constexpr LogClass kConnect{"connlogfile", "/var/log/kemoconn.log", "connlogfilesize_MAX", 65536};
inline constexpr LogClass kBackup{"bkplogfile", "/var/log/kemobackup.log", "bkplogfilesize_MAX", 65536};
inline constexpr LogClass kCopy{"copylogfile", "/var/log/kemocopy.log", "copylogfilesize_MAX", 65536};
inline constexpr LogClass kNetBackup{"netbkplogfile", "/var/log/kemonetbkp.log", "netbkplogfilesize_MAX",
                              65536};

// The class's own file and size key (readers, size changes); null for
// class 4, 0 and 8 and above.
inline const LogClass *class_of(long long log_class)
{
    switch (log_class) {
    case 1: return &kSystem;
    case 2: return &kManage;
    case 3: return &kConnect;
    case 5: return &kBackup;
    case 6: return &kCopy;
    case 7: return &kNetBackup;
    default: return nullptr;
    }
}

// The class's log file: its file key, else the class's default file.
std::string file_of(const LogClass &c);
// The size key as a number; a missing, unparsable or non-positive value
// counts as absent (a size of 0 would empty the log on every write).
std::optional<int32_t> size_of(const LogClass &c);
// Creates /etc/kemolog.conf with its defaults when it is missing: 1 when
// created, 0 when it was there, -1 when it could not be created.
int create_conf_if_missing();
// Shrinks the class's log to at most size bytes (size >= 0): 0 when
// nothing had to go or the log is not there, else as compact().
int shrink(int size, long long log_class);
bool file_exists(const char *path);
// Writes /etc/kemolog.conf with every class's default file and size.
// 0, or -1 (ERR_OPEN_FAILED when its twin could not be made).
int write_default_conf();
// Stores size as the class's limit (creating the configuration file when
// it is missing) and shrinks its log to it.  0 or -1.
int set_size(int size, const LogClass &c, int log_class);

// ------------------------------------------------------------ ring file

// Gives a file without the "KEMO" magic the header of an empty ring.
// 0, or -1 with ERR_WRITE_FAILED.
int init_ring(int fd);
// The header's head or tail; kNone when it cannot be read.
uint32_t head_of(int fd);
uint32_t tail_of(int fd);
// Store the head (then fsync) or the tail (after an fsync of the records
// it comes to cover).  0, or -1 with ERR_WRITE_FAILED.
int set_head(int fd, uint32_t head);
int set_tail(int fd, uint32_t tail);
// Plain writes and reads at the position: bytes written (or -1), count
// read (or -1 for a short read).
int write_bytes(int fd, const void *buffer, int count);
int read_bytes(int fd, void *buffer, int count);

// ------------------------------------------------------------ events

// Room of the exported buffer that holds the user name of events.
inline constexpr std::size_t kUserRoom = 256;
// The user recorded with an event: $USERNAME, else the effective user's
// name in /etc/passwd; "admin" for root; at most kUserRoom - 1 bytes.
// error is 0, ERR_OPEN_FAILED (no /etc/passwd) or ERR_KEY_NOT_FOUND (no
// such user; the name is then empty).  The error code is left alone.
std::string event_user(int &error);
// Appends one event to the ring file at path, limited to glogsizeMax
// bytes.  Null arguments are stored empty.  0, or -1 with the error code.
int append_event(const char *path, uint32_t type, uint32_t event_id, const std::array<const char *, 4> &args);
// Appends one event to the log of log_class (class 2 goes into the system
// log), creating the configuration file when it is missing and applying
// the class's size limit first.  Empty arguments are stored as one blank.
// 0, or -1 with the error code (ERR_BAD_PARAMETERS for an unknown class).
int write_event(uint32_t log_class, uint32_t type, uint32_t event_id, const std::array<const char *, 4> &args);

// ------------------------------------------------------------ reading

// Writes the text of every record of the log at log_path into the file
// output_path (made for the caller, never through a planted name), in
// language (a valid catalogue code).  0, or -1 with the error code.
int read_log(const char *log_path, const char *output_path, const char *language);
// The same for the log of class c, with the defaults of a null output path
// ("./output") and language ("enu"); the event texts are dropped afterwards.
int read_class_log(const LogClass &c, const char *output_path, const char *language);
// Drops at least `drop` bytes of the oldest records of the log at path and
// replaces it with the rest (owner and mode kept).  0, or -1.
int compact(int drop, const char *path);

// The local time of seconds as "YYYY/MM/DD hh:mm:ss"; empty when it
// cannot be converted.
std::string time_text(int64_t seconds);

// ------------------------------------------------------------ descriptors

using kemo::Fd;

// Runs attempt up to kTries times, a second apart, until it succeeds.
template <class Attempt>
bool retrying(Attempt &&attempt)
{
    for (int i = 0; i < kTries; ++i) {
        if (attempt())
            return true;
        if (i + 1 < kTries)
            std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    return false;
}

// Opens path, retrying; a file that is not there (and is not to be
// created) is not waited for.
Fd open_retrying(const char *path, int flags);

// True when fd is still the file at path: a compaction renames a new file
// over the log, and a process that waited for the old file's lock must
// not write into the old file.
bool still_at(int fd, const char *path, struct stat &held);


// An open log, whether its exclusive flock is held, and its status when
// it was opened.
struct Log {
    Fd fd;
    bool locked = false;
    struct stat st {};
    ~Log()
    {
        if (fd && locked)
            ::flock(fd.get(), LOCK_UN);
    }
    Log() = default;
    Log(Log &&) = default;
};

// Opens the log and takes its lock (both retried); opens again when the
// file was replaced while waiting for the lock.
Log open_log(const char *path, int flags);

// ------------------------------------------------------------ record texts

// True for a language code that names a catalogue directory.
bool valid_language(std::string_view language);

// Type names already looked up by one reading of a log.
struct TypeNames {
    std::map<std::string, std::string> by_key;
    const std::string &get(int type, std::string_view language);
};

enum class Spread { printed, unknown, truncated, failed };

// Prints the text line of one record body; nothing for a truncated body or
// an unknown event.
Spread spread(FILE *out, const unsigned char *body, int size, const char *language, TypeNames &types);
// The same for one record on its own: 0, or -1 with ERR_FORMAT_ERROR (a
// truncated body) or ERR_WRITE_FAILED.
int spread_record(FILE *out, const unsigned char *body, int size, const char *language);
// The event's text in language with its placeholders filled, in memory the
// caller frees; null for an unknown event (or ERR_OUT_OF_MEMORY).
char *event_sentence(uint32_t event_id, const char *language, const std::array<const char *, 4> &args);

} // namespace kemo::eventlog
