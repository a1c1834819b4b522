// Frame sequences: one path standing for many frames of a render.
//
// A path names a sequence when it holds one frame field: a run of `#` or of
// `@` (one digit each, padded with zeros to the run's length, so
// `shot.####.exr` is shot.0042.exr and `shot.@.exr` is shot.42.exr) or a
// printf field `%d` / `%0Nd`. Frame ranges are written as in the farm's job
// settings: `1001-1100`, `1001-1100x2` (every second frame), `1001`, and lists
// of these separated by commas; frame numbers may be negative.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace ktexr {

// A path with its frame field found.
class SequencePattern {
public:
    // The pattern in `path`, or nothing when the path holds no frame field.
    // A path with more than one frame field is refused (a Failure with
    // exitUsage), as it is ambiguous which field counts the frames.
    static std::optional<SequencePattern> find(const std::string& path);

    // The file name of one frame.
    std::string path(long long frame) const;
    // The frame a file name stands for under this pattern, if it is one.
    std::optional<long long> frameOf(const std::string& path) const;
    // The frames whose files exist, ascending: the directory is listed.
    std::vector<long long> framesOnDisk() const;

    const std::string& text() const { return text_; }

private:
    std::string text_;    // the pattern as given
    std::string prefix_;  // before the frame field
    std::string suffix_;  // after it
    int padding_ = 1;     // the minimum number of digits
};

// Frame numbers, in the order written, each once. Throws a Failure with
// exitUsage on text that is not a frame range.
std::vector<long long> parseFrameRange(const std::string& text);

// "1001, 1003-1005, 1010": frame numbers (ascending) folded into runs.
std::string frameListText(const std::vector<long long>& frames);

// One input of a batch command: a file, with its frame number when it came
// from a sequence.
struct FrameFile {
    std::string path;
    std::optional<long long> frame;
    std::string sequence;  // the pattern it came from
    bool exists = true;  // false for a frame of the range that is not on disk
};

// The inputs of a batch command, sequences expanded: with `frames` given,
// every sequence yields the frames of the range (missing ones included,
// marked); without, the frames on its disk. Plain paths pass through.
// Throws a Failure with exitUsage when `frames` is given but no input is a
// sequence, or a sequence has no frame on disk and no range.
std::vector<FrameFile> expandSequences(const std::vector<std::string>& inputs, const std::string& frames);

// The paths of the frames that exist; for each sequence with missing frames,
// one line on standard error naming them by number. `missing` is set when a
// frame was missing.
std::vector<std::string> existingFrames(const std::vector<FrameFile>& files, bool& missing);

}  // namespace ktexr
