#pragma once

#include "platform/Export.h"

#include <cstdint>
#include <string>

/// @file
/// Stub text is what a stub's place on disk holds: a prefix of fixed width, then the metadata as it was
/// given. The prefix is one line of 66 ASCII characters, numbers as lower-case hexadecimal digits:
///
///     QZHSMSTUB 01 <total length> <file size> <metadata length> <prefix CRC> <metadata CRC>
///
/// The CRCs are CRC-32; the prefix's covers all of the prefix but its own eight digits. Stub text holds no
/// NUL and is at most 65,536 bytes long.

/// The most bytes that stub text can have.
constexpr int kStubTextMax = 65536;
/// The prefix's length: what a look at a file's beginning takes.
constexpr int kStubTextPrefix = 66;

/// Builds stub text from `meta` (NUL-terminated) and the file's size in bytes. With `stubOut` null, returns
/// the length that it takes. Otherwise writes it, without a NUL, and returns its length; if it is longer than
/// `outLen`, writes nothing and returns -1. A null `meta`, a negative size or a text beyond the limit: -1.
QZHSM_API int qzhsm_meta2stub(const char* meta, long long fileSize, char* stubOut, int outLen);

/// Examines stub text and takes it apart. `stub` is read byte by byte up to the first byte that does not fit,
/// never past a NUL; null is corrupt. Pointers may be null if the answer is of no interest.
///
/// With `meta` null only the prefix is examined, so that the first `kStubTextPrefix` bytes are enough. With
/// `meta`, the metadata is examined too and copied there, NUL-terminated, `metaLen` being the buffer's size
/// in bytes. `check` asks for validation only, which happens in any case: both values act alike.
///
/// Returns true with the text's whole length in `*stubLen` and the file's size in `*fileSize`. Corrupt text:
/// false, and 0 in `*stubLen`. A metadata buffer that is too small: false, and the size it needs in
/// `*stubLen`; but if `stubLen` is null, true and the metadata cut, which callers rely on.
QZHSM_API bool qzhsm_stub2meta(const char* stub, int* stubLen, long long* fileSize, char* meta, int metaLen,
                               bool check);

/// What metadata text says. Only the version GUID is read from text today.
struct QZHSM_API ReparseData {
    int32_t formatVersion = 1;    ///< not read
    int64_t fileSize = 0;         ///< not read
    int64_t accessTime = 0;       ///< not read
    int64_t modificationTime = 0; ///< not read
    int64_t changeTime = 0;       ///< not read
    int32_t copies = 1;           ///< not read
    std::string versionGuid;      ///< of the archived version, as the text has it, whatever its length
    int64_t archiveId = 0;        ///< not read
    std::string location;         ///< not read
    int64_t extentOffset = 0;     ///< not read
    int64_t extentLength = 0;     ///< not read
};

/// Reads metadata text, "key=value" fields joined by ";", into `out`. The field "versionGuid" is required,
/// unknown keys are skipped. False, with `out` untouched, if it is missing or a field has no "=".
QZHSM_API bool ParseStubReparseData(const std::string& text, ReparseData& out);
