#include "host/package/Version.h"

#include <gtest/gtest.h>

#include <utility>

using package::compareVersions;
using package::isVersion;

TEST(Version, IsNumbersWithDotsBetween) {
    for (const char* version : {"0", "2.0.1", "20251125", "1.99999999999999999999999"}) {
        EXPECT_TRUE(isVersion(version)) << version;
    }
    for (const char* text : {"", ".", "2.", ".2", "2..0", "2.0-rc1", "2.0b", "v2", "2,0", " 2", "2\n"}) {
        EXPECT_FALSE(isVersion(text)) << text;
    }
}

TEST(Version, IsComparedNumberByNumber) {
    constexpr std::pair<const char*, const char*> kRising[] = {
        {"2.0.9", "2.0.10"},
        {"2", "2.0.1"},
        {"1.9", "2"},
        {"99999999999999999999", "100000000000000000000"},
        {"2.09", "2.10"}};
    for (const auto& [lower, higher] : kRising) {
        EXPECT_EQ(compareVersions(lower, higher), std::strong_ordering::less) << lower << " " << higher;
        EXPECT_EQ(compareVersions(higher, lower), std::strong_ordering::greater) << lower << " " << higher;
    }
    // The last rows are of receipts from before letters were refused.
    constexpr std::pair<const char*, const char*> kEqual[] = {{"2.0", "2"},        {"2.01", "2.1"},
                                                              {"2.0.0.0", "2.0"},  {"2.0-rc1", "2.0"},
                                                              {"2.0-9", "2.0-10"}, {"r7", "0"}};
    for (const auto& [one, other] : kEqual) {
        EXPECT_EQ(compareVersions(one, other), std::strong_ordering::equal) << one << " " << other;
    }
}
