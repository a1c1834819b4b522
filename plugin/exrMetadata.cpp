#include "plugin/exrMetadata.h"

#include <OpenEXR/ImfFloatAttribute.h>
#include <OpenEXR/ImfFloatVectorAttribute.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfIntAttribute.h>
#include <OpenEXR/ImfMatrixAttribute.h>
#include <OpenEXR/ImfStringAttribute.h>
#include <OpenEXR/ImfVecAttribute.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <iterator>
#include <string>

#include "time/ktTime.h"

_ktString8_allSize<40> ktExrIdAlphabetBig("ABCDEFGHJKLMNOPQRSTUVWXYZ1234567890-");
_ktString8_allSize<25> ktExrIdAlphabetSmall("abcdefghjklnopqrstuvwxyz");

namespace {

// Attributes rebuilt from the image itself whenever a file is written.
const char* const standardNames[] = {
    "compression",        "channels",         "lineOrder",   "screenWindowWidth", "screenWindowCenter",
    "pixelAspectRatio",   "dataWindow",       "displayWindow", "tiles",           "type",
};

bool isStandardName(const char* name)
{
    for (const char* standard : standardNames)
        if (std::strcmp(name, standard) == 0) return true;
    return false;
}

// Fills `entry` from `attribute` when its type is one the record can hold.
bool copyValue(const Imf::Attribute& attribute, ktExrHeaderEntry& entry)
{
    // Type names longer than this are foreign to the record anyway.
    const std::string typeName(attribute.typeName(), strnlen(attribute.typeName(), 100));

    if (typeName == Imf::StringAttribute::staticTypeName()) {
        auto* a = dynamic_cast<const Imf::StringAttribute*>(&attribute);
        if (!a) return false;
        const std::string& value = a->value();
        entry.type = ktExrAttrType::String;
        entry.text.fromChar(value.data(), static_cast<int>(std::min<size_t>(value.size(), INT_MAX)));
        return true;
    }
    if (typeName == Imf::FloatAttribute::staticTypeName()) {
        auto* a = dynamic_cast<const Imf::FloatAttribute*>(&attribute);
        if (!a) return false;
        entry.type = ktExrAttrType::Float;
        entry.values[0].f = a->value();
        return true;
    }
    if (typeName == Imf::V2fAttribute::staticTypeName()) {
        auto* a = dynamic_cast<const Imf::V2fAttribute*>(&attribute);
        if (!a) return false;
        entry.type = ktExrAttrType::V2f;
        entry.values[0].f = a->value().x;
        entry.values[1].f = a->value().y;
        return true;
    }
    if (typeName == Imf::V3fAttribute::staticTypeName()) {
        auto* a = dynamic_cast<const Imf::V3fAttribute*>(&attribute);
        if (!a) return false;
        entry.type = ktExrAttrType::V3f;
        entry.values[0].f = a->value().x;
        entry.values[1].f = a->value().y;
        entry.values[2].f = a->value().z;
        return true;
    }
    if (typeName == Imf::FloatVectorAttribute::staticTypeName()) {
        auto* a = dynamic_cast<const Imf::FloatVectorAttribute*>(&attribute);
        if (!a) return false;
        entry.type = ktExrAttrType::FloatVector;
        int copied = 0;
        for (float v : a->value()) {
            if (copied >= ktExrVectorMaxValues) break;
            entry.values[copied++].f = v;
        }
        entry.valueCount = static_cast<unsigned char>(copied);
        return true;
    }
    if (typeName == Imf::IntAttribute::staticTypeName()) {
        auto* a = dynamic_cast<const Imf::IntAttribute*>(&attribute);
        if (!a) return false;
        entry.type = ktExrAttrType::Int;
        entry.values[0].i = a->value();
        return true;
    }
    if (typeName == Imf::M44fAttribute::staticTypeName()) {
        auto* a = dynamic_cast<const Imf::M44fAttribute*>(&attribute);
        if (!a) return false;
        entry.type = ktExrAttrType::M44f;
        for (int row = 0; row < 4; ++row)
            for (int column = 0; column < 4; ++column) entry.values[row * 4 + column].f = a->value()[row][column];
        return true;
    }
    return false;
}

// The entry's text up to its terminator, never past the capacity, whatever
// the host left in the length field.
template <int N>
std::string entryText(const _ktString8_allSize<N>& s)
{
    const size_t length = std::min<size_t>(s.length, N);
    return std::string(s.text, strnlen(s.text, length));
}

// Inserts one record entry as an attribute of its own type; unknown type codes are skipped.
void insertEntry(Imf::Header& header, const ktExrHeaderEntry& entry)
{
    const std::string name = entryText(entry.name);
    switch (entry.type) {
    case ktExrAttrType::String:
        header.insert(name, Imf::StringAttribute(entryText(entry.text)));
        break;
    case ktExrAttrType::Int:
        header.insert(name, Imf::IntAttribute(entry.values[0].i));
        break;
    case ktExrAttrType::Float:
        header.insert(name, Imf::FloatAttribute(entry.values[0].f));
        break;
    case ktExrAttrType::M44f: {
        Imath::M44f m;
        for (int row = 0; row < 4; ++row)
            for (int column = 0; column < 4; ++column) m[row][column] = entry.values[row * 4 + column].f;
        header.insert(name, Imf::M44fAttribute(m));
        break;
    }
    case ktExrAttrType::FloatVector: {
        // A host-made record may claim more values than there are slots.
        const int n = std::min<int>(entry.valueCount, 16);
        Imf::FloatVector v;
        for (int i = 0; i < n; ++i) v.push_back(entry.values[i].f);
        header.insert(name, Imf::FloatVectorAttribute(v));
        break;
    }
    case ktExrAttrType::V2f:
        header.insert(name, Imf::V2fAttribute(Imath::V2f(entry.values[0].f, entry.values[1].f)));
        break;
    case ktExrAttrType::V3f:
        header.insert(name,
                      Imf::V3fAttribute(Imath::V3f(entry.values[0].f, entry.values[1].f, entry.values[2].f)));
        break;
    default:
        break;
    }
}

// Letter `index` of an alphabet; nothing when the alphabet is empty.
template <int N>
bool letter(const _ktString8_allSize<N>& alphabet, unsigned long long index, char& out)
{
    const unsigned size = std::min<unsigned>(alphabet.length, N);
    if (size == 0) return false;
    out = alphabet.text[index % size];
    return true;
}

}  // namespace

