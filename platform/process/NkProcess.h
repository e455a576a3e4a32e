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
    /// Returns when both outputs are closed, so a child that the command leaves in the background holds it
    /// up.
    ///
    /// The command's exit status, or 128 and the signal's number where one ended it, as a shell has it; 255
    /// where the process reaps or ignores its children elsewhere and the status is lost: the command was run,
    /// and must not be taken for one that was not. Negative where it could not be run, with the reason in
    /// `err`: no shell, or one that reports 126 or 127.
    static int system(const char* command, std::string* out, std::string* err, int, bool);
};
