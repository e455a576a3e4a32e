#include "platform/files/utf_files.h"

#include "tests/support/TestFs.h"

TEST(UtfFiles, PathsAreConvertedIfTheyCanBe) {
    EXPECT_STREQ(LocalPath("/\xc3\xbc").c_str(), "/\xc3\xbc") << "the C locale knows ASCII alone";
    const Latin1Locale locale; // which has no euro sign
    for (const auto& [path, local] :
         {std::pair{"/\xc3\xbc", "/\xfc"}, {"/\xe2\x82\xac", "/\xe2\x82\xac"}, {"/\xff", "/\xff"}}) {
        std::string out = "old";
        utfToMbe(path, &out);
        EXPECT_EQ(out, local);
    }
}
