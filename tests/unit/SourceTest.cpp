#include "download/DownloadSource.h"
#include "download/TemporaryFile.h"
#include "platform/FileManager.h"
#include "support/CapturedLog.h"
#include "support/ScratchFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>

namespace {

void write(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

TEST(Source, TakesTheConfigurationAsItIs) {
    const ScratchFolder folder;
    ASSERT_FALSE(createDirectory(folder.path() + "/X.app"));
    const std::string bundle = folder.path() + "/X.app";
    const std::string fallback = folder.path() + "/volume.config";
    const std::string base = "http://127.0.0.1:18080/soft/";
    CapturedLog log;

    EXPECT_EQ(downloadUrl(bundle, fallback), "");
    EXPECT_EQ(log.count("Config File does not exists!:" + fallback + "\n"), 1);
    EXPECT_EQ(log.count("Open of File for reading failed:" + fallback + "!\n"), 1);
    write(fallback, "from-volume.pkg");
    EXPECT_EQ(downloadUrl(bundle, fallback), base + "from-volume.pkg");

    const std::map<std::string, std::string> names = {{"Pellomar.pkg\n", "Pellomar.pkg\n"},
                                                      {"", ""},
                                                      {"\xEF\xBB\xBF套件 1.pkg", "\xEF\xBB\xBF套件 1.pkg"},
                                                      {"X\xFF.pkg", "(null)"},
                                                      {"\xED\xA0\x80", "(null)"},
                                                      {"\xC0\xAF", "(null)"},
                                                      {"X\xE5\xA5", "(null)"}};
    for (const auto& [content, name] : names) {
        write(folder.path() + "/.config", content);
        EXPECT_EQ(downloadUrl(bundle, fallback), base + name);
    }

    // The fallback is not used when the file exists but can't be read.
    std::filesystem::remove(folder.path() + "/.config");
    std::filesystem::create_directory(folder.path() + "/.config");
    EXPECT_EQ(downloadUrl(bundle, fallback), "");
    EXPECT_EQ(log.count("Config File"), 2);
}

TEST(Temporary, StartsEmptyWhateverStoodThere) {
    const ScratchFolder folder;
    const std::string directory = folder.path() + "/Downloads/NVInst";
    const std::string file = directory + "/Pellomar.tmp";
    const std::string precious = folder.path() + "/precious";
    write(precious, "kept");
    const std::map<const char*, std::function<void()>> rows = {
        {"an old download", [&] { write(file, "old"); }},
        {"a folder in the file's place", [&] { std::filesystem::create_directories(file + "/deep"); }},
        {"a link to a file of the user's", [&] { std::filesystem::create_symlink(precious, file); }},
        {"a file in the folder's place", [&] {
             std::filesystem::remove_all(directory);
             write(directory, "in the way");
         }}};
    for (const auto& [what, prepare] : rows) {
        EXPECT_EQ(createTemporaryFile(directory), "");
        std::filesystem::remove(file);
        prepare();
        EXPECT_EQ(createTemporaryFile(directory), "") << what;
        EXPECT_EQ(readFile(file), "") << what;
        EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(file))) << what;
    }
    EXPECT_EQ(readFile(precious), "kept");
    EXPECT_EQ(createTemporaryFile(precious + "/NVInst"), "路径中有一项不是文件夹");
    EXPECT_EQ(createTemporaryFile("/proc/self/fd"), "无法创建临时文件");
}

} // namespace
