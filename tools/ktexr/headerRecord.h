// The render-metadata record (ktExrHeaderData) as the host fills and shows
// it: a zeroed record marked as holding data, entries added by name, and the
// entries' types and values as text.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "plugin/exrMetadata.h"

namespace ktexr {

// A record on the heap (it is close to 900 KB), all zeros, marked as
// holding data, with no entries.
std::unique_ptr<ktExrHeaderData> newHeaderRecord();

// Sets the string entry `name` to `value`: the entry of that exact name is
// replaced, or a new one is added. Fails (false, nothing changed) when the
// record is full, the name is empty or longer than an entry holds, or the
// value longer than an entry's text.
bool setStringEntry(ktExrHeaderData& record, const std::string& name, const std::string& value);

// The entry of that exact name among the used ones, or null.
const ktExrHeaderEntry* findEntry(const ktExrHeaderData& record, const std::string& name);

// The number of used entries (0 for a record not marked as holding data).
unsigned entryCount(const ktExrHeaderData& record);

// The EXR type an entry stands for: "string", "int", "float", "m44f",
// "floatvector", "v2f", "v3f", or "unknown".
const char* entryTypeName(const ktExrHeaderEntry& entry);

// The entry's name and string value as they are stored.
std::string entryName(const ktExrHeaderEntry& entry);
std::string entryText(const ktExrHeaderEntry& entry);

// The entry's numbers: one for int and float, 2 or 3 for the vectors, 16
// (row by row) for the matrix, valueCount for a float vector.
std::vector<double> entryNumbers(const ktExrHeaderEntry& entry);

// The value as one line: the text of a string, numbers separated by blanks
// (a matrix as four bracketed rows).
std::string entryValueText(const ktExrHeaderEntry& entry);

// The attribute names the plug-in rebuilds itself when it writes a file;
// an entry of one of these names cannot be written.
bool isStandardAttribute(const std::string& name);

// Attributes that describe how a file is laid out (its parts, their names,
// chunk counts, views) rather than the render: true for the plug-in's
// standard names too. Carried into a new single-part file they make it
// unreadable, so they never travel.
bool isStructuralAttribute(const std::string& name);

// A copy of the record with the render metadata only: every entry of a
// structural name left out.
std::unique_ptr<ktExrHeaderData> renderMetadataOf(const ktExrHeaderData& record);

}  // namespace ktexr
