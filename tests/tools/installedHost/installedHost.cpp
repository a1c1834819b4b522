// The smallest host: greets the installed plug-in and reads one header.
// Prints "<name> <status> <width> x <height> <entries>".
#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "image/fileBuffer.h"
#include "image/rgbaBuffer.h"
#include "plugin/exrMetadata.h"
#include "plugin/pluginRecords.h"

int main(int argc, char** argv)
{
    if (argc != 2) return 2;
    void* plugin = dlopen(KT_PLUGIN, RTLD_NOW | RTLD_LOCAL);
    if (!plugin) return 3;
    auto info = reinterpret_cast<int (*)(imgPluginInfo*)>(dlsym(plugin, "imgInfo"));
    auto loadHeader = reinterpret_cast<int (*)(imgCallRecord*)>(dlsym(plugin, "imgLoadHeader"));
    if (!info || !loadHeader) return 4;
    auto identity = std::make_unique<imgPluginInfo>();
    identity->interfaceVersion = imgInterfaceVersion;
    if (info(identity.get()) != imgStatusOk) return 5;

    std::ifstream in(argv[1], std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ktP::_imgFileBuffer file(static_cast<unsigned int>(bytes.size() + 1));
    std::memcpy(file.buffer, bytes.data(), bytes.size());
    file.setFileSize(static_cast<long long>(bytes.size()));
    file.setSizeLoaded(static_cast<long long>(bytes.size()));

    ktP::_imgRGBABuffer8 image(1u);
    auto metadata = std::make_unique<ktExrHeaderData>();
    std::memset(static_cast<void*>(metadata.get()), 0, sizeof(ktExrHeaderData));
    imgCallRecord call{&file, &image.imageInfo, metadata.get(), nullptr};
    int status = loadHeader(&call);

    char name[51] = {};
    for (int i = 0; i < identity->name.length && i < 50; ++i) name[i] = static_cast<char>(identity->name.text[i]);
    std::printf("%s %d %d x %d %u\n", name, status, image.imageInfo.imageWidth, image.imageInfo.imageHeight,
                metadata->count);
    dlclose(plugin);
    return 0;
}
