// The built liblx_ktImageExr64.so.1 as a separately built host meets it:
// the names in its dynamic symbol table, and the exports reached through
// dlopen/dlsym.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "plugin/pluginRecords.h"

namespace {

std::set<std::string> dynamicSymbols(bool demangled)
{
    const std::string command = std::string(KT_NM) + " -D --defined-only --format=posix " + (demangled ? "-C " : "") +
                                "'" + KT_PLUGIN_PATH + "'";
    std::set<std::string> names;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return names;
    // "<name> <type> <value> [<size>]"; demangled names hold blanks, so cut at the last " <type> <hex>" group.
    static const std::regex tail(R"( [A-Za-z] [0-9a-f]+( [0-9a-f]+)?\s*$)");
    char line[8192];
    std::smatch m;
    for (std::string entry; std::fgets(line, sizeof line, pipe);)
        if (entry = line; std::regex_search(entry, m, tail))
            names.insert(entry.substr(0, static_cast<std::size_t>(m.position(0))));
    pclose(pipe);
    return names;
}

template <class Text>
std::string textOf(const Text& t)
{
    return std::string(t.text, t.text + t.length) + (t.text[t.length] == 0 ? "" : "<no terminator>");
}

}  // namespace

TEST(LibraryExports, PlugInEntryPointsUndecorated)
{
    const auto names = dynamicSymbols(false);
    ASSERT_FALSE(names.empty()) << "nm printed nothing for " << KT_PLUGIN_PATH;
    for (const char* required : {"imgInfo", "imgLoadHeader", "imgEncode8", "imgEncode16", "imgEncodef", "imgDecode8",
                                 "imgDecode16", "imgDecodef", "_Z9imgUnloadv", "gammaV"})
        EXPECT_TRUE(names.count(required)) << "missing export " << required;
}

// Every capacity of the string templates that hosts use has members exported.
TEST(LibraryExports, EveryStringCapacityInstantiated)
{
    const auto names = dynamicSymbols(true);
    const std::vector<std::pair<const char*, std::vector<int>>> templates = {
        {"_ktString8_allSize", {6, 7, 8, 10, 12, 14, 15, 16, 20, 25, 29, 30, 40, 50, 75, 100, 125, 150, 200, 250, 500,
                                1000, 2000, 3000, 5000}},
        {"_ktString", {10, 15, 25, 30, 48, 50, 75, 100, 125, 150, 200, 225, 250, 500, 1000, 2500}},
        {"_ktString8_evenSize_old", {6, 8, 10, 12, 14, 20, 30, 40, 50, 100, 150, 200, 250, 500, 1000, 3000, 5000}},
        {"_ktString8_UnevenSize_old", {7, 15, 25, 75, 125}},
        {"_ktString_old", {10, 15, 25, 30, 48, 50, 75, 100, 125, 150, 200, 225, 250, 500, 1000, 2500}},
    };
    for (const auto& [name, capacities] : templates)
        for (int n : capacities) {
            const std::string prefix = std::string(name) + "<" + std::to_string(n) + ">::";
            const auto it = names.lower_bound(prefix);
            EXPECT_TRUE(it != names.end() && it->compare(0, prefix.size(), prefix) == 0) << prefix << " not exported";
        }
}

TEST(LibraryExports, NothingOfOpenExrOrTheStandardLibrary)
{
    for (const auto& n : dynamicSymbols(true)) {
        // The metadata functions take an OpenEXR header by the host's contract.
        if (n.rfind("headerGetData(", 0) != 0 && n.rfind("headerInsertData(", 0) != 0) {
            EXPECT_EQ(n.find("Imf_"), std::string::npos) << n;
        }
        for (const char* foreign : {"Imath_", "Iex_"}) EXPECT_EQ(n.find(foreign), std::string::npos) << n;
        EXPECT_NE(n.rfind("std::", 0), 0u) << n;
        EXPECT_NE(n.rfind("kt::", 0), 0u) << "internal helper exported: " << n;
    }
}

// Through dlsym: gammaV's bits; imgInfo writes the identity whatever the
// version, the patterns, flag byte and masks only for 0xA004, never the host's
// own byte ranges; imgUnload may be called again.
TEST(LibraryExports, HostLoadsAndCallsTheExports)
{
    void* library = dlopen(KT_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    auto info = reinterpret_cast<int (*)(imgPluginInfo*)>(dlsym(library, "imgInfo"));
    auto unload = reinterpret_cast<int (*)()>(dlsym(library, "_Z9imgUnloadv"));
    auto gamma = static_cast<const float*>(dlsym(library, "gammaV"));
    ASSERT_TRUE(info && unload && gamma);
    std::uint32_t bits;
    std::memcpy(&bits, gamma, 4);
    EXPECT_EQ(bits, 0x3EE8BA2Eu);  // one unit in the last place below the float nearest to 1/2.2
    for (unsigned short version : {0xA004, 0xA003}) {
        imgPluginInfo record;
        std::memset(static_cast<void*>(&record), 0x77, sizeof record);
        record.interfaceVersion = version;
        EXPECT_EQ(info(&record), version == 0xA004 ? 1 : 5);
        EXPECT_EQ(record.interfaceVersion, 0xA004);
        EXPECT_EQ(record.pluginKind, 2);
        EXPECT_EQ(textOf(record.name) + "|" + textOf(record.author) + "|" + textOf(record.interfaceText) + "|" +
                      textOf(record.version),
                  "OpenExr|KT, Imaging Plugin Team|1.0| 8.3.08");
        EXPECT_EQ(record.flagWordA, 1);
        EXPECT_EQ(record.flagWordB, 48);
        EXPECT_EQ(record.flagWordC, 0);
        const bool current = version == 0xA004;
        EXPECT_EQ(record.flagByte, current ? 0 : 0x77);
        EXPECT_EQ(record.maskA, current ? 340u : 0x77777777u);
        EXPECT_EQ(record.maskB, current ? 254 : 0x7777);
        if (current) {
            EXPECT_EQ(textOf(record.filePatterns), "*.exr;*.cxr");
        } else {
            EXPECT_EQ(record.filePatterns.length, 0x7777);
        }
        const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
        const std::pair<std::size_t, std::size_t> hostRanges[] = {
            {offsetof(imgPluginInfo, hostReserved0), sizeof record.hostReserved0},
            {offsetof(imgPluginInfo, hostReserved1), sizeof record.hostReserved1},
            {offsetof(imgPluginInfo, hostReserved2), sizeof record.hostReserved2},
            {offsetof(imgPluginInfo, hostReserved3), sizeof record.hostReserved3}};
        for (const auto& [first, size] : hostRanges)
            for (std::size_t i = first; i < first + size; ++i) EXPECT_EQ(bytes[i], 0x77) << "host byte " << i;
    }
    EXPECT_EQ(unload(), 1);
    EXPECT_EQ(unload(), 1);
    dlclose(library);
}
