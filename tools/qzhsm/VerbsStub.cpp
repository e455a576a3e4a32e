#include "service/FileIo.h"
#include "service/Stubbing.h"
#include "tools/qzhsm/CommandLine.h"
#include "tools/qzhsm/Verbs.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace {

void addStub(CommandLine& line) {
    struct Options {
        std::string meta;
        std::optional<long> refTime;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* verb = line.addPathsVerb(
        "stub", "Turn files whose data has been archived into stubs: their data is given up",
        [options](StubKind& kind, Report&, const std::string& path) {
            makeStub(kind, path, options->meta, options->refTime);
        });
    addText(verb, "--meta", options->meta,
            "What the stub says about the archived data; at most 4030 bytes, 2047 for the filter driver; for "
            "GlusterFS with \"versionGuid=\" and 32 hexadecimal digits")
        ->option_text("TEXT (required)")
        ->required();
    verb->add_option(
            "--ref-time", options->refTime,
            "The modification time that the file had when it was archived, in seconds since the epoch: "
            "a file modified since is refused. Without it nothing is checked")
        ->option_text("SECONDS");
}

/// Puts a file of these bytes in the place of `output`, once they are written.
void replaceFile(const std::string& output, const std::vector<char>& bytes) {
    const size_t slash = output.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : output.substr(0, slash + 1);
    const std::string written = writeNewFile(directory + ".qzhsm.XXXXXX", bytes);
    if (::rename(written.c_str(), output.c_str()) < 0) {
        const int err = errno;
        ::unlink(written.c_str());
        throw systemFailure("Failed to write ", output, err);
    }
}

void addBackup(CommandLine& line) {
    struct Options {
        std::string output;
        bool snapshot = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* verb =
        line.addPathVerb("backup", "Save a stub's data", "PATH", "The stub",
                         [options](StubKind& kind, Report& report, const std::string& path) {
                             const std::vector<char> data = saveStub(kind, path, options->snapshot);
                             const std::string& output = options->output;
                             if (output.empty())
                                 return report.raw({data.data(), data.size()});
                             // Only a plain file may be replaced: not a device, and not the stub itself.
                             struct stat old {};
                             if (::lstat(output.c_str(), &old) == 0 &&
                                 (!S_ISREG(old.st_mode) || isSameFile(old, statFollowing(path))))
                                 throw Failure(QZHSM_FAILURE, "Not replacing " + output +
                                                                  ": it is the stub or no regular file");
                             replaceFile(output, data);
                         });
    addText(verb, "-o,--output", options->output, "Write to this file instead of standard output")
        ->option_text("FILE");
    verb->add_flag("--snapshot", options->snapshot, "The stub lies in a snapshot of the file system");
}

void addRestore(CommandLine& line) {
    struct Options {
        std::string saved;
        bool force = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* verb =
        line.addPathVerb("restore-stub", "Make a stub again from its saved data", "PATH",
                         "The stub to be: missing, or an empty file",
                         [options](StubKind& kind, Report&, const std::string& path) {
                             restoreStub(kind, path, readSavedStub(options->saved), options->force);
                         });
    addText(verb, "FILE", options->saved, "What \"qzhsm backup\" saved")->required()->option_text(" ");
    verb->add_flag("--force", options->force, "Also replace a file that holds data");
}

void addSetTimes(CommandLine& line) {
    struct Options {
        long atime = 0;
        long mtime = 0;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* verb = line.addPathsVerb(
        "set-times", "Set access and modification times, in seconds since the epoch",
        [options](StubKind& kind, Report&, const std::string& path) {
            QZHSMLowLevel& backEnd = kind.backEnd();
            checked(backEnd, backEnd.setAMCTime(path.c_str(), options->atime, options->mtime, 0));
        });
    const auto addTime = [&](const char* name, long& target, const char* help) {
        verb->add_option(name, target, help)->option_text("SECONDS (required)")->required();
    };
    addTime("--atime", options->atime, "The access time");
    addTime("--mtime", options->mtime, "The modification time");
}

} // namespace

void addStubVerbs(CommandLine& line) {
    addStub(line);
    addBackup(line);
    addRestore(line);
    addSetTimes(line);
}
