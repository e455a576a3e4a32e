#pragma once

#include <string>

/// Reads how long `archiveAndWait` waits, for all of the process: the configuration's "archiveTimeout" in
/// section "Lustre", in seconds, default 3600.
void readArchiveTimeout();

/// Has Lustre archive the file at `path` (in the locale's encoding), with `requestData` for the copy agent,
/// and waits until it can be released: its copy is whole, not lost, and the file not changed since. 0, or a
/// negative errno with a description in `errorText`; -ETIMEDOUT if it took too long, in which case Lustre may
/// still archive the file later.
int archiveAndWait(const char* path, const char* requestData, std::string& errorText);
