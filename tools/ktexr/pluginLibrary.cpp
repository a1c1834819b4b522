#include "pluginLibrary.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <stdexcept>

namespace ktexr {

namespace {
constexpr const char* kLibraryName = "liblx_ktImageExr64.so.1";

bool readable(const std::string& path) { return access(path.c_str(), R_OK) == 0; }

std::string directoryOf(const std::string& path)
{
    auto slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}
}  // namespace

PluginLibrary::PluginLibrary(const std::string& path) : path_(path)
{
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle_) throw std::runtime_error("cannot load plug-in " + path + ": " + dlerror());
    info_ = reinterpret_cast<int (*)(imgPluginInfo*)>(dlsym(handle_, "imgInfo"));
    unload_ = reinterpret_cast<int (*)()>(dlsym(handle_, "_Z9imgUnloadv"));
    gamma_ = static_cast<float*>(dlsym(handle_, "gammaV"));
    if (!info_) {
        dlclose(handle_);
        throw std::runtime_error("not an image plug-in (no imgInfo): " + path);
    }
}

PluginLibrary::~PluginLibrary()
{
    if (unload_) unload_();
    dlclose(handle_);
}

int PluginLibrary::info(imgPluginInfo& record) const
{
    record.interfaceVersion = imgInterfaceVersion;
    return info_(&record);
}

PluginLibrary::RecordCall PluginLibrary::entry(const char* name) const
{
    return reinterpret_cast<RecordCall>(dlsym(handle_, name));
}

std::string PluginLibrary::locate(const char* argv0)
{
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string here = n > 0 ? directoryOf(std::string(self, static_cast<size_t>(n))) : directoryOf(argv0);
    for (const std::string& candidate : {here + "/" + kLibraryName, here + "/../" + kLibraryName,
                                         here + "/../lib/" + kLibraryName})
        if (readable(candidate)) return candidate;
    return kLibraryName;  // left to the dynamic loader's search path
}

const char* statusMeaning(int status)
{
    switch (status) {
    case imgStatusOk: return "success";
    case imgStatusCannotHandle: return "the file cannot be handled";
    case imgStatusVersionMismatch: return "interface version mismatch";
    case imgStatusLibraryFailure: return "failure inside the EXR library";
    case imgStatusChannelType: return "a selected channel has an unsupported pixel type";
    case imgStatusBrokenFile: return "the file cannot be opened or is incomplete";
    case imgStatusBufferTooShort: return "the buffer holds too little of the file";
    default: return "unknown status";
    }
}

}  // namespace ktexr
