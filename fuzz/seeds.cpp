// Writes the robustness tests' sample files into a folder, one file each:
// the fuzzers' starting points.
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "tests/robustness/sampleFiles.h"

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_seeds <folder>\n");
        return 2;
    }
    const std::filesystem::path folder = argv[1];
    std::filesystem::create_directories(folder);
    int n = 0;
    for (const kt::robust::SampleFile& sample : kt::robust::sampleFiles()) {
        std::ofstream out(folder / ("seed" + std::to_string(n++) + ".exr"), std::ios::binary);
        out.write(sample.bytes.data(), static_cast<std::streamsize>(sample.bytes.size()));
        if (!out) return 1;
    }
    std::printf("%d seeds in %s\n", n, folder.c_str());
    return 0;
}
