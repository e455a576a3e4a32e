#pragma once

#include "lowlevel/QZHSMLowLevel.h"

#include <optional>
#include <string>
#include <vector>

/// Whether stubs carry their stub text at the beginning of the file itself, in place of its data.
bool keepsTextInFile(const QZHSMLowLevel& backEnd);
/// Whether a restored stub comes back with its attributes, and only its completion is marked then.
bool marksOnly(const QZHSMLowLevel& backEnd);
/// Whether the kernel's filter driver keeps the stubs. It takes a look into a stub for a wish to recall it.
bool asksDriver(const QZHSMLowLevel& backEnd);
/// Whether Lustre's own HSM keeps the stubs.
bool asksLustre(const QZHSMLowLevel& backEnd);

/// Throws where the back-end would not act on this file: where the driver would get the path cut, or where
/// the shell that runs Lustre's command would make something else of it.
void requirePath(const QZHSMLowLevel& backEnd, const std::string& path);
/// Throws where the driver would get the metadata cut.
void requireMetadata(const QZHSMLowLevel& backEnd, const std::string& meta);
/// Throws where a recall could not make its file beside the stub: the name would be too long.
void requireName(const QZHSMLowLevel& backEnd, const std::string& path);
/// What to do about a file that is not the driver's, where its file system is not watched; else nothing.
std::string adviceToWatch(QZHSMLowLevel& backEnd, const std::string& path);

/// Whether the file is a stub, asked so that a stub which may not be looked at is a failure and no "no".
bool isStubFile(QZHSMLowLevel& backEnd, const std::string& path, const struct stat& st);

/// Whether the bytes begin with valid stub text.
bool beginsWithStubText(const std::vector<char>& bytes);

/// What stub data says of itself and of its file, in bytes.
struct StubFacts {
    int textLength;
    long long fileSize;
};
/// Nothing for stub data that is not valid.
std::optional<StubFacts> readFacts(const std::vector<char>& stubData);

/// What is wrong with such stub data on a file of `size` bytes; empty where it fits.
std::string misfit(const std::optional<StubFacts>& facts, long long size);

/// The stub data in a file, or a failure where that is anything but whole stub data of which this back-end
/// can make a stub.
std::vector<char> readStubData(const QZHSMLowLevel& backEnd, const std::string& path);
