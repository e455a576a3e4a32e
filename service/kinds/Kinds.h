#pragma once

#include "service/kinds/StubKind.h"

class QZHSMLowLevelDriverless;
class QZHSMLowLevelGlusterFs;
class QZHSMLowLevelLustre;
class QZHSMLowLevelQZFS;

// Each kind stands in a file of its own.

std::unique_ptr<StubKind> makeKind(QZHSMLowLevelDriverless& backEnd);
std::unique_ptr<StubKind> makeKind(QZHSMLowLevelGlusterFs& backEnd);
std::unique_ptr<StubKind> makeKind(QZHSMLowLevelLustre& backEnd);
std::unique_ptr<StubKind> makeKind(QZHSMLowLevelQZFS& backEnd);
