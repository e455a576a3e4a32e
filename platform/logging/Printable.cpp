#include "platform/logging/Printable.h"

#include <cstddef>

namespace {

/// The character that a text begins with. A length of 0 stands for a byte that begins none.
struct Character {
    char32_t code;
    size_t length;
};

Character firstOf(std::string_view text) {
    const auto at = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = at(0);
    if (lead < 0x80)
        return {lead, 1};
    const size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < length)
        return {0, 0};
    char32_t code = lead & (0x7fU >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((at(i) & 0xc0U) != 0x80)
            return {0, 0};
        code = code << 6U | (at(i) & 0x3fU);
    }
    const bool isOverlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    const bool isNone = code > 0x10ffff || (code >= 0xd800 && code < 0xe000);
    return isOverlong || isNone ? Character{0, 0} : Character{code, length};
}

} // namespace

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const Character first = firstOf(text);
        if (first.length == 0)
            return false;
        text.remove_prefix(first.length);
    }
    return true;
}

std::string printable(std::string_view text, bool forTerminal) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const Character first = firstOf(text);
        const size_t length = first.length == 0 ? 1 : first.length;
        const bool isControl = first.length == 1 && (first.code < ' ' || first.code == 0x7f);
        const bool isStrange = first.length == 0 || (first.code >= 0x80 && first.code < 0xa0);
        if (isControl || (forTerminal && isStrange))
            out += '?';
        else
            out.append(text.substr(0, length));
        text.remove_prefix(length);
    }
    return out;
}
