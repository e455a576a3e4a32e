#pragma once

#include "service/stores/Store.h"

/// How much goes through memory at once: still in the processor's cache when it is summed up.
constexpr std::uint64_t kCopyBuffer = 256UL * 1024;

/// Where a file's content goes. Calls come in the order of the content.
class ContentSink {
public:
    ContentSink() = default;
    ContentSink(const ContentSink&) = delete;
    ContentSink& operator=(const ContentSink&) = delete;
    virtual ~ContentSink();

    virtual void data(std::uint64_t offset, const char* bytes, size_t size) = 0;
    virtual void hole(const Extent& part) = 0;
};

/// Reads the file up to `record.size`, hands its content on, and fills in the record's holes and checksums.
/// A file that has become shorter is a `Failure` of code 3.
void readContent(int fd, ObjectRecord& record, ContentSink& sink, const OnBytes& onBytes);

/// The checksums of the file up to `size`; `name` is for failures.
Checksums checksumsOf(int fd, const std::string& name, std::uint64_t size);
