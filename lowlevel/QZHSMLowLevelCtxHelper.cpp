#include "lowlevel/QZHSMLowLevelCtxHelper.h"

#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "lowlevel/driver/QZHSMLowLevelQZFSExtent.h"
#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"
#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"
#include "lowlevel/hadoop/QZHSMLowLevelHadoop.h"
#include "lowlevel/lustre/QZHSMLowLevelLustre.h"

#include <memory>

QZHSMLowLevel* createQZHSMLowLevelQZFS() {
    return std::make_unique<QZHSMLowLevelQZFS>().release();
}

QZHSMLowLevel* createQZHSMLowLevelQZFSExtent() {
    return std::make_unique<QZHSMLowLevelQZFSExtent>().release();
}

QZHSMLowLevel* createQZHSMLowLevelDriverless() {
    return std::make_unique<QZHSMLowLevelDriverless>().release();
}

QZHSMLowLevel* createQZHSMLowLevelArchiveDelete() {
    auto object = std::make_unique<QZHSMLowLevelDriverless>();
    object->setArchiveAndDelete();
    return object.release();
}

QZHSMLowLevel* createQZHSMLowLevelHadoop() {
    return std::make_unique<QZHSMLowLevelHadoop>().release();
}

QZHSMLowLevel* createQZHSMLowLevelLustre() {
    return std::make_unique<QZHSMLowLevelLustre>().release();
}

QZHSMLowLevel* createQZHSMLowLevelGlusterFs() {
    return std::make_unique<QZHSMLowLevelGlusterFs>().release();
}
