// replay_main.cpp - the fuzz targets without libFuzzer: every file of the
// directories (or the files) named on the command line goes once through
// LLVMFuzzerTestOneInput, in name order. A failing check aborts.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i)
        if (fs::is_directory(argv[i]))
            for (const auto &f : fs::directory_iterator(argv[i]))
                inputs.push_back(f.path());
        else
            inputs.push_back(argv[i]);
    std::sort(inputs.begin(), inputs.end());
    for (const fs::path &p : inputs) {
        std::ifstream f(p, std::ios::binary);
        const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(f), {}};
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::printf("%zu passed, 0 failed\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
