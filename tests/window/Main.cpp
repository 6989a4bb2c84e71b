#include "app/MainInterface.h"
#include "download/DownloadSource.h"
#include "platform/Authorization_polkit_linux.h"
#include "platform/Authorization_root_linux.h"
#include "platform/MainThread.h"
#include "platform/WorkerThread.h"
#include "window/Window.h"

#include <QApplication>
#include <QTest>

namespace {

constexpr int kDeadline = 30'000; // milliseconds

} // namespace

// These take the place of the program's own.

std::string downloadUrl(const std::string& /*bundlePath*/, const std::string& /*fallbackPath*/) {
    return Window::url;
}

AuthorizationRef makeRootAuthorization() {
    return nullptr;
}

AuthorizationRef makePolkitAuthorization() {
    return nullptr;
}

void CoreImageView::killTovaniPlayer() {}

void CoreImageView::startTovaniPlayer(const void* /*unused*/) {}

Window::Window() {
    url.clear();
    setenv("HOME", home_.path().c_str(), 1);
    controller_.windowDidLoad();
    controller_.showWindow();
    EXPECT_TRUE(QTest::qWaitForWindowExposed(controller_.window(), kDeadline));
}

Window::~Window() {
    EXPECT_TRUE(QTest::qWaitFor([] { return WorkerThread::running() == 0; }, kDeadline));
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
    panel().startDownload();
    ASSERT_TRUE(QTest::qWaitFor([] { return WorkerThread::running() == 0; }, kDeadline));
    ASSERT_EQ(status(), "下载失败，请直接双击镜像中的APP开始下载");
}

void Window::onWorker(const std::function<void()>& work) {
    const WorkerThread worker = WorkerThread::start(work);
    ASSERT_TRUE(QTest::qWaitFor([&] { return worker.isFinished(); }, kDeadline));
}

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    unsetenv("http_proxy");
    QApplication application(argc, argv);
    setUpLook();
    MainThread::attach();
    return RUN_ALL_TESTS();
}
