// Helpers shared by the string tests: reading any of the string templates
// back as a std::string, and the oracles the results are checked against.
#pragma once

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <type_traits>

namespace kttest {

template <class S>
using UnitOf = std::remove_cv_t<std::remove_extent_t<decltype(S::text)>>;

template <class S>
constexpr int capacity = static_cast<int>(sizeof(S::text) / sizeof(S::text[0])) - 1;

// A byte as the template's character type (ASCII in the shared tests).
template <class S>
UnitOf<S> unit(char c)
{
    return static_cast<UnitOf<S>>(static_cast<unsigned char>(c));
}

// The characters in use (never more than the capacity), each reduced to
// its low byte.
template <class S>
std::string str(const S& s)
{
    std::string out;
    for (int i = 0; i < s.length && i < capacity<S>; ++i) out += static_cast<char>(s.text[i] & 0xFF);
    return out;
}

template <class S>
S make(const std::string& text)
{
    return S(text.c_str(), static_cast<int>(text.size()));
}

template <class S>
bool terminated(const S& s)
{
    return s.length <= capacity<S> && s.text[s.length] == 0;
}

inline std::string upper(std::string s)
{
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

// Position of `needle` in `hay` from `start`, -1 when absent or empty.
inline int find(const std::string& hay, const std::string& needle, size_t start, bool ignoreCase)
{
    if (needle.empty() || start + needle.size() > hay.size()) return -1;
    const size_t p = ignoreCase ? upper(hay).find(upper(needle), start) : hay.find(needle, start);
    return p == std::string::npos ? -1 : static_cast<int>(p);
}

// Left-to-right replacement of every non-overlapping occurrence.
inline std::string replaceAll(const std::string& text, const std::string& from, const std::string& to, bool ignoreCase)
{
    if (from.empty()) return text;
    std::string out;
    size_t p = 0;
    for (;;) {
        const int q = find(text, from, p, ignoreCase);
        if (q < 0) break;
        out += text.substr(p, static_cast<size_t>(q) - p) + to;
        p = static_cast<size_t>(q) + from.size();
    }
    return out + text.substr(p);
}

// A deterministic pseudo-random text over a small alphabet, so that
// partial matches and equal character sums are frequent.
class TextGenerator {
public:
    explicit TextGenerator(unsigned seed) : state_(seed) {}
    std::string next(size_t length, const char* alphabet = "abAB")
    {
        const size_t size = std::strlen(alphabet);
        std::string out;
        for (size_t i = 0; i < length; ++i) out += alphabet[step() % size];
        return out;
    }
    unsigned step()
    {
        state_ = state_ * 1103515245u + 12345u;
        return (state_ >> 16) & 0x7FFF;
    }

private:
    unsigned state_;
};

}  // namespace kttest
