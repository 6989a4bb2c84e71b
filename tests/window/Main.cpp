#include "app/MainInterface.h"
#include "platform/MainThread.h"
#include "window/Window.h"

#include <QApplication>
#include <QTest>

#include <fstream>

Window::Window() {
    setenv("HOME", home_.path().c_str(), 1);
    controller_.windowDidLoad();
    controller_.showWindow();
    EXPECT_TRUE(QTest::qWaitForWindowExposed(controller_.window()));
}

ImageButtonView& Window::button(const std::string& name) {
    for (ImageButtonView* const view : subviews<ImageButtonView>()) {
        if (view->imageName() == name) {
            return *view;
        }
    }
    throw std::runtime_error("no button " + name);
}

std::vector<std::string> Window::visibleButtons() {
    std::vector<std::string> names;
    for (const ImageButtonView* const view : subviews<ImageButtonView>()) {
        if (view->isVisible()) {
            names.push_back(view->imageName());
        }
    }
    return names;
}

void Window::openSecondScreen() {
    std::ofstream(home_.path() + "/Downloads") << "a file in the folder's place";
    panel().startDownload();
    ASSERT_EQ(status().text().toStdString(), "路径中有一项不是文件夹");
}

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const ScratchFolder runtime; // the toolkit would leave one of its own in /tmp
    setenv("XDG_RUNTIME_DIR", runtime.path().c_str(), 1);
    const QApplication application(argc, argv);
    setUpLook();
    MainThread::attach();
    return RUN_ALL_TESTS();
}
