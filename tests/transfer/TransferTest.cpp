#include "BuildConstants.h"
#include "platform/Bundle.h"
#include "platform/FileManager.h"
#include "platform/NotificationCenter.h"
#include "platform/UrlRequest.h"
#include "support/CapturedLog.h"
#include "transfer/CurlMessage.h"
#include "transfer/CurlWrapper.h"
#include "ui/CoreImageView.h"

#include <QTemporaryDir>

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>

namespace {

/// An address of tests/support/server.py, which gives the answer that the path describes.
std::string url(const std::string& answer = "") {
    return "http://" + qEnvironmentVariable("SERVER").toStdString() + "/" + answer;
}

constexpr std::int64_t kAll = 100'000, kHalf = 40'000;
constexpr int kLength = CurlMessageTypeLength, kFailedProbe = CurlMessageTypeProbeFailed;

std::function<void(std::int64_t bytesSoFar)> react; ///< called at each record, if it is set

/// Seconds since 1970, of the clock that records are stamped by: time() lags by some milliseconds.
double now() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string text(int kind, int status, std::int64_t quantity) {
    return " " + std::to_string(kind) + "," + std::to_string(status) + "," + std::to_string(quantity);
}

/// The records of a transfer, in its order: started, blocks of so many bytes in all, and the last one.
std::string records(std::int64_t bytes, const std::string& last) {
    return text(CurlMessageTypeStarted, 0, -1) + (bytes > 0 ? " +" + std::to_string(bytes) : "") + last;
}

const std::string kFinished = text(CurlMessageTypeFinished, 0, 0), kStopped = text(CurlMessageTypeData, 0, 0),
                  kFailed = text(CurlMessageTypeData, -1, 0);

/// Runs an operation and returns its result and its records, each as kind, status and quantity; those of
/// blocks that follow one another as the sum of their bytes.
std::string outcome(const std::function<int()>& operation) {
    std::string all;
    std::int64_t bytes = 0;
    double earlier = now();
    std::optional<std::int64_t> token;
    const auto handle = [&](const void* object) {
        const auto& record = *static_cast<const CurlMessage*>(object);
        EXPECT_GE(record.timestamp(), std::exchange(earlier, record.timestamp()));
        EXPECT_EQ(record.identifier(), token.value_or(record.identifier())) << "one transfer, one token";
        EXPECT_EQ(record.identifier() == -1, record.itype() == kLength || record.itype() == kFailedProbe);
        token = record.identifier();
        if (record.itype() == CurlMessageTypeData && record.status() == 0 && record.iMessage() > 0) {
            bytes += record.iMessage();
        } else {
            all += (bytes > 0 ? " +" + std::to_string(bytes) : "") +
                   text(record.itype(), record.status(), record.iMessage());
        }
        if (react) {
            react(bytes);
        }
    };
    auto* const observer = NotificationCenter::defaultCenter().addObserver("CurlCallbackMessage", handle);
    const int result = operation();
    NotificationCenter::defaultCenter().removeObserver(observer);
    EXPECT_LE(earlier, now());
    EXPECT_NE(token, 0);
    return std::to_string(result) + all;
}

class Transfer : public testing::Test {
  protected:
    Transfer() {
        setenv("no_proxy", "*", 1); // ignores proxies that the machine is set up for
        CurlWrapper::SyncStop(0);
    }

    [[nodiscard]] std::string download(const std::string& answer, std::int64_t offset) const {
        return outcome([&] { return CurlWrapper::SyncDownloadToFile(url(answer), path_, offset); });
    }

