#include "service/stores/DirectoryMarker.h"

#include "platform/files/FdPath.h"
#include "service/Failure.h"
#include "service/stores/StoreFiles.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* kMarker = "qzhsm-store.json";
constexpr const char* kNewMarker = "qzhsm-store.json.new";
constexpr int kMarkerFormat = 1;
constexpr size_t kMarkerMax = 4096;

/// Takes what a run that was cut short has made out of the way. False for anything else.
bool isOutOfTheWay(int directory, const std::string& file) {
    if (file == "lost+found")
        return true;
    if (file == kNewMarker)
        return ::unlinkat(directory, file.c_str(), 0) == 0;
    const auto& parts = storeParts();
    const bool isOurs =
        file == kTemporaryDirectory || std::find(parts.begin(), parts.end(), file) != parts.end();
    return isOurs && ::unlinkat(directory, file.c_str(), AT_REMOVEDIR) == 0;
}

void writeMarker(int root, const std::string& directory) {
    const nlohmann::ordered_json marker{{"format", kMarkerFormat}, {"uuid", ObjectId::generate().text()}};
    const std::string text = marker.dump() + '\n';
    NewFile file(root, kNewMarker, directory + '/' + kNewMarker);
    file.write(0, text.data(), text.size());
    file.flush();
    file.close();
    if (::renameat(root, kNewMarker, root, kMarker) < 0)
        throw systemFailure("Failed to rename ", directory + '/' + kNewMarker, errno);
}

} // namespace

/// Anybody may put a file of that name into a directory that all may write.
bool isStore(int directory) {
    struct stat marker {};
    struct stat st {};
    return ::fstatat(directory, kMarker, &marker, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(marker.st_mode) &&
           ::fstat(directory, &st) == 0 && (marker.st_uid == 0 || marker.st_uid == st.st_uid);
}

std::string storeAround(int fd) {
    for (std::filesystem::path path = pathOfStore(fd); path.has_relative_path(); path = path.parent_path())
        if (const UniqueFd directory(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
            directory.isOpen() && isStore(directory.get()))
            return path;
    return {};
}

void makeStore(const std::string& directory) {
    if (::mkdir(directory.c_str(), 0700) < 0 && errno != EEXIST)
        throw systemFailure("Failed to create ", directory, errno);
    const UniqueFd root(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root.isOpen())
        throw systemFailure("Failed to open ", directory, errno);
    if (isStore(root.get()))
        throw Failure(QZHSM_FAILURE, directory + " is a store already");
    struct stat st {};
    if (::fstat(root.get(), &st) < 0)
        throw systemFailure("Failed to stat ", directory, errno);
    if (st.st_uid != ::geteuid())
        throw Failure(QZHSM_FAILURE, "Failed to make a store of " + directory + ": it belongs to user " +
                                         std::to_string(st.st_uid) + ", who could take away what is in it");
    std::vector<std::string> files;
    forEachName(root.get(), directory, [&](const char* file) { files.emplace_back(file); });
    for (const std::string& file : files)
        if (!isOutOfTheWay(root.get(), file))
            throw Failure(QZHSM_FAILURE,
                          "Failed to make a store of " + directory + ": there is something in it");
    if (::fchmod(root.get(), 0700) < 0)
        throw systemFailure("Failed to set the mode of ", directory, errno);
    const auto makeBelow = [&](const std::string& part) {
        if (::mkdirat(root.get(), part.c_str(), 0700) < 0)
            throw systemFailure("Failed to create directory " + part + " in ", directory, errno);
    };
    for (const std::string& part : storeParts())
        makeBelow(part);
    makeBelow(kTemporaryDirectory);
    writeMarker(root.get(), directory);
    // All of it, with the directory's own name.
    if (::syncfs(root.get()) < 0)
        throw systemFailure("Failed to flush ", directory, errno);
}

std::string readMarker(int directory, const std::string& name) {
    const std::optional<std::string> text = readText(directory, kMarker, name + '/' + kMarker, kMarkerMax);
    if (!text)
        throw Failure(QZHSM_FAILURE, name + " is not a store",
                      "If a disk belongs there, is it mounted? 'qzhsm store create' makes a new store.");
    const auto marker = nlohmann::json::parse(*text, nullptr, false);
    if (!marker.is_object() || marker.value("format", nlohmann::json()) != kMarkerFormat)
        throw Failure(QZHSM_FAILURE, name + " is a store of a format that is not known");
    const auto uuid = marker.value("uuid", nlohmann::json());
    const auto id = uuid.is_string() ? ObjectId::parse(uuid.get_ref<const std::string&>()) : std::nullopt;
    if (!id)
        throw Failure(QZHSM_FAILURE, name + '/' + kMarker + " holds no UUID");
    return std::string(id->text());
}

UniqueFd lockMarker(int directory, const std::string& name) {
    UniqueFd lock(
        ::openat(directory, kMarker, O_RDWR | O_NOFOLLOW | O_CLOEXEC)); // NFS locks what can be written
    if (!lock.isOpen() || ::flock(lock.get(), LOCK_EX) < 0)
        throw systemFailure("Failed to lock store ", name, errno);
    return lock;
}

const std::vector<std::string>& storeParts() {
    static const std::vector<std::string> parts = [] {
        constexpr std::string_view digits = "0123456789abcdef";
        std::vector<std::string> all;
        for (const char first : digits)
            for (const char second : digits)
                all.push_back({first, second});
        return all;
    }();
    return parts;
}

std::string pathOfStore(int directory) {
    std::string path = pathBehind(directory);
    if (path.empty())
        throw systemFailure("Failed to find out the path of ", "the store", errno);
    return path;
}
