#pragma once

#include "lowlevel/QZHSMLowLevel.h"

/// The factories: each makes one new object, owned by the caller. What a back-end's constructor throws passes
/// through.
QZHSM_API QZHSMLowLevel* createQZHSMLowLevelQZFS();
QZHSM_API QZHSMLowLevel* createQZHSMLowLevelQZFSExtent();
QZHSM_API QZHSMLowLevel* createQZHSMLowLevelDriverless();
/// A driverless back-end in archive-and-delete mode.
QZHSM_API QZHSMLowLevel* createQZHSMLowLevelArchiveDelete();
QZHSM_API QZHSMLowLevel* createQZHSMLowLevelHadoop();
QZHSM_API QZHSMLowLevel* createQZHSMLowLevelLustre();
QZHSM_API QZHSMLowLevel* createQZHSMLowLevelGlusterFs();
