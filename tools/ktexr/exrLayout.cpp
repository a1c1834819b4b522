#include "exrLayout.h"

#include <OpenEXR/openexr.h>

#include <algorithm>

#include "exitStatus.h"

namespace ktexr {

namespace {

// The file a Core context reads, and the first error it reported.
struct CoreSource {
    const InputFile* file;
    std::string error;
};

int64_t readFromFile(exr_const_context_t, void* userData, void* buffer, uint64_t size, uint64_t offset,
                     exr_stream_error_func_ptr_t)
{
    return static_cast<CoreSource*>(userData)->file->readUpTo(offset, buffer, static_cast<std::size_t>(size));
}

int64_t sizeOfFile(exr_const_context_t, void* userData)
{
    return static_cast<int64_t>(static_cast<CoreSource*>(userData)->file->size());
}

void keepError(exr_const_context_t context, exr_result_t code, const char* message)
{
    void* userData = nullptr;
    if (exr_get_user_data(context, &userData) != EXR_ERR_SUCCESS || !userData) return;
    auto* source = static_cast<CoreSource*>(userData);
    if (source->error.empty()) source->error = message ? message : exr_get_default_error_message(code);
}

// A Core read context on a file on disk; finished by the destructor.
class CoreReader {
public:
    explicit CoreReader(const InputFile& file) : source_{&file, {}}
    {
        exr_context_initializer_t init = EXR_DEFAULT_CONTEXT_INITIALIZER;
        init.user_data = &source_;
        init.read_fn = readFromFile;
        init.size_fn = sizeOfFile;
        init.error_handler_fn = keepError;
        exr_result_t result = exr_start_read(&context_, file.path().c_str(), &init);
        if (result != EXR_ERR_SUCCESS)
            throw Failure(exitIncomplete, file.path(), "OpenEXR cannot read the header: " + error(result));
    }
    ~CoreReader() { exr_finish(&context_); }
    CoreReader(const CoreReader&) = delete;
    CoreReader& operator=(const CoreReader&) = delete;

