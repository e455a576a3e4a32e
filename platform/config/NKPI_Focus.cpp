#include "platform/config/NKPI_Focus.h"

#include "platform/config/ConfigFile.h"

#include <climits>
#include <string>
#include <unistd.h>

namespace {

std::string focusValue(const char* key, const char* otherwise) {
    const ConfigFile config = ConfigFile::read();
    const std::string* value = config.value("Focus", key);
    return value ? *value : otherwise;
}

} // namespace

const char* NKPI_Focus::getFocus() {
    static thread_local std::string instance;
    instance = focusValue("instance", "Instance001");
    return instance.c_str();
}

const char* NKPI_Focus::getFocusClientName(bool orHostName) {
    char host[HOST_NAME_MAX + 1] = "";
    if (orHostName)
        ::gethostname(host, sizeof host);
    static thread_local std::string client;
    client = focusValue("clientName", host);
    return client.c_str();
}
