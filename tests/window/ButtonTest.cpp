#include "window/Window.h"

#include <QAccessible>
#include <QTest>

namespace {

/// Sends `presses` quick presses and releases as the window system does, each to the view that is at `place`
/// then.
void click(CoreImageView& panel, const QPoint& place, int presses, Qt::MouseButton mouseButton) {
    static quint64 now = 0;
    now += 10'000;
    const auto send = [&](QWidget* view, QEvent::Type type, Qt::MouseButtons held) {
        const QPoint local = view->mapFrom(&panel, place);
        QMouseEvent event(type, local, panel.mapToGlobal(place), mouseButton, held, Qt::NoModifier);
        event.setTimestamp(now);
        QApplication::sendEvent(view, &event);
    };
    for (int press = 1; press <= presses; ++press) {
        now += 50;
        QWidget* const view = panel.childAt(place);
        send(view, press == 2 ? QEvent::MouseButtonDblClick : QEvent::MouseButtonPress, mouseButton);
        now += 20;
        send(view, QEvent::MouseButtonRelease, Qt::NoButton);
    }
}

TEST_F(Window, ActsOncePerClick) {
    openSecondScreen();
    button("checkbox").setImage(button("checkbox").normalImage());
    const struct {
        const char* name;
        int presses;
        Qt::MouseButton mouseButton;
        bool acts;
    } rows[] = {{"stop_button", 1, Qt::LeftButton, true},    {"stop_button", 2, Qt::LeftButton, true},
                {"stop_button", 3, Qt::LeftButton, true},    {"stop_button", 1, Qt::RightButton, false},
                {"stop_button", 2, Qt::MiddleButton, false}, {"checkbox", 1, Qt::LeftButton, true},
                {"checkbox", 2, Qt::LeftButton, true},       {"checkbox", 1, Qt::RightButton, false}};
    for (const auto& [name, presses, mouseButton, acts] : rows) {
        SCOPED_TRACE(std::string(name) + " " + std::to_string(presses));
        const bool isStop = std::string_view(name) == "stop_button";
        const std::string line = std::string(name) + " has been clicked";
        const int before = log_.count(line);
        const int hits = log_.count("CoreImageView hitTest");
        const bool wasTicked = button("checkbox").getStatus();
        button("continue_button").hide();
        button(name).show();
        click(panel(), button(name).geometry().center(), presses, mouseButton);
        EXPECT_EQ(log_.count(line) - before, acts ? 1 : 0);
        EXPECT_EQ(log_.count("CoreImageView hitTest") - hits, presses);
        EXPECT_EQ(button("checkbox").getStatus() != wasTicked, acts && !isStop);
        EXPECT_EQ(button("continue_button").isVisible(), acts && isStop);
        EXPECT_EQ(log_.count("CoreImageView continueDownload"), 0) << "the button that replaced it";
        button(name).hide();
    }
}

TEST_F(Window, ActsOncePerKeyAndPressOfAScreenReader) {
    openSecondScreen();
    ImageButtonView& stop = button("stop_button");
    QAccessibleInterface* const reader = QAccessible::queryAccessibleInterface(&stop);
    EXPECT_EQ(reader->role(), QAccessible::PushButton);
    EXPECT_EQ(reader->text(QAccessible::Name).toStdString(), "停止");
    const auto key = [&](int code, bool isRepeated) {
        QKeyEvent event(QEvent::KeyPress, code, Qt::NoModifier, " ", isRepeated);
        QApplication::sendEvent(&stop, &event);
    };
    const std::pair<std::function<void()>, bool> rows[] = {
        {[&] { key(Qt::Key_Space, false); }, true},
        {[&] { key(Qt::Key_Return, false); }, true},
        {[&] { key(Qt::Key_Space, true); }, false}, // held down
        {[&] { key(Qt::Key_A, false); }, false},
        {[&] { reader->actionInterface()->doAction(QAccessibleActionInterface::pressAction()); }, true},
    };
    for (const auto& [press, acts] : rows) {
        button("continue_button").hide();
        stop.show();
        const int before = log_.count("CoreImageView stopDownload");
        press();
        QCoreApplication::processEvents();
        EXPECT_EQ(log_.count("CoreImageView stopDownload") - before, acts ? 1 : 0);
        EXPECT_EQ(stop.isVisible(), !acts);
    }
}

TEST_F(Window, AButtonShowsItsPressAndActsOnRelease) {
    openSecondScreen();
    ImageButtonView& stop = button("stop_button");
    stop.show();
    QTest::mousePress(&stop, Qt::LeftButton);
    EXPECT_EQ(stop.image(), stop.deepImage());
    EXPECT_EQ(log_.count("CoreImageView stopDownload"), 0);

    // Hidden while pressed: not pressed when it is shown again, and the release acts on no button.
    stop.hide();
    QTest::mouseRelease(&button("continue_button"), Qt::LeftButton);
    stop.show();
    EXPECT_EQ(stop.image(), stop.normalImage());
    EXPECT_EQ(log_.count("CoreImageView continueDownload"), 0);

    // Released elsewhere, a press still counts.
    QTest::mousePress(&stop, Qt::LeftButton);
    QTest::mouseRelease(&stop, Qt::LeftButton, {}, QPoint(-200, -200));
    EXPECT_EQ(log_.count("CoreImageView stopDownload"), 1);
}

TEST_F(Window, StartsOnlyWithConsent) {
    ImageButtonView& start = button("start_button");
    ImageButtonView& consent = button("checkbox");
    const QAccessibleInterface* const reader = QAccessible::queryAccessibleInterface(&consent);
    EXPECT_EQ(reader->role(), QAccessible::CheckBox);
    EXPECT_TRUE(reader->state().checked);
    consent.show();
    QTest::mouseClick(&consent, Qt::LeftButton);
    EXPECT_FALSE(reader->state().checked);

    const std::string flag = home_.path() + "/Library/Application Support/PellomarData/CoverInstallFlag";
    ASSERT_EQ(std::system(("install -D /dev/null '" + flag + "'").c_str()), 0);
    QTest::mousePress(&start, Qt::LeftButton);
    EXPECT_EQ(start.image(), start.grayImage());
    QTest::mouseRelease(&start, Qt::LeftButton);
    EXPECT_EQ(start.image(), start.grayImage());
    EXPECT_EQ(log_.count("start_button has been clicked"), 1);
    EXPECT_EQ(log_.count("CoreImageView startDownload url:"), 1);
    EXPECT_NE(access(flag.c_str(), F_OK), 0) << "the last answer must not outlive a press of start";
    EXPECT_EQ(visibleButtons(), (std::vector<std::string>{"start_button", "checkbox"}));

    consent.performClick();
    EXPECT_EQ(start.image(), start.normalImage());
    EXPECT_TRUE(consent.getStatus());
    EXPECT_FALSE(start.getStatus());
}

} // namespace
