// Replays corpus files through a fuzz target without libFuzzer: every file in the
// directories named, once, in sorted order.  A finding aborts; exit 0 when all ran.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; i++)
        for (const auto &e : std::filesystem::directory_iterator(argv[i]))
            files.push_back(e.path());
    std::sort(files.begin(), files.end());
    for (const auto &f : files) {
        std::ifstream in(f, std::ios::binary);
        std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(data.data()), data.size());
    }
    printf("replayed %zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
