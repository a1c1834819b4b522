// ktexr info: what the plug-in reports about each file's header, loading
// only as much of the file as the header needs, with what OpenEXR's Core
// library reads of the parts, channels and windows, and whether every chunk
// of pixels is in the file (from the offset tables and the chunks' own
// headers; pixels are not decompressed). Files are read on --jobs threads,
// each with its own file buffer and records, and printed in the order given.
#include <cstdarg>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "batchRun.h"
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
    std::optional<Failure> failure;  // reported when the file's turn comes
};

FileReport inspect(const PluginLibrary& plugin, const std::string& path, unsigned long long headBytes)
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
        report.failure = failure;
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

void appendf(std::string& out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void appendf(std::string& out, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int n = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    if (n > 0) {
        const std::size_t at = out.size();
        out.resize(at + static_cast<std::size_t>(n) + 1);
        std::vsnprintf(&out[at], static_cast<std::size_t>(n) + 1, format, again);
        out.resize(at + static_cast<std::size_t>(n));
    }
    va_end(again);
}

// The text of one file, made on the job's thread so that the plug-in's
// records can go before the file's turn to be printed.
std::string textOf(const FileReport& r)
{
    std::string out;
    appendf(out, "%s\n", r.file.c_str());
    if (!r.opened) {
        appendf(out, "  error        %s\n", r.error.c_str());
        return out;
    }
    const HeaderInfo& h = r.header;
    appendf(out, "  description  %s\n", h.description.c_str());
    if (h.status != 1) appendf(out, "  status       %d: %s\n", h.status, pluginStatusMeaning(h.status));
    // A file the plug-in could not open has no header to show.
    if (h.status != 1 && h.width == 0 && h.height == 0) return out;
    appendf(out, "  size         %d x %d\n", h.width, h.height);
    appendf(out, "  alpha        %s\n", h.hasAlpha ? "yes" : "no");
    appendf(out, "  bits         %d per channel\n", h.bitsPerChannel);
    if (!r.layout.parts.empty()) {
        const PartLayout& first = r.layout.parts[0];
        appendf(out, "  parts        %zu, the first %s\n", r.layout.parts.size(), first.storage.c_str());
        appendf(out, "  display      %s\n", first.displayWindow.text().c_str());
        appendf(out, "  data         %s\n", first.dataWindow.text().c_str());
        appendf(out, "  compression  %s\n", first.compression.c_str());
        std::string channels;
        for (const ChannelLayout& c : first.channels) channels += (channels.empty() ? "" : ", ") + c.name + " " + c.type;
        appendf(out, "  channels     %s\n", channels.c_str());
    } else {
        appendf(out, "  compression  %s\n", h.uncompressed ? "none" : "compressed");
    }
    appendf(out, "  complete     %s\n", r.complete ? "yes, every chunk is in the file" : "no");
    appendf(out, "  file         %s, header read from the first %s in %d call%s\n", humanSize(r.fileSize).c_str(),
                 humanSize(r.loaded).c_str(), h.calls, h.calls == 1 ? "" : "s");
    unsigned n = h.metadata ? entryCount(*h.metadata) : 0;
    appendf(out, "  metadata     %u entr%s\n", n, n == 1 ? "y" : "ies");
    std::size_t nameWidth = 0;
    for (unsigned i = 0; i < n; ++i) nameWidth = std::max(nameWidth, entryName(h.metadata->entries[i]).size());
    for (unsigned i = 0; i < n; ++i) {
        const ktExrHeaderEntry& e = h.metadata->entries[i];
        appendf(out, "    %-*s  %-11s  %s\n", static_cast<int>(nameWidth), entryName(e).c_str(), entryTypeName(e),
                     entryValueText(e).c_str());
    }
    return out;
}

}  // namespace

ExitStatus runInfo(const PluginLibrary& plugin, const InfoOptions& options)
{
    // What each file's job hands to the printing thread: its text or JSON
    // entry, and its failure, reported in the file's turn.
    struct Result {
        std::string text;
        nlohmann::ordered_json json;
        std::optional<Failure> failure;
    };
    StatusKeeper status;
    nlohmann::ordered_json files = nlohmann::ordered_json::array();
    std::vector<Result> results(options.files.size());
    runInOrder(
        options.files.size(), options.jobs ? options.jobs : defaultJobs(),
        [&](std::size_t i) {
            FileReport report = inspect(plugin, options.files[i], options.headBytes);
            if (options.json) results[i].json = asJson(report);
            else results[i].text = textOf(report);
            results[i].failure = std::move(report.failure);
        },
        [&](std::size_t i) {
            Result& result = results[i];
            if (result.failure) status.note(report(*result.failure));
            if (options.json) {
                files.push_back(std::move(result.json));
            } else {
                if (i > 0) std::printf("\n");
                std::fputs(result.text.c_str(), stdout);
            }
            result = Result();
        });
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
