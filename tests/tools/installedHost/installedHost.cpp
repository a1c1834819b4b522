// The smallest host: greets the installed plug-in and reads one header.
// Prints "<name> <status> <width> x <height> <entries>".
#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "image/fileBuffer.h"
#include "image/rgbaBuffer.h"
#include "plugin/exrMetadata.h"
#include "records/pluginRecords.h"

int main(int argc, char** argv)
{
    void* plugin = argc == 2 ? dlopen(KT_PLUGIN, RTLD_NOW | RTLD_LOCAL) : nullptr;
    auto info = plugin ? reinterpret_cast<int (*)(imgPluginInfo*)>(dlsym(plugin, "imgInfo")) : nullptr;
    auto loadHeader = plugin ? reinterpret_cast<int (*)(imgCallRecord*)>(dlsym(plugin, "imgLoadHeader")) : nullptr;
    auto identity = std::make_unique<imgPluginInfo>();
    identity->interfaceVersion = imgInterfaceVersion;
    if (!info || !loadHeader || info(identity.get()) != imgStatusOk) return 2;

    const auto size = static_cast<long long>(std::filesystem::file_size(argv[1]));
    ktP::_imgFileBuffer file(static_cast<unsigned int>(size + 1));
    std::ifstream(argv[1], std::ios::binary).read(reinterpret_cast<char*>(file.buffer), size);
    file.setFileSize(size);
    file.setSizeLoaded(size);
    ktP::_imgRGBABuffer8 image(1u);
    auto metadata = std::make_unique<ktExrHeaderData>();
    std::memset(static_cast<void*>(metadata.get()), 0, sizeof(ktExrHeaderData));
    imgCallRecord call{&file, &image.imageInfo, metadata.get(), nullptr};
    const int status = loadHeader(&call);

    char name[51] = {};
    for (int i = 0; i < identity->name.length && i < 50; ++i) name[i] = static_cast<char>(identity->name.text[i]);
    std::printf("%s %d %d x %d %u\n", name, status, image.imageInfo.imageWidth, image.imageInfo.imageHeight,
                metadata->count);
    dlclose(plugin);
}
