// ktexr decode --srgb / --exposure: a preview as a monitor shows it. The
// plug-in decodes to float (its own gamma is a bare exponent); the exposure
// and the sRGB transfer curve are applied here, and the preview is opaque.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "commands.h"
#include "contactSheet.h"
#include "exrLayout.h"
#include "farmCommands.h"
#include "fileIo.h"
#include "outputFile.h"
#include "pngFile.h"

namespace ktexr {

int runPreviewDecode(const PluginLibrary& plugin, const DecodeOptions& options, float exposure, bool srgb)
{
    if (options.depth == "float")
        return report(Failure(exitUsage, "", "--srgb and --exposure make 8- or 16-bit previews, not float maps"));
    if (options.gamma || options.gammaExponent > 0.0f)
        if (srgb) return report(Failure(exitUsage, "", "--srgb and --gamma are two display curves; choose one"));
    const std::string suffix = ".png";
    if (options.output.size() < suffix.size() ||
        options.output.compare(options.output.size() - suffix.size(), suffix.size(), suffix) != 0)
        return report(Failure(exitUsage, options.output, "a preview is a PNG: name it *.png"));
    try {
        refuseInputAsOutput(options.output, {options.input});
        LoadedFile file(options.input, kWholeFile);
        HeaderInfo header = loadHeader(plugin, file);
        requireHeader(header, file);
        requireComplete(file.input());
        auto pixels = decode<ktP::_imgRGBABufferf>(plugin, file, header, false);
        const float* values = reinterpret_cast<const float*>(pixels->pixels);
        const std::size_t count = std::size_t{pixels->width} * pixels->height;
        const bool sixteen = options.depth == "16";
        const float top = sixteen ? 65535.0f : 255.0f;
        const float exponent = options.gammaExponent > 0.0f ? options.gammaExponent : 1.0f / 2.2f;
        const std::string curve = srgb ? "srgb" : (options.gamma || options.gammaExponent > 0.0f) ? "exponent" : "linear";
        std::vector<std::uint16_t> out16(sixteen ? count * 4 : 0);
        std::vector<std::uint8_t> out8(sixteen ? 0 : count * 4);
        for (std::size_t i = 0; i < count * 4; ++i) {
            float v = 1.0f;  // alpha: opaque
            if (i % 4 != 3) {
                v = displayValue(values[i], exposure, curve == "srgb" ? "srgb" : "linear");
                if (curve == "exponent") v = std::pow(v, exponent);
            }
            const long q = std::lround(v * top);
            if (sixteen)
                out16[i] = static_cast<std::uint16_t>(q);
            else
                out8[i] = static_cast<std::uint8_t>(q);
        }
        const void* data = sixteen ? static_cast<const void*>(out16.data()) : static_cast<const void*>(out8.data());
        auto png = encodePng(pixels->width, pixels->height, sixteen ? 16 : 8, data,
                             std::size_t{pixels->width} * 4 * (sixteen ? 2 : 1));
        writeFileAtomically(options.output, png.data(), png.size());
        std::fprintf(reportStream(options.output), "%s: %d x %d, %s-bit, exposure %+g, %s -> %s\n", options.input.c_str(), header.width, header.height,
                    options.depth.c_str(), exposure, curve == "srgb" ? "sRGB" : curve == "exponent" ? "gamma" : "linear",
                    options.output.c_str());
        return exitOk;
    } catch (const Failure& failure) {
        return report(failure);
    } catch (const std::exception& e) {
        return report(Failure(exitUnwritable, options.output, e.what()));
    }
}

}  // namespace ktexr
