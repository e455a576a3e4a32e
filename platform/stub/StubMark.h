#pragma once

/// The attribute that marks a driverless stub: one byte, no NUL.
constexpr const char* kStubMark = "user.NkStubFile";
constexpr char kStubMarkValue = '1';
