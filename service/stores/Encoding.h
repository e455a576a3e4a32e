#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Bytes as text. Each way back answers nothing for a text that the way there does not make.

/// Two lower-case hexadecimal digits a byte.
std::string hexText(std::string_view bytes);
std::optional<std::string> hexBytes(std::string_view text);

/// Sixteen lower-case hexadecimal digits.
std::string hexText(std::uint64_t number);
std::optional<std::uint64_t> hexNumber(std::string_view text);

/// Names of any bytes as ASCII text, the way URLs do it: letters, digits and "-._~/" stand for themselves,
/// every other byte is "%" and two capital hexadecimal digits.
std::string percentText(std::string_view bytes);
std::optional<std::string> percentBytes(std::string_view text);
