#include "frameSequence.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "exitStatus.h"

namespace ktexr {

namespace {

constexpr long long kMaxFramesInRange = 10'000'000;  // a typo's range, not a shot

struct Field {
    std::size_t begin = 0;
    std::size_t length = 0;
    int padding = 1;
};

// The frame fields of a path's last component (directories never count).
std::vector<Field> fieldsOf(const std::string& path)
{
    std::vector<Field> fields;
    const std::size_t nameStart = path.rfind('/') == std::string::npos ? 0 : path.rfind('/') + 1;
    for (std::size_t i = nameStart; i < path.size();) {
        const char c = path[i];
        if (c == '#' || c == '@') {
            std::size_t j = i;
            while (j < path.size() && path[j] == c) ++j;
            fields.push_back({i, j - i, static_cast<int>(j - i)});
            i = j;
        } else if (c == '%') {
            std::size_t j = i + 1;
            const bool zero = j < path.size() && path[j] == '0';
            if (zero) ++j;
            std::size_t digits = j;
            while (j < path.size() && path[j] >= '0' && path[j] <= '9') ++j;
            if (j < path.size() && path[j] == 'd' && (!zero || j > digits)) {
                const int width = j > digits ? std::atoi(path.substr(digits, j - digits).c_str()) : 1;
                fields.push_back({i, j + 1 - i, zero ? std::clamp(width, 1, 32) : 1});
                i = j + 1;
            } else {
                ++i;
            }
        } else {
            ++i;
        }
    }
    return fields;
}

long long parseNumber(const std::string& text, std::size_t& at, const std::string& whole)
{
    const char* start = text.c_str() + at;
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(start, &end, 10);
    if (end == start || errno == ERANGE || *start == '+' || *start == ' ')
        throw Failure(exitUsage, "", "not a frame range: \"" + whole + "\" (expected e.g. 1001-1100 or 1001-1100x2)");
    at += static_cast<std::size_t>(end - start);
    return value;
}

}  // namespace

std::optional<SequencePattern> SequencePattern::find(const std::string& path)
{
    const std::vector<Field> fields = fieldsOf(path);
    if (fields.empty()) return std::nullopt;
    if (fields.size() > 1)
        throw Failure(exitUsage, path, "more than one frame field in the file name; which one counts the frames?");
    SequencePattern pattern;
    pattern.text_ = path;
    pattern.prefix_ = path.substr(0, fields[0].begin);
    pattern.suffix_ = path.substr(fields[0].begin + fields[0].length);
    pattern.padding_ = fields[0].padding;
    return pattern;
}

std::string SequencePattern::path(long long frame) const
{
    char digits[48];
    std::snprintf(digits, sizeof digits, "%0*lld", padding_, frame);
    return prefix_ + digits + suffix_;
}

std::optional<long long> SequencePattern::frameOf(const std::string& candidate) const
{
    if (candidate.size() <= prefix_.size() + suffix_.size() || candidate.compare(0, prefix_.size(), prefix_) != 0 ||
        candidate.compare(candidate.size() - suffix_.size(), suffix_.size(), suffix_) != 0)
        return std::nullopt;
    const std::string field = candidate.substr(prefix_.size(), candidate.size() - prefix_.size() - suffix_.size());
    const std::size_t digitsFrom = field[0] == '-' ? 1 : 0;
    if (field.size() == digitsFrom || field.size() - digitsFrom > 18 ||
        field.find_first_not_of("0123456789", digitsFrom) != std::string::npos)
        return std::nullopt;
    const long long frame = std::strtoll(field.c_str(), nullptr, 10);
    // Only the spelling this pattern writes: shot.0042.exr is frame 42 of
    // shot.####.exr, shot.042.exr is not.
    if (path(frame) != candidate) return std::nullopt;
    return frame;
}

std::vector<long long> SequencePattern::framesOnDisk() const
{
    namespace fs = std::filesystem;
    const std::size_t slash = prefix_.rfind('/');
    const fs::path directory = slash == std::string::npos ? fs::path(".") : fs::path(prefix_.substr(0, slash + 1));
    const std::string directoryText = slash == std::string::npos ? "" : prefix_.substr(0, slash + 1);
    std::set<long long> frames;
    std::error_code error;
    for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
        if (auto frame = frameOf(directoryText + it->path().filename().string())) frames.insert(*frame);
    }
    return {frames.begin(), frames.end()};
}

