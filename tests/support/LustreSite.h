#pragma once

#include <cstdlib>
#include <string>

/// The command "lfs" of the stand-in comes before any other.
inline const bool lustrePathSet = [] {
    return ::setenv("PATH", (LUSTRE_COMMANDS + std::string(":") + std::getenv("PATH")).c_str(), 1) == 0;
}();

/// Sets an environment variable while it lives.
class TestEnvironment {
public:
    TestEnvironment(const char* name, const std::string& value) : m_name(name) {
        if (const char* before = std::getenv(name))
            m_before = before;
        ::setenv(name, value.c_str(), 1);
    }
    TestEnvironment(const TestEnvironment&) = delete;
    TestEnvironment& operator=(const TestEnvironment&) = delete;
    ~TestEnvironment() {
        if (m_before.empty())
            ::unsetenv(m_name);
        else
            ::setenv(m_name, m_before.c_str(), 1);
    }

private:
    const char* m_name;
    std::string m_before;
};
