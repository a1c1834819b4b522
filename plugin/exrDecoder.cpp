#include "plugin/exrDecoder.h"

#include <Imath/ImathBox.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfInputFile.h>
#include <OpenEXR/ImfThreading.h>

#include <Iex.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "image/rgbaBuffer.h"
#include "plugin/exrChunkReader.h"
#include "plugin/exrLimits.h"
#include "plugin/exrPixelTransfer.h"
#include "plugin/exrPrecheck.h"
#include "plugin/guardedFileBufferStream.h"
#include "plugin/ktImageExr.h"

_singleChannel::~_singleChannel()
{
    delete[] uintPlane.values;
    delete[] floatPlane.values;
    delete[] halfPlane.values;
}

float _singleChannel::getValue(const int& x, const int& y) const
{
    switch (pixelType) {
    case Imf::HALF:
        if (!halfPlane.values) return 0.0f;
        return static_cast<float>(halfPlane.values[std::int64_t{y} * halfPlane.columns + x]);
    case Imf::FLOAT:
        if (!floatPlane.values) return 0.0f;
        return floatPlane.values[std::int64_t{y} * floatPlane.columns + x];
    case Imf::UINT:
        if (!uintPlane.values) return 0.0f;
        return static_cast<float>(uintPlane.values[std::int64_t{y} * uintPlane.columns + x]);
    default:
        return 0.0f;
    }
}

void* _singleChannel::get_dataPointer() const
{
    switch (pixelType) {
    case Imf::HALF:
        return halfPlane.values;
    case Imf::FLOAT:
        return floatPlane.values;
    case Imf::UINT:
        return uintPlane.values;
    default:
        return nullptr;
    }
}

