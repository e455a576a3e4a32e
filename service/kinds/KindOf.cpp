#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"
#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"
#include "lowlevel/lustre/QZHSMLowLevelLustre.h"
#include "service/kinds/Kinds.h"

std::unique_ptr<StubKind> kindOf(QZHSMLowLevel& backEnd) {
    if (auto* driverless = dynamic_cast<QZHSMLowLevelDriverless*>(&backEnd))
        return makeKind(*driverless);
    if (auto* driver = dynamic_cast<QZHSMLowLevelQZFS*>(&backEnd))
        return makeKind(*driver);
    if (auto* lustre = dynamic_cast<QZHSMLowLevelLustre*>(&backEnd))
        return makeKind(*lustre);
    if (auto* glusterFs = dynamic_cast<QZHSMLowLevelGlusterFs*>(&backEnd))
        return makeKind(*glusterFs);
    return std::make_unique<StubKind>(backEnd);
}
