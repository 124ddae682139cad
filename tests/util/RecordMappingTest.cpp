#include "util/RecordMapping.h"

#include <gtest/gtest.h>

#include <thread>
#include <tuple>
#include <vector>

namespace tarnwell {
namespace {

struct Part {
    std::int32_t Number = 0;
    std::optional<std::string> Label;
};
BOOST_DESCRIBE_STRUCT(Part, (), (Number, Label))

struct Sample {
    SharedString Name;
    std::int64_t Size = 0;
    bool Flag = false;
    Date When{};
    std::optional<double> Ratio;
    std::optional<std::int32_t> Mode;
    std::vector<Part> Parts;
    std::shared_ptr<Part> Extra;
    std::optional<std::string> Hidden;
    static constexpr std::string_view notInJson[] = {"Hidden"};
};
BOOST_DESCRIBE_STRUCT(Sample, (), (Name, Size, Flag, When, Ratio, Mode, Parts, Extra, Hidden))

constexpr std::string_view kLeast = R"("Size":1,"Flag":true,"When":"2014-01-01T00:00:00Z")";

std::shared_ptr<Sample> parse(std::string_view members, std::string& error) {
    return parseRecord<Sample>("{" + std::string(members) + "}", error);
}

TEST(RecordMappingTest, roundTripOfAFullRecordKeepsAllButWhatIsNotInJson) {
    Sample sample;
    sample.Name = "n\u00e9\n\"";
    sample.Size = INT64_MIN;
    sample.When = NSDateFromNSString("2014-01-01T00:00:00.123Z");
    sample.Ratio = 0.1;
    sample.Parts = {{1, "a"}, {2, std::nullopt}};
    sample.Extra = std::make_shared<Part>(Part{3, ""});
    std::string error;
    const auto back = parseRecord<Sample>(toJsonText(sample), error);
    ASSERT_TRUE(back) << error;
    EXPECT_TRUE(recordsEqual(*back, sample));
    sample.Hidden = "secret";
    EXPECT_EQ(toJsonText(sample).find("secret"), std::string::npos);
    EXPECT_FALSE(recordsEqual(*back, sample));
}

TEST(RecordMappingTest, takesWhatServicesWriteAndRefusesWithThePathInTheError) {
    const std::tuple<std::string, std::string> cases[] = {
        {std::string(kLeast) + R"(,"Unknown":[{"deep":[1]}])", ""},
        {std::string(kLeast) + R"(,"Mode":5.0,"Ratio":7)", ""},
        {std::string(kLeast) + R"(,"Name":null,"Ratio":null,"Parts":null,"Extra":null,"Mode":null)", ""},
        {R"("Flag":true,"When":"x")", "Size: missing"},
        {R"("Size":null,"Flag":true,"When":"x")", "Size: expected an integer"},
        {std::string(kLeast) + R"(,"Size":1.5)", "Size: expected an integer"},
        {std::string(kLeast) + R"(,"Size":9223372036854775808.0)", "Size: number out of range"},
        {std::string(kLeast) + R"(,"Mode":2147483648)", "Mode: number out of range"},
        {std::string(kLeast) + R"(,"When":5)", "When: expected a date string"},
        {std::string(kLeast) + R"(,"Parts":[{"Number":1},{"Number":1},{"Label":"x"}])",
         "Parts[2].Number: missing"},
        {std::string(kLeast) + R"(,"Extra":{"Number":true})", "Extra.Number: expected an integer"},
    };
    for (const auto& [members, message] : cases) {
        std::string error;
        EXPECT_EQ(parse(members, error) != nullptr, message.empty()) << members;
        EXPECT_EQ(error, message) << members;
    }
    const std::string deep = "{\"x\":" + std::string(100000, '[') + std::string(100000, ']') + "}";
    for (const std::string& text : {std::string(), std::string("{"), std::string("[]"), deep,
                                    std::string("{\"a\":\"\xff\"}"), std::string("{}{}")}) {
        std::string error;
        EXPECT_FALSE(parseRecord<Sample>(text, error));
        EXPECT_FALSE(error.empty());
    }
}

TEST(SharedStringTest, copiesAreUsedOnManyThreads) {
    EXPECT_NE(SharedString(), SharedString("")) << "an empty text is not an absent one";
    SharedString text("shared");
    const SharedString& itself = text;
    text = itself;
    std::vector<std::jthread> threads;
    std::atomic<int> wrong = 0;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&wrong, text] {
            for (int i = 0; i < 10000; ++i) {
                const SharedString copy = text;
                wrong += copy != SharedString("shared");
            }
        });
    }
    threads.clear();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace tarnwell
