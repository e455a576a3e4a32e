#pragma once

#include "platform/stub/StubAttributes.h"

#include <cstddef>

/// What `stubFile` writes, in its order: what identifies the stub comes first and the completion marker last,
/// so that a file with the marker has all the rest too. No value holds a terminating NUL.
enum CloudsyncAttribute : size_t { ProductId, StoreId, Uuid, StubText, Complete };
constexpr const char* kCloudsyncAttributes[] = {
    "trusted.cloudsync.product-id",    "trusted.cloudsync.store-id",
    "trusted.cloudsync.uuid",          kStubTextAttribute,
    "trusted.glusterfs.csou.complete",
};
constexpr const char* kProductIdValue = "quillmoor";

/// Set by the volume itself once the data is at the remote store.
constexpr const char* kRemote = "trusted.glusterfs.cs.remote";
