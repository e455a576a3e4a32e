#pragma once

/// The attribute that marks a driverless stub: one byte, no NUL.
constexpr const char* kStubMark = "user.NkStubFile";
constexpr char kStubMarkValue = '1';

/// The attribute that holds stub text which does not stand in the file's data.
constexpr const char* kStubTextAttribute = "user.TSTUB";

/// One that nobody sets: whether it is missing or cannot be asked for tells whether attributes work.
constexpr const char* kProbeAttribute = "user.NkProbe";
