#pragma once

#include <compare>
#include <optional>
#include <string>
#include <string_view>

/// An object's name: a UUID. As text it is 36 characters, lower-case hexadecimal digits and "-", so that it
/// may stand in a path or a command line. There is no other way to make one than these.
class ObjectId {
public:
    /// Names no object.
    ObjectId() = default;

    static ObjectId generate();
    /// Nothing for a text that is no UUID in its usual form; capital digits are read too.
    static std::optional<ObjectId> parse(std::string_view text);

    std::string_view text() const { return {m_text, kLength}; }
    /// The 32 digits alone.
    std::string digits() const;

    auto operator<=>(const ObjectId& other) const { return text() <=> other.text(); }
    bool operator==(const ObjectId& other) const { return text() == other.text(); }

private:
    static constexpr size_t kLength = 36;
    char m_text[kLength + 1] = "00000000-0000-0000-0000-000000000000";
};
