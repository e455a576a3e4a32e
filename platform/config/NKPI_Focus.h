#pragma once

/// Which client of the HSM service this process works for. The texts come from the configuration's section
/// "Focus" and live until the same thread's next call.
class NKPI_Focus {
public:
    /// The value of "instance"; "Instance001" if there is none.
    static const char* getFocus();
    /// The value of "clientName". If there is none: the host's name, or "" with `orHostName` false.
    static const char* getFocusClientName(bool orHostName);
};