    const std::string document_ = readFile("/proc/self/exe").value().substr(0, kAll);
    const QTemporaryDir folder_;
    const std::string path_ = folder_.filePath("Pellomar.tmp").toStdString();
};

TEST_F(Transfer, PostsWhatTheServerGave) {
    constexpr std::int64_t kProbe = -1;
    const struct {
        const char* answer;
        std::int64_t offset;
        int result;
        std::string last;
        std::int64_t bytes = 0; ///< added to the file
    } rows[] = {{"", kProbe, CURLE_OK, text(kLength, 0, kAll)},
                {"length=9223372036854775807", kProbe, CURLE_OK, text(kLength, 0, INT64_MAX)},
                {"length=0", kProbe, CURLE_OK, text(kLength, 0, 0)},
                {"length=None", kProbe, -1, text(kFailedProbe, -1, 0)},
                {"cut=None", kProbe, CURLE_GOT_NOTHING, text(kFailedProbe, CURLE_GOT_NOTHING, 0)},
                {"", 0, CURLE_OK, kFinished, kAll},
                {"", kHalf, CURLE_OK, kFinished, kAll - kHalf},
                {"cut=None/ending=reset", 0, CURLE_RECV_ERROR, kFailed},
                {"cut=-1", kHalf, CURLE_PARTIAL_FILE, kFailed, kAll - kHalf - 1},
                {"range=ignore", kHalf, CURLE_RANGE_ERROR, kFailed}};
    for (const auto& [answer, offset, result, last, bytes] : rows) {
        SCOPED_TRACE(std::string(answer) + " at " + std::to_string(offset));
        const std::string held = document_.substr(0, std::max<std::int64_t>(offset, 0));
        std::ofstream(path_, std::ios::binary) << held;
        const std::string seen = offset == kProbe
                                     ? outcome([&] { return CurlWrapper::SyncHead(url(answer)); })
                                     : download(answer, offset);
        EXPECT_EQ(seen, std::to_string(result) + (offset == kProbe ? last : records(bytes, last)));
        EXPECT_TRUE(readFile(path_) == document_.substr(0, held.size() + bytes)) << "another file";
    }
}

TEST_F(Transfer, StopByAnyIdentifierHidesAFailureAndNeverASuccess) {
    for (const std::int64_t identifier : {1LL, -1LL, 1LL << 32}) {
        CurlWrapper::SyncStop(identifier);
        EXPECT_EQ(download("cut=None", 0), std::to_string(CURLE_GOT_NOTHING) + records(0, kStopped));
        react = [&](std::int64_t bytes) { CurlWrapper::SyncStop(bytes == kAll ? identifier : 0); };
        EXPECT_EQ(download("", 0), std::to_string(CURLE_OK) + records(kAll, kFinished));
        react = nullptr;
        EXPECT_EQ(download("", 0), std::to_string(CURLE_WRITE_ERROR) + records(0, kStopped));
    }
}

TEST_F(Transfer, ARequestWaitsOnlySoLongForItsReply) {
    EXPECT_EQ(synchronousGet(url("cut=None/ending=stall"), 1), std::nullopt);
}

TEST_F(Transfer, AnUpdateRewritesTheStampBesideTheBundle) {
    setenv("http_proxy", url().c_str(), 1); // it asks a fixed address, and is answered with that
    setenv("no_proxy", "", 1);
    const std::string version = std::string("GET http://") + constants::kUpdateHost +
                                "/Interfaces/UpdaterExeInfo.aspx?toolKey=KvEmulatorNAT&"
                                "sign=3c1f9a7e5b2d40c8a6e9f1b7d3c5a0e2";
    const std::string stamp = bundlePath() + "/../.propaganda.dat";
    std::filesystem::remove(stamp);
    const CapturedLog log;
    CoreImageView::modifyVersion();
    EXPECT_FALSE(fileExists(stamp) || log.count("Open of File")) << log.text();
    std::ofstream(stamp) << "Describe=old|OrgProductVersion=1.0|ProductVersion=1.0";
    CoreImageView::modifyVersion();
    EXPECT_EQ(readFile(stamp),
              "Describe=B-" + version + "|OrgProductVersion=" + version + "|ProductVersion=" + version + "|");
    std::filesystem::remove(stamp);
    EXPECT_EQ(log.count("] " + version + "\n"), 2);
}

} // namespace
