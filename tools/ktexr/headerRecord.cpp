#include "headerRecord.h"

#include <cstdio>
#include <cstring>

namespace ktexr {

namespace {
constexpr unsigned kEntries = sizeof(ktExrHeaderData::entries) / sizeof(ktExrHeaderEntry);
constexpr std::size_t kNameCapacity = 75;
constexpr std::size_t kTextCapacity = 2000;

std::string number(double v)
{
    char text[40];
    std::snprintf(text, sizeof text, "%.9g", v);
    return text;
}
}  // namespace

std::unique_ptr<ktExrHeaderData> newHeaderRecord()
{
    auto record = std::make_unique<ktExrHeaderData>();
    std::memset(static_cast<void*>(record.get()), 0, sizeof(ktExrHeaderData));
    record->magic = ktExrHeaderMagic;
    record->count = 0;
    return record;
}

unsigned entryCount(const ktExrHeaderData& record)
{
    if (record.magic != ktExrHeaderMagic) return 0;
    return record.count < kEntries ? record.count : kEntries;
}

const ktExrHeaderEntry* findEntry(const ktExrHeaderData& record, const std::string& name)
{
    for (unsigned i = 0; i < entryCount(record); ++i)
        if (entryName(record.entries[i]) == name) return &record.entries[i];
    return nullptr;
}

bool setStringEntry(ktExrHeaderData& record, const std::string& name, const std::string& value)
{
    if (name.empty() || name.size() > kNameCapacity || value.size() > kTextCapacity) return false;
    if (name.find('\0') != std::string::npos || value.find('\0') != std::string::npos) return false;
    if (record.magic != ktExrHeaderMagic) {
        std::memset(static_cast<void*>(&record), 0, sizeof record);
        record.magic = ktExrHeaderMagic;
    }
    auto* entry = const_cast<ktExrHeaderEntry*>(findEntry(record, name));
    if (!entry) {
        if (record.count >= kEntries) return false;
        entry = &record.entries[record.count++];
    }
    std::memset(static_cast<void*>(entry), 0, sizeof *entry);
    entry->name.fromChar(name.data(), static_cast<int>(name.size()));
    entry->type = ktExrAttrType::String;
    entry->text.fromChar(value.data(), static_cast<int>(value.size()));
    return true;
}

const char* entryTypeName(const ktExrHeaderEntry& entry)
{
    switch (entry.type) {
    case ktExrAttrType::String: return "string";
    case ktExrAttrType::Int: return "int";
    case ktExrAttrType::Float: return "float";
    case ktExrAttrType::M44f: return "m44f";
    case ktExrAttrType::FloatVector: return "floatvector";
    case ktExrAttrType::V2f: return "v2f";
    case ktExrAttrType::V3f: return "v3f";
    }
    return "unknown";
}

std::string entryName(const ktExrHeaderEntry& entry)
{
    std::size_t n = entry.name.length < kNameCapacity ? entry.name.length : kNameCapacity;
    return std::string(entry.name.text, n);
}

std::string entryText(const ktExrHeaderEntry& entry)
{
    std::size_t n = entry.text.length < kTextCapacity ? entry.text.length : kTextCapacity;
    return std::string(entry.text.text, n);
}

std::vector<double> entryNumbers(const ktExrHeaderEntry& entry)
{
    std::vector<double> values;
    auto floats = [&](unsigned n) {
        for (unsigned i = 0; i < n && i < 16; ++i) values.push_back(entry.values[i].f);
    };
    switch (entry.type) {
    case ktExrAttrType::Int: values.push_back(entry.values[0].i); break;
    case ktExrAttrType::Float: floats(1); break;
    case ktExrAttrType::V2f: floats(2); break;
    case ktExrAttrType::V3f: floats(3); break;
    case ktExrAttrType::M44f: floats(16); break;
    case ktExrAttrType::FloatVector: floats(entry.valueCount); break;
    default: break;
    }
    return values;
}

std::string entryValueText(const ktExrHeaderEntry& entry)
{
    if (entry.type == ktExrAttrType::String) return entryText(entry);
    std::vector<double> values = entryNumbers(entry);
    std::string text;
    if (entry.type == ktExrAttrType::Int) return std::to_string(entry.values[0].i);
    for (std::size_t i = 0; i < values.size(); ++i) {
        bool matrix = entry.type == ktExrAttrType::M44f;
        if (matrix && i % 4 == 0) text += i == 0 ? "[" : "] [";
        else if (i > 0) text += ' ';
        text += number(values[i]);
    }
    if (entry.type == ktExrAttrType::M44f) text += "]";
    return text;
}

bool isStandardAttribute(const std::string& name)
{
    for (const char* standard : {"compression", "channels", "lineOrder", "screenWindowWidth", "screenWindowCenter",
                                 "pixelAspectRatio", "dataWindow", "displayWindow", "tiles", "type"})
        if (name == standard) return true;
    return false;
}

bool isStructuralAttribute(const std::string& name)
{
    if (isStandardAttribute(name)) return true;
    for (const char* structural : {"chunkCount", "name", "version", "view", "multiView", "maxSamplesPerPixel"})
        if (name == structural) return true;
    return false;
}

std::unique_ptr<ktExrHeaderData> renderMetadataOf(const ktExrHeaderData& record)
{
    auto kept = newHeaderRecord();
    for (unsigned i = 0; i < entryCount(record); ++i)
        if (!isStructuralAttribute(entryName(record.entries[i]))) kept->entries[kept->count++] = record.entries[i];
    return kept;
}

}  // namespace ktexr
