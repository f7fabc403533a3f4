// Replays corpus files through a fuzz target without libFuzzer: every file named,
// and every file in every directory named, once, in sorted order.  Exit 0 when all
// ran (a finding aborts), 1 when an argument cannot be read.
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
    namespace fs = std::filesystem;
    std::vector<fs::path> files;
    for (int i = 1; i < argc; i++) {
        std::error_code ec;
        if (fs::is_directory(argv[i], ec)) {
            for (const auto &e : fs::directory_iterator(argv[i]))
                if (e.is_regular_file()) files.push_back(e.path());
        } else {
            files.emplace_back(argv[i]);
        }
    }
    std::sort(files.begin(), files.end());
    for (const auto &f : files) {
        std::ifstream in(f, std::ios::binary);
        if (!in) {
            fprintf(stderr, "replay: cannot read %s\n", f.c_str());
            return 1;
        }
        std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(data.data()), data.size());
    }
    printf("replayed %zu inputs\n", files.size());
    return 0;
}
