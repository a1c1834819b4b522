// Helpers of the string tests: any string template read back as a std::string,
// and the std::string oracles results are checked against.
#pragma once

#include <cctype>
#include <string>
#include <type_traits>

namespace kttest {

template <class S>
constexpr int capacity = static_cast<int>(sizeof(S::text) / sizeof(S::text[0])) - 1;

// A byte as the template's character type.
template <class S>
auto unit(char c) { return static_cast<std::remove_extent_t<decltype(S::text)>>(static_cast<unsigned char>(c)); }

// The characters in use (never more than the capacity), each reduced to its low byte.
template <class S>
std::string str(const S& s)
{
    std::string out;
    for (int i = 0; i < s.length && i < capacity<S>; ++i) out += static_cast<char>(s.text[i] & 0xFF);
    return out;
}

template <class S>
S make(const std::string& text) { return S(text.c_str(), static_cast<int>(text.size())); }

template <class S>
bool terminated(const S& s) { return s.length <= capacity<S> && s.text[s.length] == 0; }

// The text `s` holds after `change`, for tables of results; marked when unterminated.
template <class S, class F>
std::string after(S s, F change)
{
    change(s);
    return str(s) + (terminated(s) ? "" : "|unterminated");
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

}  // namespace kttest
