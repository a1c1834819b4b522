// Exit statuses of ktexr and the one error type that carries them.
//
// Every failure a command meets is thrown as a Failure naming the file and
// saying what went wrong; the command prints it as one line on standard
// error and turns it into the program's exit status.
#pragma once

#include <stdexcept>
#include <string>

namespace ktexr {

enum ExitStatus : int {
    exitOk = 0,
    exitUsage = 2,           // bad or missing arguments
    exitUnreadable = 3,      // an input cannot be read or held (missing, no permission, too large)
    exitNotExr = 4,          // not an EXR file (or not a PNG), or a kind the plug-in cannot handle
    exitIncomplete = 5,      // an EXR file that is incomplete or damaged
    exitPluginFailure = 6,   // the plug-in cannot be loaded, refuses the host, or fails
    exitTilesDoNotFit = 7,   // assemble: the tiles do not make one frame
    exitUnwritable = 8,      // an output file cannot be written
    exitRefused = 9,         // nothing written: it would overwrite an input, or lose data
};

// The exit status a plug-in status code stands for.
ExitStatus exitStatusOfPlugin(int pluginStatus);

// One short line per exit status, for --help and messages.
const char* exitStatusMeaning(ExitStatus status);

// The text listing every exit status, as --help shows it.
std::string exitStatusTable();

// A failure of one file: the file's name, the message and the exit status.
class Failure : public std::runtime_error {
public:
    Failure(ExitStatus status, std::string file, const std::string& message)
        : std::runtime_error(message), status_(status), file_(std::move(file))
    {
    }
    ExitStatus status() const { return status_; }
    const std::string& file() const { return file_; }

private:
    ExitStatus status_;
    std::string file_;
};

// Prints "ktexr: FILE: message" (or "ktexr: message" without a file) on
// standard error and returns the failure's status.
ExitStatus report(const Failure& failure);

// Keeps the first failure of a command that goes on with its other files.
class StatusKeeper {
public:
    void note(ExitStatus status)
    {
        if (first_ == exitOk) first_ = status;
    }
    ExitStatus result() const { return first_; }

private:
    ExitStatus first_ = exitOk;
};

}  // namespace ktexr
