// The plug-in as the host sees it: a shared library opened with dlopen,
// whose exports are found by name and called with host-owned records.
#pragma once

#include <string>

#include "plugin/pluginRecords.h"

namespace ktexr {

class PluginLibrary {
public:
    using RecordCall = int (*)(imgCallRecord*);

    // Opens the library at `path`; throws std::runtime_error naming the path
    // and dlerror() when it cannot be loaded or lacks imgInfo.
    explicit PluginLibrary(const std::string& path);
    ~PluginLibrary();
    PluginLibrary(const PluginLibrary&) = delete;
    PluginLibrary& operator=(const PluginLibrary&) = delete;

    const std::string& path() const { return path_; }

    // imgInfo with the host's interface version; the record is the caller's.
    int info(imgPluginInfo& record) const;

    // An export taking a call record, or null when the library lacks it.
    RecordCall entry(const char* name) const;

    float* gamma() const { return gamma_; }

    // Where the plug-in is looked for when no path is given: beside the
    // running program, then in the build tree it came from.
    static std::string locate(const char* argv0);

private:
    std::string path_;
    void* handle_ = nullptr;
    int (*info_)(imgPluginInfo*) = nullptr;
    int (*unload_)() = nullptr;
    float* gamma_ = nullptr;
};

// The text of a status code, for messages.
const char* statusMeaning(int status);

// A 16-bit record text as 8-bit text (the plug-in stores plain ASCII).
template <int N>
std::string narrow(const _ktString<N>& s)
{
    std::string out;
    for (int i = 0; i < s.length && i < N; ++i) out += static_cast<char>(s.text[i] & 0xFF);
    return out;
}

}  // namespace ktexr
