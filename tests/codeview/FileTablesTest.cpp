// String-table paths and checksum records.
#include "codeview/FileTables.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(FileTables, SourcePathIsThePathTheFileIsReadFrom) {
    const struct {
        const char16_t *directory;
        const char16_t *name;
        const char16_t *path;
    } cases[] = {
        {u"/home/u/src", u"a.asm", u"/home/u/src/a.asm"},
        {u"/home/u/src", u"sub/src/a.asm", u"/home/u/src/sub/src/a.asm"},
        {u"/home/u/src", u"sub\\dir\\a.asm", u"/home/u/src/sub\\dir\\a.asm"},
        {u"/home/u/src", u"/abs/x/a.asm", u"/abs/x/a.asm"},
        {u"/home/u/src", u"\\abs\\a.asm", u"\\abs\\a.asm"},
        {u"/home/u/src", u"c:\\x\\a.asm", u"c:\\x\\a.asm"},
        {u"/", u"a.asm", u"/a.asm"},
        {u"/home/u/", u"../a.asm", u"/home/u/../a.asm"},
        {u"C:\\work", u"x\\a.asm", u"C:\\work\\x\\a.asm"},
        {u"C:\\work\\", u"a.asm", u"C:\\work\\a.asm"},
        {u"/home/\U0001F600", u"\u00E9.asm", u"/home/\U0001F600/\u00E9.asm"},
    };
    for (const auto &c : cases)
        EXPECT_TRUE(quillet::ComposeSourcePath(c.directory, c.name) == c.path)
            << "case " << (&c - cases);
}

TEST(FileTables, ChecksumRecordIsOffsetSizeKindDigestFill) {
    quillet::Md5Digest digest;
    for (int i = 0; i < 16; ++i)
        digest[i] = uint8_t(0xA0 + i);
    const auto record = quillet::EncodeChecksumRecord(0x01020304, digest);
    const std::vector<uint8_t> expected = {0x04, 0x03, 0x02, 0x01, 16,   1,    0xA0, 0xA1,
                                           0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9,
                                           0xAA, 0xAB, 0xAC, 0xAD, 0xAE, 0xAF, 0x00, 0x00};
    EXPECT_EQ(std::vector<uint8_t>(record.begin(), record.end()), expected);
}

} // namespace
