#pragma once

#include "lowlevel/QZHSMLowLevel.h"

/// @file
/// The factories: each makes one new object, owned by the caller. What a back-end's constructor throws passes
/// through.

/// The filter driver's back-end.
QZHSM_API QZHSMLowLevel* createQZHSMLowLevelQZFS();
/// The same for recalls in extents.
QZHSM_API QZHSMLowLevel* createQZHSMLowLevelQZFSExtent();
/// The driverless back-end.
QZHSM_API QZHSMLowLevel* createQZHSMLowLevelDriverless();
/// A driverless back-end in archive-and-delete mode.
QZHSM_API QZHSMLowLevel* createQZHSMLowLevelArchiveDelete();
/// Hadoop's placeholder.
QZHSM_API QZHSMLowLevel* createQZHSMLowLevelHadoop();
/// Lustre's back-end.
QZHSM_API QZHSMLowLevel* createQZHSMLowLevelLustre();
/// GlusterFS's back-end. Throws `NkException` if the configuration cannot be read.
QZHSM_API QZHSMLowLevel* createQZHSMLowLevelGlusterFs();
