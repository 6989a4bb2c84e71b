#include "download/DownloadSource.h"
#include "download/TemporaryFile.h"
#include "platform/FileManager.h"
#include "support/CapturedLog.h"
#include "support/ScratchFolder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>

namespace {

void write(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

class Source : public testing::Test {
  protected:
    std::string url() const { return downloadUrl(bundle_, fallback_); }

    ScratchFolder folder_;
    std::string bundle_ = folder_.path() + "/X.app";
    std::string primary_ = folder_.path() + "/.config";
    std::string fallback_ = folder_.path() + "/volume.config";
    const std::string base_ = "http://127.0.0.1:18080/soft/";

    void SetUp() override { ASSERT_FALSE(createDirectory(bundle_)); }
};

TEST_F(Source, TakesTheConfigurationAsItIs) {
    const struct {
        std::string content;
        std::string name;
    } rows[] = {
        {"Pellomar.pkg", "Pellomar.pkg"},
        {"Pellomar.pkg\n", "Pellomar.pkg\n"},
        {"", ""},
        {"  套件 1.pkg ", "  套件 1.pkg "},
        {"\xEF\xBB\xBFX.pkg", "\xEF\xBB\xBFX.pkg"},
        {"X\xFF.pkg", "(null)"},
        {"\xED\xA0\x80", "(null)"}, // a lone surrogate
        {"\xC0\xAF", "(null)"},     // an overlong form
        {"X\xE5\xA5", "(null)"},    // cut short
    };
    for (const auto& row : rows) {
        CapturedLog log;
        write(primary_, row.content);
        EXPECT_EQ(url(), base_ + row.name);
        EXPECT_EQ(log.text(), "");
    }
}

TEST_F(Source, FallsBackOnlyWhereNoFileExists) {
    write(fallback_, "from-volume.pkg");
    {
        CapturedLog log;
        EXPECT_EQ(url(), base_ + "from-volume.pkg");
        EXPECT_EQ(log.count("Config File does not exists!:" + fallback_ + "\n"), 1);
    }
    // What exists but can't be read is not made up for.
    std::filesystem::create_directory(primary_);
    CapturedLog log;
    EXPECT_EQ(url(), "");
    EXPECT_EQ(log.count("Config File"), 0);
    EXPECT_EQ(log.count("Open of File for reading failed:" + bundle_ + "/../.config!\n"), 1);
}

TEST_F(Source, WithoutAnyFileTheAddressIsEmpty) {
    CapturedLog log;
    EXPECT_EQ(url(), "");
    const std::string text = log.text();
    const std::size_t first = text.find("Config File does not exists!:" + fallback_);
    const std::size_t second = text.find("Open of File for reading failed:" + fallback_ + "!");
    EXPECT_NE(first, std::string::npos);
    EXPECT_NE(second, std::string::npos);
    EXPECT_LT(first, second);
}

class Temporary : public testing::Test {
  protected:
    ScratchFolder folder_;
    std::string directory_ = folder_.path() + "/Downloads/NVInst";
    std::string file_ = directory_ + "/Pellomar.tmp";
};

TEST_F(Temporary, StartsEmptyWhateverStoodThere) {
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"nothing", [] {}},
        {"an old download", [this] { write(file_, "old"); }},
        {"a folder in the file's place",
         [this] {
             std::filesystem::remove(file_);
             std::filesystem::create_directories(file_ + "/deep");
         }},
        {"a link to a file of the user's",
         [this] {
             std::filesystem::remove_all(file_);
             write(folder_.path() + "/precious", "kept");
             std::filesystem::create_symlink(folder_.path() + "/precious", file_);
         }},
        {"a file in the folder's place",
         [this] {
             std::filesystem::remove_all(directory_);
             write(directory_, "in the way");
         }},
    };
    for (const auto& [what, prepare] : rows) {
        prepare();
        EXPECT_EQ(createTemporaryFile(directory_), "") << what;
        EXPECT_EQ(readFile(file_).value_or("missing"), "") << what;
        EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(file_))) << what;
    }
    EXPECT_EQ(readFile(folder_.path() + "/precious"), "kept");
}

TEST_F(Temporary, TellsWhyItCannotBeMade) {
    // A file among the parents stops even root.
    write(folder_.path() + "/Downloads", "a file");
    EXPECT_EQ(createTemporaryFile(directory_), "路径中有一项不是文件夹");
    std::filesystem::remove(folder_.path() + "/Downloads");
    EXPECT_EQ(createTemporaryFile("/proc/self/NVInst"), "文件夹不存在");
    std::filesystem::create_directories(folder_.path());
    EXPECT_EQ(createTemporaryFile("/proc/self/fd"), "无法创建临时文件");
}

} // namespace
