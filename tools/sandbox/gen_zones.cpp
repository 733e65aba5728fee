// Build step: the appliance's zone tables, made from this machine's time
// zone database so that no zone, offset or rule is ever typed by hand.
//
//   kemo-gen-zones ZONEINFO_DIR OUTPUT_ROOT
//
// Writes OUTPUT_ROOT/usr/share/zoneinfo/Timezone/ afresh:
//   tztable   "Zone/Name=description" a line, sorted by zone name; the
//             description is the country (iso3166.tab), the zone's comment
//             (zone.tab) and its standard offset from UTC, e.g.
//             "Germany - most of Germany (UTC+01:00)"
//   tzlist    "Zone/Name=POSIX TZ string" (the footer of the zone's TZif
//             file, e.g. "CET-1CEST,M3.5.0,M10.5.0/3"), what /etc/TZ holds
//   <zone>    a copy of the zone's TZif file (links resolved)
// The zones are those of zone.tab (every country's zones) plus the
// appliance's factory zone "Greenwich" and "UTC".  A zone whose file lacks
// the POSIX footer, a table line that cannot be parsed, or any file that
// cannot be read fails the build.

#include "gen_util.hpp"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

using kemo::gen::die;
using kemo::gen::read_bytes;

// The tab-separated fields of the non-comment lines of a .tab file.
std::vector<std::vector<std::string>> read_tab(const fs::path &file) {
    std::vector<std::vector<std::string>> rows;
    std::istringstream in(read_bytes(file));
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::vector<std::string> fields;
        std::istringstream split(line);
        for (std::string field; std::getline(split, field, '\t');) fields.push_back(field);
        rows.push_back(std::move(fields));
    }
    return rows;
}

// The POSIX TZ string of a TZif file (version 2 and later): the text
// between the last two newlines at the end of the file.
std::string posix_footer(const std::string &data, const std::string &zone) {
    if (data.compare(0, 4, "TZif") != 0 || data.size() < 2 || data.back() != '\n')
        die(zone + ": not a TZif file with a POSIX footer");
    const std::size_t start = data.rfind('\n', data.size() - 2);
    if (start == std::string::npos || data.size() - start < 3) die(zone + ": empty POSIX footer");
    std::string tz = data.substr(start + 1, data.size() - start - 2);
    for (const char c : tz)
        if (c < 0x21 || c > 0x7e) die(zone + ": unexpected POSIX footer");
    return tz;
}

// "UTC+hh:mm" for the standard time of a POSIX TZ string, whose offset is
// counted west of Greenwich ("CET-1" is one hour east).
std::string standard_offset(const std::string &tz, const std::string &zone) {
    std::size_t i = 0;
    if (!tz.empty() && tz[0] == '<') {
        i = tz.find('>');
        if (i == std::string::npos) die(zone + ": bad zone abbreviation in " + tz);
        ++i;
    } else {
        while (i < tz.size() && std::isalpha(static_cast<unsigned char>(tz[i]))) ++i;
    }
    int sign = -1;  // west is positive in the string
    if (i < tz.size() && (tz[i] == '+' || tz[i] == '-')) sign = tz[i++] == '-' ? 1 : -1;
    int parts[3] = {0, 0, 0};
    for (int p = 0; p < 3; ++p) {
        const std::size_t begin = i;
        while (i < tz.size() && std::isdigit(static_cast<unsigned char>(tz[i])) && i - begin < 3)
            parts[p] = parts[p] * 10 + (tz[i++] - '0');
        if (i == begin) die(zone + ": no standard offset in " + tz);
        if (i >= tz.size() || tz[i] != ':') break;
        ++i;
    }
    if (parts[0] > 24 || parts[1] > 59) die(zone + ": standard offset out of range in " + tz);
    const int minutes = parts[0] * 60 + parts[1];
    char text[32];
    std::snprintf(text, sizeof text, "UTC%c%02d:%02d", sign * minutes < 0 ? '-' : '+', minutes / 60,
                  minutes % 60);
    return text;
}

void write_file(const fs::path &file, const std::string &text) {
    fs::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) die("cannot write " + file.string());
}

struct Zone {
    std::string description;  // without the offset
    std::string data;
    std::string tz;
};

void generate(const fs::path &zoneinfo, const fs::path &root) {
    std::map<std::string, std::string> countries;
    for (const auto &row : read_tab(zoneinfo / "iso3166.tab")) {
        if (row.size() < 2) die("iso3166.tab: short line");
        countries[row[0]] = row[1];
    }
    std::map<std::string, Zone> zones;  // sorted by name
    for (const auto &row : read_tab(zoneinfo / "zone.tab")) {
        if (row.size() < 3) die("zone.tab: short line");
        const auto country = countries.find(row[0]);
        if (country == countries.end()) die("zone.tab: unknown country " + row[0]);
        std::string description = country->second;
        if (row.size() > 3 && !row[3].empty()) description += " - " + row[3];
        zones[row[2]].description = description;
    }
    // The factory zone and plain UTC, which belong to no country.
    zones["Greenwich"].description = "Greenwich Mean Time";
    zones["UTC"].description = "Coordinated Universal Time";

    std::string table, list;
    for (auto &[name, zone] : zones) {
        for (const char c : name)
            if (!std::isalnum(static_cast<unsigned char>(c)) && c != '/' && c != '_' && c != '-' &&
                c != '+')
                die("unexpected zone name " + name);
        zone.data = read_bytes(zoneinfo / name);
        zone.tz = posix_footer(zone.data, name);
        table += name + "=" + zone.description + " (" + standard_offset(zone.tz, name) + ")\n";
        list += name + "=" + zone.tz + "\n";
    }
    const fs::path dir = root / "usr/share/zoneinfo/Timezone";
    fs::remove_all(dir);
    for (const auto &[name, zone] : zones) write_file(dir / name, zone.data);
    write_file(dir / "tzlist", list);
    write_file(dir / "tztable", table);  // last: the build's mark of a complete tree
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        std::cerr << "usage: kemo-gen-zones ZONEINFO_DIR OUTPUT_ROOT\n";
        return 2;
    }
    try {
        generate(argv[1], argv[2]);
    } catch (const std::exception &e) {
        std::cerr << "kemo-gen-zones: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
