#pragma once

#include "lowlevel/QZHSMLowLevel.h"
#include "tools/qzhsm/Report.h"

#include <optional>
#include <string>

/// The tool's verbs, each for one path. What fails throws `Failure`.

void info(QZHSMLowLevel& backEnd, Report& report, const std::string& path);
void showStat(QZHSMLowLevel& backEnd, Report& report, const std::string& path);
void scan(QZHSMLowLevel& backEnd, Report& report, const std::string& directory);

/// Without `refTime` the file's own modification time counts.
void stub(QZHSMLowLevel& backEnd, const std::string& path, const std::string& meta,
          std::optional<long> refTime);
/// To standard output where `output` is empty.
void backup(QZHSMLowLevel& backEnd, Report& report, const std::string& path, const std::string& output,
            bool fromSnapshot);
/// `force`: also over a file that holds data.
void restoreStub(QZHSMLowLevel& backEnd, const std::string& path, const std::string& stubFile, bool force);
/// `from` "-" is standard input. `force`: also where the data or the stub's size is not what the stub
/// records.
void recall(QZHSMLowLevel& backEnd, Report& report, const std::string& path, const std::string& from,
            bool force);
void setTimes(QZHSMLowLevel& backEnd, const std::string& path, long atime, long mtime);

/// For Lustre only.
void release(QZHSMLowLevel& backEnd, const std::string& path);
void hsmState(QZHSMLowLevel& backEnd, Report& report, const std::string& path);

void watch(QZHSMLowLevel& backEnd, const std::string& path);
void unwatch(QZHSMLowLevel& backEnd, const std::string& path);
void watched(QZHSMLowLevel& backEnd, Report& report, const std::string& path);
void resubmit(QZHSMLowLevel& backEnd);
