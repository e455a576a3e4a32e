#pragma once

/// The filter driver's administrative device.
constexpr const char* kDriverDevice = "/dev/nkfsdm";

class QZHSMServiceHelper {
public:
    /// Whether the filter driver is loaded: its device is a character device.
    static bool IsFSFDriverLoaded();
};
