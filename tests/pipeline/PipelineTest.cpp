#include "BuildConstants.h"
#include "pipeline/Stage.h"

#include <gtest/gtest.h>

#include <iostream>

namespace {

using Lines = std::vector<std::string>;

Lines operator+(Lines first, const Lines& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// What differs is shown line by line then.
std::string inLines(const Lines& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line + '\n';
    }
    return text;
}

const Lines kClosing = {"root runs /usr/bin/killall|Pellomar"};
const Lines kFinished = Lines{"event 815", "status 已完成下载", "no speed", "hide stop_button"} + kClosing;
const Lines kPressAgain = {"press continueInsTall_button"};
const Lines kAgain =
    kPressAgain +
    Lines{"log continueInsTall_button has been clicked", "status 已完成下载", "hide continueInsTall_button"} +
    kClosing;

const Lines kQuestion = {"dialog 安装向导|是否保留已安装游戏和应用|确定|取消"};
const Lines kKeep = {"answer 确定"};
const Lines kDoNotKeep = {"answer 取消"};
const Lines kClosed = {"dialog closed"};

const Lines kRemoval = {"status 正在卸载Pellomar", "root runs /bin/rm|-rf|/Applications/Pellomar.app"};
const Lines kRemoved = kRemoval + Lines{"log uninstall Pellomar Success"};

const Lines kInstallStart = {"status 正在安装Pellomar", "event 817", "log Installing Pellomar"};
const Lines kInstallation =
    kInstallStart + Lines{"root runs /usr/sbin/installer|-pkg|~/Downloads/NVInst/Pellomar.pkg|-target|/",
                          "the package holds: a package, its folder: Pellomar.pkg"};
const Lines kInstalled =
    kInstallation +
    Lines{"log Install Pellomar Success:installer: The install was successful.\\n", "event 818"};

Lines installFailed(const std::string& output) {
    return kInstallation + Lines{"log Install Pellomar failed:" + output, "event 822",
                                 "status 安装Pellomar失败，请尝试重新下载安装!", "show retryDownload_button"};
}

const Lines kPressRetry = {"press retryDownload_button"};
const Lines kDownloadedAgain = kPressRetry +
                               Lines{"log retryDownload_button has been clicked",
                                     "log create temp file successful",
                                     "hide retryDownload_button",
                                     "log WebStatic:Download Start",
                                     "event 814",
                                     "status 正在下载Pellomar",
                                     "event 815",
                                     "status 已完成下载",
                                     "no speed"} +
                               kClosing;

const Lines kQuery = {"status 正在查询vbox驱动状态",
                      "root runs /usr/sbin/kextstat|-b|com.norvik.emu.kext.VBoxDrv"};
const Lines kDriverStart = {"status 正在安装vbox驱动",
                            "root runs /Library/Application Support/NorvikEmu/VirtualBoxStartup.sh|restart"};
const Lines kDriverFailed = {"status 安装vbox驱动失败，请重试", "show continueInsTall_button"};
const Lines kGuide = {"dialog 检测到您的电脑未能成功安装驱动程序，请前往系统偏好设置允许系统安装驱动程序。\\n"
                      "待设置完成后请点击重试。||立即前往设置"};
const Lines kGoToSettings = {"answer 立即前往设置"};
const Lines kOlderSystem = Lines{"log install vbox drive faild"} + kDriverFailed;
const Lines kSeeForum = {
    "status 安装Pellomar失败，请前往论坛查看安装教程", "log 10.14.5以上系统没有关闭sip",
    "dialog 安装失败，检测到您的系统与驱动签名不兼容。点击“立即前往”查看解决方案。||立即前往"};
const Lines kGoToForum = {"answer 立即前往"};

const Lines kLaunching = {"status 正在启动Pellomar"};
const Lines kLaunchedAtOnce = Lines{"event 826"} + kLaunching + Lines{"events submitted"};
const Lines kLaunchedAfterRetry = Lines{"event 825"} + kLaunching + Lines{"events submitted"};
const Lines kRefused = {"log Could not create authorization reference object.", "log Pre-auth failed",
                        "status 获取权限失败，请重试", "show continueInsTall_button"};
const Lines kEnd = {"end"};

const Lines kRuns = {"new Pellomar runs in ~"};
const Lines kSettingsOpened = {
    "root runs /usr/bin/xdg-open|/System/Library/PreferencePanes/Security.prefPane"};
const Lines kForumOpened = {std::string("root runs /usr/bin/xdg-open|") + constants::kHelpUrl};

// The same, of a program that a user runs.
Lines asUser(Lines lines) {
    for (std::string& line : lines) {
        if (line.starts_with("root runs ")) {
            line.replace(0, 4, "user");
        }
    }
    return lines;
}

const Tool kSaysNothing = {"true"};
const std::string kDriverStartFails = "echo 'VirtualBox Error: VBoxDrv is not loaded'";
const std::string kRemoves = "exec /tmp/pipeline-support/rm \"$@\"";
const std::string kInstalls =
    "cp -r /tmp/pipeline-support/Pellomar.app /Applications; echo 'installer: The install was successful.'";
constexpr auto kOldFolder = Machine::OldCopy::Folder;

struct Row {
    std::string name;
    Machine machine = {};
    Lines actions = {}; ///< after the press of the start button
    Lines trace = {};   ///< from the end of the first download on
    Lines opened = {};
    std::string flag = "absent";
    Lines printed = {}; ///< parts of what must stand in the log file, beside the log's own lines
};

std::ostream& operator<<(std::ostream& stream, const Row& row) {
    return stream << row.name;
}

// clang-format off
const std::vector<Row> kRows = {
    {.name = "Clean",
     .machine = {},
     .trace = kFinished + kInstalled + kQuery + kLaunchedAtOnce,
     .opened = kRuns,
     .printed = {"Index Refs Name\n  120    3 com.norvik.emu.kext.VBoxDrv (5.2.0)\n\n"}},

    // --- the old copy ---
    {.name = "OldCopyKept",
     .machine = {.oldCopy = kOldFolder,
                 .homeFiles = {"Library/Application Support/PellomarData/CoverInstallFlag",
                               "Downloads/NVInst/Pellomar.pkg", "Downloads/NVInst/Pellomar.tmp"}},
     .actions = kKeep,
     .trace = kFinished + kQuestion + kKeep + kClosed + kRemoved + kInstalled + kQuery + kLaunchedAtOnce,
     .opened = kRuns},
    {.name = "OldCopyNotKeptAndTheQuestionIsNotClosedWithoutAnswer",
     .machine = {.oldCopy = kOldFolder, .home = "用户 1"},
     .actions = Lines{"key Escape", "close"} + kDoNotKeep,
     .trace = kFinished + kQuestion + Lines{"key Escape", "close"} + kDoNotKeep + kClosed + kRemoved +
              kInstalled + kQuery + kLaunchedAtOnce,
     .opened = kRuns,
     .flag = "present"},
    {.name = "ReturnKeepsAndAFileInPlaceOfTheFlagsFolderIsNoMatter",
     .machine = {.oldCopy = kOldFolder, .homeFiles = {"Library/Application Support/PellomarData"}},
     .actions = {"key Return"},
     .trace = kFinished + kQuestion + Lines{"key Return"} + kClosed + kRemoved + kInstalled + kQuery +
              kLaunchedAtOnce,
     .opened = kRuns},
    {.name = "OldCopyIsAPlainFile",
     .machine = {.tools = {{"installer", {"/tmp/pipeline-support/rm /Applications/Pellomar.app; " + kInstalls}}},
                 .oldCopy = Machine::OldCopy::PlainFile},
     .trace = kFinished + kInstalled + kQuery + kLaunchedAtOnce,
     .opened = kRuns},
    {.name = "RemovalCannotStart",
     .machine = {.tools = {{"rm", kMissing}}, .oldCopy = kOldFolder},
     .actions = kKeep,
     .trace = kFinished + kQuestion + kKeep + kClosed + Lines{"status 正在卸载Pellomar"} + kEnd},
    {.name = "RemovalsWordsCountAgainstTheInstallation",
     .machine = {.tools = {{"rm", {"echo 'rm: Invalid path'; " + kRemoves, kRemoves}}}, .oldCopy = kOldFolder},
     .actions = kDoNotKeep + kPressRetry + kKeep,
     .trace = kFinished + kQuestion + kDoNotKeep + kClosed + kRemoved +
              Lines{"log uninstall Pellomar failed"} +
              installFailed("rm: Invalid path\\ninstaller: The install was successful.\\n") +
              kDownloadedAgain + kQuestion + kKeep + kClosed + kRemoved + kInstalled + kQuery +
              kLaunchedAtOnce,
     .opened = kRuns,
     .flag = "present"}, // only a new start takes the answer back
    {.name = "NoKillall",
     .machine = {.tools = {{"killall", kMissing}}},
     .trace = Lines{"event 815", "status 已完成下载", "no speed", "hide stop_button"} + kInstalled + kQuery +
              kLaunchedAtOnce,
     .opened = kRuns},

    // --- the installation ---
    {.name = "InstallerSaysErrorThenTheSecondDownloadInstalls",
     .machine = {.tools = {{"installer", {"echo 'installer: Error - the package is damaged'", kInstalls}}}},
     .actions = kPressRetry,
     .trace = kFinished + installFailed("installer: Error - the package is damaged\\n") + kDownloadedAgain +
              kInstalled + kQuery + kLaunchedAtOnce,
     .opened = kRuns},
    {.name = "InstallerSaysInvalidInCapitalsBehindANullByte",
     .machine = {.tools = {{"installer", {"printf 'ok\\0INVALID'"}}}},
     .trace = kFinished + installFailed("ok") + kEnd},
    {.name = "InstallersExitStatusAndErrorStreamDoNotCount",
     .machine = {.tools = {{"installer", {kInstalls + "; echo Error - nothing went well >&2; exit 1"}}}},
     .trace = kFinished + kInstalled + kQuery + kLaunchedAtOnce,
     .opened = kRuns,
     .printed = {"Error - nothing went well\n"}},
    {.name = "InstallerCannotStart",
     .machine = {.tools = {{"installer", kMissing}}, .oldCopy = kOldFolder},
     .actions = kKeep,
     .trace = kFinished + kQuestion + kKeep + kClosed + kRemoved + kInstallStart +
              Lines{"status 安装Pellomar失败了，请联系反馈群或者重新尝试进行安装", "event 822"} + kEnd},

    // --- the driver, not loaded ---
    {.name = "OlderSystemOpensTheSettingsThenTheDriversStartWorks",
     .machine = {.tools = {{"kextstat", {"echo 'No such driver'"}}}},
     .actions = kGoToSettings + kPressAgain,
     .trace = kFinished + kInstalled + kQuery + kOlderSystem + Lines{"event 823"} + kGuide + kGoToSettings +
              kClosed + kAgain + kDriverStart + kLaunchedAfterRetry,
     .opened = kSettingsOpened + kRuns,
     .printed = {"No such driver\n\n", "Started.\n\n"}},
    {.name = "DriversStartFailsAndFailsAgainWithGuidanceClosedUnanswered",
     .machine = {.tools = {{"kextstat", kSaysNothing},
                           {"VirtualBoxStartup.sh", {kDriverStartFails, kDriverStartFails, "echo Error"}}},
                 .systemVersion = "10.14.4"},
     .actions = Lines{"key Escape"} + kPressAgain + Lines{"close"} + kPressAgain + kGoToSettings + kPressAgain,
     .trace = kFinished + kInstalled + kQuery + kOlderSystem + Lines{"event 823"} + kGuide +
              Lines{"key Escape"} + kClosed + kAgain + kDriverStart + kOlderSystem + kGuide + Lines{"close"} +
              kClosed + kAgain + kDriverStart + kOlderSystem + kGuide + kGoToSettings + kClosed + kAgain +
              kDriverStart + kLaunchedAfterRetry,
     .opened = kSettingsOpened + kRuns,
     .printed = {"VirtualBox Error: VBoxDrv is not loaded\n\n"}},
    {.name = "DriverNamedInAnotherLetterCaseOnANewerSystem",
     .machine = {.tools = {{"kextstat", {"echo com.norvik.emu.kext.vboxdrv"}}}, .systemVersion = "10.14.5"},
     .actions = kGoToForum,
     .trace = kFinished + kInstalled + kQuery + Lines{"event 824"} + kSeeForum + kGoToForum + kClosed + kEnd,
     .opened = kForumOpened},
    {.name = "ForumDialogClosedUnanswered",
     .machine = {.tools = {{"kextstat", kSaysNothing}}, .systemVersion = "10.15.7"},
     .actions = {"key Escape"},
     .trace = kFinished + kInstalled + kQuery + Lines{"event 824"} + kSeeForum + Lines{"key Escape"} + kClosed +
              kEnd},
    {.name = "LowBugFixNumberCountsAsOlder",
     .machine = {.tools = {{"kextstat", kSaysNothing}}, .systemVersion = "10.15.4"},
     .actions = {"key Escape"},
     .trace = kFinished + kInstalled + kQuery + kOlderSystem + Lines{"event 823"} + kGuide +
              Lines{"key Escape"} + kClosed + kEnd},
    {.name = "DriverNamedAcrossTwoReads",
     .machine = {.tools = {{"kextstat", {"printf '%1015s%s' '' com.norvik.emu.kext.VBoxDrv"}}}},
     .trace = kFinished + kInstalled + kQuery + kLaunchedAtOnce,
     .opened = kRuns},
    {.name = "QueryCannotStartThenTheDriversStartFailsOnANewerSystem",
     .machine = {.tools = {{"kextstat", kMissing}, {"VirtualBoxStartup.sh", {kDriverStartFails}}},
                 .systemVersion = "10.14.6"},
     .actions = kPressAgain + kGoToForum,
     .trace = kFinished + kInstalled + Lines{"status 正在查询vbox驱动状态"} + kDriverFailed + kAgain +
              kDriverStart + kSeeForum + kGoToForum + kClosed + kEnd,
     .opened = kForumOpened},
    {.name = "DriversStartCannotStart",
     .machine = {.tools = {{"kextstat", kMissing}, {"VirtualBoxStartup.sh", kMissing}}},
     .actions = kPressAgain,
     .trace = kFinished + kInstalled + Lines{"status 正在查询vbox驱动状态"} + kDriverFailed + kAgain +
              Lines{"status 正在安装vbox驱动"} + kDriverFailed + kEnd},

    // --- the launch ---
    {.name = "NothingWasInstalled",
     .machine = {.tools = {{"installer", {"echo 'installer: The install was successful.'"}}}},
     .trace = kFinished + kInstalled + kQuery + Lines{"event 826"} + kLaunching +
              Lines{"log launch Pellomar.app error:The application /Applications/Pellomar.app does not exist",
                    "status 启动Pellomar失败"} + kEnd},
    {.name = "TheProgramInTheBundleIsNotExecutable",
     .machine = {.tools = {{"installer", {kInstalls + "; chmod -x /Applications/Pellomar.app/Contents/MacOS/*"}}}},
     .trace = kFinished + kInstalled + kQuery + Lines{"event 826"} + kLaunching +
              Lines{"log launch Pellomar.app error:The executable "
                    "/Applications/Pellomar.app/Contents/MacOS/Pellomar could not be started: Permission denied",
                    "status 启动Pellomar失败"} + kEnd},

    // --- the rights ---
    {.name = "RightsRefusedTwiceBeforeAnythingIsAsked",
     .machine = {.oldCopy = kOldFolder, .asNobody = true},
     .actions = kPressAgain,
     .trace = asUser(kFinished + kRefused + kAgain + kRefused + kEnd)},
};
// clang-format on

class Pipeline : public testing::TestWithParam<Row> {
  protected:
    static void SetUpTestSuite() { stage = std::make_unique<Stage>(); }
    static void TearDownTestSuite() { stage.reset(); }

    static inline std::unique_ptr<Stage> stage;
};

TEST_P(Pipeline, TakesItsRoad) {
    const Row& row = GetParam();
    const Outcome outcome = stage->run(row.machine, row.actions);
    EXPECT_EQ(outcome.ended, "with status 0");
    EXPECT_EQ(inLines(outcome.trace), inLines(row.trace));
    EXPECT_EQ(inLines(outcome.opened), inLines(row.opened));
    EXPECT_EQ(outcome.flag, row.flag);
    for (const std::string& text : row.printed) {
        EXPECT_NE(outcome.printed.find(text), std::string::npos) << text;
    }
    if (HasFailure()) {
        std::cerr << "The program and its tools printed:\n" << outcome.printed << '\n';
    }
}

INSTANTIATE_TEST_SUITE_P(Table, Pipeline, testing::ValuesIn(kRows),
                         [](const auto& row) { return row.param.name; });

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!Stage::isInThrowAwayView()) {
        std::cerr << "Skipped: these tests replace tools of the machine; run them in scripts/view.\n";
        return 77;
    }
    return RUN_ALL_TESTS();
}
