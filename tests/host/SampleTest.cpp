#include "Process.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <sstream>

namespace fs = std::filesystem;

namespace {

TEST(Sample, PackageInstallsWhatTheDownloaderLaunches) {
    const TemporaryFolder target;
    const TemporaryFolder trusted;
    fs::copy(SAMPLE_CERTIFICATE, trusted.path());
    const Outcome outcome = run(
        {INSTALLER_PROGRAM, "-pkg", SAMPLE_PACKAGE, "-target", target.path(), "-trusted", trusted.path()});
    ASSERT_EQ(outcome.status, 0) << outcome.output;
    EXPECT_TRUE(std::regex_search(outcome.output, std::regex("installer: Signed by [0-9a-f]{64}\n")));
    const fs::path contents = target / "Applications/Pellomar.app/Contents";
    EXPECT_EQ(access((contents / "MacOS/Pellomar").c_str(), X_OK), 0);
    EXPECT_NE(readFile(contents / "Info.plist").find("<string>Pellomar</string>"), std::string::npos);
    EXPECT_GT(fs::file_size(SAMPLE_PACKAGE), 11'000'000U) << "too small to watch";

    const std::string startup = target / "Library/Application Support/NorvikEmu/VirtualBoxStartup.sh";
    EXPECT_EQ(fs::status(startup).permissions(), fs::perms(0755));
    if (fs::exists("/sys/module/vboxdrv")) {
        GTEST_SKIP() << "the driver is loaded here";
    }
    const Outcome restart = run({startup, "restart"});
    EXPECT_NE(restart.status, 0);
    for (const char* word : {"Error", "VBoxDrv", "VirtualBox"}) {
        EXPECT_NE(restart.output.find(word), std::string::npos) << restart.output;
    }
}

TEST(Sample, StatisticsLinesOfOverlappingRunsStayApart) {
    const TemporaryFolder home;
    std::vector<pid_t> runs(24);
    for (std::size_t i = 0; i < runs.size(); ++i) {
        runs[i] =
            start({"env", "HOME=" + home.path().string(), STATISTICS_PROGRAM, "14", "8" + std::to_string(i)},
                  STDOUT_FILENO, STDERR_FILENO);
    }
    for (const pid_t process : runs) {
        EXPECT_EQ(waitFor(process), 0);
    }
    std::istringstream log(readFile(home / "Library/Logs/Pellomar/WebStatistics.log"));
    const std::regex form(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}[+-]\d{4} 14 8\d+)");
    std::size_t lines = 0;
    for (std::string line; std::getline(log, line); ++lines) {
        EXPECT_TRUE(std::regex_match(line, form)) << line;
    }
    EXPECT_EQ(lines, runs.size());
}

} // namespace
