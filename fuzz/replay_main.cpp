// Replays fuzz inputs through LLVMFuzzerTestOneInput: every regular file named on the
// command line, and every regular file inside every folder named there. Exits non-zero
// when a named path does not exist; a crash or sanitizer report fails the run by itself.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

int main(int argc, char** argv)
{
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        if (!fs::exists(argv[i])) {
            std::fprintf(stderr, "no such input: %s\n", argv[i]);
            return 1;
        }
        std::vector<fs::path> files{argv[i]};
        if (fs::is_directory(argv[i]))
            files.assign(fs::directory_iterator(argv[i]), fs::directory_iterator());
        for (const fs::path& file : files) {
            if (!fs::is_regular_file(file))
                continue;
            std::ifstream in(file, std::ios::binary);
            const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                          std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++count;
        }
    }
    std::printf("replayed %d inputs\n", count);
    return 0;
}
