// What the build-time generators of the sandbox share: failing with a
// message, and reading a file whole.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace kemo::gen {

[[noreturn]] inline void die(const std::string &message) { throw std::runtime_error(message); }

inline std::string read_bytes(const std::filesystem::path &file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in)
        die("cannot read " + file.string());
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

} // namespace kemo::gen
