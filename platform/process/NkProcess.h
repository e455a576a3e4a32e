#pragma once

#include <string>

/// Runs commands.
class NkProcess {
public:
    /// Runs `/bin/sh -c COMMAND` to its end, with no input, and stores all that it writes to standard output
    /// and standard error; either pointer may be null. Nothing of this process is inherited but its
    /// environment and working directory: no descriptor, no ignored or blocked signal. Safe to call from
    /// several threads at once; blocks the calling one only.
    ///
    /// Returns when both outputs are closed and the command has ended, so a child that the command leaves in
    /// the background, with its outputs open, delays the return. There is no time-out.
    ///
    /// The result is the command's exit status, or 128 plus the number of the signal that ended it. It is
    /// negative if the command could not be run (no shell, or a shell that reports 126 or 127) or part of its
    /// output is lost, with the reason in `err`. If the status is lost, because this process
    /// ignores or reaps its children elsewhere, it is 255 for a command that wrote nothing to standard error,
    /// which must not be taken for one that was not run, and negative for any other, which may be one.
    ///
    /// The last two arguments have no effect; callers pass 0 and true.
    static int system(const char* command, std::string* out, std::string* err, int, bool);
};
