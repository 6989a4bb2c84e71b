#include "BuildConstants.h"
#include "platform/Bundle.h"
#include "platform/FileManager.h"
#include "platform/NotificationCenter.h"
#include "platform/UrlRequest.h"
#include "support/CapturedLog.h"
#include "transfer/CurlMessage.h"
#include "transfer/CurlWrapper.h"
#include "ui/CoreImageView.h"

#include <QProcess>
#include <QTemporaryDir>

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>

namespace {

/// Runs tests/support/server.py, which documents the answers, with the document at `path`. Used by the thread
/// that created it.
class Server {
  public:
    Server(const std::string& path, const QStringList& answers) {
        process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process_.start(SERVER, QStringList{"--document", QString::fromStdString(path), "--"} + answers);
        port = line();
    }
    ~Server() {
        process_.closeWriteChannel();
        process_.waitForFinished();
    }

    [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + port + "/soft/Pellomar.pkg"; }

    /// The next request: method, path, and the first byte of the range or "-". Blocks until there is one.
    std::string line() {
        while (!process_.canReadLine() && process_.waitForReadyRead()) {
        }
        return process_.readLine().trimmed().toStdString();
    }

    std::string port;

  private:
    QProcess process_;
};

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
        std::generate(document_.begin(), document_.end(), std::mt19937()); // so that any cut or shift shows
        std::ofstream(source_, std::ios::binary) << document_;
    }

    [[nodiscard]] std::string download(const std::string& url, std::int64_t offset) const {
        return outcome([&] { return CurlWrapper::SyncDownloadToFile(url, path_, offset); });
    }

    std::string document_ = std::string(kAll, '\0');
    const QTemporaryDir folder_;
    const std::string source_ = folder_.filePath("document").toStdString();
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
                {"cut=None ending=reset", 0, CURLE_RECV_ERROR, kFailed},
                {"cut=-1", kHalf, CURLE_PARTIAL_FILE, kFailed, kAll - kHalf - 1},
                {"range=ignore", kHalf, CURLE_RANGE_ERROR, kFailed}};
    QStringList answers;
    for (const auto& row : rows) {
        answers << row.answer;
    }
    Server server(source_, answers);
    for (const auto& [answer, offset, result, last, bytes] : rows) {
        SCOPED_TRACE(std::string(answer) + " at " + std::to_string(offset));
        const std::string held = document_.substr(0, std::max<std::int64_t>(offset, 0));
        std::ofstream(path_, std::ios::binary) << held;
        const std::string seen = offset == kProbe
                                     ? outcome([&] { return CurlWrapper::SyncHead(server.url()); })
                                     : download(server.url(), offset);
        EXPECT_EQ(seen, std::to_string(result) + (offset == kProbe ? last : records(bytes, last)));
        EXPECT_TRUE(readFile(path_) == document_.substr(0, held.size() + bytes)) << "another file";
        EXPECT_EQ(server.line(), std::string(offset == kProbe ? "HEAD" : "GET") + " /soft/Pellomar.pkg " +
                                     (offset > 0 ? std::to_string(offset) : "-"));
    }
}

TEST_F(Transfer, StopByAnyIdentifierHidesAFailureAndNeverASuccess) {
    for (const std::int64_t identifier : {1LL, -1LL, 1LL << 32}) {
        Server server(source_, {"cut=None", ""});
        CurlWrapper::SyncStop(identifier);
        EXPECT_EQ(download(server.url(), 0), std::to_string(CURLE_GOT_NOTHING) + records(0, kStopped));
        react = [&](std::int64_t bytes) { CurlWrapper::SyncStop(bytes == kAll ? identifier : 0); };
        EXPECT_EQ(download(server.url(), 0), std::to_string(CURLE_OK) + records(kAll, kFinished));
        react = nullptr;
        EXPECT_EQ(download(server.url(), 0), std::to_string(CURLE_WRITE_ERROR) + records(0, kStopped));
    }
}

TEST_F(Transfer, ARequestWaitsOnlySoLongForItsReply) {
    const Server server(source_, {"cut=None ending=stall"});
    EXPECT_EQ(synchronousGet(server.url(), 1), std::nullopt);
}

TEST_F(Transfer, AnUpdateRewritesTheStampBesideTheBundle) {
    std::ofstream(source_) << "2.0.1";
    Server server(source_, {""});
    setenv("http_proxy", ("http://127.0.0.1:" + server.port).c_str(), 1); // it asks a fixed address
    setenv("no_proxy", "", 1);
    const std::string stamp = bundlePath() + "/../.propaganda.dat";
    std::filesystem::remove(stamp);
    const CapturedLog log;
    CoreImageView::modifyVersion();
    EXPECT_FALSE(fileExists(stamp) || log.count("Open of File")) << log.text();
    std::ofstream(stamp) << "Describe=old|OrgProductVersion=1.0|ProductVersion=1.0";
    CoreImageView::modifyVersion();
    EXPECT_EQ(readFile(stamp), "Describe=B-2.0.1|OrgProductVersion=2.0.1|ProductVersion=2.0.1|");
    std::filesystem::remove(stamp);
    EXPECT_EQ(server.line(), std::string("GET http://") + constants::kUpdateHost +
                                 "/Interfaces/UpdaterExeInfo.aspx?toolKey=KvEmulatorNAT&"
                                 "sign=3c1f9a7e5b2d40c8a6e9f1b7d3c5a0e2 -");
    EXPECT_EQ(log.count("] 2.0.1\n"), 2);
}

} // namespace
