#include "platform/stub/StubText.h"

#include <climits>
#include <gtest/gtest.h>
#include <memory>

namespace {

const std::string kMeta = "versionGuid=0123";
/// What stubs that are on disks look like.
const std::string kText = "QZHSMSTUB 01 00000052 0000000000001388 00000010 feadb2d3 a9a886d0\n" + kMeta;

/// Decodes from memory that ends right behind the text, so that a stray read is one that a sanitizer sees.
bool decodes(const std::string& text, bool withMeta) {
    const std::unique_ptr<char[]> exact(new char[text.size() + 1]);
    exact[text.copy(exact.get(), text.size())] = '\0';
    char meta[99];
    int length = 77;
    const bool ok = qzhsm_stub2meta(exact.get(), &length, nullptr, withMeta ? meta : nullptr, 99, true);
    EXPECT_EQ(length, ok ? static_cast<int>(kText.size()) : 0);
    return ok;
}

} // namespace

TEST(StubText, ComesBackAsItWentIn) {
    std::string text;
    for (const auto& [meta, size] : {std::pair{std::string(65470, 'm'), LLONG_MAX}, {"", 0}, {kMeta, 5000}}) {
        const int length = qzhsm_meta2stub(meta.c_str(), size, nullptr, 0);
        text.assign(static_cast<size_t>(length), 'x');
        EXPECT_EQ(qzhsm_meta2stub(meta.c_str(), size, text.data(), length - 1), -1);
        EXPECT_EQ(text.find_first_not_of('x'), std::string::npos) << "nothing is written";
        EXPECT_EQ(qzhsm_meta2stub(meta.c_str(), size, text.data(), length), length);
        char back[65471];
        const int room = static_cast<int>(meta.size()) + 1;
        int lengthBack = 0;
        long long sizeBack = -1;
        EXPECT_TRUE(qzhsm_stub2meta(text.c_str(), &lengthBack, &sizeBack, back, room, false));
        EXPECT_EQ(back, meta);
        EXPECT_EQ(lengthBack, length);
        EXPECT_EQ(sizeBack, size);
        EXPECT_FALSE(qzhsm_stub2meta(text.c_str(), &lengthBack, nullptr, back, room - 1, false));
        EXPECT_EQ(lengthBack, room) << "what is needed";
    }
    EXPECT_EQ(text, kText);
    char start[4];
    EXPECT_TRUE(qzhsm_stub2meta(kText.c_str(), nullptr, nullptr, start, 4, false));
    EXPECT_STREQ(start, "ver") << "cut, as no length was asked for";
    EXPECT_EQ(qzhsm_meta2stub(std::string(65471, 'm').c_str(), 1, nullptr, 0), -1) << "too long";
    EXPECT_EQ(qzhsm_meta2stub(nullptr, 1, nullptr, 0), -1);
    EXPECT_EQ(qzhsm_meta2stub("m", -1, nullptr, 0), -1);
}

TEST(StubText, IsRefusedWhereverItIsCutOrChanged) {
    EXPECT_FALSE(qzhsm_stub2meta(nullptr, nullptr, nullptr, nullptr, 0, true));
    for (size_t at = 0; at < kText.size(); ++at) {
        EXPECT_FALSE(decodes(kText.substr(0, at), true)) << at;
        EXPECT_EQ(decodes(kText.substr(0, at), false), at >= kStubTextPrefix) << at;
        for (int byte = 1; byte < 256; ++byte) {
            std::string changed = kText;
            changed[at] = static_cast<char>(changed[at] ^ byte);
            EXPECT_FALSE(decodes(changed, true)) << at << " " << byte;
            EXPECT_EQ(decodes(changed, false), at >= kStubTextPrefix) << at << " " << byte;
        }
    }
    for (const char* claim :
         {"QZHSMSTUB 01 00010001 0000000000000001 0000ffbf 309e4d5d 00000000\n", // too long
          "QZHSMSTUB 01 00000052 0000000000000001 0000000f 69efd849 00000000\n",
          "QZHSMSTUB 01 00000052 0000000000000001 00000011 fc9ab24f 00000000\n",
          "QZHSMSTUB 01 00000052 8000000000000000 00000010 8845cc90 00000000\n"})
        EXPECT_FALSE(decodes(claim, false)) << claim << "cannot be, although its CRC is right";
}

TEST(StubText, GivesTheVersionGuidOfItsMetadata) {
    for (const auto& [text, guid] : {std::pair{"a=1;versionGuid=x=y;b=", "x=y"},
                                     {"versionGuid=;", ""},
                                     {"a=1", "none"},
                                     {"", "none"},
                                     {"versionGuid=1;stray", "none"},
                                     {"versionGuid=1;;", "none"}}) {
        ReparseData data;
        data.versionGuid = "none";
        EXPECT_EQ(ParseStubReparseData(text, data), std::string_view(guid) != "none") << text;
        EXPECT_EQ(data.versionGuid, guid) << text;
    }
}
