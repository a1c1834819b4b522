// Writes the fuzzers' starting points: the robustness tests' sample files
// into <folder>/samples, and the files that reach OpenEXR's known defect classes
// into <folder>/known.
#include <cstdio>
#include <cstring>
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
    const char* usage = "usage: fuzz_seeds <folder>\n"
                        "Writes the sample files and the known-defect files into <folder>/samples, known and\n"
                        "known-dwa, as seeds for the fuzz targets.\n";
    if (argc == 2 && argv[1][0] == '-') {
        const bool help = std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0;
        std::fputs(usage, help ? stdout : stderr);
        return help ? 0 : 2;
    }
    if (argc != 2) {
        std::fputs(usage, stderr);
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
