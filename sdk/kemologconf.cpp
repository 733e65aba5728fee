// The event logs' configuration file /etc/kemolog.conf: the file and the
// size limit of each log class, and size changes that shrink a log.
#include "kemo_io.hpp"
#include "kemofile.hpp"
#include "kemo_log.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

namespace kemo::eventlog {
namespace {


// The value of key in /etc/kemolog.conf if it is there and fits a buffer
// of `room` bytes (NUL included), as the file paths (32) and sizes (11)
// are read.
std::optional<std::string> conf_value(const char *key, int room)
{
    auto value = kemo::settings::get_value(kConf, key);
    if (!value || value->size() + 1 > static_cast<std::size_t>(room))
        return std::nullopt;
    return value;
}

} // namespace


std::string file_of(const LogClass &c)
{
    auto file = conf_value(c.file_key, 32);
    return file ? std::move(*file) : std::string(c.default_file);
}

// The size key as a number; a missing, unparsable or non-positive value
// counts as absent (a size of 0 would empty the log on every write).
std::optional<int32_t> size_of(const LogClass &c)
{
    const auto text = conf_value(c.size_key, 11);
    if (!text)
        return std::nullopt;
    const long size = std::strtol(text->c_str(), nullptr, 10);
    if (size <= 0 || size > INT32_MAX)
        return std::nullopt;
    return static_cast<int32_t>(size);
}

bool file_exists(const char *path)
{
    struct stat st;
    return ::stat(path, &st) == 0;
}

int create_conf_if_missing()
{
    if (file_exists(kConf))
        return 0;
    if (write_default_conf() != 0)
        return -1;
    KEMO_LOG("logconf file not exist! created one!");
    return 1;
}

int shrink(int size, long long log_class)
{
    const LogClass *c = class_of(log_class);
    const std::string path = c != nullptr ? file_of(*c) : std::string();
    struct stat st;
    if (c == nullptr || ::stat(path.c_str(), &st) != 0) {
        KEMO_LOG("KEMOLogChangeSize : logfile %s not existed", path.c_str());
        return 0;
    }
    if (st.st_size <= size)
        return 0;
    return compact(static_cast<int>(std::min<off_t>(st.st_size - size, INT32_MAX)), path.c_str());
}

int set_size(int size, const LogClass &c, int log_class)
{
    if (create_conf_if_missing() < 0) {
        KEMO_LOG("logconf file created error while set size coz the logconf not exist!");
        return -1;
    }
    if (kemo::settings::set_value(kConf, c.size_key, std::to_string(size), "%s=\t\"%s\"\n") < 0) {
        KEMO_LOG("error occured in setkeyvalue in %s.", kConf);
        return -1;
    }
    return shrink(size, log_class) == 0 ? 0 : -1;
}

int write_default_conf()
{
    static constexpr struct {
        const char *key, *file;
    } kLines[] = {
        {"syslogfile", "/var/log/kemosys.log"},     {"manlogfile", "/var/log/kemoman1.log"},
        {"connlogfile", "/var/log/kemoconn.log"},   {"bkplogfile", "/var/log/kemobackup.log"},
        {"copylogfile", "/var/log/kemocopy.log"},   {"netbkplogfile", "/var/log/kemonetbkp.log"},
    };
    std::string text;
    for (const auto &line : kLines) {
        text += std::string(line.key) + "\t=\t\"" + line.file + "\"\n";
        text += std::string(line.key) + "size_MAX\t=\t\"65536\"\n";
    }
    kemo::Twin twin(kConf);
    if (!twin.open())
        return fail(-1, ERR_OPEN_FAILED);
    return twin.write(text) && twin.commit() ? 0 : -1;
}

} // namespace kemo::eventlog

using kemo::fail;
using namespace kemo::eventlog;

extern "C" {

KEMO_API int KEMOLogSetSize(int size, int logClass)
{
    const LogClass *c = logClass == 7 ? nullptr : class_of(logClass);
    if (c == nullptr || size <= 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return set_size(size, *c, logClass); });
}

KEMO_API int KEMOLogChangeSize(int size, int logClass)
{
    if (size < 0)
        return fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return shrink(size, logClass); });
}

KEMO_API int KEMOSetLogConf(void)
{
    return kemo::edge(-1, [] { return write_default_conf(); });
}

} // extern "C"
