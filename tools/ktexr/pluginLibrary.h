// The plug-in as the host sees it: a shared library opened with dlopen,
// greeted with imgInfo, whose exports are found by name and called with
// host-owned records.
#pragma once

#include <string>

#include "records/pluginRecords.h"

namespace ktexr {

// The exports that take a call record.
enum class PluginCall { loadHeader, decode8, decode16, decodef, encode8, encode16, encodef };

class PluginLibrary {
public:
    // Opens the library at `path` and calls imgInfo with this host's
    // interface version. Throws a Failure with exitPluginFailure naming the
    // path when it cannot be loaded, lacks imgInfo or refuses the version.
    explicit PluginLibrary(const std::string& path);
    // imgUnload, then dlclose.
    ~PluginLibrary();
    PluginLibrary(const PluginLibrary&) = delete;
    PluginLibrary& operator=(const PluginLibrary&) = delete;

    const std::string& path() const { return path_; }
    // What imgInfo wrote when the library was opened.
    const imgPluginInfo& identity() const { return identity_; }

    // Calls one export with `record`; returns its status. An export the
    // library lacks is a Failure with exitPluginFailure.
    int call(PluginCall which, imgCallRecord& record) const;

    // The decoders' gamma exponent (gammaV); 0 when the library lacks it.
    float gammaExponent() const;
    // Sets gammaV; false when the library lacks it.
    bool setGammaExponent(float exponent) const;

    // Where the plug-in is looked for when no path is given: beside the
    // running program, then the build tree and install tree it came from.
    // The bare library name (for the loader's search path) when none exists.
    static std::string locate();

private:
    std::string path_;
    void* handle_ = nullptr;
    imgPluginInfo identity_{};
    int (*unload_)() = nullptr;
    float* gamma_ = nullptr;
    int (*calls_[7])(imgCallRecord*) = {};
};

// The plug-in's name for its own status code, for messages.
const char* pluginStatusMeaning(int status);

// A 16-bit record text as 8-bit text (the plug-in stores plain ASCII).
template <int N>
std::string narrow(const _ktString<N>& s)
{
    std::string out;
    for (int i = 0; i < s.length && i < N; ++i) out += static_cast<char>(s.text[i] & 0xFF);
    return out;
}

}  // namespace ktexr