    exr_const_context_t context() const { return context_; }
    std::string error(exr_result_t result) const
    {
        return source_.error.empty() ? exr_get_default_error_message(result) : source_.error;
    }
    void clearError() { source_.error.clear(); }

private:
    CoreSource source_;
    exr_context_t context_ = nullptr;
};

PixelBox boxOf(const exr_attr_box2i_t& b) { return PixelBox{b.min.x, b.min.y, b.max.x, b.max.y}; }

const char* compressionName(exr_compression_t c)
{
    static const char* const names[] = {"none", "rle", "zips", "zip", "piz", "pxr24", "b44", "b44a", "dwaa", "dwab"};
    return c >= 0 && c < static_cast<int>(sizeof names / sizeof names[0]) ? names[c] : "unknown";
}

const char* storageName(exr_storage_t s)
{
    switch (s) {
    case EXR_STORAGE_SCANLINE: return "scanline";
    case EXR_STORAGE_TILED: return "tiled";
    case EXR_STORAGE_DEEP_SCANLINE: return "deep scanline";
    case EXR_STORAGE_DEEP_TILED: return "deep tiled";
    default: return "unknown";
    }
}

const char* pixelTypeName(exr_pixel_type_t t)
{
    return t == EXR_PIXEL_HALF ? "half" : t == EXR_PIXEL_FLOAT ? "float" : t == EXR_PIXEL_UINT ? "uint" : "unknown";
}

bool tiled(exr_storage_t s) { return s == EXR_STORAGE_TILED || s == EXR_STORAGE_DEEP_TILED; }

// The resolution levels (x, y) a tiled part stores.
std::vector<std::pair<int, int>> levelsOf(exr_const_context_t context, int part)
{
    uint32_t tileW = 0, tileH = 0;
    exr_tile_level_mode_t mode = EXR_TILE_ONE_LEVEL;
    exr_tile_round_mode_t round = EXR_TILE_ROUND_DOWN;
    int32_t levelsX = 1, levelsY = 1;
    std::vector<std::pair<int, int>> levels;
    if (exr_get_tile_descriptor(context, part, &tileW, &tileH, &mode, &round) != EXR_ERR_SUCCESS ||
        exr_get_tile_levels(context, part, &levelsX, &levelsY) != EXR_ERR_SUCCESS)
        return levels;
    for (int ly = 0; ly < levelsY; ++ly)
        for (int lx = 0; lx < levelsX; ++lx)
            if (mode == EXR_TILE_RIPMAP_LEVELS || lx == ly) levels.emplace_back(lx, ly);
    return levels;
}

}  // namespace

ExrLayout readLayout(const InputFile& file)
{
    CoreReader reader(file);
    exr_const_context_t c = reader.context();
    int parts = 0;
    exr_get_count(c, &parts);
    ExrLayout layout;
    for (int p = 0; p < parts; ++p) {
        PartLayout part;
        const char* name = nullptr;
        if (exr_get_name(c, p, &name) == EXR_ERR_SUCCESS && name) part.name = name;
        exr_storage_t storage = EXR_STORAGE_SCANLINE;
        exr_get_storage(c, p, &storage);
        part.storage = storageName(storage);
        exr_attr_box2i_t box{};
        if (exr_get_display_window(c, p, &box) == EXR_ERR_SUCCESS) part.displayWindow = boxOf(box);
        if (exr_get_data_window(c, p, &box) == EXR_ERR_SUCCESS) part.dataWindow = boxOf(box);
        exr_compression_t compression = EXR_COMPRESSION_NONE;
        exr_get_compression(c, p, &compression);
        part.compression = compressionName(compression);
        exr_get_pixel_aspect_ratio(c, p, &part.pixelAspectRatio);
        exr_attr_v2f_t centre{};
        if (exr_get_screen_window_center(c, p, &centre) == EXR_ERR_SUCCESS)
            part.screenWindowCenter[0] = centre.x, part.screenWindowCenter[1] = centre.y;
        exr_get_screen_window_width(c, p, &part.screenWindowWidth);
        const exr_attr_chlist_t* channels = nullptr;
        if (exr_get_channels(c, p, &channels) == EXR_ERR_SUCCESS && channels)
            for (int i = 0; i < channels->num_channels; ++i)
                part.channels.push_back({channels->entries[i].name.str, pixelTypeName(channels->entries[i].pixel_type)});
        int32_t attributes = 0;
        exr_get_attribute_count(c, p, &attributes);
        for (int32_t i = 0; i < attributes; ++i) {
            const exr_attribute_t* a = nullptr;
            if (exr_get_attribute_by_index(c, p, EXR_ATTR_LIST_FILE_ORDER, i, &a) != EXR_ERR_SUCCESS || !a) continue;
            long long size = a->type == EXR_ATTR_STRING && a->string        ? a->string->length
                             : a->type == EXR_ATTR_FLOAT_VECTOR && a->floatvector ? a->floatvector->length
                                                                                  : 0;
            part.attributes.push_back({a->name, a->type_name, size});
        }
        if (tiled(storage)) part.levels = static_cast<int>(levelsOf(c, p).size());
        int32_t chunks = 0;
        exr_get_chunk_count(c, p, &chunks);
        part.chunks = chunks;
        layout.parts.push_back(std::move(part));
    }
    return layout;
}

std::string missingChunks(const InputFile& file)
{
    CoreReader reader(file);
    exr_const_context_t c = reader.context();
    int parts = 0;
    exr_get_count(c, &parts);
    unsigned long long end = 0;
    for (int p = 0; p < parts; ++p) {
        const std::string where = parts > 1 ? "part " + std::to_string(p) + ", " : "";
        exr_chunk_info_t info{};
        auto check = [&](exr_result_t result, const std::string& chunk) {
            if (result != EXR_ERR_SUCCESS) return where + chunk + ": " + reader.error(result);
            end = std::max<unsigned long long>(end, info.data_offset + info.packed_size);
            return std::string();
        };
        exr_storage_t storage = EXR_STORAGE_SCANLINE;
        exr_get_storage(c, p, &storage);
        exr_attr_box2i_t data{};
        exr_get_data_window(c, p, &data);
        if (!tiled(storage)) {
            int32_t lines = 1;
            exr_get_scanlines_per_chunk(c, p, &lines);
            for (long long y = data.min.y; y <= data.max.y; y += std::max(lines, 1)) {
                std::string problem = check(exr_read_scanline_chunk_info(c, p, static_cast<int>(y), &info),
                                            "the chunk of scan line " + std::to_string(y));
                if (!problem.empty()) return problem;
            }
            continue;
        }
        for (auto [lx, ly] : levelsOf(c, p)) {
            int32_t levelW = 0, levelH = 0, tileW = 1, tileH = 1;
            exr_get_level_sizes(c, p, lx, ly, &levelW, &levelH);
            exr_get_tile_sizes(c, p, lx, ly, &tileW, &tileH);
            const int across = (levelW + std::max(tileW, 1) - 1) / std::max(tileW, 1);
            const int down = (levelH + std::max(tileH, 1) - 1) / std::max(tileH, 1);
            for (int ty = 0; ty < down; ++ty)
                for (int tx = 0; tx < across; ++tx) {
                    std::string problem =
                        check(exr_read_tile_chunk_info(c, p, tx, ty, lx, ly, &info),
                              "tile (" + std::to_string(tx) + ", " + std::to_string(ty) + ") of level (" +
                                  std::to_string(lx) + ", " + std::to_string(ly) + ")");
                    if (!problem.empty()) return problem;
                }
        }
    }
    if (end > file.size())
        return "the last chunk ends at byte " + std::to_string(end) + ", beyond the end of the file (" +
               std::to_string(file.size()) + " bytes)";
    return {};
}

void requireComplete(const InputFile& file)
{
    std::string missing = missingChunks(file);
    if (!missing.empty()) throw Failure(exitIncomplete, file.path(), "incomplete: " + missing);
}

}  // namespace ktexr
