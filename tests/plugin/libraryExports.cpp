// The built liblx_ktImageExr64.so.1 as a separately built host meets it:
// the names in its dynamic symbol table, and the exports reached through
// dlopen/dlsym.
#include <cxxabi.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "records/pluginRecords.h"

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

// A symbol as a reader of the failure wants to see it.
std::string demangled(const char* mangled)
{
    int status = 0;
    char* plain = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    std::string result = status == 0 && plain ? plain : mangled;
    std::free(plain);
    return result;
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

// The names a host compiled against its own headers links, mangled by hand
// from the members' declared signatures: one capacity of each template, every
// support class, and at least every member whose constness or argument
// passing is out of the ordinary (by-value string arguments, const
// references to scalars, non-const extracting members beside const ones).
TEST(LibraryExports, MembersAsAHostLinksThem)
{
    const char* const linked[] = {
        // _ktString8_allSize<100>: extracting and combining without const
        "_ZN18_ktString8_allSizeILi100EE4leftEi", "_ZN18_ktString8_allSizeILi100EE4leftERKcRKb",
        "_ZN18_ktString8_allSizeILi100EE3midERKiS2_", "_ZN18_ktString8_allSizeILi100EE8combinedEPKc",
        "_ZN18_ktString8_allSizeILi100EE8combinedERKS0_", "_ZN18_ktString8_allSizeILi100EEplERKc",
        "_ZN18_ktString8_allSizeILi100EEplERKS0_", "_ZN18_ktString8_allSizeILi100EE5toIntEPb",
        "_ZN18_ktString8_allSizeILi100EE7toInt64EPb", "_ZN18_ktString8_allSizeILi100EE11asHexStringEv",
        "_ZN18_ktString8_allSizeILi100EE12toIntFromHexERKiRKbS4_Pb", "_ZN18_ktString8_allSizeILi100EE6asCharEv",
        "_ZN18_ktString8_allSizeILi100EE6toCharEv", "_ZN18_ktString8_allSizeILi100EE5asUniEv",
        "_ZN18_ktString8_allSizeILi100EE6removeERKc", "_ZN18_ktString8_allSizeILi100EE9setLengthERKs",
        "_ZN18_ktString8_allSizeILi100EE16createCharStringERcRKi", "_ZN18_ktString8_allSizeILi100EE3addEPKcj",
        "_ZN18_ktString8_allSizeILi100EE8fromCharEPKcRKi", "_ZN18_ktString8_allSizeILi100EE12addNrSpacingERKxRKa",
        "_ZN18_ktString8_allSizeILi100EEaSEP22_ktString8_Uni_pointer",
        "_ZN18_ktString8_allSizeILi100EEC1EPKt", "_ZN18_ktString8_allSizeILi100EEC1ERK23_ktString8_evenSize_oldILi100EE",
        // ... and its searching and comparing, all const
        "_ZNK18_ktString8_allSizeILi100EE7indexOfERKci", "_ZNK18_ktString8_allSizeILi100EE10startsWithES0_",
        "_ZNK18_ktString8_allSizeILi100EE7compareERKS0_", "_ZNK18_ktString8_allSizeILi100EEeqEPKc",
        "_ZNK18_ktString8_allSizeILi100EE8endsWithEPKci", "_ZNK18_ktString8_allSizeILi100EE5countEc",
        "_ZNK18_ktString8_allSizeILi100EE7isEmptyEv",
        // _ktString<100>
        "_ZN9_ktStringILi100EE4leftEi", "_ZN9_ktStringILi100EE4leftERKtRKb", "_ZN9_ktStringILi100EE3midERKiS2_",
        "_ZN9_ktStringILi100EE8combinedEPKc", "_ZN9_ktStringILi100EE8combinedERKS0_", "_ZN9_ktStringILi100EEplERKt",
        "_ZN9_ktStringILi100EEplERKS0_", "_ZN9_ktStringILi100EE5toIntEPb", "_ZN9_ktStringILi100EE6toCharEPct",
        "_ZN9_ktStringILi100EE16to_ktString8_250Ev", "_ZN9_ktStringILi100EE16to_ktString8_500Ev",
        "_ZNK9_ktStringILi100EEcv18_ktString8_allSizeILi100EEEv", "_ZNK9_ktStringILi100EEcv18_ktString8_allSizeILi250EEEv",
        "_ZNK9_ktStringILi100EE7indexOfERKti", "_ZNK9_ktStringILi100EEeqEPKt", "_ZN9_ktStringILi100EEC1ERKc",
        "_ZN9_ktStringILi100EEC1EPK22_ktString8_Uni_pointer", "_ZN9_ktStringILi100EE16createCharStringERtRKi",
        "_ZN9_ktStringILi100EE5addNrERKh", "_ZN9_ktStringILi100EE10addSpacingEPKtRKi", "_Z9ktCharLenPKt",
        "_Z9ktIsDigitRKt",
        // ... whose own searches and comparisons a host links without const
        "_ZN9_ktStringILi100EE7indexOfERKti", "_ZN9_ktStringILi100EE7indexOfEPKc",
        "_ZN9_ktStringILi100EE14indexOfCaseSenERKti", "_ZN9_ktStringILi100EE11lastIndexOfERKti",
        "_ZN9_ktStringILi100EE12countCaseSenERKc", "_ZN9_ktStringILi100EE5countEc",
        "_ZN9_ktStringILi100EE8containsERKc", "_ZN9_ktStringILi100EE10startsWithERKt",
        "_ZN9_ktStringILi100EE8endsWithERKt", "_ZN9_ktStringILi100EE7isEqualEPKci",
        "_ZN9_ktStringILi100EE7isEqualEPKti", "_ZN9_ktStringILi100EE15isEqualSameCaseEPKti",
        "_ZN9_ktStringILi100EEeqEPKt", "_ZN9_ktStringILi100EEeqERKS0_", "_ZN9_ktStringILi100EEltERKS0_",
        "_ZN9_ktStringILi100EE15compareSameCaseERKS0_", "_ZN9_ktStringILi100EE10startsWithES0_",
        "_ZN9_ktStringILi100EE7replaceERKtS2_", "_ZN9_ktStringILi100EE6removeERKt",
        "_ZN9_ktStringILi100EE8leftNCutERKtRKb", "_ZN9_ktStringILi100EE11addSpacingCEPKcRKi",
        "_ZN9_ktStringILi100EE3addEPKtj", "_ZN9_ktStringILi100EEpLEPKt", "_ZN9_ktStringILi100EEaSERKt",
        "_ZN9_ktStringILi100EEC1EPKti", "_ZN9_ktStringILi100EEC1ERK13_ktString_oldILi100EE",
        // the legacy layouts
        "_ZN23_ktString8_evenSize_oldILi100EE4leftEi", "_ZN23_ktString8_evenSize_oldILi100EE4leftERKcRKb",
        "_ZN23_ktString8_evenSize_oldILi100EE3midERKiS2_", "_ZN23_ktString8_evenSize_oldILi100EE8combinedEPKc",
        "_ZN23_ktString8_evenSize_oldILi100EE8combinedERKS0_", "_ZN23_ktString8_evenSize_oldILi100EEplERKc",
        "_ZN23_ktString8_evenSize_oldILi100EEplERKS0_", "_ZN25_ktString8_UnevenSize_oldILi125EE4leftEi",
        "_ZN25_ktString8_UnevenSize_oldILi125EE3midERKiS2_", "_ZN25_ktString8_UnevenSize_oldILi125EE8combinedERKS0_",
        "_ZN25_ktString8_UnevenSize_oldILi125EEplERKc", "_ZN13_ktString_oldILi100EE4leftERKtRKb",
        "_ZN13_ktString_oldILi100EE3midERKiS2_", "_ZN13_ktString_oldILi100EE8combinedEPKc",
        "_ZN13_ktString_oldILi100EEplERKt", "_ZN13_ktString_oldILi100EE5toIntEPb",
        "_ZN13_ktString_oldILi100EE6toCharEPct", "_ZN13_ktString_oldILi100EE16to_ktString8_250Ev",
        "_ZN13_ktString_oldILi100EE16to_ktString8_500Ev", "_ZNK13_ktString_oldILi100EEcv18_ktString8_allSizeILi500EEEv",
        "_ZN13_ktString_oldILi48EE7indexOfEPKc", "_ZN13_ktString_oldILi48EEeqEPKt",
        "_ZN13_ktString_oldILi48EE7isEqualEPKti", "_ZN13_ktString_oldILi48EE15isEqualSameCaseEPKti",
        "_ZN13_ktString_oldILi48EE10startsWithERKc", "_ZN13_ktString_oldILi48EE12countCaseSenERKc",
        "_ZN13_ktString_oldILi48EE11lastIndexOfERKti", "_ZN13_ktString_oldILi48EE8endsWithERKt",
        // the string list and the number texts
        "_ZNK13_ktStringList2atERKi", "_ZNK13_ktStringList8atAsCharERKi",
        "_ZN13_ktStringList4findERK9_ktStringILi500EERKb", "_ZN13_ktStringList12findContainsERK9_ktStringILi500EERKb",
        "_ZN13_ktStringList6appendERK9_ktStringILi500EERKbS5_", "_ZN13_ktStringList9asString8Ev",
        "_Z8bool2strRKbS0_", "_Z7int2StrRKi", "_Z9float2StrfRKiRKt", "_Z12ID2str_localy",
        // calendar time and the stopwatch
        "_ZN7_ktTimecv2tmEv", "_ZNK7_ktTimecv2tmEv", "_ZNK7_ktTime5to_tmER2tm", "_ZNK7_ktTime12to_tm_OffsetER2tmRKx",
        "_ZNK7_ktTime6secsToERKS_", "_ZN7_ktTime5minToERKS_", "_ZNK7_ktTime6daysToERKS_",
        "_ZN7_ktTime7hoursToERKS_", "_ZN7_ktTime14secsDifferenceERKS_", "_ZN7_ktTime14daysDifferenceERKS_", "_ZN7_ktTime19convertStatFileTimeERKl",
        "_ZN7_ktTimeC1Exb", "_ZN7_ktTimeC1Ejb", "_ZN7_ktTime14waitTimeIsOverERKxRKbPKS_",
        "_ZNK7_ktTime14waitTimeIsOverERKxPKS_", "_ZNK7_ktTime18waitTimeDifferenceERKxPKS_",
        "_ZN7_ktTime8fromDateEiiiRKb", "_ZN7_ktTime18testIfOfsetIsRightEb", "_ZN7_ktTime19ktTime_Start_OffSetE",
        "_ZNK7_ktTime13asStringYear3Ev", "_ZN7_ktTime22fromStringCompileDate2EPKcS1_", "_ZN9_ktTime32cv2tmEv",
        "_ZNK9_ktTime32cv2tmEv", "_ZN9_ktTime3214setCurrentTimeEx", "_ZNK9_ktTime3211asKT8StringEv", "month_names",
        "_ZN7ktTimerC1Ev", "_ZN7ktTimer18currentMillSecondsEv", "_ZN7ktTimer7elapsedEv", "_ZN7ktTimer14elapsedString8Ev",
        "_ZN7ktTimer17restartAndString8Ev",
        // the file buffer and the host's plug-in record
        "_ZN3ktP14_imgFileBufferC1Ej", "_ZN3ktP14_imgFileBuffer11setFileSizeERKx",
        "_ZN3ktP14_imgFileBuffer13setSizeLoadedEx", "_ZN3ktP14_imgFileBuffer19setBufPositionWriteERKxb",
        "_ZN3ktP14_imgFileBuffer10readUint8PERhRKi", "_ZN3ktP14_imgFileBuffer10readUint16ERtRKb",
        "_ZN3ktP14_imgFileBuffer10readBufferEPhRKi", "_ZN3ktP14_imgFileBuffer11readBufferPEPhRKiS3_",
        "_ZN3ktP14_imgFileBuffer11writeUint16EtRKb", "_ZN3ktP14_imgFileBuffer10writeUint8ERKh",
        "_ZN3ktP14_imgFileBuffer11writeBufferEPhRKi", "_ZN3ktP14_imgFileBuffer11writedoubleERKd",
        "_ZN3ktP14_imgFileBuffer11writeStringEPKc",
        "_ZN3ktP16_imgPluginBuffer18readfromFileBufferEPNS_14_imgFileBufferERKs",
        // the RGBA buffers and the pixel types
        "_ZNK3ktP18_imgRGBABuffer_all16doesImageSizeFitEjj", "_ZN3ktP18_imgRGBABuffer_all8setWidthERKi",
        "_ZN3ktP15_imgRGBABuffer8C1ERKj", "_ZN3ktP15_imgRGBABuffer8C1ERKjS2_",
        "_ZN3ktP15_imgRGBABuffer88writeMixERKiS2_RK6_Rgba8RKf", "_ZNK3ktP15_imgRGBABuffer84readERKiS2_",
        "_ZNK3ktP15_imgRGBABuffer84readER6_Rgba8j", "_ZN3ktP15_imgRGBABuffer86copyToERS0_b",
        "_ZN3ktP15_imgRGBABuffer815createLetterBoxEPS0_RKii", "_ZN3ktP15_imgRGBABuffer810writeMultiEiPKci",
        "_ZN3ktP16_imgRGBABuffer16C1Ej", "_ZNK3ktP16_imgRGBABuffer164readERP7_Rgba16RKiS5_",
        "_ZN3ktP16_imgRGBABuffer1610writeShortEjt", "_ZNK3ktP15_imgRGBABufferf4readERKiS2_",
        "_ZN3ktP15_imgRGBABufferf10writeFloatEjf", "_ZN6_Rgba810fromFloatRERKf", "_ZN6_Rgba810fromFloatAEfRKb",
        "_ZN6_Rgba816fromFloatRGBA_swERKfS1_S1_S1_RKb", "_ZN6_Rgba88makeDarkEf", "_ZN6_Rgba88makeGreyERKhRKf",
        "_ZN7_Rgba1610fromFloatBERKf", "_ZN6_Rgbaf9swapBytesEv",
        // the table colours
        "_ZNK15_intList_ColorsixEi", "_ZNK18_intList_jobColorsixEi", "_Z27ktStyle_setTableColorsLightv",
        "_Z26ktStyle_setTableColorsDarkv", "lib_colors", "lib_jobColors",
    };
    const auto names = dynamicSymbols(false);
    ASSERT_FALSE(names.empty()) << "nm printed nothing for " << KT_PLUGIN_PATH;
    for (const char* symbol : linked)
        EXPECT_TRUE(names.count(symbol)) << "not exported: " << demangled(symbol) << "  [" << symbol << "]";
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
