#pragma once

#include "platform/files/UniqueFd.h"

#include <string>
#include <sys/un.h>
#include <vector>

/// Throws `Failure` for a path that no socket can have.
sockaddr_un socketAddress(const std::string& path);

/// Descriptors go with a message in numbers up to this.
constexpr size_t kFilesInMessage = 250;

constexpr const char* kDone = "done"; ///< an answer

/// Both return 0 or an errno. An empty text is the end. EMFILE: there was no room for all the descriptors.
int sendMessage(int socket, const std::string& text, const std::vector<int>& files);
int receiveMessage(int socket, std::string& text, std::vector<UniqueFd>& files);