void headerGetData(Imf::Header& header, ktExrHeaderData& data, bool& /*flag*/)
{
    for (auto it = header.begin(); it != header.end(); ++it) {
        if (data.count > ktExrHeaderLastIndex) continue;
        ktExrHeaderEntry& entry = data.entries[data.count];
        entry.name = it.name();
        if (isStandardName(it.name())) continue;
        if (copyValue(it.attribute(), entry)) ++data.count;
    }
}

void headerInsertData(Imf::Header& header, ktExrHeaderData& data, const char* application)
{
    header.insert("KT/dateWritten", Imf::StringAttribute(_ktTime::currentTime().asKT8StringMt().asChar()));
    header.insert("KT/application", Imf::StringAttribute(application ? application : ""));

    if (data.magic != ktExrHeaderMagic || data.count == 0) return;
    const std::uint32_t count = std::min<std::uint32_t>(data.count, std::size(data.entries));
    for (std::uint32_t i = 0; i < count; ++i) {
        const ktExrHeaderEntry& entry = data.entries[i];
        // Strings already in the header (the stamps, the encoder's own) win over the record.
        if (header.findTypedAttribute<Imf::StringAttribute>(entryText(entry.name))) continue;
        insertEntry(header, entry);
    }
}

_ktString8_allSize<75> ID2str_local(unsigned long long id)
{
    // Built from the end: "}" first, then every letter in front of the last.
    char text[8];
    int first = sizeof text - 1;
    text[first] = 0;
    text[--first] = '}';

    const unsigned low = static_cast<unsigned>(id & 0xFF);
    if (low != 0) {
        const unsigned v = low - 1;
        const unsigned small = std::min<unsigned>(ktExrIdAlphabetSmall.length, 25);
        if (letter(ktExrIdAlphabetSmall, v, text[first - 1])) --first;
        if (small != 0 && v / small != 0 && letter(ktExrIdAlphabetSmall, v / small, text[first - 1])) --first;
    }

    const unsigned long long u = static_cast<std::uint32_t>(id >> 24) / 10000u;
    const unsigned big = std::min<unsigned>(ktExrIdAlphabetBig.length, 40);
    if (big != 0) {
        unsigned long long scale = 1;
        for (int i = 0; i < 3; ++i, scale *= big)
            if (letter(ktExrIdAlphabetBig, u / scale, text[first - 1])) --first;
    }
    text[--first] = '{';
    return _ktString8_allSize<75>(text + first);
}
