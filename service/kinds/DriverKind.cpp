#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "service/kinds/Kinds.h"

#include <climits>
#include <filesystem>
#include <string_view>

namespace {

/// The kernel's filter driver keeps the stubs, and takes whatever looks into one for a wish to recall it.
class DriverKind : public StubKind {
public:
    explicit DriverKind(QZHSMLowLevelQZFS& backEnd) : StubKind(backEnd) {}

    void requirePath(const std::string& path) const override { requireFitting("Path", path); }

    bool watches() const override { return true; }

    void requireStores() const override {}

    std::string advice(const std::string& path, int) override {
        return backEnd().isDMRFS(path.c_str()) == 0 ? "Its file system is not watched: see \"qzhsm watch\"."
                                                    : "";
    }

    void beforeStubbing(const std::string& path, const std::string& meta, const struct stat& st) override {
        requireFitting("Metadata", meta);
        requireName(path);
        StubKind::beforeStubbing(path, meta, st);
    }

    void beforeRestoring(const std::string& path, const StubFacts& saved, const struct stat* before,
                         bool force) override {
        requireFitting("Metadata", saved.meta);
        requireName(path);
        requireTarget(path, before, force);
    }

    /// To shorten a stub would be to recall it.
    bool shortensLast() const override { return true; }

private:
    /// The driver would get a longer text cut.
    static void requireFitting(const std::string& what, const std::string& text) {
        constexpr size_t kLongest = 2047;
        if (text.size() > kLongest)
            throw Failure(QZHSM_FAILURE, what + " of " + std::to_string(text.size()) +
                                             " bytes: the driver takes at most " + std::to_string(kLongest));
    }

    /// The file that a recall makes beside the stub has a longer name than the stub.
    static void requireName(const std::string& path) {
        constexpr size_t kLongest = NAME_MAX - std::string_view(".nktmp.0").size();
        const size_t length = std::filesystem::path(path).filename().native().size();
        if (length > kLongest)
            throw Failure(QZHSM_FAILURE, path + ": a name of " + std::to_string(length) +
                                             " bytes cannot be recalled; the longest that can has " +
                                             std::to_string(kLongest));
    }
};

} // namespace

std::unique_ptr<StubKind> makeKind(QZHSMLowLevelQZFS& backEnd) {
    return std::make_unique<DriverKind>(backEnd);
}
