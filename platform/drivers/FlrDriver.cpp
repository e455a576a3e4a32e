#include "platform/drivers/FlrDriver.h"

FlrDriver::~FlrDriver() = default;

bool FlrDriver::statFS(unsigned long long) {
    return false;
}

fsf_fid FlrDriver::getFID(const char*, bool) {
    return {};
}

void FlrDriver::injectSTUB(unsigned long long, const fsf_fid&, const char*) {}

void FlrDriver::injectUNSTUB(unsigned long long, const fsf_fid&) {}

void FlrDriver::injectTWRITE(unsigned long long, const fsf_fid&, unsigned long long, const void*, int) {}

std::function<std::unique_ptr<FlrDriver>()> g_flrDriverFactory = [] { return std::make_unique<FlrDriver>(); };
