// Build step: turns the factory tree into a C++ source file that the sandbox
// library compiles in, so programs that build a sandbox need no data
// directory at run time.
//
//   kemo-embed-factory FACTORY_DIR [GENERATED_DIR...] OUTPUT.cpp
//
// GENERATED_DIR trees (made by other build steps, such as the zone tables
// of kemo-gen-zones) are laid over the factory tree by the same rules; a
// path that two trees both hold is an error.
// FACTORY_DIR mirrors the appliance's absolute paths (FACTORY_DIR/etc/passwd
// is /etc/passwd). FACTORY_DIR/PERMISSIONS lists the entries whose mode or
// owner differ from the default, one "path mode uid gid" a line; a path
// that ends in "/" names a directory (created even when the tree has none
// there). Files not listed get 0644 root:root, or 0755 when the file in the
// tree is executable by its owner. Anything else in the tree (links,
// devices) and manifest lines that name nothing are errors, so mistakes in
// the tree fail the build instead of producing a wrong sandbox.

#include "gen_util.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

struct Meta {
    unsigned mode = 0644;
    unsigned uid = 0;
    unsigned gid = 0;
    bool directory = false;
    bool used = false;
    int line = 0;
};

struct Entry {
    std::string path;
    Meta meta;
    std::string content;
};

using kemo::gen::die;
using kemo::gen::read_bytes;

unsigned parse_number(const std::string &text, int base, unsigned limit, const std::string &where) {
    std::size_t used = 0;
    unsigned long value = 0;
    try {
        value = std::stoul(text, &used, base);
    } catch (const std::exception &) {
        used = 0;
    }
    if (used != text.size() || value > limit) die(where + ": bad number \"" + text + "\"");
    return static_cast<unsigned>(value);
}

std::map<std::string, Meta> read_manifest(const fs::path &file) {
    std::map<std::string, Meta> manifest;
    std::ifstream in(file);
    if (!in) return manifest;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        const std::string where = file.string() + ":" + std::to_string(number);
        std::istringstream fields(line);
        std::string path, mode, uid, gid, extra;
        if (!(fields >> path) || path[0] == '#') continue;
        if (!(fields >> mode >> uid >> gid) || (fields >> extra))
            die(where + ": expected \"path mode uid gid\"");
        if (path[0] != '/' || path.size() < 2) die(where + ": not an absolute path: " + path);
        Meta meta;
        meta.directory = path.back() == '/';
        if (meta.directory) path.pop_back();
        meta.mode = parse_number(mode, 8, 07777, where);
        meta.uid = parse_number(uid, 10, 0x7fffffffU, where);
        meta.gid = parse_number(gid, 10, 0x7fffffffU, where);
        meta.line = number;
        if (!manifest.emplace(path, meta).second) die(where + ": " + path + " is listed twice");
    }
    return manifest;
}

// A C++ string literal of `data`, one source line per line of the file.
std::string literal(const std::string &data) {
    std::string out = "\"";
    bool open = true;
    for (std::size_t i = 0; i < data.size(); ++i) {
        if (!open) {
            out += "\n        \"";
            open = true;
        }
        const unsigned char c = static_cast<unsigned char>(data[i]);
        switch (c) {
        case '\n':
            out += "\\n\"";
            open = false;
            break;
        case '\t': out += "\\t"; break;
        case '\\': out += "\\\\"; break;
        case '"': out += "\\\""; break;
        default:
            if (c >= 0x20 && c < 0x7f) {
                out += static_cast<char>(c);
            } else {
                char octal[8];
                std::snprintf(octal, sizeof octal, "\\%03o", c);  // always 3 digits: unambiguous
                out += octal;
            }
        }
    }
    if (open) out += '"';
    return out;
}

