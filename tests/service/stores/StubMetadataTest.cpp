#include "service/Failure.h"
#include "service/stores/DirectoryStore.h"
#include "service/stores/StoreConfig.h"
#include "tests/support/TestFs.h"

#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace {

std::string everyByte() {
    std::string bytes = "/";
    for (int byte = 1; byte < 256; ++byte)
        bytes += static_cast<char>(byte);
    return bytes;
}

StubMetadata metadataOf(const std::string& store, const std::string& uuid) {
    StubMetadata metadata;
    metadata.store = store;
    metadata.storeUuid = uuid;
    metadata.object = ObjectId::generate();
    metadata.xxh128 = std::string(32, 'a');
    return metadata;
}

void expectFailure(const StubMetadata& metadata, const std::string& text) {
    try {
        NamedStores().find(metadata);
        ADD_FAILURE() << metadata.store << ": no failure, " << text;
    } catch (const Failure& failure) {
        EXPECT_NE(std::string(failure.what()).find(text), std::string::npos) << failure.what();
    }
}

} // namespace

TEST(StubMetadata, CarriesNamesOfAnyBytesAndNothingElse) {
    const StubMetadata metadata = metadataOf(everyByte(), std::string(ObjectId::generate().text()));
    const std::string text = metadata.toText();
    EXPECT_EQ(StubMetadata::fromText(text)->store, metadata.store);
    EXPECT_EQ(StubMetadata::fromText(text + ";later=1")->toText(), text);
    for (size_t cut = 0; cut < text.size(); ++cut)
        EXPECT_FALSE(StubMetadata::fromText(text.substr(0, cut))) << cut;
    for (const auto& [from, to] : {std::pair<std::string, const char*>("object=", "object=0"),
                                   {"object=", "object=../"},
                                   {"Guid=", "Guid=z"},
                                   {"=aa", "=aA"},
                                   {"%01", "%1"},
                                   {";xxh", ";object=1;xxh"},
                                   {"Uuid=", "Uuid=0"}}) {
        std::string forged = text;
        EXPECT_FALSE(StubMetadata::fromText(forged.replace(forged.find(from), from.size(), to))) << forged;
    }

    ObjectRecord record;
    record.path = record.capability = everyByte();
    record.size = kPieceSize + 1;
    record.atime = -1;
    record.holes = {{0, 10}, {20, kPieceSize - 19}};
    record.checksums = {{1, UINT64_MAX}, std::string(32, '0')};
    EXPECT_EQ(ObjectRecord::fromText(record.toText()).path, record.path);
    EXPECT_EQ(ObjectRecord::fromText(record.toText()).toText(), record.toText());
    record.holes[1].length += 1;
    EXPECT_THROW(ObjectRecord::fromText(record.toText()), Failure);
}

TEST(FileIdentity, IsTheFilesOwn) {
    const TestFs ext4(FsKind::Ext4);
    const TestFs other(FsKind::Ext4);
    REQUIRE_FS(ext4);
    const auto of = [](const std::string& path) {
        return FileIdentity::of(UniqueFd(::open(path.c_str(), O_RDONLY | O_CREAT, 0600)).get(), path);
    };
    const FileIdentity first = of(ext4.path("first"));
    std::filesystem::rename(ext4.path("first"), ext4.path("renamed"));
    EXPECT_TRUE(first.matches(of(ext4.path("renamed"))));
    EXPECT_FALSE(first.matches(of(other.path("first")))) << "the same inode of another file system";
    std::filesystem::remove(ext4.path("renamed"));
    EXPECT_FALSE(first.matches(of(ext4.path("first")))) << "the same inode, used again";
    const FileIdentity nameless{1, "handle", std::string(16, '0'), ""};
    EXPECT_TRUE(nameless.matches(nameless)) << "as on NFS, whose handles are the server's";
    EXPECT_FALSE(nameless.isBeside(nameless)) << "nothing tells its file system";
}

TEST(NamedStores, AreNeverWhatAnotherUserMadeUp) {
    const TestFs disk(FsKind::Tmpfs, "mode=755");
    REQUIRE_FS(disk);
    std::filesystem::create_directory(disk.path("dir"));
    std::filesystem::create_symlink("dir", disk.path("link"));
    const std::string path = disk.path("dir/store");
    DirectoryStore::create(path);
    const TestConfig config("[Store/main]\ndirectory=" + path + "\n[Store/both]\ndirectory=/a\nput=b\n" +
                            "[Store/slow]\nput={object}\nget={object}\nremove={object}\ntimeout=1h\n");
    const std::string uuid = openStore("main")->uuid();
    const StubMetadata good = metadataOf(path, uuid);
    EXPECT_EQ(openStore(disk.path("link/../link/store"))->name(), path) << "stubs name the plain path";
    EXPECT_EQ(NamedStores().find(good).uuid(), uuid);
    expectFailure(metadataOf(path, std::string(ObjectId::generate().text())), "another one");
    expectFailure(metadataOf("main", ""), "another one");
    expectFailure(metadataOf("../main", uuid), "not absolute");
    expectFailure(metadataOf(disk.path("dir/../dir/store"), uuid), "plainest form");
    expectFailure(metadataOf(disk.path("link/store"), uuid), "Not a directory");
    expectFailure(metadataOf("none", uuid), "No store none is configured");
    expectFailure(metadataOf("both", ""), "must hold either");
    expectFailure(metadataOf("slow", ""), "no number of seconds");
    for (const char* part : {"dir", "dir/store"}) {
        ASSERT_EQ(::chown(disk.path(part).c_str(), 1000, 0), 0);
        expectFailure(good, "belongs to another user");
        EXPECT_EQ(NamedStores().find(metadataOf("main", uuid)).uuid(), uuid) << "the configuration's word";
        ASSERT_EQ(::chown(disk.path(part).c_str(), 0, 0), 0);
        ASSERT_EQ(::chmod(disk.path(part).c_str(), 0770), 0);
        expectFailure(good, "others may write");
        ASSERT_EQ(::chmod(disk.path(part).c_str(), 0700), 0);
    }
}
