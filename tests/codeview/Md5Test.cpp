// The digest must agree with RFC 1321's test suite and with another implementation at the
// padding boundaries.
#include "codeview/Md5.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

std::string Hex(const quillet::Md5Digest &digest) {
    std::string text;
    char pair[3];
    for (uint8_t byte : digest) {
        std::snprintf(pair, sizeof pair, "%02x", byte);
        text += pair;
    }
    return text;
}

std::string Pattern(size_t n) {
    std::string bytes(n, '\0');
    for (size_t i = 0; i < n; ++i)
        bytes[i] = char(i * 7 + 3);
    return bytes;
}

TEST(Md5, MatchesKnownDigests) {
    const struct {
        std::string message;
        const char *digest;
    } cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"1234567890123456789012345678901234567890123456789012345678901234567890123456789"
         "0",
         "57edf4a22be3c955ac49da2e2107b67a"},
        // 55 bytes still fit the length in the last block, 56 need one more; 64 ends exactly on
        // a block boundary.
        {Pattern(55), "52c0e574e1198de5fe3f8f11440dcb1b"},
        {Pattern(56), "46c9907fc908ee68b1e7b8e71286a518"},
        {Pattern(64), "7160b8fb5e9e4023d549c3971fbaeead"},
        {Pattern(1000), "10046f077f2082ac19676b8079f1cb1a"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(Hex(quillet::CMd5::Of(c.message.data(), c.message.size())), c.digest)
            << c.message.size() << " bytes";
}

} // namespace
