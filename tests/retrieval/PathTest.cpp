// Joining and normalising the paths that line programs name.
#include "lines/FileTable.h"

#include <gtest/gtest.h>

using namespace quillet;

namespace {

struct PathCase {
    const char *directory;
    const char *name;
    const char *expected;
};

TEST(Paths, DirectoryAndNameJoinAndNormalise) {
    const PathCase cases[] = {
        {"/home/u/src", "a.s", "/home/u/src/a.s"},
        {"/home/u/src/", "a.s", "/home/u/src/a.s"},
        {"c:\\work\\.\\src", "x.s", "c:\\work\\src\\x.s"},
        {"c:\\work\\src\\..\\inc", "y.s", "c:\\work\\inc\\y.s"},
        {"c:\\work\\", "y.s", "c:\\work\\y.s"},
        {"/a/b", "../c/./d.s", "/a/c/d.s"},
        {"/a/b/./../..", "e.s", "/e.s"},
        {"/a", "/abs/f.s", "/abs/f.s"},        // an absolute name stands alone
        {"c:\\x", "d:\\y\\g.s", "d:\\y\\g.s"}, // so does one with a drive
        {"c:\\x", "\\y\\g.s", "\\y\\g.s"},
        {"/mixed\\seps/", "sub\\..\\h.s", "/mixed\\seps\\h.s"},
        {"..", "i.s", "..\\i.s"},   // nothing before the parent step to fold
        {"/", "../j.s", "/../j.s"}, // the root is never folded away
        {"", "k.s", "k.s"},
        {"c:", "..\\l.s", "c:\\..\\l.s"},
        {"/a", "b..c/m.s", "/a/b..c/m.s"}, // dots inside a name are not a step
    };
    for (const PathCase &c : cases) {
        SCOPED_TRACE(std::string(c.directory) + " + " + c.name);
        EXPECT_EQ(NormalisePath(JoinPath(c.directory, c.name)), c.expected);
    }
}

TEST(Paths, Utf8AndUtf16Convert) {
    EXPECT_EQ(Utf8ToUtf16("a\xc3\xa9\xe2\x82\xac"), u"a\u00e9\u20ac");
    EXPECT_EQ(Utf8ToUtf16("\xf0\x9f\x98\x80"), u"\U0001F600");
    EXPECT_EQ(Utf8ToUtf16("x\xff\xc3"), u"x\ufffd\ufffd"); // malformed bytes do not stop it
    EXPECT_EQ(Utf16ToUtf8(u"a\u00e9\u20ac"), "a\xc3\xa9\xe2\x82\xac");
}

} // namespace
