#include "exitStatus.h"

#include <cstdio>

#include "records/pluginRecords.h"

namespace ktexr {

ExitStatus exitStatusOfPlugin(int pluginStatus)
{
    switch (pluginStatus) {
    case imgStatusOk: return exitOk;
    case imgStatusCannotHandle:
    case imgStatusChannelType: return exitNotExr;
    case imgStatusBrokenFile:
    case imgStatusBufferTooShort: return exitIncomplete;
    default: return exitPluginFailure;
    }
}

const char* exitStatusMeaning(ExitStatus status)
{
    switch (status) {
    case exitOk: return "success";
    case exitUsage: return "bad or missing arguments";
    case exitUnreadable: return "an input file cannot be read (missing, no permission, too large)";
    case exitNotExr: return "an input is not an EXR file (encode: not a PNG file), or a kind the plug-in cannot handle";
    case exitIncomplete: return "an EXR file is incomplete or damaged";
    case exitPluginFailure: return "the plug-in cannot be loaded, refuses this host, or failed";
    case exitTilesDoNotFit: return "assemble: the tiles do not fit together into one frame";
    case exitUnwritable: return "an output cannot be written (also: a socket, block device or directory as output)";
    case exitRefused: return "refused, nothing written: the output is an input, or the work would lose data (--lossy)";
    }
    return "unknown";
}

std::string exitStatusTable()
{
    std::string table = "Exit status:\n";
    for (ExitStatus s : {exitOk, exitUsage, exitUnreadable, exitNotExr, exitIncomplete, exitPluginFailure,
                         exitTilesDoNotFit, exitUnwritable, exitRefused}) {
        char line[160];
        std::snprintf(line, sizeof line, "  %d  %s\n", static_cast<int>(s), exitStatusMeaning(s));
        table += line;
    }
    table += "With several files, the first failure decides; the other files are still processed.\n";
    return table;
}

ExitStatus report(const Failure& failure)
{
    if (failure.file().empty())
        std::fprintf(stderr, "ktexr: %s\n", failure.what());
    else
        std::fprintf(stderr, "ktexr: %s: %s\n", failure.file().c_str(), failure.what());
    return failure.status();
}

}  // namespace ktexr
