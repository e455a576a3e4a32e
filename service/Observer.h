#pragma once

#include "service/Failure.h"

#include <cstdint>
#include <string>

/// Hears how work on many files goes; what it does not override it leaves unheard. Workers call it one at a
/// time; whoever waits for it holds them up.
class Observer {
public:
    Observer() = default;
    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;
    virtual ~Observer() = default;

    /// Work on a file begins; `size` is how many bytes there will be, 0 if it is not known.
    virtual void started(const std::string& /*name*/, long long /*size*/) {}
    /// So many further bytes are done.
    virtual void bytes(long long /*count*/) {}
    /// All that was promised for this file is on the disk.
    virtual void done(const std::string& /*name*/, const std::string& /*what*/) {}
    virtual void failed(const std::string& name, const Failure& failure) = 0;
    /// Nothing was done to this file, for a reason that is no failure.
    virtual void skipped(const std::string& /*name*/, const std::string& /*reason*/) {}
    /// Something that people should know, of a file on which work goes on.
    virtual void note(const std::string& /*text*/) {}
    /// The files below a directory are looked for: there is no telling how many there will be.
    virtual void walking(const std::string& /*directory*/) {}
};

/// Tells of what is further done when it is called with how much is done so far.
inline auto tellBytes(Observer& observer) {
    return [&observer, told = std::uint64_t{0}](std::uint64_t done) mutable {
        observer.bytes(static_cast<long long>(done - told));
        told = done;
    };
}
