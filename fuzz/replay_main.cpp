// Replays a saved fuzz corpus through a fuzz target without the fuzzer:
//   replay DIR...   runs every file of each directory once
// so that the test suite checks every input that ever found a fault.
#include <dirent.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);
// Optional, as with libFuzzer: a target that needs a set-up step defines it.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

int main(int argc, char **argv)
{
    if (LLVMFuzzerInitialize != nullptr)
        LLVMFuzzerInitialize(&argc, &argv);
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        DIR *dir = ::opendir(argv[i]);
        if (dir == nullptr) {
            std::fprintf(stderr, "replay: cannot open %s\n", argv[i]);
            return 1;
        }
        std::vector<std::string> names;
        while (const dirent *e = ::readdir(dir))
            if (e->d_name[0] != '.')
                names.emplace_back(e->d_name);
        ::closedir(dir);
        std::sort(names.begin(), names.end());
        for (const std::string &name : names) {
            std::ifstream in(std::string(argv[i]) + "/" + name, std::ios::binary);
            const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(data.data()), data.size());
            ++count;
        }
    }
    std::printf("replayed %d inputs\n", count);
    return count > 0 ? 0 : 1;
}