std::vector<long long> parseFrameRange(const std::string& text)
{
    std::vector<long long> frames;
    std::set<long long> seen;
    std::size_t at = 0;
    while (true) {
        const long long first = parseNumber(text, at, text);
        long long last = first;
        long long step = 1;
        if (at < text.size() && text[at] == '-') {
            ++at;
            last = parseNumber(text, at, text);
            if (at < text.size() && text[at] == 'x') {
                ++at;
                step = parseNumber(text, at, text);
            }
        }
        if (step <= 0 || last < first)
            throw Failure(exitUsage, "", "not a frame range: \"" + text + "\" (the first frame comes first, steps are positive)");
        if ((last - first) / step >= kMaxFramesInRange)
            throw Failure(exitUsage, "", "frame range \"" + text + "\" has more than ten million frames");
        for (long long f = first; f <= last; f += step) {
            if (seen.insert(f).second) frames.push_back(f);
            if (last - f < step) break;
        }
        if (at == text.size()) break;
        if (text[at] != ',')
            throw Failure(exitUsage, "", "not a frame range: \"" + text + "\" (expected e.g. 1001-1100 or 1001-1100x2)");
        ++at;
    }
    return frames;
}

std::string frameListText(const std::vector<long long>& frames)
{
    std::string text;
    for (std::size_t i = 0; i < frames.size();) {
        std::size_t j = i;
        while (j + 1 < frames.size() && frames[j + 1] == frames[j] + 1) ++j;
        if (!text.empty()) text += ", ";
        text += std::to_string(frames[i]);
        if (j > i) text += "-" + std::to_string(frames[j]);
        i = j + 1;
    }
    return text;
}

std::vector<FrameFile> expandSequences(const std::vector<std::string>& inputs, const std::string& frames)
{
    const std::vector<long long> range = frames.empty() ? std::vector<long long>{} : parseFrameRange(frames);
    std::vector<FrameFile> files;
    bool anySequence = false;
    for (const std::string& input : inputs) {
        std::optional<SequencePattern> pattern = SequencePattern::find(input);
        if (!pattern) {
            files.push_back({input, std::nullopt, "", true});
            continue;
        }
        anySequence = true;
        if (frames.empty()) {
            const std::vector<long long> onDisk = pattern->framesOnDisk();
            if (onDisk.empty()) throw Failure(exitUnreadable, input, "no frame of this sequence is on disk");
            for (long long f : onDisk) files.push_back({pattern->path(f), f, input, true});
        } else {
            std::error_code error;
            for (long long f : range) {
                const std::string path = pattern->path(f);
                files.push_back({path, f, input, std::filesystem::exists(path, error)});
            }
        }
    }
    if (!frames.empty() && !anySequence)
        throw Failure(exitUsage, "", "--frames needs a sequence such as shot.####.exr, shot.%04d.exr or shot.@.exr");
    return files;
}

std::vector<std::string> existingFrames(const std::vector<FrameFile>& files, bool& missing)
{
    std::vector<std::string> paths;
    std::vector<std::pair<std::string, std::vector<long long>>> missingBySequence;  // in input order
    for (const FrameFile& file : files) {
        if (file.exists) {
            paths.push_back(file.path);
            continue;
        }
        if (missingBySequence.empty() || missingBySequence.back().first != file.sequence)
            missingBySequence.emplace_back(file.sequence, std::vector<long long>{});
        missingBySequence.back().second.push_back(file.frame.value_or(0));
    }
    for (auto& [sequence, numbers] : missingBySequence) {
        std::sort(numbers.begin(), numbers.end());
        std::fprintf(stderr, "ktexr: %s: missing frame%s %s\n", sequence.c_str(), numbers.size() == 1 ? "" : "s",
                     frameListText(numbers).c_str());
    }
    missing = !missingBySequence.empty();
    return paths;
}

}  // namespace ktexr
