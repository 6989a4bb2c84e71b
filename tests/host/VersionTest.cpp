#include "host/package/Version.h"

#include <gtest/gtest.h>

#include <tuple>

using package::compareVersions;

// Versions with letters are in receipts from before they were refused.
TEST(Version, IsComparedNumberByNumber) {
    const std::tuple<const char*, std::strong_ordering, const char*> rows[] = {
        {"2.0.9", std::strong_ordering::less, "2.0.10"},
        {"2", std::strong_ordering::less, "2.0.1"},
        {"1.9", std::strong_ordering::less, "2"},
        {"99999999999999999999", std::strong_ordering::less, "100000000000000000000"},
        {"2.0.0.0", std::strong_ordering::equal, "2.0"},
        {"2.01", std::strong_ordering::equal, "2.1"},
        {"2.0-rc1", std::strong_ordering::equal, "2.0"}};
    for (const auto& [one, order, other] : rows) {
        EXPECT_EQ(compareVersions(one, other), order) << one << " " << other;
        EXPECT_EQ(compareVersions(other, one), 0 <=> order) << one << " " << other;
    }
}
