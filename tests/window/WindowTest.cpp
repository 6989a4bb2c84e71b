#include "app/KvWindowController.h"
#include "app/MainInterface.h"
#include "platform/Alert.h"
#include "platform/Bundle.h"
#include "platform/FileManager.h"
#include "platform/MainThread.h"
#include "platform/NotificationCenter.h"
#include "platform/Text.h"
#include "support/CapturedLog.h"
#include "transfer/CurlMessage.h"
#include "ui/StatusTexts.h"
#include "ui/ViewController.h"

#include <QAccessible>
#include <QApplication>
#include <QPainter>
#include <QRegularExpression>
#include <QScreen>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

namespace {

/// A test with the program's window on screen and a home folder of its own.
class Window : public testing::Test {
  protected:
    Window() {
        qputenv("HOME", home_.path().toUtf8());
        controller_.windowDidLoad();
        controller_.showWindow();
        EXPECT_TRUE(QTest::qWaitForWindowExposed(controller_.window(), 30'000));
    }

    /// Starts a download that fails before its worker, since its folder can't be made. Tests post the records
    /// of a transfer themselves.
    void openSecondScreen() {
        std::ofstream(inHome("Downloads")) << "a file in the folder's place";
        panel_.startDownload();
        ASSERT_EQ(status().text().toStdString(), "路径中有一项不是文件夹");
    }

    [[nodiscard]] std::string inHome(const char* name) const { return home_.filePath(name).toStdString(); }

    /// The panel's direct subviews of a class, in their order.
    template <typename View>
    [[nodiscard]] QList<View*> subviews() {
        QList<View*> found;
        for (QObject* const child : panel_.children()) {
            found.append(dynamic_cast<View*>(child));
        }
        found.removeAll(nullptr);
        return found;
    }

    [[nodiscard]] ImageButtonView& button(std::string_view name) {
        const auto views = subviews<ImageButtonView>();
        return **std::ranges::find_if(views, [&](auto* view) { return view->imageName() == name; });
    }
    [[nodiscard]] TextField& speed() { return *subviews<TextField>().at(1); }
    [[nodiscard]] TextField& status() { return *subviews<TextField>().at(2); }
    [[nodiscard]] ProgressIndicator& bar() { return *subviews<ProgressIndicator>().at(0); }

    /// What the panel paints, at the scale that the environment sets.
    QImage drawn() { return panel_.grab().toImage().convertToFormat(QImage::Format_RGB32); }

    QTemporaryDir home_;
    CapturedLog log_;
    KvWindowController controller_;
    CoreImageView& panel_ = *controller_.contentViewController().panel();
};

TEST_F(Window, ActsOncePerClick) {
    ImageButtonView& box = button("checkbox");
    box.show();
    const struct {
        const char* what;
        std::function<void()> press;
        bool acts;
        int hits = 0;
    } rows[] = {{"click", [&] { QTest::mouseClick(&box, Qt::LeftButton); }, true, 1},
                {"double click",
                 [&] {
                     QTest::mouseDClick(panel_.window()->windowHandle(), Qt::LeftButton, {},
                                        box.mapTo(panel_.window(), QPoint(1, 1)));
                 },
                 true, 2},
                {"right click", [&] { QTest::mouseClick(&box, Qt::RightButton); }, false, 1},
                {"beside it", [&] { QTest::mouseClick(&panel_, Qt::LeftButton, {}, {9, 9}); }, false, 1},
                {"key", [&] { QTest::keyClick(&box, Qt::Key_Space); }, true},
                {"key held down",
                 [&] {
                     QKeyEvent event(QEvent::KeyPress, Qt::Key_Space, Qt::NoModifier, " ", true);
                     QApplication::sendEvent(&box, &event);
                 },
                 false}};
    for (const auto& [what, press, acts, hits] : rows) {
        SCOPED_TRACE(what);
        const bool wasTicked = box.getStatus();
        const int before = log_.count("checkbox has been clicked");
        const int hitsBefore = log_.count("CoreImageView hitTest");
        press();
        EXPECT_EQ(box.getStatus() != wasTicked, acts);
        EXPECT_EQ(log_.count("checkbox has been clicked") - before, acts);
        EXPECT_EQ(log_.count("CoreImageView hitTest") - hitsBefore, hits);
    }
}

TEST_F(Window, AButtonShowsItsPressAndActsOnRelease) {
    openSecondScreen();
    ImageButtonView& stop = button("stop_button");
    stop.show();
    QTest::mousePress(&stop, Qt::LeftButton);

    // Hidden while pressed: not pressed when it is shown again, and the release acts on no button.
    stop.hide();
    QTest::mouseRelease(&button("continue_button"), Qt::LeftButton);
    stop.performClick();
    stop.show();
    EXPECT_EQ(stop.image(), stop.normalImage());
    EXPECT_EQ(log_.count("CoreImageView stopDownload") + log_.count("CoreImageView continueDownload"), 0);

    // Released elsewhere, a press still counts.
    QTest::mousePress(&stop, Qt::LeftButton);
    QTest::mouseRelease(&stop, Qt::LeftButton, {}, QPoint(-200, -200));
    EXPECT_EQ(log_.count("CoreImageView stopDownload"), 1);

    // Hidden while focused: a key that follows acts on no button, not even on the one in its place.
    button("continue_button").hide();
    stop.show();
    stop.setFocus();
    button("continue_button").show();
    stop.hide();
    EXPECT_EQ(panel_.window()->focusWidget(), &panel_);

    // Reached by a key, a button shows that it has the focus.
    stop.show();
    panel_.activateWindow();
    EXPECT_TRUE(QTest::qWaitForWindowActive(panel_.window(), 30'000));
    const QImage before = drawn();
    QTest::keyClick(&panel_, Qt::Key_Tab);
    EXPECT_TRUE(drawn() != before);
}

TEST_F(Window, ClosedByTheProgramEndsItsDialogAndSubmits) {
    const std::string tool = bundlePath() + "/Contents/MacOS/WebStatistics";
    std::ofstream(tool) << "#!/bin/sh\necho \"$@\" >\"$HOME/submitted\"\n";
    std::filesystem::permissions(tool, std::filesystem::perms::owner_all);
    QTimer::singleShot(0, [&] {
        EXPECT_EQ(QApplication::activeModalWidget()->parentWidget(), panel_.window());
        panel_.window()->close();
        if (QWidget* const left = QApplication::activeModalWidget()) {
            left->close();
        }
    });
    Alert guide;
    guide.buttons = {"立即前往"};
    EXPECT_EQ(guide.runModal(), 0);
    EXPECT_EQ(log_.count("window closeEx"), 1);
    EXPECT_TRUE(QTest::qWaitFor([&] { return readFile(inHome("submitted")) == "13\n"; }, 30'000));
    std::filesystem::remove(tool);
}

TEST_F(Window, StartsOnlyWithConsent) {
    ImageButtonView& start = button("start_button");
    ImageButtonView& consent = button("checkbox");
    const QAccessibleInterface* const reader = QAccessible::queryAccessibleInterface(&consent);
    EXPECT_TRUE(reader->state().checked);
    consent.show();
    QTest::mouseClick(&consent, Qt::LeftButton);
    EXPECT_FALSE(reader->state().checked);
    QTest::mousePress(&start, Qt::LeftButton);
    EXPECT_EQ(start.image(), start.grayImage());
    QTest::mouseRelease(&start, Qt::LeftButton);
    EXPECT_EQ(start.image(), start.grayImage());
    EXPECT_EQ(log_.count("CoreImageView startDownload url:"), 1);
    EXPECT_TRUE(start.isVisible());
    consent.performClick();
    EXPECT_EQ(start.image(), start.normalImage());
    EXPECT_FALSE(start.getStatus());
}

TEST_F(Window, PlacesItsViews) {
    QWidget& window = *panel_.window();
    EXPECT_EQ(window.windowTitle().toStdString(), "Pellomar下载器");
    EXPECT_EQ(window.minimumSize(), window.maximumSize());
    EXPECT_EQ(window.geometry().center(), window.screen()->availableGeometry().center());
    openSecondScreen();
    const auto buttons = subviews<ImageButtonView>();
    const auto labels = subviews<TextField>();
    ASSERT_TRUE(buttons.size() == 6 && labels.size() == 3);
    const std::pair<QWidget*, QRect> rows[] = {
        // with the origin at the lower left
        {&window, {0, 0, 800, 500}},      {buttons[0], {290, 180, 220, 60}}, {buttons[1], {25, 15, 16, 16}},
        {labels[0], {41, 15, 300, 16}},   {buttons[2], {320, 40, 160, 40}},  {&bar(), {60, 100, 680, 10}},
        {labels[1], {640, 125, 100, 15}}, {labels[2], {60, 125, 300, 15}},   {buttons[3], {320, 40, 160, 40}},
        {buttons[4], {320, 40, 160, 40}}, {buttons[5], {320, 40, 160, 40}}};
    for (const auto& [view, frame] : rows) {
        EXPECT_EQ(view->size(), frame.size());
        EXPECT_EQ(view->mapTo(&window, QPoint(0, view->height())), QPoint(frame.x(), 500 - frame.y()));
    }
    EXPECT_EQ(buttons[4]->normalImage(), buttons[5]->normalImage());
    EXPECT_FALSE(buttons[0]->isVisible() || buttons[1]->isVisible() || labels[0]->isVisible());

    // The hidden check box now shows the background, so it counts as not ticked and a later start does
    // nothing.
    panel_.startDownload();
    EXPECT_EQ(subviews<ImageButtonView>().size(), 6);
    EXPECT_EQ(log_.count("CoreImageView startDownload url:"), 2);
    EXPECT_EQ(log_.count("WebStatic:Download Start"), 1);
}

TEST_F(Window, DrawsEveryTextWholeAndApart) {
    openSecondScreen();
    std::set<std::string> texts;
    const QString header = QString::fromStdString(readFile(STATUS_TEXTS).value());
    for (const QRegularExpressionMatch& found : QRegularExpression("= \"(.*)\";").globalMatch(header)) {
        texts.insert(found.captured(1).toStdString());
    }
    EXPECT_GE(texts.size(), 20U);
    for (int code = 1; code <= EHWPOISON; ++code) {
        texts.insert(::status::causeOf({code, std::generic_category()}));
    }
    const std::pair<TextField*, std::set<std::string>> rows[] = {{&speed(), {"12345678 KB/s"}},
                                                                 {&status(), texts}};
    for (const auto& [label, shown] : rows) {
        for (QWidget* const other : subviews<QWidget>()) {
            EXPECT_TRUE(other->size() == panel_.size() || other == label ||
                        !other->geometry().intersects(label->geometry()));
        }
        for (const std::string& text : shown) {
            label->setStringValue("");
            QImage expected = drawn();
            label->setStringValue(text);
            EXPECT_EQ(label->fittingFont(), label->font()) << "set smaller: " << text;
            QPainter painter(&expected); // nothing clips here
            painter.setFont(label->font());
            painter.setPen(Qt::white);
            const int side = label == &speed() ? Qt::AlignRight : Qt::AlignLeft;
            painter.drawText(label->geometry(), side | Qt::AlignVCenter | Qt::TextDontClip, label->text());
            EXPECT_TRUE(drawn() == expected) << "cut: " << text;
        }
    }
}

TEST_F(Window, DrawsThePicturesOfItsScale) {
    const auto of = [this](const std::string& name) {
        const char* const scale = panel_.devicePixelRatioF() > 1 ? "@2x" : "";
        return QPixmap(viewText(bundleResourcePath(name + scale, "png")));
    };
    const auto expect = [&](const char* background, const char* name, const std::string& picture) {
        QImage expected = of(background).toImage().convertToFormat(QImage::Format_RGB32);
        QPainter(&expected).drawPixmap(button(name).pos(), of(picture));
        EXPECT_TRUE(drawn() == expected) << name << " does not show " << picture;
    };
    const auto expectBoth = [&](const char* background, const char* name, const std::string& picture) {
        button(name).show();
        expect(background, name, picture + "_normal");
        QTest::mousePress(&button(name), Qt::LeftButton);
        expect(background, name, picture + "_deep");
        button(name).hide();
        QTest::mouseRelease(&panel_, Qt::LeftButton);
    };
    expectBoth("firstbackground", "start_button", "start");
    const Image::Ref tick = Image::named("checked");
    EXPECT_EQ(tick->pixmap(1.5).width(), 2 * tick->size().width()) << "at a scale between 1 and 2";
    ImageButtonView& consent = button("checkbox");
    consent.show();
    expect("firstbackground", "checkbox", "checked");
    consent.performClick();
    expect("firstbackground", "checkbox", "uncheck");
    consent.hide();
    button("start_button").show();
    expect("firstbackground", "start_button", "start_gray");
    consent.show();
    consent.performClick();
    openSecondScreen();
    for (QWidget* const other :
         std::initializer_list<QWidget*>{&bar(), &speed(), &status(), &button("stop_button")}) {
        other->hide();
    }
    expectBoth("secondbackground", "stop_button", "stop");
    expectBoth("secondbackground", "continue_button", "continue");
    expectBoth("secondbackground", "retryDownload_button", "retry");
}

using Records = Window;

TEST_F(Records, MoveBarAndSpeed) {
    openSecondScreen();
    const auto onScreen = [this] { return panel_.screen()->grabWindow(panel_.window()->winId()).toImage(); };
    constexpr auto kData = CurlMessageTypeData, kLength = CurlMessageTypeLength;
    const struct {
        const char* what;
        CurlMessageType type;
        std::int64_t kilobytes;
        double time; ///< seconds from an arbitrary moment
        double percent;
        const char* speed;
    } rows[] = {
        {"before the length is known", kData, 100, 0, 0, "0 KB/s"},
        {"length", kLength, 1000, 0, 0, "0 KB/s"},
        {"first sample since the epoch", kData, 100, 0.1, 20, "0 KB/s"},
        {"within a second", kData, 100, 1.0, 30, "0 KB/s"},
        {"after more than a second", kData, 200, 2.1, 50, "150 KB/s"},
        {"the clock jumps back", kData, 100, -500, 60, "150 KB/s"},
        {"stopped: the last rate stays", kData, 0, 3.0, 60, "150 KB/s"},
        {"probed again by a continue", kLength, 1000, 0, 60, "150 KB/s"},
        {"and counts on", kData, 400, 12.1, 100, "50 KB/s"},
    };
    const QImage empty = drawn();
    for (const auto& row : rows) {
        CurlMessage message;
        message.setItype(row.type);
        message.setIMessage(row.kilobytes * 1024);
        message.setTimestamp(1.7e9 + row.time);
        std::atomic<bool> isHandled{false};
        const std::jthread worker([&] { // as a download worker posts it
            NotificationCenter::defaultCenter().postNotification(kCurlCallbackMessage, &message);
            isHandled = true;
        });
        EXPECT_TRUE(QTest::qWaitFor([&] { return isHandled.load(); }, 30'000)) << row.what;
        EXPECT_EQ(speed().text().toStdString(), row.speed) << row.what;
        // The bar is painted, and its new value reported to screen readers, with the next frame.
        const auto isShown = [&] {
            const QImage now = onScreen();
            const auto isFilledAt = [&](double percent) {
                const QPointF point(bar().x() + bar().width() * percent / 100, bar().geometry().center().y());
                const QPoint pixel = (point * panel_.devicePixelRatioF()).toPoint();
                return now.pixel(pixel) != empty.pixel(pixel);
            };
            return bar().value() == static_cast<int>(row.percent) &&
                   (row.percent == 0 || isFilledAt(row.percent - 1)) &&
                   (row.percent == 100 || !isFilledAt(row.percent + 1));
        };
        EXPECT_TRUE(QTest::qWaitFor(isShown, 30'000)) << row.what;
    }
    CurlMessage failure;
    failure.setItype(CurlMessageTypeProbeFailed);
    panel_.onCallbackMessage(failure);
    EXPECT_FALSE(bar().isVisible() || speed().isVisible());
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const QTemporaryDir runtime; // the toolkit would leave one of its own in /tmp
    qputenv("XDG_RUNTIME_DIR", runtime.path().toUtf8());
    qputenv("PATH", runtime.path().toUtf8()); // the guidance is not to open a browser
    const QApplication application(argc, argv);
    setUpLook();
    MainThread::attach();
    return RUN_ALL_TESTS();
}
