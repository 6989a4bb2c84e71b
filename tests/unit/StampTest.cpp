#include "platform/FileManager.h"
#include "report/VersionStamp.h"
#include "report/WebStatic.h"
#include "support/CapturedLog.h"
#include "support/ScratchFolder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

namespace {

class Stamp : public testing::Test {
  protected:
    std::string rewritten(const std::string& before, const std::optional<std::string>& version) {
        std::ofstream(path_, std::ios::binary) << before;
        rewriteStampFile(path_, version);
        return readFile(path_).value_or("unreadable");
    }

    ScratchFolder folder_;
    std::string path_ = folder_.path() + "/.propaganda.dat";
};

TEST_F(Stamp, KeyedFieldsAreReplacedWholeInPlace) {
    const struct {
        const char* before;
        const char* after;
    } rows[] = {
        {"Describe=old|OrgProductVersion=1.0|ProductVersion=1.0",
         "Describe=B-2.0.1|OrgProductVersion=2.0.1|ProductVersion=2.0.1|"},
        {"A|B", "A|B|"},
        {"A|", "A||"},
        {"", "|"},
        {"x ProductVersionNote=x y|Z", "ProductVersion=2.0.1|Z|y|Z"},
        {"the ProductVersion to Describe|", "Describe=B-2.0.1|| to Describe|"},
        {"describe=a|PRODUCTVERSION=b", "describe=a|PRODUCTVERSION=b|"},
        {"ProductVersion=10.20.30.40 with a long tail", "ProductVersion=2.0.1|30.40 with a long tail"},
        {"\xEF\xBB\xBF"
         "A|渠道=测试",
         "\xEF\xBB\xBF"
         "A|渠道=测试|"},
        {"A|ProductVersion=\xFF\xFE", "A|ProductVersion=\xFF\xFE"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(rewritten(row.before, "2.0.1"), row.after) << row.before;
    }
}

TEST_F(Stamp, AMissingVersionIsWrittenAllTheSame) {
    EXPECT_EQ(rewritten("Describe=|OrgProductVersion=|ProductVersion=", std::nullopt),
              "Describe=B-(null)|OrgProductVersion=(null)|ProductVersion=(null)|");
}

TEST_F(Stamp, IsNeverCreatedAndFailuresAreLogged) {
    CapturedLog log;
    rewriteStampFile(path_, "2.0.1");
    EXPECT_FALSE(fileExists(path_));
    EXPECT_EQ(log.text(), "");

    ASSERT_EQ(mkdir(path_.c_str(), 0755), 0); // opens for neither, whoever runs this
    rewriteStampFile(path_, "2.0.1");
    EXPECT_EQ(log.count("Open of File for reading failed!\n"), 1);
}

TEST(WebStatistics, LiesBesideTheExecutableByName) {
    EXPECT_EQ(webStatisticsPath("/Applications/X.app/Contents/MacOS/X"),
              "/Applications/X.app/Contents/MacOS/WebStatistics");
}

} // namespace
