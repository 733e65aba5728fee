// The fuzz targets' private scratch directory on tmpfs (never one of the
// appliance's paths) and whole-file helpers.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace kemo::fuzz {

// The directory, made on first use and removed at exit.  The name lives in
// a plain array so that it outlives the exit handler.
inline std::string scratch()
{
    static char name[] = "/dev/shm/kemo-fuzz-XXXXXX";
    static const bool made = [] {
        if (::mkdtemp(name) == nullptr)
            std::abort();
        std::atexit([] { ::rmdir(name); });
        return true;
    }();
    (void)made;
    return name;
}

// Writes content as the whole file at path (aborts when it cannot).
inline void put(const std::string &path, std::string_view content)
{
    FILE *f = std::fopen(path.c_str(), "w");
    if (f == nullptr)
        std::abort();
    std::fwrite(content.data(), 1, content.size(), f);
    std::fclose(f);
}

// The whole file at path ("" when missing).
inline std::string whole(const std::string &path)
{
    std::string content;
    if (FILE *f = std::fopen(path.c_str(), "r")) {
        char buf[8192];
        std::size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, f)) > 0)
            content.append(buf, n);
        std::fclose(f);
    }
    return content;
}

} // namespace kemo::fuzz
