#include "download/Progress.h"
#include "install/SystemVersionRule.h"
#include "install/WordTests.h"
#include "platform/SystemVersion.h"

#include <gtest/gtest.h>

#include <clocale>
#include <map>

namespace {

TEST(Words, AreFoundLeftmostAndInAsciiCaseOnly) {
    std::setlocale(LC_ALL, "C.UTF-8"); // must make no difference
    EXPECT_EQ(ci_find_substr("eleven____:ERROR error", "error"), 11);
    EXPECT_EQ(ci_find_substr("errerror", "error"), 3);
    EXPECT_EQ(ci_find_substr("erro", "error"), -1);
    EXPECT_EQ(ci_find_substr("", ""), 0);
    EXPECT_EQ(ci_find_substr("\xC3\x84", "\xC3\xA4"), -1); // Ä, ä
}

TEST(Words, JudgeTheTools) {
    EXPECT_TRUE(saysFailure("installer: Error - no space"));
    EXPECT_TRUE(saysFailure(std::string("\0 INVALID package", 17)));
    EXPECT_FALSE(saysFailure("installer: The install was successful. err or in valid"));
    EXPECT_FALSE(saysDriverLoaded("  1 0 com.norvik.emu.kext.vboxdrv (1)"));
    EXPECT_TRUE(saysDriverStartFailed("VirtualBox: VBoxDrv did not load. Error 71"));
    for (const char* success :
         {"Error: VBoxDrv", "error: VBoxDrv of VirtualBox", "Error: VirtualBox vboxdrv"}) {
        EXPECT_FALSE(saysDriverStartFailed(success)) << success;
    }
}

TEST(Speed, IsWholeKilobytesOncePerSecond) {
    EXPECT_EQ(speedText(1536, 1.5), "1 KB/s");
    EXPECT_EQ(speedText(1000, 1.5), "0 KB/s");
    EXPECT_EQ(speedText(3 << 20, 1.000001), "3071 KB/s");
    EXPECT_EQ(speedText(INT64_MAX, 1.5), "2147483647 KB/s");
    EXPECT_EQ(speedText(1 << 20, 1.0), std::nullopt);
    EXPECT_EQ(speedText(1 << 20, -3600), std::nullopt); // the clock went back
    constexpr std::int64_t kTerabyte = std::int64_t{1} << 40;
    EXPECT_DOUBLE_EQ(percentOf(kTerabyte * 400'000, kTerabyte * 800'000), 50.0);
}

TEST(SystemVersionRule, TestsEachNumberOnItsOwn) {
    const std::map<const char*, bool> isOlder = {
        {"10.14.5", false},       {"10.15.7", false},     {"10.15.0", true}, {"10.14.4", true},
        {"11.0", true},           {"11.14.5", false},     {"9.99.99", true}, {"12.20", true},
        {"6.1.0-13-amd64", true}, {"10.14.5-rc1", false}, {"10.15.", true},  {"", true},
        {"x.14.5", true}};
    for (const auto& [text, older] : isOlder) {
        EXPECT_EQ(isOlderThan10_14_5(parsedSystemVersion(text)), older) << text;
    }
}

} // namespace
