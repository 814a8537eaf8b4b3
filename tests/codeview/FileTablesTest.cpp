// The path under which a source file is read, and named in the string table.
#include "codeview/FileTables.h"

#include <gtest/gtest.h>

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

} // namespace
