#include <gtest/gtest.h>

#include <tuple>

#include "util/Hash.h"
#include "util/TWUtils.h"

namespace tarnwell {
namespace {

TEST(PathKeyTest, sameForEveryCaseAndUnicodeForm) {
    const std::tuple<std::string_view, std::string_view> same[] = {
        {"/Caf\u00e9", "/CAFE\u0301"},  // composed and decomposed
        {"/\u00c5ngstr\u00f6m", "/A\u030aNGSTRO\u0308M"},
        {"/\u212b", "/\u00e5"},                // the Angstrom sign is a letter
        {"/\u0416\u03a9", "/\u0436\u03c9"},    // Cyrillic, Greek
        {"/\uac00", "/\u1100\u1161"},          // Hangul
        {"/a\u0323\u0307", "/a\u0307\u0323"},  // the order of marks
    };
    for (const auto& [a, b] : same)
        EXPECT_EQ(keyFromPath(a), keyFromPath(b)) << a << " " << b;
    for (const auto& [a, b] :
         {std::tuple{"/a", "/b"}, {"/e\u0301", "/e"}, {"/a", "/a/"}, {"/\xff", "/\xfe"}}) {
        EXPECT_NE(keyFromPath(a), keyFromPath(b)) << a << " " << b;
    }
}

TEST(PathKeyTest, keepsBytesThatAreNoUtf8AndTheFoldersPrefix) {
    for (const std::string_view bad :
         {"\xff", "\xc3", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xc0\xaf", "\x80\x80"}) {
        const std::string folder = "/\u00c9t\u00c9";
        const std::string path = folder + "/X" + std::string(bad) + "\u00c9";
        EXPECT_EQ(keyFromPath(path), keyFromPath(folder) + "/x" + std::string(bad) + "e\u0301");
        EXPECT_EQ(decomposed(path), path);
    }
    // More code points than the fixed buffer holds, and bytes of no character in the midst of a name.
    std::string many;
    for (int i = 0; i < 1000; ++i)
        many += "\u00c9";
    EXPECT_EQ(keyFromPath(many).size(), 3000U);
    EXPECT_EQ(keyFromPath(std::string("A\0B", 3)), std::string("a\0b", 3));
}

TEST(PathKeyTest, equalLowercaseIgnoresCaseOnly) {
    EXPECT_TRUE(isEqualLowercase("/A/\u00c9.\xff", "/a/\u00e9.\xff"));
    EXPECT_FALSE(isEqualLowercase("\u00e9", "e\u0301") || isEqualLowercase("a\xff", "a\xfe"));
}

TEST(PathTest, componentsOfEveryShape) {
    const std::tuple<std::string_view, std::string_view, std::string_view> cases[] = {
        {"/a/b", "b", "/a"}, {"/a", "a", "/"},  {"/", "/", "/"},    {"a", "a", ""},
        {"", "", ""},        {"//a", "a", "/"}, {"a/b/", "b", "a"}, {"/a//b", "b", "/a"},
    };
    for (const auto& [path, last, parent] : cases) {
        EXPECT_EQ(lastPathComponent(path), last) << path;
        EXPECT_EQ(deletingLastPathComponent(path), parent) << path;
    }
    EXPECT_EQ(appendPathComponent("/", "b"), "/b");
    EXPECT_EQ(appendPathComponent("/a", ""), "/a");
}

TEST(Base64Test, roundTripAndRefusesWhatIsNotStandard) {
    std::string bytes;
    for (int i = 0; i < 300; ++i) {
        EXPECT_EQ(base64Decode(base64Encode(bytes)), bytes);
        bytes += static_cast<char>(i * 37);
    }
    EXPECT_EQ(base64Encode("foob"), "Zm9vYg==");
    EXPECT_EQ(base64Decode("AQL/"), "\x01\x02\xff");
    for (const std::string_view bad : {"Zg", "Zg=", "Zh==", "====", "Zm9v\n", "Zm9-", "Zg==Zg=="}) {
        EXPECT_EQ(base64Decode(bad), std::nullopt) << bad;
    }
}

TEST(HashTest, isTheHashTextOfTheWire) {
    Md5 hash;
    for (const char* part : {"a", "", "bc"})
        hash.update(part);
    EXPECT_EQ(hash.hashText(), "90-01-50-98-3C-D2-4F-B0-D6-96-3F-7D-28-E1-7F-72");
}

}  // namespace
}  // namespace tarnwell
