#include "tools/qzhsmd/Serving.h"

#include <iostream>
#include <unistd.h>

void tell(const std::string& text) {
    std::cerr << "qzhsmd: " << text << std::endl;
}

void removeSockets(const Serving& serving) {
    for (const std::string& socket : serving.sockets)
        ::unlink(socket.c_str());
}
