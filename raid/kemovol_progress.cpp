// Progress of the long volume jobs, from the files the jobs and the
// file-system tools write under /tmp: making a file system, growing one,
// the steps of creating a volume, the "is a job running" tests, and the
// sync percent of an array.
//
// /tmp is writable by every user, so every file here is read the same
// guarded way (read_small_file): never through a symbolic link, never from
// a FIFO or device, and only so many bytes.  Whatever the bytes are, the
// parsers of kemo_text.hpp turn them into "known" or "not known yet".
#include "kemo_vol.hpp"

#include "kemo_io.hpp"
#include "kemo_raid.hpp"
#include "kemo_text.hpp"
#include "kemomisc.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace kemo::vol {

namespace {

constexpr const char *kAddFile = "/tmp/raid_add_init_volume.tmp";
constexpr const char *kRepairFile = "/tmp/raid_repair_init_volume.tmp";
constexpr const char *kExpandFile = "/tmp/raid_expand_volume.tmp";
constexpr const char *kMkfsPrefix = "/tmp/mkfs.progress";

// Waits between two reads of a progress file that is not there yet, and
// how long a reader waits in all while the writing tool runs (the tool
// may run for minutes; the caller is a page that must answer).
constexpr int kTriesBeforeCheck = 5;
constexpr int kMaxTries = 15;

void wait_a_second()
{
    ::sleep(1);
}

// A job tool of this name is running.
bool alive(const char *process)
{
    return process_listed(process) == 1;
}

// The last complete "done/total" line of a maker's progress file (a line
// still being written does not count unless it is the only one).
std::optional<int> last_fraction(std::string_view text)
{
    std::optional<int> found;
    std::size_t pos = 0;
    while (pos < text.size()) {
        const std::size_t nl = text.find('\n', pos);
        if (nl == std::string_view::npos) {
            if (!found)
                found = text::fraction_percent(text.substr(pos));
            break;
        }
        if (const auto percent = text::fraction_percent(text.substr(pos, nl - pos)))
            found = percent;
        pos = nl + 1;
    }
    return found;
}

// A percent value of a progress file; nullopt when absent or no number.
std::optional<float> percent_of(std::string_view text, std::string_view key)
{
    const auto value = value_of(text, key);
    if (!value)
        return std::nullopt;
    char *end = nullptr;
    const float number = std::strtof(value->c_str(), &end);
    if (end == value->c_str() || !(number >= -1e9f && number <= 1e9f))
        return std::nullopt;
    return number;
}

// One of resize2fs's two progress files ("extend", "scan").  -1 when it
// never appeared and the tool is not running.
int grow_phase_percent(const std::string &path)
{
    int without_tool = 0;
    for (int attempt = 1;; ++attempt) {
        if (const auto bytes = read_small_file(path.c_str(), 8)) {
            int percent = text::leading_number(*bytes).value_or(0);
            if (percent < 0) {
                log("(%s)%s(%d):percent is illegal after fget and atoi, progress file %s, percent=%d, errno=%s/%d",
                    __FILE__, __func__, __LINE__, path.c_str(), percent, std::strerror(errno), errno);
                percent = 0;
            }
            return std::min(percent, 100);
        }
        const int err = errno;
        log("(%s)%s(%d):Failed to open progress file %s, errno=%s/%d", __FILE__, __func__, __LINE__, path.c_str(),
            std::strerror(err), err);
        if (alive("resize2fs")) {
            without_tool = 0;
            // Still running but not in this phase yet: nothing of it done.
            if (attempt >= kMaxTries)
                return 0;
        } else if (++without_tool >= kTriesBeforeCheck) {
            KEMO_RAID_LOG("%s(%d) : Retry 5 times to access %s. Give up!!", path.c_str());
            return -1;
        }
        wait_a_second();
    }
}

// STEP of a job file: the value, or nullopt with errno (ENOENT: no job).
std::optional<std::string> job_step(const char *path, int &err)
{
    const auto text = read_small_file(path);
    if (!text) {
        err = errno;
        return std::nullopt;
    }
    auto step = value_of(*text, "STEP");
    err = step ? 0 : ENOENT;
    return step;
}

} // namespace

std::optional<std::string> value_of(std::string_view text, std::string_view key)
{
    std::size_t pos = 0;
    while (pos < text.size()) {
        const std::size_t nl = text.find('\n', pos);
        const std::string_view line =
            text.substr(pos, (nl == std::string_view::npos ? text.size() : nl) - pos);
        pos = nl == std::string_view::npos ? text.size() : nl + 1;
        const std::string_view body = trimmed(line);
        if (body.starts_with("#") || body.starts_with(";"))
            continue;
        if (const auto pair = split_pair(line); pair && pair->key == key)
            return std::string(pair->value);
    }
    return std::nullopt;
}

