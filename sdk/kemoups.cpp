// UPS settings and live state.  The UPS daemons run outside the library:
// the live state comes from their client, "upsc ups@localhost"; the
// settings are "ups_enabled" and "ups_wait_time" in /etc/kemoinfo.conf and
// the shutdown timer in the UPS scheduler's file, and a change restarts the
// daemons through their control script.
#include "kemo_ups.hpp"
#include "kemo_internal.hpp"
#include "kemo_io.hpp"
#include "kemofile.hpp"
#include "kemomisc.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <string>

namespace kemo::ups {

namespace {

constexpr char kSettings[] = "/etc/kemoinfo.conf";
constexpr char kTimerFile[] = "/usr/kemo/etc/upssched.conf";
constexpr char kControlScript[] = "/usr/kemo/bin/ups.sh";
// A fixed command: no caller text ever reaches the shell.  The client's
// own remarks on standard error would end up in the caller's.
constexpr char kClientCommand[] = "exec /usr/kemo/bin/upsc ups@localhost 2>/dev/null";
constexpr char kQuotedPair[] = "%s=\"%s\"\n";
constexpr std::string_view kTimerKey = "AT ONBATT";
constexpr std::size_t kSettingSize = 16; // the longest setting value taken, with its NUL

// A setting's value, at most kSettingSize - 1 characters; nullopt (logged)
// when it cannot be read.
std::optional<std::string> setting(const char *key)
{
    std::optional<std::string> value = kemo::settings::get_value(kSettings, key);
    if (!value) {
        KEMO_LOG_SP("There is an error here.");
        return std::nullopt;
    }
    if (value->size() >= kSettingSize)
        value->resize(kSettingSize - 1);
    return value;
}

// A decimal number of at most 32 bits, the whole text; else 0.
uint32_t decimal(std::string_view text) noexcept
{
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() ? value : 0;
}

void copy_text(char (&field)[128], std::string_view text) noexcept
{
    const std::size_t n = std::min(text.size(), sizeof field - 1);
    std::memcpy(field, text.data(), n);
    field[n] = '\0';
}

} // namespace

std::optional<uint8_t> status_of(std::string_view flags) noexcept
{
    bool on_line = false, on_battery = false;
    while (!flags.empty()) {
        const std::size_t start = flags.find_first_not_of(' ');
        if (start == std::string_view::npos)
            break;
        flags.remove_prefix(start);
        const std::string_view flag = flags.substr(0, flags.find(' '));
        flags.remove_prefix(flag.size());
        if (flag == "LB")
            return KEMO_UPS_BATTERY_LOW;
        on_battery = on_battery || flag == "OB";
        on_line = on_line || flag == "OL";
    }
    if (on_battery)
        return KEMO_UPS_ON_BATTERY;
    if (on_line)
        return KEMO_UPS_ONLINE;
    return std::nullopt;
}

int32_t number_of(std::string_view text) noexcept
{
    const std::size_t point = text.find('.');
    const std::string_view whole = text.substr(0, point);
    if (point != std::string_view::npos) {
        const std::string_view fraction = text.substr(point + 1);
        if (fraction.empty() || fraction.find_first_not_of("0123456789") != std::string_view::npos)
            return 0;
    }
    if (whole.empty() || whole.find_first_not_of("0123456789") != std::string_view::npos)
        return 0;
    int32_t value = 0;
    const auto [end, error] = std::from_chars(whole.data(), whole.data() + whole.size(), value);
    return error == std::errc() && end == whole.data() + whole.size() ? value : 0;
}

void take_line(std::string_view line, KEMOUPS &ups)
{
    const std::size_t colon = line.find(": ");
    if (colon == std::string_view::npos)
        return;
    const std::string_view name = line.substr(0, colon), value = line.substr(colon + 2);
    if (name == "ups.mfr") {
        copy_text(ups.szMfr, value);
    } else if (name == "ups.model") {
        copy_text(ups.szModel, value);
    } else if (name == "ups.status") {
        if (const auto status = status_of(value))
            ups.status = *status;
    } else if (name == "ups.load") {
        ups.load = number_of(value);
    } else if (name == "battery.runtime") {
        ups.runtime = number_of(value);
    } else if (name == "battery.charge") {
        ups.charge = number_of(value);
    }
}

void take_report(std::string_view report, KEMOUPS &ups)
{
    while (!report.empty()) {
        const std::size_t end = report.find('\n');
        std::string_view line = report.substr(0, end);
        report.remove_prefix(end == std::string_view::npos ? report.size() : end + 1);
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        take_line(line.substr(0, kMaxLine), ups);
    }
}

std::string timer_line(uint32_t minutes)
{
    return "AT ONBATT * START-TIMER on-batt " + std::to_string(static_cast<uint64_t>(minutes) * 60) + "\n";
}

int info(KEMOUPS &ups)
{
    const auto enabled = setting("ups_enabled");
    if (!enabled)
        return -1;
    const auto wait = setting("ups_wait_time");
    if (!wait)
        return -1;
    ups.enabled = *enabled == "yes" ? 1 : 0;
    ups.waitTime = decimal(*wait);
    // Only a complete report counts: a client that cannot reach the UPS
    // (support off, daemons stopped) leaves the live fields as they were.
    const ShellOutput report = shell_read(kClientCommand, Output::all, kMaxReport);
    if (report.started && exit_code(report.status) == 0)
        take_report(report.text, ups);
    return 0;
}

int set_info(const KEMOUPS &ups)
{
    {
        ConfigLock lock(KLIB_LOCK_KEMOINFO | KLIB_LOCK_EX | KLIB_LOCK_NB, 5);
        if (!lock.held()) {
            KEMO_LOG("fail to lock the settings for the UPS (%X)", KLIBErrGet());
            return fail(-1, ERR_LOCK_FAILED);
        }
        // The timer file is opened first, so that a missing one fails the
        // call before any setting has changed.
        FilePtr in = open_file(kTimerFile, "r");
        if (!in) {
            KEMO_LOG("fopen(SZF_KEMO_UPS_SCHED, \"r\") failed");
            return fail(-1, ERR_OPEN_FAILED);
        }
        if (kemo::settings::set_value(kSettings, "ups_enabled", ups.enabled ? "yes" : "no", kQuotedPair) < 0 ||
            kemo::settings::set_value(kSettings, "ups_wait_time", std::to_string(ups.waitTime), kQuotedPair) < 0) {
            KEMO_LOG("fail to store the UPS settings (%X)", KLIBErrGet());
            return -1;
        }
        // The twin takes the file's owner and mode.  A file without a timer
        // line keeps its bytes and is not rewritten.
        Twin twin(kTimerFile);
        if (!twin.open()) {
            KEMO_LOG("fopen(SZF_KEMO_UPS_SCHED.tmp, \"w\") failed");
            return -1;
        }
        const std::string timer = timer_line(ups.waitTime);
        bool changed = false;
        const int copied = copy_lines(
            in.get(), twin,
            [&](std::string_view line, Twin &out) {
                if (!line.starts_with(kTimerKey))
                    return out.write(line);
                changed = changed || line != timer;
                return out.write(timer);
            },
            [&](Twin &, bool) { return changed ? 1 : 0; }, ERR_READ_FAILED);
        if (copied < 0) {
            KEMO_LOG("fail to copy %s (%X)", kTimerFile, KLIBErrGet());
            return -1;
        }
        if (copied == 1 && !twin.commit()) {
            KEMO_LOG("rename to SZF_KEMO_UPS_SCHED failed");
            return -1;
        }
    }
    // The daemons are restarted without the settings lock: the files are
    // in place, and a restart takes seconds.
    const std::array<const char *, 2> argv{kControlScript, "restart"};
    if (run_program(argv) != 0)
        kemo::log("%s:%d failed to restart ups", __FILE__, __LINE__);
    return 0;
}

} // namespace kemo::ups

extern "C" {

KEMO_API int KEMOUPSInfoGet(KEMOUPS *ups)
{
    if (ups == nullptr)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::ups::info(*ups); });
}

KEMO_API int KEMOUPSInfoSet(const KEMOUPS *ups)
{
    if (ups == nullptr || ups->waitTime < KEMO_UPS_WAIT_MIN || ups->waitTime > KEMO_UPS_WAIT_MAX)
        return kemo::fail(-1, ERR_BAD_PARAMETERS);
    return kemo::edge(-1, [&] { return kemo::ups::set_info(*ups); });
}

} // extern "C"
