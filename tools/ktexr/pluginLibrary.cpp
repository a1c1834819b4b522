#include "pluginLibrary.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstring>

#include "exitStatus.h"

#ifndef KTEXR_LIBDIR
#define KTEXR_LIBDIR "lib"
#endif

namespace ktexr {

namespace {
constexpr const char* kLibraryName = "liblx_ktImageExr64.so.1";

const char* const kCallNames[] = {"imgLoadHeader", "imgDecode8", "imgDecode16", "imgDecodef",
                                  "imgEncode8",    "imgEncode16", "imgEncodef"};

bool readable(const std::string& path) { return access(path.c_str(), R_OK) == 0; }

std::string directoryOf(const std::string& path)
{
    auto slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

std::string loaderError()
{
    const char* text = dlerror();
    return text ? text : "unknown loader error";
}
}  // namespace

PluginLibrary::PluginLibrary(const std::string& path) : path_(path)
{
    dlerror();
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle_) throw Failure(exitPluginFailure, path, "cannot load the plug-in: " + loaderError());
    auto info = reinterpret_cast<int (*)(imgPluginInfo*)>(dlsym(handle_, "imgInfo"));
    if (!info) {
        dlclose(handle_);
        throw Failure(exitPluginFailure, path, "not an image plug-in (no imgInfo)");
    }
    unload_ = reinterpret_cast<int (*)()>(dlsym(handle_, "_Z9imgUnloadv"));
    gamma_ = static_cast<float*>(dlsym(handle_, "gammaV"));
    for (int i = 0; i < 7; ++i) calls_[i] = reinterpret_cast<int (*)(imgCallRecord*)>(dlsym(handle_, kCallNames[i]));

    identity_.interfaceVersion = imgInterfaceVersion;
    int status = info(&identity_);
    if (status != imgStatusOk) {
        if (unload_) unload_();
        dlclose(handle_);
        throw Failure(exitPluginFailure, path,
                      "the plug-in refuses this host (imgInfo status " + std::to_string(status) + ": " +
                          pluginStatusMeaning(status) + ")");
    }
}

PluginLibrary::~PluginLibrary()
{
    if (unload_) unload_();
    dlclose(handle_);
}

int PluginLibrary::call(PluginCall which, imgCallRecord& record) const
{
    auto index = static_cast<int>(which);
    if (!calls_[index])
        throw Failure(exitPluginFailure, path_, std::string("the plug-in has no ") + kCallNames[index]);
    return calls_[index](&record);
}

float PluginLibrary::gammaExponent() const { return gamma_ ? *gamma_ : 0.0f; }

bool PluginLibrary::setGammaExponent(float exponent) const
{
    if (!gamma_) return false;
    *gamma_ = exponent;
    return true;
}

std::string PluginLibrary::locate()
{
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return kLibraryName;
    std::string here = directoryOf(std::string(self, static_cast<size_t>(n)));
    for (const std::string& candidate :
         {here + "/" + kLibraryName, here + "/../" + kLibraryName, here + "/../" KTEXR_LIBDIR "/" + kLibraryName})
        if (readable(candidate)) return candidate;
    return kLibraryName;
}

const char* pluginStatusMeaning(int status)
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
