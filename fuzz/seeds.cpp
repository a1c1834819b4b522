// Writes the fuzzers' starting points: the robustness tests' sample files
// into <folder>/samples, and the files that reach OpenEXR's known defect classes
// into <folder>/known.
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "tests/robustness/sampleFiles.h"

namespace {

bool write(const std::filesystem::path& path, const kt::robust::SampleFile& sample)
{
    std::ofstream out(path, std::ios::binary);
    out.write(sample.bytes.data(), static_cast<std::streamsize>(sample.bytes.size()));
    return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_seeds <folder>\n");
        return 2;
    }
    const std::filesystem::path folder = argv[1];
    for (const char* sub : {"samples", "known"}) std::filesystem::create_directories(folder / sub);
    int n = 0;
    for (const kt::robust::SampleFile& sample : kt::robust::sampleFiles())
        if (!write(folder / "samples" / ("seed" + std::to_string(n++) + ".exr"), sample)) return 1;
    for (const kt::robust::SampleFile& sample : kt::robust::knownDefectFiles())
        if (!write(folder / "known" / ("seed" + std::to_string(n++) + ".exr"), sample)) return 1;
    std::printf("%d seeds in %s\n", n, folder.c_str());
    return 0;
}
