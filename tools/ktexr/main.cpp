// ktexr: the render-farm user's EXR tool, a host of the OpenEXR plug-in.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "pluginLibrary.h"

namespace {

const char* kUsage =
    "usage: ktexr [--plugin PATH] <command>\n"
    "\n"
    "commands:\n"
    "  identity   load the plug-in as the host does and print who it is\n"
    "  demo [DIR] run the built-in sample\n"
    "\n"
    "options:\n"
    "  --plugin PATH   the plug-in library (default: beside ktexr)\n"
    "  -h, --help      this text\n";

int printIdentity(const ktexr::PluginLibrary& plugin)
{
    imgPluginInfo record;
    int status = plugin.info(record);
    std::printf("plug-in     %s\n", plugin.path().c_str());
    std::printf("name        %s\n", ktexr::narrow(record.name).c_str());
    std::printf("version    %s\n", ktexr::narrow(record.version).c_str());
    std::printf("author      %s\n", ktexr::narrow(record.author).c_str());
    std::printf("patterns    %s\n", ktexr::narrow(record.filePatterns).c_str());
    std::printf("interface   0x%04X (status %d: %s)\n", record.interfaceVersion, status,
                ktexr::statusMeaning(status));
    return status == imgStatusOk ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    std::string pluginPath;
    std::string command;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "-h") || !std::strcmp(argv[i], "--help")) {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (!std::strcmp(argv[i], "--plugin") && i + 1 < argc) {
            pluginPath = argv[++i];
        } else if (command.empty()) {
            command = argv[i];
        } else if (command != "demo") {
            std::fprintf(stderr, "ktexr: unexpected argument '%s'\n%s", argv[i], kUsage);
            return 2;
        }
    }
    if (command.empty()) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    try {
        ktexr::PluginLibrary plugin(pluginPath.empty() ? ktexr::PluginLibrary::locate(argv[0]) : pluginPath);
        if (command == "identity" || command == "demo") return printIdentity(plugin);
        std::fprintf(stderr, "ktexr: unknown command '%s'\n%s", command.c_str(), kUsage);
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "ktexr: %s\n", e.what());
        return 3;
    }
}
