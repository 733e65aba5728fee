// Parsing and formatting of the account file entries.
#include "kemo_records.hpp"

#include "kemo_internal.hpp"

#include <charconv>

namespace kemo::records {

namespace {

// The fields of a line split at every ":", empty ones kept.
std::vector<std::string_view> fields_of(std::string_view line)
{
    std::vector<std::string_view> fields;
    for (;;) {
        const auto at = line.find(':');
        fields.push_back(line.substr(0, at));
        if (at == std::string_view::npos)
            return fields;
        line.remove_prefix(at + 1);
    }
}

void append_fields(std::string &out, std::initializer_list<std::string_view> fields)
{
    bool first = true;
    for (const std::string_view field : fields) {
        if (!first)
            out.push_back(':');
        first = false;
        out.append(field);
    }
}

} // namespace

std::string_view name_of(std::string_view line) noexcept
{
    const auto colon = line.find(':');
    return colon == std::string_view::npos ? std::string_view{} : line.substr(0, colon);
}

std::optional<long> decimal(std::string_view text) noexcept
{
    long value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc{} || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

// ---------------------------------------------------------------- passwd

std::optional<Passwd> parse_passwd(std::string_view line)
{
    const auto f = fields_of(line);
    if (f.size() != 7 || f[0].empty())
        return std::nullopt;
    const auto uid = decimal(f[2]);
    const auto gid = decimal(f[3]);
    if (!uid || !gid)
        return std::nullopt;
    return Passwd{f[0], f[1], *uid, *gid, f[4], f[5], f[6]};
}

std::string format_passwd(const Passwd &e)
{
    std::string out;
    const std::string uid = std::to_string(e.uid), gid = std::to_string(e.gid);
    append_fields(out, {e.name, e.password, uid, gid, e.gecos, e.home, e.shell});
    return out;
}

std::optional<long> passwd_uid(std::string_view line) noexcept
{
    const auto first = line.find(':');
    const auto second = first == std::string_view::npos ? first : line.find(':', first + 1);
    if (second == std::string_view::npos)
        return std::nullopt;
    const auto third = line.find(':', second + 1);
    return decimal(line.substr(second + 1, third == std::string_view::npos ? third : third - second - 1));
}

// ---------------------------------------------------------------- shadow

std::optional<Shadow> parse_shadow(std::string_view line)
{
    const auto f = fields_of(line);
    if (f.size() != 9 || f[0].empty())
        return std::nullopt;
    return Shadow{f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7], f[8]};
}

std::string format_shadow(const Shadow &e)
{
    std::string out;
    append_fields(out, {e.name, e.hash, e.changed, e.min_age, e.max_age, e.warning, e.inactive,
                        e.expire, e.reserved});
    return out;
}

// ---------------------------------------------------------------- smbpasswd

std::optional<Smbpasswd> parse_smbpasswd(std::string_view line)
{
    const auto f = fields_of(line);
    if (f.size() < 6 || f[0].empty())
        return std::nullopt;
    const auto uid = decimal(f[1]);
    if (!uid)
        return std::nullopt;
    const std::size_t rest_at = static_cast<std::size_t>(f[5].data() + f[5].size() - line.data());
    return Smbpasswd{f[0], *uid, f[2], f[3], f[4], f[5], line.substr(rest_at)};
}

std::string format_smbpasswd(const Smbpasswd &e)
{
    std::string out;
    const std::string uid = std::to_string(e.uid);
    append_fields(out, {e.name, uid, e.lm, e.nt, e.flags, e.changed});
    out.append(e.rest);
    return out;
}

// ---------------------------------------------------------------- group

std::optional<Group> parse_group(std::string_view line)
{
    if (line.empty() || line.front() == '#')
        return std::nullopt;
    auto f = fields_of(line);
    if (f.size() < 4 || f[0].empty())
        return std::nullopt;
    const auto gid = decimal(f[2]);
    if (!gid)
        return std::nullopt;
    return Group{f[0], f[1], *gid, f[3], std::vector<std::string_view>(f.begin() + 4, f.end())};
}

std::string format_group(const Group &e)
{
    std::string out;
    const std::string gid = std::to_string(e.gid);
    append_fields(out, {e.name, e.password, gid, e.members});
    for (const std::string_view field : e.tail)
        out.append(":").append(field);
    return out;
}

// ---------------------------------------------------------------- mail

std::optional<Mail> parse_mail(std::string_view line)
{
    if (line.empty() || line.front() == '#' || line.front() == ';')
        return std::nullopt;
    const auto pair = split_pair(line);
    if (!pair)
        return std::nullopt;
    return Mail{pair->key, pair->value};
}

std::string format_mail(std::string_view name, std::string_view address)
{
    std::string line(name);
    line += "=\"";
    line += address;
    line += '"';
    return line;
}

} // namespace kemo::records
