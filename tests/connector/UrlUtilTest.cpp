#include "connector/UrlUtil.h"

#include <gtest/gtest.h>

namespace tarnwell {
namespace {

struct Pair {
    const char* text;
    const char* encoded;
};

TEST(UrlUtilTest, encodesAsTheServiceExpects) {
    const Pair values[] = {
        {" \"%&+,-./:;?@^{|}~", "%20%22%25%26%2B%2C%2D%2E%2F%3A%3B%3F%40%5E%7B%7C%7D%7E"},
        {"=#$!'()*_<>[]\\`", "=#$!'()*_<>[]\\`"},
        {"Gr\xC3\xBC\xC3\x9F", "Gr\xC3\xBC\xC3\x9F"},
    };
    for (const auto& [text, encoded] : values)
        EXPECT_EQ(UrlUtil::encodeValue(text), encoded) << text;

    const Pair urls[] = {{"a?b=c?d", "a?b=c%3Fd"}, {"%41%4", "%41%254"}, {"%zz a", "%25zz%20a"}};
    for (const auto& [text, encoded] : urls)
        EXPECT_EQ(UrlUtil::encodeUrl(text), encoded) << text;

    const Pair headers[] = {{"{\"a\":\"b c\"}", "%7B%22a%22:%22b%20c%22%7D"},
                            {"\xC3\xA4/?@-._~%\r\n", "%C3%A4/?@-._~%25%0D%0A"}};
    for (const auto& [text, encoded] : headers)
        EXPECT_EQ(percentEncodeHeaderParam(text), encoded) << text;
}

TEST(UrlUtilTest, tellsHostAddressesFromWhatWouldSendCredentialsElsewhere) {
    for (const char* good : {"example.com", "a", "10.0.0.1:8443", "my-host.example_1.com"}) {
        EXPECT_TRUE(isHostAddress(good)) << good;
    }
    for (const char* bad : {"", ".example.com", "a..b", "evil.com/x", "u@evil.com", "a b", "a:", "a:port",
                            "a:123456", "a:1:2", "a\r\nX: y", "h\xC3\xB6st", "http://a"}) {
        EXPECT_FALSE(isHostAddress(bad)) << bad;
    }
}

}  // namespace
}  // namespace tarnwell