bool progress_name_ok(const char *name) noexcept
{
    if (name == nullptr)
        return false;
    const std::string_view text(name);
    if (text.empty() || text.size() > 64 || text == "." || text == "..")
        return false;
    return std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
               c == '_' || c == '-' || c == '+' || c == ':';
    });
}

int fs_init_status(int index)
{
    if (!index_valid(index)) {
        set_error(KEMO_VOL_ERR_PARAM);
        return -1;
    }
    const std::string path = std::string(kMkfsPrefix) + ".md" + std::to_string(index + 2);
    int failed = 0;
    for (int attempt = 1; attempt <= kMaxTries; ++attempt) {
        // The maker appends a line per step: its last lines are the news.
        const auto text = read_small_file(path.c_str(), 64 * 1024, true);
        const int err = errno;
        if (text) {
            if (const auto percent = last_fraction(*text))
                return *percent;
        }
        if (++failed == kTriesBeforeCheck) {
            failed = 0;
            if (!text)
                KEMO_RAID_LOG("%s(%d)  file path = %s , errno : %d, strerrno : %s", path.c_str(), err,
                              std::strerror(err));
            // Either maker (the ext3 one runs the ext2 one underneath).
            if (!alive("mkfs.ext3") && !alive("mke2fs")) {
                if (text)
                    KEMO_RAID_LOG("%s(%d)  %s is not alive , but can't get progress, return error", "mkfs.ext3");
                else
                    KEMO_RAID_LOG("%s(%d)  %s is not alive , return error", "mkfs.ext3");
                return -1;
            }
            KEMO_RAID_LOG("%s(%d)  cmd %s is alive, continue", "mkfs.ext3");
        }
        if (attempt < kMaxTries)
            wait_a_second();
    }
    // The maker runs but has written nothing yet.
    return 0;
}

int expand_progress(const char *name, int &percent)
{
    const int extend = grow_phase_percent(std::string("/tmp/resize2fs.progress.extend.") + name);
    if (extend < 0)
        return -1;
    const int scan = grow_phase_percent(std::string("/tmp/resize2fs.progress.scan.") + name);
    if (scan < 0)
        return -1;
    percent = (extend + scan) / 2;
    return 0;
}

int init_status(KEMOVOLINITSTATUS &status)
{
    status = KEMOVOLINITSTATUS {};
    struct stat st {};
    if (::lstat(kAddFile, &st) != 0) {
        const int err = errno;
        if (err == ENOENT) {
            KEMO_RAID_LOG("%s(%d)Failed to find progress file : errno=ENOENT");
            return -2;
        }
        KEMO_RAID_LOG("%s(%d)Failed to find progress file : errno=%d , strerrno = %s", err, std::strerror(err));
        return 0;
    }
    const auto file = read_small_file(kAddFile);
    const auto step = file ? value_of(*file, "STEP") : std::nullopt;
    if (!step) {
        KEMO_RAID_LOG("%s(%d):failed to get progress tmp file :%s", kAddFile);
        return -1;
    }
    // The volume id a step works on (1..4).
    const auto volume = [&]() -> int {
        const auto value = value_of(*file, "VOLUME");
        const auto id = value ? text::leading_number(*value) : std::nullopt;
        return id && id_valid(*id) ? *id : -1;
    };
    if (*step == "START") {
        status.step = KEMO_INIT_START;
    } else if (*step == "FINISH") {
        status.step = KEMO_INIT_FINISH;
    } else if (*step == "ERROR") {
        status.step = KEMO_INIT_ERROR;
    } else if (*step == "DISKINIT") {
        status.step = KEMO_INIT_DISKINIT;
        const auto percent = percent_of(*file, "PERCENT");
        if (!percent) {
            KEMO_RAID_LOG("%s(%d)(%d):failed to get diskinit percent :%s", __LINE__, kAddFile);
            return -1;
        }
        status.diskPercent = static_cast<int32_t>(*percent);
    } else if (*step == "MDSYNC") {
        status.step = KEMO_INIT_MDSYNC;
        status.diskPercent = 100;
        const int id = volume();
        if (id < 0) {
            KEMO_RAID_LOG("%s(%d):failed to get VOLUME :%s", kAddFile);
            return -1;
        }
        float sync = 0;
        if (md_sync_progress(id + 1, sync) != 0) {
            KEMO_RAID_LOG("%s(%d):failed to get md sync progress :%s", kAddFile);
            status.syncPercent = 0;
            return -1;
        }
        status.syncPercent = sync;
    } else if (*step == "VOLINIT") {
        status.step = KEMO_INIT_VOLINIT;
        status.diskPercent = 100;
        status.syncPercent = 100.0f;
        const int id = volume();
        if (id < 0) {
            KEMO_RAID_LOG("%s(%d):failed to get VOLUME :%s", kAddFile);
            return -1;
        }
        const int fs = fs_init_status(id - 1);
        if (fs < 0) {
            KEMO_RAID_LOG("%s(%d)(%d):failed to get volume init progress :%d", __LINE__, fs);
            return -1;
        }
        status.fsPercent = fs;
    } else if (*step == "DEFINIT") {
        status.step = KEMO_INIT_DEFINIT;
        status.diskPercent = 100;
        status.syncPercent = 100.0f;
        status.fsPercent = 100;
        const auto percent = percent_of(*file, "PERCENT");
        if (!percent) {
            KEMO_RAID_LOG("%s(%d):failed to get default init percent :%s", kAddFile);
            return -1;
        }
        status.finalPercent = *percent;
    }
    // Any other step: not one of ours, the record stays zeroed.
    return 0;
}

