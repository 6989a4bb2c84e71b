#include "download/Progress.h"
#include "install/SystemVersionRule.h"
#include "install/WordTests.h"
#include "platform/SystemVersion.h"

#include <gtest/gtest.h>

#include <clocale>

namespace {

TEST(Words, AreFoundLeftmostAndCaseInsensitively) {
    const struct {
        const char* haystack;
        const char* needle;
        int index;
    } rows[] = {
        {"eleven____:ERROR error", "error", 11},
        {"", "", 0},
        {"anything", "", 0},
        {"", "error", -1},
        {"erro", "error", -1},
        {"eerror", "error", 1},
        {"errerror", "error", 3},
        {"错误：InVaLiD", "invalid", 9},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ci_find_substr(row.haystack, row.needle), row.index) << row.haystack << " / " << row.needle;
    }
    // Bytes of other letters compare exactly, whatever the program's locale: Ä and ä differ in UTF-8.
    std::setlocale(LC_ALL, "C.UTF-8");
    EXPECT_EQ(ci_find_substr("\xC3\x84", "\xC3\xA4"), -1);
    EXPECT_TRUE(caseinsensitive_equal(std::locale::classic())('k', 'K'));
}

TEST(Words, JudgeTheTools) {
    EXPECT_TRUE(saysFailure("installer: Error - no space"));
    EXPECT_TRUE(saysFailure(std::string("\0 INVALID package", 17)));
    EXPECT_FALSE(saysFailure("installer: The install was successful. err or in valid"));

    EXPECT_TRUE(saysDriverLoaded("  1 0 com.norvik.emu.kext.VBoxDrv (1)"));
    EXPECT_FALSE(saysDriverLoaded("  1 0 com.norvik.emu.kext.vboxdrv (1)"));

    EXPECT_TRUE(saysDriverStartFailed("VirtualBox: VBoxDrv did not load. Error 71"));
    for (const char* success :
         {"Error", "Error: VBoxDrv", "error: VBoxDrv of VirtualBox", "Error: VirtualBox vboxdrv"}) {
        EXPECT_FALSE(saysDriverStartFailed(success)) << success;
    }
}

TEST(Speed, IsWholeKilobytesOncePerSecond) {
    const struct {
        std::int64_t bytes;
        double seconds;
        const char* text; // null: unchanged
    } rows[] = {
        {1536, 1.5, "1 KB/s"},   {1000, 1.5, "0 KB/s"},     {1 << 20, 1.0, nullptr},
        {1 << 20, 0.2, nullptr}, {1 << 20, -3600, nullptr}, {3 << 20, 1.000001, "3071 KB/s"},
        {5000, 1.7e9, "0 KB/s"}, {-4096, 2.0, "-2 KB/s"},   {INT64_MAX, 1.5, "2147483647 KB/s"},
    };
    for (const auto& row : rows) {
        const auto text = speedText(row.bytes, row.seconds);
        EXPECT_EQ(text.value_or("unchanged"), row.text == nullptr ? "unchanged" : row.text)
            << row.bytes << " in " << row.seconds;
    }
}

TEST(Percent, DoesNotOverflowOnLargeFiles) {
    constexpr std::int64_t kTerabyte = std::int64_t{1} << 40;
    EXPECT_DOUBLE_EQ(percentOf(kTerabyte * 400'000, kTerabyte * 800'000), 50.0);
    EXPECT_DOUBLE_EQ(percentOf(1, 3), 100.0 / 3);
}

TEST(SystemVersionRule, TestsEachNumberOnItsOwn) {
    const struct {
        const char* text;
        bool older;
    } rows[] = {
        {"10.14.5", false}, {"10.14.6", false}, {"10.15.7", false},       {"10.15.0", true},
        {"10.14.4", true},  {"11.0", true},     {"11.14.5", false},       {"9.99.99", true},
        {"10.13.6", true},  {"12.20", true},    {"6.1.0-13-amd64", true}, {"10.14.5-rc1", false},
        {"10.15.", true},   {"", true},         {"x.14.5", true},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(isOlderThan10_14_5(parsedSystemVersion(row.text)), row.older) << row.text;
    }
}

} // namespace
