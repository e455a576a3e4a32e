#include "service/serve/ServeRules.h"

#include "platform/config/NkRegKey.h"
#include "service/Failure.h"

#include <charconv>
#include <sstream>

namespace {

constexpr int kMostWorkers = 64;

[[noreturn]] void wrong(const char* key, const std::string& text) {
    throw Failure(QZHSM_FAILURE, ConfigFile::path() + ": [Service] " + key + " makes no sense: " + text);
}

/// "200M": K, M, G and T are powers of 1024.
std::uint64_t sizeOf(const char* key, const std::string& text) {
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    const size_t unit = rest == end ? 0 : std::string("KMGT").find(*rest) + 1;
    if (error != std::errc() || (rest != end && (unit == 0 || rest + 1 != end)))
        wrong(key, text);
    constexpr unsigned kBits = 10;
    if (number > UINT64_MAX >> kBits * unit)
        wrong(key, text);
    return number << kBits * unit;
}

std::set<std::string> wordsOf(const std::string& text) {
    std::istringstream words(text);
    std::set<std::string> all;
    for (std::string word; words >> word;) {
        constexpr size_t kLongest = 15; // the kernel cuts programs' names there
        all.insert(word.front() == '/' ? word : word.substr(0, kLongest));
    }
    return all;
}

/// Programs have threads of other names read for them.
bool isOneOf(const std::set<std::string>& names, const CallerProgram& program) {
    return names.contains(program.name) || names.contains(program.thread);
}

} // namespace

ServeRules ServeRules::read() {
    ServeRules rules;
    NkRegKey key(false);
    const int err = key.open("Service", false);
    if (err > 0)
        throw systemFailure("Failed to read the configuration ", ConfigFile::path(), err);
    if (err < 0)
        return rules;
    const auto with = [&](const char* name, auto use) {
        if (const char* text = key.getValue(name))
            use(name, std::string(text));
    };
    with("recall", [&](const char* name, const std::string& text) {
        if (text != "open" && text != "range")
            wrong(name, text);
        rules.byRange = text == "range";
    });
    with("rangePrograms", [&](const char*, const std::string& text) { rules.rangePrograms = wordsOf(text); });
    with("rangeFrom",
         [&](const char* name, const std::string& text) { rules.rangeFrom = sizeOf(name, text); });
    with("refusePrograms",
         [&](const char*, const std::string& text) { rules.refusePrograms = wordsOf(text); });
    with("bandwidth",
         [&](const char* name, const std::string& text) { rules.bandwidth = sizeOf(name, text); });
    with("workers", [&](const char* name, const std::string& text) {
        const std::uint64_t count = sizeOf(name, text);
        if (count < 1 || count > kMostWorkers)
            wrong(name, text);
        rules.workers = static_cast<int>(count);
    });
    with("runtimeDirectory", [&](const char* name, const std::string& text) {
        if (!text.starts_with('/'))
            wrong(name, text);
        rules.runtimeDirectory = text;
    });
    return rules;
}

std::string ServeRules::readRuntimeDirectory() {
    NkRegKey key(false);
    const char* const text = key.open("Service", false) == 0 ? key.getValue("runtimeDirectory") : nullptr;
    return text ? text : ServeRules().runtimeDirectory;
}

bool ServeRules::isRefused(const CallerProgram& program, const std::string& controlGroup) const {
    return isOneOf(refusePrograms, program) ||
           (!controlGroup.empty() && refusePrograms.contains(controlGroup));
}

bool ServeRules::isByRange(const CallerProgram& program, std::uint64_t size) const {
    return size >= rangeFrom && (byRange || isOneOf(rangePrograms, program));
}
