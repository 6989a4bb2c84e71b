#include "transfer/CurlMessage.h"
#include "window/Window.h"

#include <QScreen>
#include <QTest>
#include <QWindow>

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>

namespace {

class Records : public Window {
  protected:
    Records() { openSecondScreen(); }

    /// Posts a record as a download worker does, and runs the event loop until it has been handled.
    static void post(CurlMessage message) {
        std::atomic<bool> isHandled{false};
        std::thread worker([&] {
            NotificationCenter::defaultCenter().postNotification(kCurlCallbackMessage, &message);
            isHandled = true;
        });
        EXPECT_TRUE(QTest::qWaitFor([&] { return isHandled.load(); }, 30'000));
        worker.join();
    }

    /// The middle line of the bar.
    std::vector<QRgb> barLine() {
        const QImage image = drawn();
        const int scale = qRound(image.devicePixelRatio());
        std::vector<QRgb> line;
        for (int x = bar().x(); x < bar().x() + bar().width(); ++x) {
            line.push_back(image.pixel(x * scale, bar().geometry().center().y() * scale));
        }
        return line;
    }

    bool screenIsUpToDate() {
        const QPixmap shown = panel().screen()->grabWindow(panel().window()->winId());
        return shown.toImage().convertToFormat(QImage::Format_RGB32) == drawn();
    }
};

TEST_F(Records, MoveBarAndSpeed) {
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
    const std::vector<QRgb> empty = barLine();
    for (const auto& row : rows) {
        CurlMessage message;
        message.setItype(row.type);
        message.setIMessage(row.kilobytes * 1024);
        message.setTimestamp(1.7e9 + row.time);
        post(message);
        EXPECT_DOUBLE_EQ(bar().doubleValue(), row.percent) << row.what;
        EXPECT_EQ(speed().text().toStdString(), row.speed) << row.what;
        // The bar is painted, and its new value told to screen readers, with the next frame.
        const auto whole = static_cast<int>(row.percent);
        EXPECT_TRUE(QTest::qWaitFor([&] { return bar().value() == whole; })) << row.what;
        const std::vector<QRgb> line = barLine();
        const auto end = std::mismatch(line.begin(), line.end(), empty.begin(), std::not_equal_to()).first;
        EXPECT_NEAR(std::distance(line.begin(), end) * 100.0 / line.size(), row.percent, 0.5) << row.what;
        EXPECT_TRUE(std::equal(end, line.end(), empty.end() - std::distance(end, line.end()))) << row.what;
        EXPECT_TRUE(QTest::qWaitFor([&] { return screenIsUpToDate(); })) << row.what;
    }
}

} // namespace
