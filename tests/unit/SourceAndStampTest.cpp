#include "download/DownloadSource.h"
#include "platform/FileManager.h"
#include "report/VersionStamp.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

namespace {

void write(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

TEST(Source, TakesTheConfigurationAsItIs) {
    const QTemporaryDir folder;
    const std::string bundle = folder.filePath("X.app").toStdString();
    const std::string fallback = folder.filePath("volume.config").toStdString();
    const std::string base = "http://127.0.0.1:18080/soft/";
    std::filesystem::create_directory(bundle);
    EXPECT_EQ(downloadUrl(bundle, fallback), "");
    write(fallback, "from-volume.pkg");
    EXPECT_EQ(downloadUrl(bundle, fallback), base + "from-volume.pkg");
    const std::map<std::string, std::string> names = {{"Pellomar.pkg\n", "Pellomar.pkg\n"},
                                                      {"", ""},
                                                      {"\xEF\xBB\xBF套件 1.pkg", "\xEF\xBB\xBF套件 1.pkg"},
                                                      {"X\xFF.pkg", "(null)"},
                                                      {"\xED\xA0\x80", "(null)"},
                                                      {"X\xE5\xA5", "(null)"}};
    for (const auto& [content, name] : names) {
        write(bundle + "/../.config", content);
        EXPECT_EQ(downloadUrl(bundle, fallback), base + name);
    }
}

TEST(Stamp, KeyedFieldsAreReplacedWholeInPlace) {
    const QTemporaryDir folder;
    const std::string path = folder.filePath(".propaganda.dat").toStdString();
    const struct {
        const char *before, *after;
        std::optional<std::string> version = "2.0.1";
    } rows[] = {
        {"A|", "A||"},
        {"", "|"},
        {"x ProductVersionNote=x y|Z", "ProductVersion=2.0.1|Z|y|Z"},
        {"the ProductVersion to Describe|", "Describe=B-2.0.1|| to Describe|"},
        {"ProductVersion=10.20.30.40 with a long tail", "ProductVersion=2.0.1|30.40 with a long tail"},
        {"\xEF\xBB\xBFPRODUCTVERSION=b|渠道", "\xEF\xBB\xBFPRODUCTVERSION=b|渠道|"},
        {"A|ProductVersion=\xFF\xFE", "A|ProductVersion=\xFF\xFE"},
        {"Describe=|ProductVersion=", "Describe=B-(null)|ProductVersion=(null)|", std::nullopt}};
    for (const auto& row : rows) {
        write(path, row.before);
        rewriteStampFile(path, row.version);
        EXPECT_EQ(readFile(path), row.after) << row.before;
    }
}

} // namespace
