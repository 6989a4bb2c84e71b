#include "FirstPaint.h"

#include <QApplication>
#include <QWidget>

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>

namespace {

/// When this process was started, in seconds since boot, to a hundredth.
double processStart() {
    std::ifstream file("/proc/self/stat");
    std::string text((std::istreambuf_iterator<char>(file)), {});
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    for (int i = 3; i <= 22; ++i) {
        fields >> field;
    }
    return std::stod(field) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

long residentKilobytes() {
    std::ifstream file("/proc/self/statm");
    long size = 0;
    long resident = 0;
    file >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

class FirstPaint : public QObject {
  public:
    using QObject::QObject;

    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() == QEvent::Paint && !seen_) {
            seen_ = true;
            const auto report = [] {
                timespec now{};
                clock_gettime(CLOCK_BOOTTIME, &now);
                const double milliseconds = (static_cast<double>(now.tv_sec) +
                                             static_cast<double>(now.tv_nsec) / 1e9 - processStart()) *
                                            1e3;
                std::printf("%.0f ms %ld kB\n", milliseconds, residentKilobytes());
                std::fflush(stdout);
                _exit(0);
            };
            QMetaObject::invokeMethod(this, report, Qt::QueuedConnection);
        }
        return QObject::eventFilter(watched, event);
    }

  private:
    bool seen_ = false;
};

} // namespace

void reportFirstPaint(QWidget* view) {
    view->installEventFilter(new FirstPaint(view));
}
