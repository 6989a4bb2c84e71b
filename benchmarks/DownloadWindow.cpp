// Measures a download by the product's window: presses start through the X server and, when the record of the
// finished transfer is posted, writes a line of JSON to the file named by the first argument and ends the
// process, before anything is installed. With a second argument, "probe", it also measures the delay of
// timers and mouse moves while the body is transferred; building the second screen comes before.
#include "InterfaceProbe.h"
#include "app/MainInterface.h"
#include "platform/MainThread.h"
#include "platform/NotificationCenter.h"
#include "transfer/CurlMessage.h"
#include "ui/ImageButtonView.h"

#include <QApplication>
#include <QTimer>
#include <QWidget>

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

using namespace std::chrono_literals;

double processorSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

long peakResidentKilobytes() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmHWM:")) {
            return std::strtol(line.c_str() + std::strlen("VmHWM:"), nullptr, 10);
        }
    }
    return 0;
}

/// nginx limits the rate by whole seconds, so every program starts at the same fraction of a second.
std::chrono::milliseconds untilTheNextStart() {
    constexpr auto kPlace = 100ms;
    const auto now = std::chrono::system_clock::now().time_since_epoch() - kPlace;
    const auto wait = 1s - std::chrono::duration_cast<std::chrono::milliseconds>(now % 1s);
    return wait < 300ms ? wait + 1s : wait;
}

class Watcher : public QObject {
  public:
    explicit Watcher(QObject* parent)
        : QObject(parent), probesInterface_(QCoreApplication::arguments().value(2) == "probe") {
        // Registered before the panel, whose reaction to the finished record installs.
        NotificationCenter::defaultCenter().addObserver(kCurlCallbackMessage, [this](const void* object) {
            const auto& message = *static_cast<const CurlMessage*>(object);
            if (message.itype() == CurlMessageTypeStarted && probesInterface_) {
                MainThread::performAndWait([this] { probe_.start(*window_); });
            } else if (message.itype() == CurlMessageTypeFinished) {
                const Clock::time_point end = Clock::now();
                MainThread::performAndWait([this, end] { report(end); });
            } else if (message.status() != 0) {
                _exit(1);
            }
        });
        qApp->installEventFilter(this);
    }

    bool eventFilter(QObject* watched, QEvent* event) override {
        auto* const button = dynamic_cast<ImageButtonView*>(watched);
        if (button != nullptr && button->imageName() == button::kStart) {
            if (event->type() == QEvent::Paint && !std::exchange(seen_, true)) {
                QTimer::singleShot(untilTheNextStart(), button, [this, button] { press(*button); });
            } else if (event->type() == QEvent::MouseButtonRelease) {
                begin(*button->window());
            }
        }
        return QObject::eventFilter(watched, event);
    }

  private:
    void press(const QWidget& button) { probe_.click(button.mapToGlobal(button.rect().center())); }

    void begin(const QWidget& window) {
        processorBefore_ = processorSeconds();
        start_ = Clock::now();
        window_ = &window;
    }

    [[noreturn]] void report(Clock::time_point end) {
        const double seconds = std::chrono::duration<double>(end - start_).count();
        const double processor = processorSeconds() - processorBefore_;
        FILE* const file = std::fopen(qPrintable(QCoreApplication::arguments().value(1)), "w");
        if (file == nullptr) {
            _exit(1);
        }
        std::fprintf(file, "{\"seconds\": %.4f, \"processor\": %.4f, \"peak_kilobytes\": %ld", seconds,
                     processor, peakResidentKilobytes());
        if (probesInterface_) {
            probe_.print(file);
        }
        std::fputs("}\n", file);
        std::fclose(file);
        _exit(0);
    }

    const bool probesInterface_;
    InterfaceProbe probe_;
    bool seen_ = false;
    const QWidget* window_ = nullptr;
    double processorBefore_ = 0;
    Clock::time_point start_;
};

void watch() {
    new Watcher(qApp);
}

Q_COREAPP_STARTUP_FUNCTION(watch)

} // namespace

int main(int argc, char** argv) {
    return NSApplicationMain(argc, argv);
}
