#include "plugin/ktImageExr.h"

#include <cstring>

// One unit in the last place below the float nearest to 1/2.2: the exact bit
// pattern 0x3EE8BA2E that hosts and stored previews have always used.
float gammaV = 0x1.d1745cp-2f;

namespace {
static_assert(sizeof(float) == 4);

template <int N>
void store(_ktString<N>& field, const char* value)
{
    field = value;
    field.text[field.length] = 0;
}
}  // namespace

extern "C" int imgInfo(imgPluginInfo* info)
{
    store(info->version, " 8.3.08");
    info->pluginKind = 2;
    info->flagWordC = 0;
    info->flagWordA = 1;
    info->flagWordB = 48;
    store(info->name, "OpenExr");
    store(info->author, "KT, Imaging Plugin Team");
    store(info->interfaceText, "1.0");

    const unsigned short hostVersion = info->interfaceVersion;
    info->interfaceVersion = imgInterfaceVersion;
    if (hostVersion != imgInterfaceVersion) return imgStatusVersionMismatch;

    info->flagByte = 0;
    store(info->filePatterns, "*.exr;*.cxr");
    info->maskA = 340;
    info->maskB = 254;
    return imgStatusOk;
}

int imgUnload() { return imgStatusOk; }

int kt::callGuarded(int (*procedure)(imgCallRecord*), imgCallRecord* call) noexcept
{
    try {
        return procedure(call);
    } catch (...) {
        return imgStatusLibraryFailure;
    }
}
