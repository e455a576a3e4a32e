#pragma once

#include "service/stores/Store.h"
#include "service/stores/StubMetadata.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>

/// Opens the store that the user names: with a "/" in it a directory, else the NAME of a section "Store/NAME"
/// of the configuration, which holds `directory`, or `put`, `get`, `remove` and perhaps `list` and `timeout`
/// (seconds). Throws `Failure`.
std::unique_ptr<Store> openStore(const std::string& nameOrDirectory);

/// The same for a store that stubs are to name: a directory must be one that `openNamedStore` trusts, or what
/// is put there comes back by hand alone. Throws `Failure`.
std::unique_ptr<Store> openStoreForStubs(const std::string& nameOrDirectory);

/// Opens the store that a stub names. A name leads to the configuration, as above. A path is only followed to
/// a directory that `openTrustedDirectory` trusts, and only if the stub names the UUID of the store there:
/// stub text never makes this process read from a directory that another user has made up. Throws `Failure`.
std::unique_ptr<Store> openNamedStore(const StubMetadata& metadata);

/// The stores that stubs name, each opened once. May be used from several threads. A store that cannot be
/// opened is tried again the next time. Holding a store keeps its file system from being unmounted.
class NamedStores {
public:
    /// Throws what `openNamedStore` throws.
    Store& find(const StubMetadata& metadata);

private:
    std::mutex m_mutex;
    std::map<std::pair<std::string, std::string>, std::unique_ptr<Store>> m_stores; ///< by name and UUID
};
