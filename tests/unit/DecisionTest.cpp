#include "download/Progress.h"
#include "install/SystemVersionRule.h"
#include "install/WordTests.h"
#include "platform/SystemVersion.h"

#include <gtest/gtest.h>

namespace {

TEST(Words, AreFoundLeftmostAndInAsciiCaseOnly) {
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
    EXPECT_FALSE(saysDriverStartFailed("Error: VBoxDrv"));
    EXPECT_FALSE(saysDriverStartFailed("error: VBoxDrv of VirtualBox"));
    EXPECT_FALSE(saysDriverStartFailed("Error: VirtualBox vboxdrv"));
}

TEST(Speed, IsWholeKilobytesOncePerSecond) {
    EXPECT_EQ(speedText(1536, 1.5), "1 KB/s");
    EXPECT_EQ(speedText(3 << 20, 1.000001), "3071 KB/s");
    EXPECT_EQ(speedText(1 << 20, 1.0), std::nullopt);
    EXPECT_DOUBLE_EQ(percentOf(INT64_MAX / 4, INT64_MAX / 2), 50.0);
}

TEST(SystemVersionRule, TestsEachNumberOnItsOwn) {
    for (const char* older :
         {"10.15.0", "10.14.4", "11.0", "9.99.99", "12.20", "6.1.0-13-amd64", "10.15.", "", "x.14.5"}) {
        EXPECT_TRUE(isOlderThan10_14_5(parsedSystemVersion(older))) << older;
    }
    for (const char* newer : {"10.14.5", "10.15.7", "11.14.5", "10.14.5-rc1"}) {
        EXPECT_FALSE(isOlderThan10_14_5(parsedSystemVersion(newer))) << newer;
    }
}

} // namespace
