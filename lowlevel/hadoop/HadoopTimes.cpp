#include "lowlevel/hadoop/QZHSMLowLevelHadoop.h"
#include "lowlevel/internal/LastError.h"

int QZHSMLowLevelHadoop::setAMCTime(const char*, long, long, long) {
    return refuse(*this, "setAMCTime");
}

int QZHSMLowLevelHadoop::statFile(const char*, struct stat*) {
    return refuse(*this, "statFile");
}