int applying(int kind, const char *process)
{
    static constexpr const char *files[] = {kAddFile, kRepairFile, kExpandFile};
    if (kind < 0 || kind > 2)
        return 0;
    int err = 0;
    const auto step = job_step(files[kind], err);
    if (!step) {
        struct stat st {};
        // No job file at all (or something else planted in its place):
        // nothing runs.
        if (::lstat(files[kind], &st) != 0 || !S_ISREG(st.st_mode))
            return 0;
        KEMO_RAID_LOG("%s(%d):failed to get progress tmp file :%s", files[kind]);
        // A creation whose state cannot be had is not taken as running; a
        // repair or grow with an unreadable step is not taken as finished.
        if (kind == 0)
            return 0;
    } else if (*step == "FINISH" || *step == "ERROR") {
        return 0;
    }
    return process == nullptr ? 1 : (alive(process) ? 1 : 0);
}

int md_sync_progress(int md, float &percent)
{
    if (md < 0 || md > raid::kMaxMd) {
        KEMO_RAID_LOG("%s(%d):parameter error");
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    }
    KEMORAIDVOL record {};
    for (int attempt = 1; attempt <= 5; ++attempt) {
        record = KEMORAIDVOL {};
        if (raid::vol_status(md, record) == 0)
            break;
        record = KEMORAIDVOL {};
        if (attempt < 5)
            wait_a_second();
    }
    // An array that could not be asked maps as a zeroed record: in sync.
    switch (record.rebuildState) {
    case 0: percent = record.volStatus == 0 ? 100.0f : -2.0f; break;
    case 1: percent = record.rebuildProgress; break;
    case 2: percent = -1.0f; break;
    default: break;
    }
    return 0;
}

} // namespace kemo::vol

namespace vol = kemo::vol;

extern "C" {

KEMO_API int KEMOVolFSInitStatusGet(int index)
{
    return kemo::edge(-1, [&] { return vol::fs_init_status(index); });
}

KEMO_API int KEMOVolExpandProgress(const char *name, int *percent)
{
    if (percent == nullptr || !vol::progress_name_ok(name))
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return vol::expand_progress(name, *percent); });
}

KEMO_API int VolInitStatusGet(PKEMOVOLINITSTATUS status)
{
    if (status == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return vol::init_status(*status); });
}

// A process name goes to grep: never an option, never more than one line.
static bool process_name_ok(const char *name)
{
    return name == nullptr || (*name != '\0' && *name != '-' && kemo::fits_on_line(name));
}

KEMO_API int BlAddIsApplying(const char *processName)
{
    if (!process_name_ok(processName))
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return kemo::edge(0, [&] { return vol::applying(0, processName); });
}

KEMO_API int BlRepairIsApplying(const char *processName)
{
    if (!process_name_ok(processName))
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return kemo::edge(0, [&] { return vol::applying(1, processName); });
}

KEMO_API int BlExpandIsApplying(const char *processName)
{
    if (!process_name_ok(processName))
        return kemo::fail(0, ERR_BAD_PARAMETERS);
    return kemo::edge(0, [&] { return vol::applying(2, processName); });
}

KEMO_API int MDSyncProgress(int md, float *percent)
{
    if (percent == nullptr) {
        KEMO_RAID_LOG("%s(%d):parameter error");
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    }
    return kemo::edge(-1, [&] { return vol::md_sync_progress(md, *percent); });
}

} // extern "C"
