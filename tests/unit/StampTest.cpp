#include "platform/FileManager.h"
#include "report/VersionStamp.h"
#include "support/ScratchFolder.h"

#include <gtest/gtest.h>

#include <fstream>

namespace {

TEST(Stamp, KeyedFieldsAreReplacedWholeInPlace) {
    const ScratchFolder folder;
    const std::string path = folder.path() + "/.propaganda.dat";
    const struct {
        const char* before;
        const char* after;
        std::optional<std::string> version = "2.0.1";
    } rows[] = {
        {"Describe=old|OrgProductVersion=1.0|ProductVersion=1.0",
         "Describe=B-2.0.1|OrgProductVersion=2.0.1|ProductVersion=2.0.1|"},
        {"A|", "A||"},
        {"", "|"},
        {"x ProductVersionNote=x y|Z", "ProductVersion=2.0.1|Z|y|Z"},
        {"the ProductVersion to Describe|", "Describe=B-2.0.1|| to Describe|"},
        {"ProductVersion=10.20.30.40 with a long tail", "ProductVersion=2.0.1|30.40 with a long tail"},
        {"\xEF\xBB\xBFPRODUCTVERSION=b|渠道", "\xEF\xBB\xBFPRODUCTVERSION=b|渠道|"},
        {"A|ProductVersion=\xFF\xFE", "A|ProductVersion=\xFF\xFE"},
        {"Describe=|ProductVersion=", "Describe=B-(null)|ProductVersion=(null)|", std::nullopt}};
    for (const auto& row : rows) {
        std::ofstream(path, std::ios::binary) << row.before;
        rewriteStampFile(path, row.version);
        EXPECT_EQ(readFile(path), row.after) << row.before;
    }
    rewriteStampFile(folder.path() + "/missing", "2.0.1");
    EXPECT_FALSE(fileExists(folder.path() + "/missing"));
}

} // namespace
