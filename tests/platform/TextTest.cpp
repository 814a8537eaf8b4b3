// Text conversions between UTF-16 and UTF-8 and the working directory: characters outside the
// Basic Multilingual Plane travel as one 4-byte sequence, and no path length is too long.
#include "platform/Text.h"

#include "support/Support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace {

struct TextCase {
    const char *what;
    std::u16string wide;
    std::string utf8;
};

// Both directions give each other.
const TextCase kRoundTrips[] = {
    {"ASCII", u"A/b.s", "A/b.s"},
    {"two bytes", u"\u00E9", "\xC3\xA9"},
    {"three bytes", u"\u20AC", "\xE2\x82\xAC"},
    {"first supplementary character", u"\U00010000", "\xF0\x90\x80\x80"},
    {"a surrogate pair between BMP characters", u"a\U0001F600b",
     "a\xF0\x9F\x98\x80"
     "b"},
    {"last character", u"\U0010FFFF", "\xF4\x8F\xBF\xBF"},
};

TEST(Text, ConvertsEveryPlaneBothWays) {
    for (const TextCase &c : kRoundTrips) {
        EXPECT_EQ(quillet::ToUtf8(c.wide), c.utf8) << c.what;
        EXPECT_TRUE(quillet::FromUtf8(c.utf8) == c.wide) << c.what;
    }
}

TEST(Text, LoneSurrogateHalvesKeepThreeBytesEach) {
    const TextCase cases[] = {
        {"high half alone", std::u16string(1, char16_t(0xD83D)), "\xED\xA0\xBD"},
        {"low half alone", std::u16string(1, char16_t(0xDE00)), "\xED\xB8\x80"},
        {"high half before a BMP character", std::u16string{char16_t(0xD83D), u'x'},
         "\xED\xA0\xBDx"},
        {"low half before a high half", std::u16string{char16_t(0xDE00), char16_t(0xD83D)},
         "\xED\xB8\x80\xED\xA0\xBD"},
    };
    for (const TextCase &c : cases)
        EXPECT_EQ(quillet::ToUtf8(c.wide), c.utf8) << c.what;
}

TEST(Text, CutUtf8KeepsWholeCharacters) {
    const struct {
        std::string text;
        size_t limit;
        std::string kept;
    } cases[] = {
        {"abc", 2, "ab"},          {"a\xC3\xA9", 2, "a"},
        {"a\xE2\x82\xAC", 3, "a"}, {"a\xF0\x9F\x98\x80", 5, "a\xF0\x9F\x98\x80"},
        {"\xC3\xA9", 0, ""},
    };
    for (const auto &c : cases) {
        std::string text = c.text;
        quillet::CutUtf8(text, c.limit);
        EXPECT_EQ(text, c.kept) << c.text << " to " << c.limit;
    }
}

// Runs in a directory of its own and goes back to where it was, whatever the test does.
class WorkingDirectory : public ::testing::Test {
protected:
    void SetUp() override {
        char buffer[4096];
        ASSERT_NE(getcwd(buffer, sizeof buffer), nullptr);
        m_Previous = buffer;
    }
    void TearDown() override { EXPECT_EQ(chdir(m_Previous.c_str()), 0); }

    qtest::TempDir m_Dir;
    std::string m_Previous;
};

TEST_F(WorkingDirectory, NameOutsideTheBasicPlaneComesBackAsOneCharacter) {
    const std::string name = m_Dir.File("dir\xF0\x9F\x98\x80");
    ASSERT_EQ(mkdir(name.c_str(), 0700), 0);
    ASSERT_EQ(chdir(name.c_str()), 0);
    const std::u16string expected = quillet::FromUtf8(m_Dir.Path()) + u"/dir\U0001F600";
    EXPECT_TRUE(quillet::WorkingDirectory() == expected);
    EXPECT_EQ(quillet::ToUtf8(quillet::WorkingDirectory()), name);
}

TEST_F(WorkingDirectory, HasNoLengthLimit) {
    ASSERT_EQ(chdir(m_Dir.Path().c_str()), 0);
    std::string expected = m_Dir.Path();
    const std::string component(200, 'd');
    while (expected.size() < 9000) {
        ASSERT_EQ(mkdir(component.c_str(), 0700), 0);
        ASSERT_EQ(chdir(component.c_str()), 0);
        expected += "/" + component;
    }
    EXPECT_EQ(quillet::ToUtf8(quillet::WorkingDirectory()), expected);
}

} // namespace
