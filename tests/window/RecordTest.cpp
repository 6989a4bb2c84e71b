#include "platform/Bundle.h"
#include "platform/FileManager.h"
#include "platform/NotificationCenter.h"
#include "report/WebStatic.h"
#include "support/WaitUntil.h"
#include "transfer/CurlMessage.h"
#include "window/Window.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace {

struct Record {
    std::int32_t itype;
    std::int32_t status;
    std::int64_t quantity;
    double timestamp = 0; // absent: now
};

void post(const Record& record) {
    CurlMessage message;
    message.setItype(record.itype);
    message.setStatus(record.status);
    message.setIMessage(record.quantity);
    message.setIdentifier(4096);
    if (record.timestamp == 0) {
        postCurlMessage(message);
    } else {
        message.setTimestamp(record.timestamp);
        NotificationCenter::defaultCenter().postNotification(kCurlCallbackMessage, &message);
    }
}

/// The panel after a start, with its bar and stop button back, ready for records.
class Records : public Window {
  protected:
    void SetUp() override {
        std::ofstream(tool_) << "#!/bin/sh\necho \"$@\" >> '" << home_.path() << "/events'\n";
        chmod(tool_.c_str(), 0755);
        openSecondScreen();
        bar().show();
        labels()[1]->show();
        button("stop_button").show();
        EXPECT_TRUE(
            waitUntil([this] { return events() == "14 814\n14 821\n" || events() == "14 821\n14 814\n"; }));
        std::filesystem::remove(home_.path() + "/events");
    }
    void TearDown() override { std::filesystem::remove(tool_); }

    [[nodiscard]] std::string events() const { return readFile(home_.path() + "/events").value_or(""); }

    const std::string tool_ = webStatisticsPath(executablePath());
};

TEST_F(Records, LeadToTheirScreens) {
    const std::string stop = "stop_button";
    const std::string resume = "continue_button";
    const struct {
        const char* what;
        Record record;
        const char* status;
        std::vector<std::string> visible;
        bool barVisible;
        const char* events;
    } rows[] = {{"started", {CurlMessageTypeStarted, 0, -1}, "正在下载Pellomar", {stop}, true, ""},
                {"data", {CurlMessageTypeData, 0, 10}, "unchanged", {stop}, true, ""},
                {"stopped", {CurlMessageTypeData, 0, 0}, "已停止下载", {stop}, true, ""},
                {"failed", {CurlMessageTypeData, -1, 0}, "网络异常，请稍后重试", {resume}, true, "14 821\n"},
                {"no length",
                 {CurlMessageTypeProbeFailed, -1, 0},
                 "文件不存在，请前往下载新版本Pellomar下载器",
                 {},
                 false,
                 "14 821\n"},
                {"probe error",
                 {CurlMessageTypeProbeFailed, 2, 0},
                 "下载失败，请直接双击镜像中的APP开始下载",
                 {},
                 false,
                 "14 821\n"},
                {"kind 9", {9, -1, 5}, "unchanged", {stop}, true, ""}};
    for (const auto& row : rows) {
        button("stop_button").show();
        button("continue_button").hide();
        bar().show();
        labels()[1]->show();
        panel().updateStatus("unchanged");
        onWorker([&] { post(row.record); });
        EXPECT_EQ(status(), row.status) << row.what;
        EXPECT_EQ(visibleButtons(), row.visible) << row.what;
        EXPECT_EQ(bar().isVisible(), row.barVisible) << row.what;
        EXPECT_EQ(labels()[1]->isVisible(), row.barVisible) << row.what;
        EXPECT_TRUE(waitUntil([&] { return events() == row.events; })) << row.what << ": " << events();
        std::filesystem::remove(home_.path() + "/events");
    }
    EXPECT_EQ(log_.count("Error Code:2\n"), 1);
    EXPECT_EQ(log_.count("Webstatic:Download Faild\n"), 3);
}

TEST_F(Records, MoveBarAndSpeed) {
    const auto data = [](std::int64_t bytes, double time) {
        return Record{CurlMessageTypeData, 0, bytes, time};
    };
    constexpr double kStart = 1.7e9;
    constexpr std::int64_t kKilobyte = 1024;
    const struct {
        const char* what;
        Record record;
        double percent;
        const char* speed;
    } rows[] = {
        {"before the length is known", data(100 * kKilobyte, kStart), 0, "0 KB/s"},
        {"length", {CurlMessageTypeLength, 0, 1000 * kKilobyte}, 0, "0 KB/s"},
        {"first sample since the epoch", data(100 * kKilobyte, kStart + 0.1), 20, "0 KB/s"},
        {"within a second", data(100 * kKilobyte, kStart + 1.0), 30, "0 KB/s"},
        {"after more than a second", data(200 * kKilobyte, kStart + 2.1), 50, "150 KB/s"},
        {"the clock jumps back", data(100 * kKilobyte, kStart - 500), 60, "150 KB/s"},
        {"stopped: the last rate stays", data(0, kStart + 3.0), 60, "150 KB/s"},
        {"a continued transfer is probed again",
         {CurlMessageTypeLength, 0, 1000 * kKilobyte},
         60,
         "150 KB/s"},
        {"and counts on", data(400 * kKilobyte, kStart + 12.1), 100, "50 KB/s"},
    };
    for (const auto& row : rows) {
        onWorker([&] { post(row.record); });
        EXPECT_DOUBLE_EQ(bar().doubleValue(), row.percent) << row.what;
        EXPECT_EQ(bar().value(), static_cast<int>(row.percent)) << row.what;
        EXPECT_EQ(speed(), row.speed) << row.what;
    }
}

} // namespace
