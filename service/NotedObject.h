#pragma once

#include "service/OpenFile.h"
#include "service/stores/Store.h"

#include <optional>

// A whole file whose data is in a store carries the object's name in its attribute "user.NkObject", so that
// it need not be sent again to become a stub. It is a hint: whoever may write the file can set it.

std::optional<ObjectId> notedObject(const OpenFile& file);
/// What has no room, or no attributes, goes without.
void noteObject(const OpenFile& file, const ObjectId& object);
void dropNotedObject(const OpenFile& file);

/// The record of the object, if it was put from the file that is open as `data` and this has not been changed
/// since. `facts` is what `ObjectRecord::describe` tells of the file. Times can be set back, so its data is
/// compared with the record's checksums.
std::optional<ObjectRecord> findArchived(Store& store, const ObjectId& object, int data,
                                         const ObjectRecord& facts);
