#include "tests/robustness/pluginCalls.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

#include "plugin/exrMetadata.h"
#include "plugin/ktImageExr.h"

// ---- every operator new of the process passes through here ----------------
// OpenEXR's own allocations included: the executable's definitions take
// precedence over the C++ library's for every shared library too.

namespace {

std::atomic<std::size_t> largestRequest{0};

void* allocate(std::size_t size)
{
    std::size_t seen = largestRequest.load(std::memory_order_relaxed);
    while (size > seen && !largestRequest.compare_exchange_weak(seen, size, std::memory_order_relaxed)) {
    }
    return std::malloc(size == 0 ? 1 : size);
}

void* allocateOrThrow(std::size_t size)
{
    if (void* p = allocate(size)) return p;
    throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

namespace kt::robust {

LargestAllocation::LargestAllocation() { largestRequest.store(0); }
std::size_t LargestAllocation::bytes() const { return largestRequest.load(); }

namespace {

template <class Buffer>
int decodeInto(int (*decoder)(imgCallRecord*), ktP::_imgFileBuffer* file)
{
    Buffer out(32 * 32);
    out.setWidth(32);
    out.setHeight(32);
    imgCallRecord call{file, &out, nullptr, nullptr};
    return decoder(&call);
}

}  // namespace

int loadHeader(const Bytes& file, long long sizeLoaded, long long fileSize, std::string* text, imgImageInfo* info)
{
    kt::test::GuardPagedFileBuffer buffer(file, sizeLoaded, fileSize);
    thread_local std::unique_ptr<ktExrHeaderData> metadata = std::make_unique<ktExrHeaderData>();  // large: one per thread
    imgImageInfo local{};
    imgCallRecord call{buffer.get(), info ? info : &local, metadata.get(), nullptr};
    const int code = imgLoadHeader(&call);
    if (text) *text = kt::test::textOf((info ? info : &local)->infoText);
    return code;
}

int decode(int depth, const Bytes& file, long long sizeLoaded, long long fileSize)
{
    kt::test::GuardPagedFileBuffer buffer(file, sizeLoaded, fileSize);
    switch (depth) {
    case 8: return decodeInto<ktP::_imgRGBABuffer8>(imgDecode8, buffer.get());
    case 16: return decodeInto<ktP::_imgRGBABuffer16>(imgDecode16, buffer.get());
    default: return decodeInto<ktP::_imgRGBABufferf>(imgDecodef, buffer.get());
    }
}

std::unique_ptr<ktP::_imgRGBABufferf> decodeFloat(const Bytes& file, int width, int height)
{
    auto out = std::make_unique<ktP::_imgRGBABufferf>(static_cast<unsigned>(width * height));
    out->setWidth(width);
    out->setHeight(height);
    kt::test::GuardPagedFileBuffer buffer(file);
    imgCallRecord call{buffer.get(), out.get(), nullptr, nullptr};
    return imgDecodef(&call) == 1 ? std::move(out) : nullptr;
}

bool isHeaderCode(int code) { return code == 1 || code == 4 || code == 6 || code == 14 || code == 16; }
bool isDecodeCode(int code) { return code == 1 || code == 4 || code == 6 || code == 7 || code == 14; }

Bytes withAttributeWords(const Bytes& file, const std::string& name, int offset, std::initializer_list<std::uint32_t> words)
{
    const std::size_t at = kt::test::findBytes(file, name + std::string(1, '\0'));
    if (at == std::string::npos) throw std::invalid_argument("no attribute " + name);
    const std::size_t type = at + name.size() + 1;
    const std::size_t value = type + std::strlen(&file[type]) + 1 + 4;
    Bytes out = file;
    std::size_t where = static_cast<std::size_t>(static_cast<long long>(value) + offset);
    for (std::uint32_t w : words)
        for (int i = 0; i < 4; ++i) out.at(where++) = static_cast<char>(w >> (8 * i));
    return out;
}

}  // namespace kt::robust
