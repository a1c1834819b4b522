#include "lossReport.h"

#include "headerRecord.h"

namespace ktexr {

namespace {

// What one entry of the metadata record holds.
constexpr long long kTextCapacity = 2000;
constexpr long long kVectorCapacity = 10;
constexpr std::size_t kNameCapacity = 75;
constexpr std::size_t kRecordEntries = 401;  // the plug-in fills no more when it reads a header

bool isColourChannel(const std::string& name)
{
    // Luminance and chroma are read as colour and written as R, G and B.
    for (const char* carried : {"R", "G", "B", "A", "Y", "RY", "BY"})
        if (name == carried) return true;
    return false;
}

const char* typeInWords(const std::string& type)
{
    return type == "float" ? "32-bit float" : type == "uint" ? "32-bit unsigned int" : "16-bit half";
}

bool carriedType(const std::string& type)
{
    for (const char* t : {"string", "int", "float", "v2f", "v3f", "m44f", "floatvector"})
        if (type == t) return true;
    return false;
}

std::string quoted(const std::string& name) { return "'" + name + "'"; }

}  // namespace

std::vector<std::string> encoderLosses(const ExrLayout& input)
{
    std::vector<std::string> losses;
    if (input.parts.empty()) return losses;
    for (std::size_t p = 1; p < input.parts.size(); ++p) {
        const PartLayout& part = input.parts[p];
        losses.push_back("part " + std::to_string(p) + (part.name.empty() ? "" : " " + quoted(part.name)) + " (" +
                         std::to_string(part.channels.size()) + " channels) is dropped: one part is written");
    }
    const PartLayout& part = input.parts[0];
    if (part.storage.compare(0, 4, "deep") == 0) losses.push_back("the deep samples are flattened to one per pixel");
    if (part.levels > 1)
        losses.push_back(std::to_string(part.levels - 1) + " lower resolution levels are dropped: one level is written");
    for (const ChannelLayout& c : part.channels) {
        if (!isColourChannel(c.name))
            losses.push_back("channel " + quoted(c.name) + " (" + c.type + ") is dropped: R, G, B and A are written");
        else if (c.type != "half")
            losses.push_back("channel " + quoted(c.name) + " is " + typeInWords(c.type) + ", written as 16-bit half");
    }
    const long long outside = part.dataWindow.area() - intersection(part.dataWindow, part.displayWindow).area();
    if (outside > 0)
        losses.push_back(std::to_string(outside) + " pixels of the data window " + part.dataWindow.text() +
                         " lie outside the display window " + part.displayWindow.text() + " and are dropped");
    if (part.pixelAspectRatio != 1.0f)
        losses.push_back("the pixel aspect ratio " + std::to_string(part.pixelAspectRatio) + " becomes 1");
    if (part.screenWindowWidth != 1.0f || part.screenWindowCenter[0] != 0.0f || part.screenWindowCenter[1] != 0.0f)
        losses.push_back("the screen window is reset to centre (0, 0), width 1");

    std::size_t carried = 0;
    for (const AttributeLayout& a : part.attributes) {
        if (isStructuralAttribute(a.name)) continue;
        if (!carriedType(a.type)) {
            losses.push_back("attribute " + quoted(a.name) + " (" + a.type + ") is dropped: its type is not carried");
            continue;
        }
        if (++carried > kRecordEntries) {
            losses.push_back("attribute " + quoted(a.name) + " is dropped: at most " + std::to_string(kRecordEntries) +
                             " attributes are carried");
            continue;
        }
        if (a.name.size() > kNameCapacity)
            losses.push_back("attribute " + quoted(a.name) + " has its name cut to " + std::to_string(kNameCapacity) +
                             " characters");
        if (a.type == "string" && a.size > kTextCapacity)
            losses.push_back("attribute " + quoted(a.name) + " is cut from " + std::to_string(a.size) + " to " +
                             std::to_string(kTextCapacity) + " characters");
        if (a.type == "floatvector" && a.size > kVectorCapacity)
            losses.push_back("attribute " + quoted(a.name) + " is cut from " + std::to_string(a.size) + " to " +
                             std::to_string(kVectorCapacity) + " values");
    }
    return losses;
}

}  // namespace ktexr
