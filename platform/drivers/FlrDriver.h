/// @file
/// The journal driver.

#pragma once

#include "platform/Export.h"

#include <cstdint>
#include <functional>
#include <memory>

/// The drivers' identifier of a file: opaque, always copied whole.
struct fsf_fid {
    uint64_t words[3]; ///< the drivers' to interpret
};

/// A client of the journal driver, which keeps a record of its own of what changes files. This one is for
/// machines where no such driver runs: it tracks no file system, so there is nothing to tell it. Devices are
/// numbers as stat(2) gives them; an operation that fails throws `NkException`.
class QZHSM_API FlrDriver {
public:
    FlrDriver() = default;
    FlrDriver(const FlrDriver&) = delete;
    FlrDriver& operator=(const FlrDriver&) = delete;
    virtual ~FlrDriver();

    /// Whether the journal driver tracks the file system on a device.
    virtual bool statFS(unsigned long long dev);
    /// The identifier of the file at a UTF-8 path. The flag is for the client alone; callers pass false.
    virtual fsf_fid getFID(const char* path, bool);

    /// Tells the journal that a file became a stub with this metadata.
    virtual void injectSTUB(unsigned long long dev, const fsf_fid& fid, const char* meta);
    /// Tells the journal that a file is no longer a stub.
    virtual void injectUNSTUB(unsigned long long dev, const fsf_fid& fid);
    /// Tells the journal that the `n` bytes of `buf` were written at `offset` by transparent I/O.
    virtual void injectTWRITE(unsigned long long dev, const fsf_fid& fid, unsigned long long offset,
                              const void* buf, int n);
};

/// Makes the clients. The service may replace it before it makes back-ends.
extern QZHSM_API std::function<std::unique_ptr<FlrDriver>()> g_flrDriverFactory;
