#pragma once

#include "platform/files/UniqueFd.h"

#include <string>

/// Which file of which file system, across renames, mounts and restarts: what tells a stub from a copy of it.
struct FileIdentity {
    int handleType = 0;
    std::string handle; ///< the bytes of name_to_handle_at; empty if the file system has none that last
    std::string fsid;   ///< statfs's, 16 hexadecimal digits; on some file systems that of the device
    std::string fsUuid; ///< the file system's UUID, 32 hexadecimal digits; empty if the kernel tells none

    /// Of the file behind the descriptor. Throws `Failure` with `name` if it cannot be asked.
    static FileIdentity of(int fd, const std::string& name);

    /// The file, open for no access but fstat(2) and the *at calls, wherever it lies now; `mount` is any file
    /// that is open on its file system. Closed, with errno, if it is gone (ESTALE) or cannot be opened so.
    UniqueFd open(int mount) const;

    /// Whether both surely lie on the same file system: by UUID if both have one, else by fsid.
    bool isBeside(const FileIdentity& other) const;
    /// Whether both are the same file. Those of NFS have handles that their server has made, and nothing else
    /// tells their file systems apart. Without a handle nothing matches.
    bool matches(const FileIdentity& other) const;

private:
    bool isNameless() const; ///< the file system has neither UUID nor fsid
};