std::string generate(const std::vector<Entry> &entries) {
    std::ostringstream out;
    out << "// Generated from the factory tree by kemo-embed-factory. Do not edit.\n"
           "#include \"kemo_sandbox.hpp\"\n\n"
           "#include <cstddef>\n\n"
           "namespace kemo::sandbox::detail {\n\n"
           "extern const FactoryFile factory_files[];\n"
           "extern const std::size_t factory_file_count;\n\n"
           "const FactoryFile factory_files[] = {\n";
    for (const Entry &e : entries) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%#o", e.meta.mode);
        out << "    {" << literal(e.path) << ", " << mode << ", " << e.meta.uid << ", " << e.meta.gid
            << ",\n        ";
        if (e.content.empty())
            out << "std::string_view()";
        else
            out << "std::string_view(" << literal(e.content) << ",\n        " << e.content.size()
                << ")";
        out << ", " << (e.meta.directory ? "true" : "false") << "},\n";
    }
    out << "};\n\n"
           "const std::size_t factory_file_count = sizeof factory_files / sizeof factory_files[0];\n\n"
           "}  // namespace kemo::sandbox::detail\n";
    return out.str();
}

void write_file(const fs::path &file, const std::string &text) {
    const fs::path tmp = file.string() + ".tmp";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        out << text;
        out.close();
        if (!out) die("cannot write " + tmp.string());
    }
    fs::rename(tmp, file);
}

std::vector<Entry> collect(const fs::path &root) {
    const fs::path manifest_file = root / "PERMISSIONS";
    std::map<std::string, Meta> manifest = read_manifest(manifest_file);
    std::vector<Entry> entries;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
         ++it) {
        const fs::path &p = it->path();
        if (p == manifest_file) continue;
        // Appended rather than "/" + ...: gcc 12 warns falsely about that at -O2.
        std::string path(1, '/');
        path += p.lexically_relative(root).generic_string();
        const fs::file_status st = it->symlink_status();
        auto listed = manifest.find(path);
        if (fs::is_directory(st)) {
            if (listed == manifest.end()) continue;  // created as a parent when needed
            if (!listed->second.directory)
                die(manifest_file.string() + ":" + std::to_string(listed->second.line) + ": " +
                    path + " is a directory; write it with a trailing \"/\"");
            listed->second.used = true;
            entries.push_back({path, listed->second, {}});
            continue;
        }
        if (!fs::is_regular_file(st))
            die(path + ": only regular files and directories belong in the factory tree");
        Entry e {path, {}, read_bytes(p)};
        if (listed != manifest.end()) {
            if (listed->second.directory)
                die(manifest_file.string() + ":" + std::to_string(listed->second.line) + ": " +
                    path + " is a file, not a directory");
            listed->second.used = true;
            e.meta = listed->second;
        } else if ((st.permissions() & fs::perms::owner_exec) != fs::perms::none) {
            e.meta.mode = 0755;
        }
        entries.push_back(std::move(e));
    }
    for (const auto &[path, meta] : manifest) {
        if (meta.used) continue;
        if (!meta.directory)
            die(manifest_file.string() + ":" + std::to_string(meta.line) + ": " + path +
                " is not in the factory tree");
        entries.push_back({path, meta, {}});
    }
    if (entries.empty()) die(root.string() + ": the factory tree is empty");
    std::sort(entries.begin(), entries.end(),
              [](const Entry &a, const Entry &b) { return a.path < b.path; });
    return entries;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::cerr << "usage: kemo-embed-factory FACTORY_DIR [GENERATED_DIR...] OUTPUT.cpp\n";
        return 2;
    }
    try {
        std::vector<Entry> entries;
        for (int i = 1; i < argc - 1; ++i) {
            std::vector<Entry> more = collect(argv[i]);
            entries.insert(entries.end(), std::make_move_iterator(more.begin()),
                           std::make_move_iterator(more.end()));
        }
        std::sort(entries.begin(), entries.end(),
                  [](const Entry &a, const Entry &b) { return a.path < b.path; });
        for (std::size_t i = 1; i < entries.size(); ++i)
            if (entries[i].path == entries[i - 1].path)
                die(entries[i].path + " is in more than one tree");
        write_file(argv[argc - 1], generate(entries));
    } catch (const std::exception &e) {
        std::cerr << "kemo-embed-factory: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