namespace {

using kt::kRed;
using kt::kGreen;
using kt::kBlue;
using kt::kAlpha;
using kt::kRoleCount;
using kt::exrNewArray;
const char* const kRoleLetters[kRoleCount] = {"R", "G", "B", "A"};

template <class T>
void allocatePlane(_channelPlane<T>& plane, std::int64_t rows, std::int64_t columns)
{
    T* values = exrNewArray<T>(static_cast<std::uint64_t>(rows) * static_cast<std::uint64_t>(columns));
    delete[] plane.values;
    plane.values = values;
    plane.rows = rows;
    plane.columns = columns;
}

// Which slot each role reads, and how many slots were handed out.
struct ChannelChoice {
    int slotOfRole[kRoleCount] = {0, 0, 0, 0};
    int slotsUsed = 0;
};

// Picks the channel numbers of the four roles by name: exact names first
// ("R", "g", ...), then names ending in the letter, each role starting at
// its own number (0 to 3).
void chooseChannelNumbers(const Imf::ChannelList& channels, int (&number)[kRoleCount])
{
    int exact[kRoleCount] = {0, 1, 2, 3};
    int suffix[kRoleCount] = {-1, -1, -1, -1};
    bool exactSeen = false;
    int n = 0;
    for (auto it = channels.begin(); it != channels.end() && n < kt::exrDecoderSlotCount; ++it, ++n) {
        const _ktString8_allSize<150> name(it.name());
        for (int role = 0; role < kRoleCount; ++role) {
            if (name.isEqual(_ktString8_allSize<150>(kRoleLetters[role]))) {
                exact[role] = n;
                exactSeen = true;
            } else if (name.endsWith(kRoleLetters[role])) {
                if (suffix[role] < 0) suffix[role] = n;
            }
        }
    }
    // One exact name anywhere switches the suffix rule off for every role.
    for (int role = 0; role < kRoleCount; ++role)
        number[role] = exactSeen || suffix[role] < 0 ? exact[role] : suffix[role];
}

// Hands out slots in channel order to the channels the roles picked, sizes
// each slot's plane to the data window and puts its slice into frame.
// Roles whose number matches no channel keep slot 0.
ChannelChoice fillSlots(const Imf::ChannelList& channels, const int (&number)[kRoleCount], const Imath::Box2i& window,
                        _singleChannel* slots, Imf::FrameBuffer& frame)
{
    const std::int64_t width = std::int64_t{window.max.x} - window.min.x + 1;
    const std::int64_t height = std::int64_t{window.max.y} - window.min.y + 1;
    ChannelChoice choice;
    int n = 0;
    for (auto it = channels.begin(); it != channels.end() && n < kt::exrDecoderSlotCount; ++it, ++n) {
        int role = kRoleCount;
        for (int r = 0; r < kRoleCount; ++r) {
            if (n == number[r]) {
                role = r;
                break;
            }
        }
        if (role == kRoleCount) continue;
        // The frame buffer would refuse it (every slice has sampling 1): no plane of the window's size.
        if (it.channel().xSampling != 1 || it.channel().ySampling != 1)
            throw Iex::ArgExc("subsampled channel");

        const int index = choice.slotsUsed++;
        choice.slotOfRole[role] = index;
        _singleChannel& slot = slots[index];
        slot.name = it.name();
        slot.pixelType = it.channel().type;
        switch (slot.pixelType) {
        case Imf::HALF:
            allocatePlane(slot.halfPlane, height, width);
            slot.bytesPerValue = 2;
            break;
        case Imf::FLOAT:
            allocatePlane(slot.floatPlane, height, width);
            slot.bytesPerValue = 4;
            break;
        case Imf::UINT:
            allocatePlane(slot.uintPlane, height, width);
            slot.bytesPerValue = 4;
            break;
        default:
            continue;  // a slot with a name but no plane and no slice
        }
        slot.dataPointer = slot.get_dataPointer();
        // The exact offset, also where 32 bits would wrap: a wrapped one
        // would have OpenEXR write outside the plane.
        slot.originOffset = (std::int64_t{window.min.y} * width + window.min.x) * slot.bytesPerValue;
        slot.sliceBase = reinterpret_cast<char*>(reinterpret_cast<std::uintptr_t>(slot.dataPointer) -
                                                 static_cast<std::uintptr_t>(slot.originOffset));
        frame.insert(it.name(), Imf::Slice(slot.pixelType, slot.sliceBase, slot.bytesPerValue,
                                           static_cast<std::size_t>(width) * slot.bytesPerValue, 1, 1, 0.0, false,
                                           false));
    }
    return choice;
}

// ---- the decoding procedure shared by the three exports ------------------

template <class Buffer, class Pixel>
int decode(imgCallRecord* call)
{
    if (!call || !call->fileBuffer || !call->imageInfo) return imgStatusLibraryFailure;
    Buffer& out = *static_cast<Buffer*>(call->imageInfo);

    // 1. Check the file's claims against its size, then open it.
    kt::_imgGuardedFileBufferStream stream(call->fileBuffer);
    int threads = 0;
    bool dataFits = false;
    std::unique_ptr<Imf::InputFile> file;
    std::unique_ptr<Imf::Header> header;
    try {
        threads = Imf::globalThreadCount();
        // A damaged header can make OpenEXR allocate by sizes it announces.
        const kt::ExrFileClaims claims = kt::exrCheckBeforeOpening(*call->fileBuffer);
        dataFits = claims.pixelDataFits();
        if (dataFits) {
            stream.readByCopy(claims.chunksRewrittenWhenRead);
            stream.seekg(0);
            file = std::make_unique<Imf::InputFile>(stream, threads);
            header = std::make_unique<Imf::Header>(file->header());
        }
    } catch (...) {
        return imgStatusCannotHandle;
    }
    // A file too short for its pixels is answered as if reading them had
    // failed, before OpenEXR's buffers or the planes are sized by its header.
    if (!dataFits) {
        kt::exrClearPixels(out);
        return imgStatusBrokenFile;
    }

    // From here on every failure leaves the buffer cleared. The clearing
    // itself waits until the outcome is known: on success only the pixels
    // that no data reaches are cleared, since the rest are overwritten.
    struct ClearOnFailure {
        ktP::_imgRGBABuffer_all* buffer = nullptr;
        ~ClearOnFailure()
        {
            if (buffer) kt::exrClearPixels(*buffer);
        }
    } clearOnFailure;

    // 2. The windows, the region mark, and a slot with a plane for each channel a role picks.
    std::unique_ptr<std::uint64_t[]> scratch;
    std::unique_ptr<_singleChannel[]> slots;
    Imf::FrameBuffer frame;
    ChannelChoice choice;
    Imath::Box2i window;
    Imath::Box2i display;
    std::int64_t width = 0, height = 0;
    try {
        display = header->displayWindow();
        window = header->dataWindow();
        width = std::int64_t{window.max.x} - window.min.x + 1;
        height = std::int64_t{window.max.y} - window.min.y + 1;
        if (width <= 0 || height <= 0) throw std::bad_alloc();

        // Kept for the failure it can raise, never touched.
        scratch.reset(exrNewArray<std::uint64_t>(10 * static_cast<std::uint64_t>(width)));

        if (width != std::int64_t{out.width} || height != std::int64_t{out.height}) out.imageInfo.infoText += " region";
        clearOnFailure.buffer = &out;

        slots.reset(exrNewArray<_singleChannel>(kt::exrDecoderSlotCount));
        int number[kRoleCount];
        chooseChannelNumbers(header->channels(), number);
        choice = fillSlots(header->channels(), number, window, slots.get(), frame);
    } catch (...) {
        return imgStatusLibraryFailure;
    }

    for (int i = 0; i < choice.slotsUsed; ++i)
        if (!slots[i].get_dataPointer()) return imgStatusChannelType;

    try {
        file->setFrameBuffer(frame);
        stream.setGuard(kt::exrChunkByteBound(*header));
    } catch (...) {
        return imgStatusLibraryFailure;
    }
    // 3. The pixels into the planes: the quick reader first; whatever it
    // declines, OpenEXR's C++ reader reads.
    std::vector<kt::ExrPlaneTarget> targets;
    for (int i = 0; i < choice.slotsUsed; ++i)
        targets.push_back({slots[i].name.text, static_cast<char*>(slots[i].dataPointer)});
    if (!kt::exrReadPlanesQuickly(*call->fileBuffer, *header, targets, threads)) {
        try {
            file->readPixels(window.min.y, window.max.y);
        } catch (...) {
            return imgStatusBrokenFile;
        }
    }
    header.reset();
    file.reset();

    // 4. Placement, gamma and conversion into the host's buffer.
    kt::ExrPlanesToPlace planes;
    for (int role = 0; role < kRoleCount; ++role) planes.source[role] = &slots[choice.slotOfRole[role]];
    planes.width = width;
    planes.height = height;
    planes.columnShift = std::int64_t{window.min.x} - display.min.x;
    planes.rowShift = std::int64_t{window.min.y} - display.min.y;
    planes.gamma = (out.pixelFlags & 1) != 0;
    planes.gammaValue = gammaV;

    clearOnFailure.buffer = nullptr;
    kt::exrPlacePixels(out, planes, threads);
    return imgStatusOk;
}

}  // namespace

extern "C" int imgDecode8(imgCallRecord* call)
{
    return kt::callGuarded(decode<ktP::_imgRGBABuffer8, _Rgba8>, call);
}

extern "C" int imgDecode16(imgCallRecord* call)
{
    return kt::callGuarded(decode<ktP::_imgRGBABuffer16, _Rgba16>, call);
}

extern "C" int imgDecodef(imgCallRecord* call)
{
    return kt::callGuarded(decode<ktP::_imgRGBABufferf, _Rgbaf>, call);
}
