// ktexr decode: an EXR file through the plug-in's decoders into a PNG
// (8 or 16 bits per channel, RGBA) or a portable float map (colour, with
// alpha optionally in a second, grey map).
#include <cctype>
#include <cstdio>

#include "commands.h"
#include "exrLayout.h"
#include "pfmFile.h"
#include "pngFile.h"

namespace ktexr {

namespace {

bool endsWith(const std::string& text, const std::string& suffix)
{
    if (text.size() < suffix.size()) return false;
    for (std::size_t i = 0; i < suffix.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(text[text.size() - suffix.size() + i])) != suffix[i]) return false;
    return true;
}

// Sets the plug-in's gamma exponent for one decode and puts the old one back.
class GammaExponent {
public:
    GammaExponent(const PluginLibrary& plugin, float exponent) : plugin_(plugin), old_(plugin.gammaExponent())
    {
        if (exponent > 0.0f && !plugin.setGammaExponent(exponent))
            throw Failure(exitPluginFailure, plugin.path(), "the plug-in has no gamma exponent (gammaV) to set");
    }
    ~GammaExponent() { plugin_.setGammaExponent(old_); }
    GammaExponent(const GammaExponent&) = delete;
    GammaExponent& operator=(const GammaExponent&) = delete;

private:
    const PluginLibrary& plugin_;
    float old_;
};

// The plug-in fills a missing alpha from the first channel, as the host
// expects of it; a preview of a file without alpha is opaque instead.
template <class Value>
void makeOpaque(void* pixels, std::size_t count, Value opaque)
{
    auto* values = static_cast<Value*>(pixels);
    for (std::size_t i = 0; i < count; ++i) values[i * 4 + 3] = opaque;
}

}  // namespace

ExitStatus runDecode(const PluginLibrary& plugin, const DecodeOptions& options)
{
    const bool floats = options.depth == "float";
    if (floats && !endsWith(options.output, ".pfm"))
        return report(Failure(exitUsage, options.output, "--depth float writes a portable float map: name it *.pfm"));
    if (!floats && !endsWith(options.output, ".png"))
        return report(Failure(exitUsage, options.output, "--depth 8 and 16 write a PNG: name it *.png"));
    if (!options.alphaOutput.empty() && !floats)
        return report(Failure(exitUsage, options.alphaOutput, "--alpha goes with --depth float only (a PNG keeps alpha)"));
    if (options.gammaExponent < 0.0f || options.gammaExponent != options.gammaExponent)
        return report(Failure(exitUsage, "", "--gamma-exponent must be a positive number"));

    try {
        refuseInputAsOutput(options.output, {options.input});
        if (!options.alphaOutput.empty()) {
            refuseInputAsOutput(options.alphaOutput, {options.input});
            if (options.alphaOutput == options.output)
                throw Failure(exitUsage, options.alphaOutput, "the colour and the alpha map cannot go to the same place");
            refuseInputAsOutput(options.alphaOutput, {options.output});
        }
        LoadedFile file(options.input, kWholeFile);
        HeaderInfo header = loadHeader(plugin, file);
        requireHeader(header, file);
        requireComplete(file.input());
        const bool gamma = options.gamma || options.gammaExponent > 0.0f;
        GammaExponent exponent(plugin, options.gammaExponent);

        if (options.depth == "8") {
            auto pixels = decode<ktP::_imgRGBABuffer8>(plugin, file, header, gamma);
            if (!header.hasAlpha) makeOpaque<unsigned char>(pixels->pixels, pixels->maxPixels, 255);
            auto png = encodePng(pixels->width, pixels->height, 8, pixels->pixels, std::size_t{pixels->width} * 4);
            writeFileAtomically(options.output, png.data(), png.size());
        } else if (options.depth == "16") {
            auto pixels = decode<ktP::_imgRGBABuffer16>(plugin, file, header, gamma);
            if (!header.hasAlpha) makeOpaque<unsigned short>(pixels->pixels, pixels->maxPixels, 65535);
            auto png = encodePng(pixels->width, pixels->height, 16, pixels->pixels, std::size_t{pixels->width} * 8);
            writeFileAtomically(options.output, png.data(), png.size());
        } else {
            auto pixels = decode<ktP::_imgRGBABufferf>(plugin, file, header, gamma);
            if (!header.hasAlpha) makeOpaque<float>(pixels->pixels, pixels->maxPixels, 1.0f);
            const auto* values = reinterpret_cast<const float*>(pixels->pixels);
            const std::size_t row = std::size_t{pixels->width} * 4;
            auto colour = encodePfm(pixels->width, pixels->height, 3, values, 4, 0, row);
            if (!options.alphaOutput.empty()) {
                auto alpha = encodePfm(pixels->width, pixels->height, 1, values, 4, 3, row);
                // The alpha map is written and flushed before the colour map and put in
                // place after it, so a failed write leaves neither file behind.
                OutputFile alphaFile(options.alphaOutput);
                alphaFile.write(alpha.data(), alpha.size());
                alphaFile.finish();
                writeFileAtomically(options.output, colour.data(), colour.size());
                alphaFile.commit();
            } else {
                writeFileAtomically(options.output, colour.data(), colour.size());
            }
        }
        std::fprintf(reportStream(options.output), "%s: %d x %d, %s%s -> %s\n", options.input.c_str(), header.width, header.height,
                    floats ? "float" : (options.depth + "-bit").c_str(), gamma ? ", gamma" : "",
                    options.output.c_str());
        return exitOk;
    } catch (const Failure& failure) {
        return report(failure);
    } catch (const std::exception& e) {
        return report(Failure(exitUnwritable, options.output, e.what()));
    }
}

}  // namespace ktexr
