#include "platform/stub/StubText.h"

#include <gtest/gtest.h>
#include <memory>
#include <vector>

namespace {

std::string encode(const std::string& meta, long long size) {
    std::string text(static_cast<size_t>(qzhsm_meta2stub(meta.c_str(), size, nullptr, 0)), '\0');
    EXPECT_EQ(qzhsm_meta2stub(meta.c_str(), size, text.data(), static_cast<int>(text.size())),
              static_cast<int>(text.size()));
    return text;
}

/// Decodes from memory that ends right behind the text, so that a stray read is one that a sanitizer sees.
bool decodes(const std::string& text, bool withMeta) {
    const std::unique_ptr<char[]> exact(new char[text.size() + 1]);
    text.copy(exact.get(), text.size());
    exact[text.size()] = '\0';
    int length = 77;
    long long size = 0;
    std::vector<char> meta(65536);
    const bool ok =
        qzhsm_stub2meta(exact.get(), &length, &size, withMeta ? meta.data() : nullptr, 65536, true);
    EXPECT_EQ(length, ok ? static_cast<int>(text.size()) : 0);
    return ok;
}

} // namespace

TEST(StubText, ComesBackAsItWentIn) {
    for (const size_t length : {0U, 1U, 255U, 256U, 4030U, 65470U}) {
        const std::string meta(length, 'm');
        for (const long long size : {0LL, 1LL, 0x123456789abcdefLL, 0x7fffffffffffffffLL}) {
            const std::string text = encode(meta, size);
            EXPECT_EQ(text.find('\0'), std::string::npos);
            std::vector<char> back(length + 1, 'x');
            int textLength = 0;
            long long sizeBack = -1;
            ASSERT_TRUE(qzhsm_stub2meta(text.c_str(), &textLength, &sizeBack, back.data(),
                                        static_cast<int>(back.size()), false));
            EXPECT_EQ(textLength, static_cast<int>(text.size()));
            EXPECT_EQ(sizeBack, size);
            EXPECT_EQ(back.data(), meta);
        }
    }
}

TEST(StubText, IsRefusedWhereverItIsCutOrChanged) {
    const std::string text = encode("versionGuid=0123", 5000);
    const size_t prefix = text.size() - 16;
    ASSERT_TRUE(decodes(text, true));
    for (size_t cut = 0; cut < text.size(); ++cut) {
        EXPECT_FALSE(decodes(text.substr(0, cut), true)) << cut;
        EXPECT_TRUE(cut >= prefix || !decodes(text.substr(0, cut), false)) << cut;
    }
    for (size_t at = 0; at < text.size(); ++at) {
        for (int byte = 0; byte < 256; ++byte) {
            std::string changed = text;
            changed[at] = static_cast<char>(byte);
            if (changed == text)
                continue;
            EXPECT_FALSE(decodes(changed, true)) << at << " " << byte;
            EXPECT_TRUE(at >= prefix || !decodes(changed, false)) << at << " " << byte;
        }
    }
    EXPECT_FALSE(qzhsm_stub2meta(nullptr, nullptr, nullptr, nullptr, 0, true));
}

TEST(StubText, SmallBuffers) {
    const std::string text = encode("0123456789", 1);
    int needed = 0;
    char meta[11];
    EXPECT_FALSE(qzhsm_stub2meta(text.c_str(), &needed, nullptr, meta, 10, false));
    EXPECT_EQ(needed, 11) << "with the NUL";
    EXPECT_TRUE(qzhsm_stub2meta(text.c_str(), nullptr, nullptr, meta, 4, false));
    EXPECT_STREQ(meta, "012") << "cut, as no length was asked for";
    EXPECT_TRUE(qzhsm_stub2meta(text.c_str(), &needed, nullptr, meta, 11, false));

    std::string out(text.size(), 'x');
    EXPECT_EQ(qzhsm_meta2stub("0123456789", 1, out.data(), static_cast<int>(out.size()) - 1), -1);
    EXPECT_EQ(out, std::string(text.size(), 'x')) << "nothing is written";
    EXPECT_EQ(qzhsm_meta2stub(std::string(65471, 'm').c_str(), 1, nullptr, 0), -1)
        << "more than an attribute holds";
    EXPECT_EQ(qzhsm_meta2stub(nullptr, 1, nullptr, 0), -1);
    EXPECT_EQ(qzhsm_meta2stub("m", -1, nullptr, 0), -1);
}

TEST(MetadataText, GivesTheVersionGuid) {
    struct Row {
        const char* text;
        const char* guid; ///< null: refused
    };
    const Row rows[] = {{"versionGuid=ab", "ab"},
                        {"a=1;versionGuid=x=y;b=", "x=y"},
                        {"versionGuid=;", ""},
                        {"a=1", nullptr},
                        {"", nullptr},
                        {"versionGuid=1;stray", nullptr},
                        {"versionGuid=1;;", nullptr}};
    for (const Row& row : rows) {
        ReparseData data;
        data.versionGuid = "before";
        EXPECT_EQ(ParseStubReparseData(row.text, data), row.guid != nullptr) << row.text;
        EXPECT_EQ(data.versionGuid, row.guid ? row.guid : "before") << row.text;
    }
}
