#include "window/Window.h"

#include <QTest>

namespace {

/// Presses and releases as the window system reports them: `presses` quick ones at one place, each handed to
/// whichever view is there by then.
void click(CoreImageView& panel, const QPoint& place, int presses,
           Qt::MouseButton mouseButton = Qt::LeftButton) {
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
        QWidget* view = panel.childAt(place);
        send(view, press == 2 ? QEvent::MouseButtonDblClick : QEvent::MouseButtonPress, mouseButton);
        now += 20;
        send(view, QEvent::MouseButtonRelease, Qt::NoButton);
    }
}

TEST_F(Window, CountsClicksAcrossButtons) {
    openSecondScreen();
    const QPoint spot = button("stop_button").geometry().center();
    const struct {
        int presses;
        Qt::MouseButton mouseButton;
        int stops;
        std::vector<std::string> visible;
    } rows[] = {
        {1, Qt::LeftButton, 1, {"continue_button"}}, {2, Qt::LeftButton, 1, {"continue_button"}},
        {3, Qt::LeftButton, 1, {"continue_button"}}, {1, Qt::RightButton, 0, {"stop_button"}},
        {2, Qt::MiddleButton, 0, {"stop_button"}},
    };
    for (const auto& row : rows) {
        button("stop_button").show();
        button("continue_button").hide();
        const int before = log_.count("CoreImageView stopDownload");
        const int hits = log_.count("CoreImageView hitTest");
        click(panel(), spot, row.presses, row.mouseButton);
        EXPECT_EQ(log_.count("CoreImageView stopDownload") - before, row.stops) << row.presses;
        EXPECT_EQ(log_.count("CoreImageView hitTest") - hits, row.presses);
        EXPECT_EQ(visibleButtons(), row.visible) << row.presses;
        EXPECT_EQ(log_.count("CoreImageView continueDownload"), 0);
    }
}

TEST_F(Window, AButtonShowsItsPressAndActsOnRelease) {
    openSecondScreen();
    ImageButtonView& stop = button("stop_button");
    stop.show();
    QTest::mousePress(&stop, Qt::LeftButton);
    EXPECT_EQ(stop.image(), stop.deepImage());
    EXPECT_EQ(log_.count("stop_button has been clicked"), 1);
    EXPECT_EQ(log_.count("CoreImageView stopDownload"), 0);

    // Hidden while held down: back at rest when it is shown again, and the release is nobody's click.
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

TEST_F(Window, AGrayButtonKeepsItsPictureAndStillSendsItsMessage) {
    panel().enableStart(false);
    ImageButtonView& start = button("start_button");
    QTest::mousePress(&start, Qt::LeftButton);
    EXPECT_EQ(start.image(), start.grayImage());
    button("checkbox").setImage(button("checkbox").deepImage());
    QTest::mouseRelease(&start, Qt::LeftButton);
    EXPECT_EQ(start.image(), start.grayImage());
    EXPECT_EQ(log_.count("CoreImageView startDownload url:"), 1);
    EXPECT_FALSE(start.getStatus());
    panel().enableStart(true);
    EXPECT_EQ(start.image(), start.normalImage());
}

} // namespace
