#include <gtest/gtest.h>

#include <tuple>

#include "util/PropertyList.h"
#include "util/TWUtils.h"

namespace tarnwell {
namespace {

using namespace std::chrono_literals;
constexpr Date kNewYear2014 = std::chrono::sys_days(std::chrono::year(2014) / 1 / 1);

TEST(DatesTest, readsTheServersForms) {
    const std::tuple<std::string_view, Date> cases[] = {
        {"2014-01-01T00:00:00.000Z", kNewYear2014},
        {"2014-01-01T00:00:00Z", kNewYear2014},
        {"2014-01-01T00:00:00.1234567+01:00", kNewYear2014 + 123ms - 1h},
        {"2014-01-01T00:00:00.123-08:30", kNewYear2014 + 123ms + 8h + 30min},
        {"2014-01-01T00:00:00.123456789123456789+00:00", kNewYear2014 + 123ms},
        {"2016-02-29T23:59:59.999Z", Date(std::chrono::sys_days(std::chrono::year(2016) / 3 / 1)) - 1ms},
        {"0001-01-01T00:00:00Z", kDistantPast},
        {"1969-12-31T23:59:59.500Z", Date{} - 500ms},
    };
    for (const auto& [text, date] : cases)
        EXPECT_EQ(NSDateFromNSString(text), date) << text;
}

TEST(DatesTest, anythingElseIsTheDistantPast) {
    for (const std::string ending :
         {"", ".1Z", ".Z", ".1234567", "Zz", ".123+0100", ".123+24:00", ".12x4567Z"})
        EXPECT_EQ(NSDateFromNSString("2014-01-01T00:00:00" + ending), kDistantPast) << ending;
    for (const std::string text :
         {"2014-13-01T00:00:00Z", "2015-02-29T00:00:00Z", "0000-01-01T00:00:00Z", "12014-01-01T00:00:00Z",
          "2014-01-01T24:00:00Z", "2014-01-01T00:00:60Z", "0001-01-01T00:00:00.000+01:00", "\xff\xff",
          "9999-12-31T23:59:59.999-01:00"})
        EXPECT_EQ(NSDateFromNSString(text), kDistantPast) << text;
}

TEST(DatesTest, writesMillisecondsCutAndReadsThemBack) {
    EXPECT_EQ(JSONObjectFromNSDate(kNewYear2014 + 123ms + TickDuration(9999)), "2014-01-01T00:00:00.123Z");
    EXPECT_EQ(JSONObjectFromNSDate(Date{} - TickDuration(1)), "1969-12-31T23:59:59.999Z");
    EXPECT_EQ(JSONObjectFromNSDate(Date::min()), "0001-01-01T00:00:00.000Z");
    EXPECT_EQ(JSONObjectFromNSDate(Date::max()), "9999-12-31T23:59:59.999Z");
    EXPECT_EQ(ticks(Date{}), 621355968000000000);
    for (Date date = kDistantPast; date < kNewYear2014 + 24h * 365 * 1000; date += 24h * 97 + 12345678ms) {
        ASSERT_EQ(NSDateFromNSString(JSONObjectFromNSDate(date)), date);
    }
}

TEST(DatesTest, propertyListSecondsKeepWhatADoubleCan) {
    // Milliseconds over all years: a stored date must not come back as .122999, which would be cut to .122.
    for (Date date = kDistantPast; date < Date(std::chrono::sys_days(std::chrono::year(9999) / 12 / 1));
         date += 24h * 31 + 1234567ms) {
        ASSERT_EQ(dateFromPropertyListSeconds(propertyListSeconds(date)), date) << JSONObjectFromNSDate(date);
    }
    for (std::int64_t i = 0; i < 100000; ++i) {
        const Date now = kNewYear2014 + 24h * 365 * 15 + TickDuration(i * 7919);
        const auto back = dateFromPropertyListSeconds(propertyListSeconds(now));
        ASSERT_TRUE(back && *back - now <= TickDuration(1) && now - *back <= TickDuration(1)) << i;
    }
    for (const double bad : {1e300, -1e300, 1e12, -1e11, std::nan(""), HUGE_VAL}) {
        EXPECT_EQ(dateFromPropertyListSeconds(bad), std::nullopt) << bad;
    }
}

}  // namespace
}  // namespace tarnwell
