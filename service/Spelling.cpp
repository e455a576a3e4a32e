#include "service/Spelling.h"

#include <algorithm>

namespace {

/// How many letters were left out, put in, exchanged for others, or swapped with their neighbours.
size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::vector<size_t>> table(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i)
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                table[i][j] = i + j;
                continue;
            }
            const size_t exchanged = table[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            table[i][j] = std::min({table[i - 1][j] + 1, table[i][j - 1] + 1, exchanged});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                table[i][j] = std::min(table[i][j], table[i - 2][j - 2] + 1);
        }
    return table[a.size()][b.size()];
}

} // namespace

std::string suggestion(std::string_view typed, const std::vector<std::string>& words) {
    constexpr size_t kLongest = 64; // nobody mistypes more
    const std::string* nearest = nullptr;
    size_t slips = typed.size() > kLongest ? 0 : std::max<size_t>(typed.size() / 3, 1) + 1;
    for (const std::string& word : words)
        if (const size_t found = slips == 0 ? 0 : distance(typed, word); found < slips) {
            nearest = &word;
            slips = found;
        }
    return nearest ? "; did you mean \"" + *nearest + "\"?" : "";
}
