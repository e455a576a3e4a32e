#pragma once

#include "lowlevel/QZHSMLowLevel.h"

#include <string>

class QZHSMLowLevelLustre;

// What the tool has to know of the back-ends' kinds of stubs.

/// Whether stubs carry their stub text at the beginning of the file itself, in place of its data.
bool keepsTextInFile(const QZHSMLowLevel& backEnd);
/// Whether a restored stub comes back with its attributes, and only its completion is marked then.
bool marksOnly(const QZHSMLowLevel& backEnd);
/// Whether the kernel's filter driver keeps the stubs. It takes a look into a stub for a wish to recall it.
bool asksDriver(const QZHSMLowLevel& backEnd);
/// Lustre's back-end, or null for any other. Lustre's own HSM keeps the stubs there.
QZHSMLowLevelLustre* asLustre(QZHSMLowLevel& backEnd);
/// What Lustre says of a file, without the file's path, which may hold any word.
std::string lustreState(QZHSMLowLevelLustre& lustre, const std::string& path);

/// Throws where this process could not see the back-end's stubs at all.
void requireSight(const QZHSMLowLevel& backEnd);

/// Throws where the back-end would not act on this file: where the driver would get the path cut, or where
/// the shell that runs Lustre's command would make something else of it.
void requirePath(QZHSMLowLevel& backEnd, const std::string& path);
/// Throws where the driver would get the metadata cut.
void requireMetadata(const QZHSMLowLevel& backEnd, const std::string& meta);
/// Throws where a recall could not make its file beside the stub: the name would be too long.
void requireName(const QZHSMLowLevel& backEnd, const std::string& path);
/// What to do about a file that is not the driver's, where its file system is not watched; else nothing.
std::string adviceToWatch(QZHSMLowLevel& backEnd, const std::string& path);

/// Whether the file is a stub, asked so that a stub which may not be looked at is a failure and no "no".
bool isStubFile(QZHSMLowLevel& backEnd, const std::string& path, const struct stat& st);
