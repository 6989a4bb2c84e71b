#include "platform/Text.h"
#include "ui/StatusTexts.h"
#include "window/Window.h"

#include <QFontMetrics>

namespace {

/// A view's frame with the origin at the lower left, as the screens are laid out.
std::vector<int> frameOf(const QWidget& view) {
    const QRect place = view.geometry();
    return {place.x(), view.parentWidget()->height() - place.y() - place.height(), place.width(),
            place.height()};
}

using Frames = std::vector<int>;

TEST_F(Window, ShowsTheFirstScreen) {
    EXPECT_EQ(panel().window()->windowTitle().toStdString(), "Pellomar下载器");
    EXPECT_EQ(panel().window()->size(), QSize(800, 500));
    EXPECT_EQ(panel().window()->minimumSize(), panel().window()->maximumSize());

    EXPECT_EQ(visibleButtons(), std::vector<std::string>{"start_button"});
    EXPECT_EQ(frameOf(button("start_button")), (Frames{290, 180, 220, 60}));
    EXPECT_EQ(frameOf(button("checkbox")), (Frames{25, 15, 16, 16}));
    ASSERT_EQ(labels().size(), 1U);
    EXPECT_EQ(frameOf(*labels()[0]), (Frames{41, 15, 300, 16}));
    EXPECT_FALSE(labels()[0]->isVisible());
    EXPECT_TRUE(button("checkbox").getStatus());
}

TEST_F(Window, BuildsTheSecondScreenOnce) {
    openSecondScreen();
    EXPECT_EQ(frameOf(button("stop_button")), (Frames{320, 40, 160, 40}));
    EXPECT_EQ(frameOf(bar()), (Frames{60, 100, 680, 10}));
    ASSERT_EQ(labels().size(), 3U);
    EXPECT_EQ(frameOf(*labels()[1]), (Frames{640, 125, 100, 15}));
    EXPECT_EQ(frameOf(*labels()[2]), (Frames{60, 125, 300, 15}));
    for (const char* name : {"continue_button", "continueInsTall_button", "retryDownload_button"}) {
        EXPECT_EQ(frameOf(button(name)), (Frames{320, 40, 160, 40})) << name;
    }
    EXPECT_EQ(button("continueInsTall_button").normalImage(), button("retryDownload_button").normalImage());
    EXPECT_FALSE(button("start_button").isVisible());

    // The hidden check box wears the background now, so a later start stops at the gate.
    EXPECT_FALSE(button("checkbox").getStatus());
    const std::size_t views = subviews<ImageButtonView>().size();
    panel().startDownload();
    EXPECT_EQ(subviews<ImageButtonView>().size(), views);
    EXPECT_EQ(log_.count("CoreImageView startDownload url:"), 2);
    EXPECT_EQ(log_.count("WebStatic:Download Start"), 1);
}

TEST_F(Window, StartsOnlyWithConsent) {
    button("checkbox").setHidden(false);
    button("checkbox").performClick();
    EXPECT_EQ(button("start_button").image(), button("start_button").grayImage());

    const std::string flag = home_.path() + "/Library/Application Support/PellomarData/CoverInstallFlag";
    ASSERT_EQ(std::system(("install -D /dev/null '" + flag + "'").c_str()), 0);
    button("start_button").performClick();
    EXPECT_EQ(log_.count("start_button has been clicked"), 1);
    EXPECT_EQ(log_.count("CoreImageView startDownload url:"), 1);
    EXPECT_NE(access(flag.c_str(), F_OK), 0) << "the last answer must not outlive a press of start";
    EXPECT_EQ(visibleButtons(), (std::vector<std::string>{"start_button", "checkbox"}));
    EXPECT_EQ(button("start_button").image(), button("start_button").grayImage());

    button("checkbox").performClick();
    EXPECT_EQ(button("start_button").image(), button("start_button").normalImage());
    EXPECT_TRUE(button("checkbox").getStatus());
}

TEST_F(Window, CutsNoStatusText) {
    openSecondScreen();
    TextField& label = *labels()[2];
    for (const char* text : {status::kFileMissing, status::kDownloadFailed, status::kInstallerDidNotStart,
                             status::kInstallFailed, status::kSeeForum, "没有写入权限，请检查文件夹权限",
                             "磁盘配额已用完，请清理后重试",
                             "这是一段比任何状态文字都长得多的文字，用来看标签怎样把它缩小到放得下为止"}) {
        label.setStringValue(text);
        const QFontMetrics metrics(label.fittingFont());
        EXPECT_LE(metrics.horizontalAdvance(label.text()), label.width()) << text;
        EXPECT_LE(metrics.tightBoundingRect(label.text()).height(), label.height()) << text;
    }
}

} // namespace
