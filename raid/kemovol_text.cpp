// Parsers of /proc/mdstat, /proc/mounts and the storage progress files, on
// buffers (see kemo_text.hpp).
#include "kemo_text.hpp"

#include <charconv>
#include <climits>
#include <cstdlib>

namespace kemo::text {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

std::string_view strip(std::string_view s) noexcept
{
    const auto first = s.find_first_not_of(kBlanks);
    if (first == std::string_view::npos)
        return {};
    return s.substr(first, s.find_last_not_of(kBlanks) - first + 1);
}

// The next line of text from pos (without its newline); advances pos.
std::string_view next_line(std::string_view text, std::size_t &pos) noexcept
{
    const std::size_t start = pos;
    const std::size_t nl = text.find('\n', start);
    pos = nl == std::string_view::npos ? text.size() : nl + 1;
    return text.substr(start, (nl == std::string_view::npos ? text.size() : nl) - start);
}

// True when line starts an array's block: "md<md> :" (the name as a whole
// word, so md1 is not md12).
bool starts_array(std::string_view line, int md) noexcept
{
    const std::string name = "md" + std::to_string(md);
    if (line.substr(0, name.size()) != name)
        return false;
    const std::string_view rest = line.substr(name.size());
    const auto colon = rest.find_first_not_of(" \t");
    return colon != std::string_view::npos && colon > 0 ? rest[colon] == ':' : rest.starts_with(":");
}

bool is_octal(char c) noexcept
{
    return c >= '0' && c <= '7';
}

bool starts_any_array(std::string_view line) noexcept
{
    if (!line.starts_with("md") || line.size() < 3 || line[2] < '0' || line[2] > '9')
        return false;
    return line.find(':') != std::string_view::npos;
}

} // namespace

bool mdstat_lists(std::string_view mdstat, int md) noexcept
{
    std::size_t pos = 0;
    while (pos < mdstat.size())
        if (starts_array(next_line(mdstat, pos), md))
            return true;
    return false;
}

MdSync mdstat_sync(std::string_view mdstat, int md) noexcept
{
    MdSync sync;
    std::size_t pos = 0;
    bool inside = false;
    while (pos < mdstat.size()) {
        const std::string_view line = next_line(mdstat, pos);
        if (!inside) {
            inside = starts_array(line, md);
            continue;
        }
        // The array's block ends at a blank line or the next array.
        if (strip(line).empty() || starts_any_array(line))
            break;
        const std::string_view body = strip(line);
        // "resync=DELAYED", "resync=PENDING": waiting its turn.
        if (body.find("=DELAYED") != std::string_view::npos || body.find("=PENDING") != std::string_view::npos) {
            sync.state = MdSync::waiting;
            continue;
        }
        // "[==>....]  recovery = 12.6% (...)"; the bar is optional.
        for (const std::string_view action : {"recovery", "resync", "reshape", "check", "repair"}) {
            const auto at = body.find(action);
            if (at == std::string_view::npos)
                continue;
            std::string_view rest = strip(body.substr(at + action.size()));
            if (!rest.starts_with("="))
                continue;
            rest = strip(rest.substr(1));
            const auto pct = rest.find('%');
            if (pct == std::string_view::npos)
                continue;
            const std::string number(rest.substr(0, pct));
            char *end = nullptr;
            const float value = std::strtof(number.c_str(), &end);
            if (end == number.c_str() || *end != '\0' || !(value >= 0.0f) || value > 100.0f)
                continue;
            sync.state = MdSync::running;
            sync.percent = value;
            sync.recovery = action == "recovery";
            sync.verify = action == "check" || action == "repair";
            return sync;
        }
    }
    return sync;
}

std::optional<MountEntry> mount_line(std::string_view line)
{
    MountEntry entry;
    std::string *const fields[] = {&entry.device, &entry.dir, &entry.type, &entry.options};
    std::size_t pos = 0;
    for (std::string *field : fields) {
        pos = line.find_first_not_of(" \t", pos);
        if (pos == std::string_view::npos || line[pos] == '\n')
            return std::nullopt;
        const auto end = line.find_first_of(" \t\n", pos);
        const std::string_view word = line.substr(pos, end == std::string_view::npos ? line.npos : end - pos);
        pos = end == std::string_view::npos ? line.size() : end;
        // The kernel writes blanks, tabs, newlines and backslashes in names
        // as three octal digits after a backslash.
        for (std::size_t i = 0; i < word.size(); ++i) {
            if (word[i] == '\\' && i + 3 < word.size() && is_octal(word[i + 1]) && is_octal(word[i + 2]) &&
                is_octal(word[i + 3]) && word[i + 1] <= '3') {
                field->push_back(static_cast<char>((word[i + 1] - '0') * 64 + (word[i + 2] - '0') * 8 +
                                                   (word[i + 3] - '0')));
                i += 3;
                continue;
            }
            field->push_back(word[i]);
        }
    }
    return entry;
}

int volume_id_of_dir(std::string_view dir) noexcept
{
    constexpr std::string_view prefix = "/volume";
    if (!dir.starts_with(prefix) || dir.size() <= prefix.size())
        return -1;
    const char digit = dir[prefix.size()];
    return digit >= '0' && digit <= '9' ? digit - '0' : -1;
}

std::optional<int> fraction_percent(std::string_view line) noexcept
{
    line = strip(line);
    const auto slash = line.find('/');
    if (slash == std::string_view::npos)
        return std::nullopt;
    const std::string_view a = strip(line.substr(0, slash));
    const std::string_view b = strip(line.substr(slash + 1));
    long long done = 0, total = 0;
    const auto [ea, ra] = std::from_chars(a.data(), a.data() + a.size(), done);
    const auto [eb, rb] = std::from_chars(b.data(), b.data() + b.size(), total);
    if (ra != std::errc() || rb != std::errc() || ea != a.data() + a.size() || eb != b.data() + b.size() ||
        a.empty() || b.empty())
        return std::nullopt;
    if (total <= 0 || done < 0 || done > total)
        return std::nullopt;
    if (total - done == 1)
        return 99;
    return static_cast<int>(static_cast<double>(done) / static_cast<double>(total) * 100.0);
}

std::optional<int> leading_number(std::string_view bytes) noexcept
{
    std::size_t i = bytes.find_first_not_of(" \t\r\n\v\f");
    if (i == std::string_view::npos)
        return std::nullopt;
    bool negative = false;
    if (bytes[i] == '+' || bytes[i] == '-') {
        negative = bytes[i] == '-';
        ++i;
    }
    long long value = 0;
    bool digits = false;
    for (; i < bytes.size() && bytes[i] >= '0' && bytes[i] <= '9'; ++i) {
        digits = true;
        if (value < static_cast<long long>(INT_MAX) + 1)
            value = value * 10 + (bytes[i] - '0');
    }
    if (!digits)
        return std::nullopt;
    if (negative)
        value = -value;
    if (value > INT_MAX)
        value = INT_MAX;
    if (value < INT_MIN)
        value = INT_MIN;
    return static_cast<int>(value);
}

int sysfs_level(std::string_view text) noexcept
{
    text = strip(text);
    if (!text.starts_with("raid") || text.size() == 4)
        return -1;
    int level = -1;
    const std::string_view digits = text.substr(4);
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), level);
    return ec == std::errc() && end == digits.data() + digits.size() && level >= 0 ? level : -1;
}

} // namespace kemo::text
