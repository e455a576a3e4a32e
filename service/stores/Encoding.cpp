#include "service/stores/Encoding.h"

#include <array>

namespace {

constexpr std::string_view kLower = "0123456789abcdef";
constexpr std::string_view kUpper = "0123456789ABCDEF";

void appendByte(std::string& text, char byte, std::string_view digits) {
    const auto value = static_cast<unsigned char>(byte);
    text += digits[value / digits.size()];
    text += digits[value % digits.size()];
}

std::optional<char> byteOf(std::string_view text, std::string_view digits) {
    const size_t high = digits.find(text[0]);
    const size_t low = digits.find(text[1]);
    if (high == std::string_view::npos || low == std::string_view::npos)
        return std::nullopt;
    return static_cast<char>(high * digits.size() + low);
}

bool standsForItself(char byte) {
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
           std::string_view("-._~/").find(byte) != std::string_view::npos;
}

} // namespace

std::string hexText(std::string_view bytes) {
    std::string text;
    text.reserve(2 * bytes.size());
    for (const char byte : bytes)
        appendByte(text, byte, kLower);
    return text;
}

std::optional<std::string> hexBytes(std::string_view text) {
    if (text.size() % 2 != 0)
        return std::nullopt;
    std::string bytes;
    bytes.reserve(text.size() / 2);
    for (; !text.empty(); text.remove_prefix(2)) {
        const std::optional<char> byte = byteOf(text, kLower);
        if (!byte)
            return std::nullopt;
        bytes += *byte;
    }
    return bytes;
}

std::string hexText(std::uint64_t number) {
    std::array<char, 2 * sizeof number> digits{};
    for (auto digit = digits.rbegin(); digit != digits.rend(); ++digit, number /= kLower.size())
        *digit = kLower[number % kLower.size()];
    return {digits.data(), digits.size()};
}

std::optional<std::uint64_t> hexNumber(std::string_view text) {
    std::uint64_t number = 0;
    if (text.size() != 2 * sizeof number)
        return std::nullopt;
    for (const char digit : text) {
        const size_t value = kLower.find(digit);
        if (value == std::string_view::npos)
            return std::nullopt;
        number = number * kLower.size() + value;
    }
    return number;
}

std::string percentText(std::string_view bytes) {
    std::string text;
    text.reserve(bytes.size());
    for (const char byte : bytes) {
        if (standsForItself(byte)) {
            text += byte;
        } else {
            text += '%';
            appendByte(text, byte, kUpper);
        }
    }
    return text;
}

std::optional<std::string> percentBytes(std::string_view text) {
    std::string bytes;
    bytes.reserve(text.size());
    while (!text.empty()) {
        const bool escaped = text[0] == '%';
        const std::optional<char> byte = !escaped          ? text[0]
                                         : text.size() < 3 ? std::nullopt
                                                           : byteOf(text.substr(1, 2), kUpper);
        if (!byte || standsForItself(*byte) == escaped)
            return std::nullopt;
        bytes += *byte;
        text.remove_prefix(escaped ? 3 : 1);
    }
    return bytes;
}
