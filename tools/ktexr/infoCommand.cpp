// ktexr info: what the plug-in reports about each file's header, loading
// only as much of the file as the header needs, with what OpenEXR's Core
// library reads of the parts, channels and windows, and whether every chunk
// of pixels is in the file (from the offset tables and the chunks' own
// headers; pixels are not decompressed).
#include <cstdio>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "exrLayout.h"
#include "headerRecord.h"

namespace ktexr {

namespace {

// The schema of `info --json`; raise the version when a field changes meaning.
constexpr const char* kInfoSchema = "ktexr-info";
constexpr int kInfoSchemaVersion = 1;

nlohmann::ordered_json entryValueJson(const ktExrHeaderEntry& entry)
{
    switch (entry.type) {
    case ktExrAttrType::String: return entryText(entry);
    case ktExrAttrType::Int: return entry.values[0].i;
    case ktExrAttrType::Float: return entry.values[0].f;
    case ktExrAttrType::M44f: {
        nlohmann::ordered_json rows = nlohmann::ordered_json::array();
        for (int r = 0; r < 4; ++r) {
            nlohmann::ordered_json row = nlohmann::ordered_json::array();
            for (int c = 0; c < 4; ++c) row.push_back(entry.values[r * 4 + c].f);
            rows.push_back(row);
        }
        return rows;
    }
    default: {
        nlohmann::ordered_json values = nlohmann::ordered_json::array();
        for (double v : entryNumbers(entry)) values.push_back(static_cast<float>(v));
        return values;
    }
    }
}

struct FileReport {
    std::string file;
    bool opened = false;
    unsigned long long fileSize = 0;
    unsigned long long loaded = 0;
    HeaderInfo header;
    ExrLayout layout;     // read once the plug-in has read the header
    bool complete = false;
    std::string error;  // empty when the header was read and the file is complete
};

FileReport inspect(const PluginLibrary& plugin, const std::string& path, unsigned long long headBytes,
                   StatusKeeper& status)
{
    FileReport report;
    report.file = path;
    try {
        LoadedFile file(path, headBytes);
        report.opened = true;
        report.fileSize = file.fileSize();
        report.header = loadHeader(plugin, file);
        report.loaded = file.loaded();
        requireHeader(report.header, file);
        report.layout = readLayout(file.input());
        requireComplete(file.input());
        report.complete = true;
    } catch (const Failure& failure) {
        report.error = failure.what();
        status.note(ktexr::report(failure));
    }
    return report;
}

nlohmann::ordered_json asJson(const FileReport& r)
{
    nlohmann::ordered_json j;
    j["file"] = r.file;
    j["ok"] = r.error.empty();
    if (!r.opened) {
        j["status"] = nullptr;
        j["error"] = r.error;
        return j;
    }
    j["fileSize"] = r.fileSize;
    j["loadedBytes"] = r.loaded;
    j["headerCalls"] = r.header.calls;
    j["status"] = r.header.status;
    j["statusText"] = pluginStatusMeaning(r.header.status);
    j["description"] = r.header.description;
    j["width"] = r.header.width;
    j["height"] = r.header.height;
    j["hasAlpha"] = r.header.hasAlpha;
    j["bitsPerChannel"] = r.header.bitsPerChannel;
    j["uncompressed"] = r.header.uncompressed;
    j["complete"] = r.complete;
    if (!r.layout.parts.empty()) {
        const PartLayout& first = r.layout.parts[0];
        auto box = [](const PixelBox& b) { return nlohmann::ordered_json{b.minX, b.minY, b.maxX, b.maxY}; };
        j["parts"] = r.layout.parts.size();
        j["displayWindow"] = box(first.displayWindow);
        j["dataWindow"] = box(first.dataWindow);
        j["compression"] = first.compression;
        nlohmann::ordered_json channels = nlohmann::ordered_json::array();
        for (const ChannelLayout& c : first.channels) channels.push_back({{"name", c.name}, {"type", c.type}});
        j["channels"] = channels;
    }
    nlohmann::ordered_json metadata = nlohmann::ordered_json::array();
    if (r.header.metadata)
        for (unsigned i = 0; i < entryCount(*r.header.metadata); ++i) {
            const ktExrHeaderEntry& e = r.header.metadata->entries[i];
            metadata.push_back({{"name", entryName(e)}, {"type", entryTypeName(e)}, {"value", entryValueJson(e)}});
        }
    j["metadata"] = metadata;
    if (!r.error.empty()) j["error"] = r.error;
    return j;
}

void printText(const FileReport& r)
{
    std::printf("%s\n", r.file.c_str());
    if (!r.opened) {
        std::printf("  error        %s\n", r.error.c_str());
        return;
    }
    const HeaderInfo& h = r.header;
    std::printf("  description  %s\n", h.description.c_str());
    if (h.status != 1) std::printf("  status       %d: %s\n", h.status, pluginStatusMeaning(h.status));
    // A file the plug-in could not open has no header to show.
    if (h.status != 1 && h.width == 0 && h.height == 0) return;
    std::printf("  size         %d x %d\n", h.width, h.height);
    std::printf("  alpha        %s\n", h.hasAlpha ? "yes" : "no");
    std::printf("  bits         %d per channel\n", h.bitsPerChannel);
    if (!r.layout.parts.empty()) {
        const PartLayout& first = r.layout.parts[0];
        std::printf("  parts        %zu, the first %s\n", r.layout.parts.size(), first.storage.c_str());
        std::printf("  display      %s\n", first.displayWindow.text().c_str());
        std::printf("  data         %s\n", first.dataWindow.text().c_str());
        std::printf("  compression  %s\n", first.compression.c_str());
        std::string channels;
        for (const ChannelLayout& c : first.channels) channels += (channels.empty() ? "" : ", ") + c.name + " " + c.type;
        std::printf("  channels     %s\n", channels.c_str());
    } else {
        std::printf("  compression  %s\n", h.uncompressed ? "none" : "compressed");
    }
    std::printf("  complete     %s\n", r.complete ? "yes, every chunk is in the file" : "no");
    std::printf("  file         %s, header read from the first %s in %d call%s\n", humanSize(r.fileSize).c_str(),
                humanSize(r.loaded).c_str(), h.calls, h.calls == 1 ? "" : "s");
    unsigned n = h.metadata ? entryCount(*h.metadata) : 0;
    std::printf("  metadata     %u entr%s\n", n, n == 1 ? "y" : "ies");
    std::size_t nameWidth = 0;
    for (unsigned i = 0; i < n; ++i) nameWidth = std::max(nameWidth, entryName(h.metadata->entries[i]).size());
    for (unsigned i = 0; i < n; ++i) {
        const ktExrHeaderEntry& e = h.metadata->entries[i];
        std::printf("    %-*s  %-11s  %s\n", static_cast<int>(nameWidth), entryName(e).c_str(), entryTypeName(e),
                    entryValueText(e).c_str());
    }
}

}  // namespace

ExitStatus runInfo(const PluginLibrary& plugin, const InfoOptions& options)
{
    StatusKeeper status;
    nlohmann::ordered_json files = nlohmann::ordered_json::array();
    bool first = true;
    for (const std::string& path : options.files) {
        FileReport report = inspect(plugin, path, options.headBytes, status);
        if (options.json) {
            files.push_back(asJson(report));
        } else {
            if (!first) std::printf("\n");
            printText(report);
        }
        first = false;
    }
    if (options.json) {
        nlohmann::ordered_json document = {
            {"schema", kInfoSchema},
            {"version", kInfoSchemaVersion},
            {"plugin",
             {{"path", plugin.path()},
              {"name", narrow(plugin.identity().name)},
              {"version", narrow(plugin.identity().version)}}},
            {"files", files}};
        std::printf("%s\n", document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
    }
    std::fflush(stdout);
    return status.result();
}

}  // namespace ktexr
