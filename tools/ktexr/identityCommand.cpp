// ktexr identity: who the plug-in says it is.
#include <cstdio>

#include "commands.h"

namespace ktexr {

ExitStatus runIdentity(const PluginLibrary& plugin)
{
    const imgPluginInfo& record = plugin.identity();
    std::printf("plug-in     %s\n", plugin.path().c_str());
    std::printf("name        %s\n", narrow(record.name).c_str());
    std::printf("version     %s\n", narrow(record.version).c_str());
    std::printf("author      %s\n", narrow(record.author).c_str());
    std::printf("patterns    %s\n", narrow(record.filePatterns).c_str());
    std::printf("interface   0x%04X\n", record.interfaceVersion);
    std::printf("gamma       %.8g\n", static_cast<double>(plugin.gammaExponent()));
    return exitOk;
}

}  // namespace ktexr
