#include "platform/Bundle.h"
#include "platform/FileManager.h"
#include "platform/Text.h"
#include "window/Window.h"

#include <QPainter>
#include <QPushButton>
#include <QTest>
#include <QTimer>

#include <regex>

namespace {

/// A view's frame with the origin at the lower left.
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
    EXPECT_EQ(frameOf(speed()), (Frames{640, 125, 100, 15}));
    EXPECT_EQ(frameOf(status()), (Frames{60, 125, 300, 15}));
    for (const char* name : {"continue_button", "continueInsTall_button", "retryDownload_button"}) {
        EXPECT_EQ(frameOf(button(name)), (Frames{320, 40, 160, 40})) << name;
    }
    EXPECT_EQ(button("continueInsTall_button").normalImage(), button("retryDownload_button").normalImage());
    EXPECT_FALSE(button("start_button").isVisible());

    // The hidden check box now shows the background, so it counts as not ticked and a later start does
    // nothing.
    EXPECT_FALSE(button("checkbox").getStatus());
    const std::size_t views = subviews<ImageButtonView>().size();
    panel().startDownload();
    EXPECT_EQ(subviews<ImageButtonView>().size(), views);
    EXPECT_EQ(log_.count("CoreImageView startDownload url:"), 2);
    EXPECT_EQ(log_.count("WebStatic:Download Start"), 1);
}

/// The texts of StatusTexts.h, and the text for each error number.
std::vector<std::string> statusTexts() {
    const std::string header = readFile(STATUS_TEXTS).value();
    const std::regex literal("= \"(.*)\";");
    std::vector<std::string> texts;
    for (std::sregex_iterator found(header.begin(), header.end(), literal), end; found != end; ++found) {
        texts.push_back((*found)[1]);
    }
    EXPECT_GE(texts.size(), 20U);
    for (int code = 1; code <= EHWPOISON; ++code) {
        texts.push_back(localizedDescription({code, std::generic_category()}));
    }
    return texts;
}

TEST_F(Window, DrawsEveryTextWholeAndApart) {
    openSecondScreen();
    const std::pair<TextField*, std::vector<std::string>> rows[] = {{&speed(), {"12345678 KB/s"}},
                                                                    {&status(), statusTexts()}};
    for (const auto& [label, texts] : rows) {
        for (QWidget* const other : subviews<QWidget>()) {
            const bool isBackground = other->size() == panel().size();
            EXPECT_TRUE(isBackground || other == label || !other->geometry().intersects(label->geometry()));
        }
        label->show();
        for (const std::string& text : texts) {
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
        return QPixmap(
            viewText(bundleResourcePath(name + (panel().devicePixelRatioF() > 1 ? "@2x" : ""), "png")));
    };
    const auto expect = [&](const char* background, const char* picture, const char* name) {
        button(name).show();
        QImage expected = of(background).toImage().convertToFormat(QImage::Format_RGB32);
        QPainter(&expected).drawPixmap(button(name).pos(), of(picture));
        EXPECT_TRUE(drawn() == expected) << picture;
        button(name).hide();
    };
    expect("firstbackground", "start_normal", "start_button");
    openSecondScreen();
    for (QWidget* const view : std::initializer_list<QWidget*>{&bar(), &speed(), &status()}) {
        view->hide();
    }
    expect("secondbackground", "stop_normal", "stop_button");
    expect("secondbackground", "continue_normal", "continue_button");
    expect("secondbackground", "retry_normal", "retryDownload_button");
}

TEST_F(Window, DrawsDialogsWithRoomForTheirWords) {
    const auto look = [] {
        QWidget& box = *QApplication::activeModalWidget();
        QRegion taken;
        for (QWidget* const view : box.findChildren<QWidget*>()) {
            if (view->isVisible() && view->findChildren<QWidget*>().isEmpty()) {
                const QRect place(view->mapTo(&box, QPoint()), view->size());
                EXPECT_TRUE(box.rect().contains(place) && !taken.intersects(place));
                taken += place;
                EXPECT_GE(view->width(), view->minimumSizeHint().width());
                EXPECT_GE(view->height(), view->heightForWidth(view->width()));
            }
        }
        QTest::keyClick(&box, Qt::Key_Escape);
        if (box.isVisible()) {
            box.findChild<QPushButton*>()->click(); // Escape does not close the question
        }
    };
    QTimer::singleShot(0, look);
    panel().isCoverInstall();
    for (const auto guide : {CoreImageView::installFaildGuide, CoreImageView::installFaildDueToSip}) {
        QTimer::singleShot(0, look);
        guide();
    }
}

} // namespace
