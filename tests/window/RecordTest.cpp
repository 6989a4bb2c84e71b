#include "platform/NotificationCenter.h"
#include "transfer/CurlMessage.h"
#include "window/Window.h"

#include <QTest>

namespace {

TEST_F(Window, MovesBarAndSpeedWithTheRecords) {
    openSecondScreen();
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
    for (const auto& row : rows) {
        CurlMessage message;
        message.setItype(row.type);
        message.setIMessage(row.kilobytes * 1024);
        message.setTimestamp(1.7e9 + row.time);
        onWorker(
            [&] { NotificationCenter::defaultCenter().postNotification(kCurlCallbackMessage, &message); });
        EXPECT_DOUBLE_EQ(bar().doubleValue(), row.percent) << row.what;
        // Painted, and told to readers, with the next frame.
        const auto whole = static_cast<int>(row.percent);
        EXPECT_TRUE(QTest::qWaitFor([&] { return bar().value() == whole; })) << row.what;
        EXPECT_EQ(speed(), row.speed) << row.what;
    }
}

} // namespace
