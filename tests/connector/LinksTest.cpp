#include "connector/Links.h"

#include <gtest/gtest.h>

#include "util/Format.h"
#include "util/TWUtils.h"

namespace tarnwell::testing {
namespace {

/// The text in a base64 cipher, by the openssl program; none when there is no such program.
std::optional<std::string> decrypted(const std::string& base64) {
    const auto hex = [](auto bytes) {
        std::string out;
        for (const unsigned char c : bytes)
            out += format("%02x", c);
        return out;
    };
    const std::string command = "printf %s '" + base64 + "' | openssl enc -d -a -A -aes-256-cbc -nopad -K " +
                                hex(kDirectLinkKey) + " -iv " + hex(kDirectLinkVector) + " 2>/dev/null";
    auto* pipe = ::popen(command.c_str(), "r");
    std::string text;
    char block[256];
    while (const auto count = ::fread(block, 1, sizeof block, pipe))
        text.append(block, count);
    if (::pclose(pipe) != 0) return std::nullopt;
    return text;
}

TEST(LinksTest, encryptsWholeBlocks) {
    for (const std::size_t size : {1, 15, 16, 17, 32}) {
        const std::string text(size, 'x');
        const auto encrypted = Links::encryptDirectLink(text, kDirectLinkKey);
        ASSERT_TRUE(encrypted);
        const std::size_t filled = (size + 15) / 16 * 16;
        EXPECT_EQ(base64Decode(*encrypted)->size(), filled);
        if (const auto plain = decrypted(*encrypted)) {
            EXPECT_EQ(*plain, text + std::string(filled - size, '\0'));
        }
    }
    EXPECT_FALSE(Links::encryptDirectLink("text", std::span(kDirectLinkKey).first(16)));
}

}  // namespace
}  // namespace tarnwell::testing
