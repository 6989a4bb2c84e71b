#include "BuildConstants.h"
#include "platform/Bundle.h"
#include "platform/FileManager.h"
#include "platform/NotificationCenter.h"
#include "support/CapturedLog.h"
#include "support/ScratchFolder.h"
#include "transfer/CurlMessage.h"
#include "transfer/CurlWrapper.h"
#include "ui/CoreImageView.h"

#include <QProcess>

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <tuple>

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

/// Kind, status and quantity.
using Fields = std::tuple<int, int, std::int64_t>;

/// What one operation returned, posted and logged.
struct Outcome {
    int result = 0;
    std::vector<Fields> records;
    std::int64_t token = 0;
    std::int64_t bytes = 0; ///< the sum of the data records
    std::string log;
};

std::function<void(const Outcome& soFar)> react; ///< called at each record, where it is set

/// Seconds since 1970, of the clock that records are stamped by: time() lags by some milliseconds.
double now() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

Outcome run(const std::function<int()>& operation) {
    Outcome outcome;
    double earlier = now();
    const CapturedLog log;
    const auto handle = [&](const void* object) {
        const auto& record = *static_cast<const CurlMessage*>(object);
        EXPECT_GE(record.timestamp(), std::exchange(earlier, record.timestamp()));
        outcome.token = outcome.records.empty() ? record.identifier() : outcome.token;
        EXPECT_EQ(record.identifier(), outcome.token) << "one transfer, one token";
        outcome.records.emplace_back(record.itype(), record.status(), record.iMessage());
        outcome.bytes += record.itype() == CurlMessageTypeData ? record.iMessage() : 0;
        if (react) {
            react(outcome);
        }
    };
    auto* const observer = NotificationCenter::defaultCenter().addObserver("CurlCallbackMessage", handle);
    outcome.result = operation();
    NotificationCenter::defaultCenter().removeObserver(observer);
    EXPECT_LE(earlier, now());
    outcome.log = log.text();
    return outcome;
}

Outcome download(const std::string& url, const std::string& path, std::int64_t offset) {
    return run([&] { return CurlWrapper::SyncDownloadToFile(url, path, offset); });
}

const Fields kStarted{CurlMessageTypeStarted, 0, -1}, kFinished{CurlMessageTypeFinished, 0, 0},
    kStopped{CurlMessageTypeData, 0, 0}, kFailed{CurlMessageTypeData, -1, 0},
    kMissing{CurlMessageTypeProbeFailed, -1, 0};

/// Checks a probe's only record, or those of a body transfer: started, a data record for each block written,
/// and the ending.
void expectRecords(const Outcome& outcome, const Fields& ending, int result) {
    EXPECT_EQ(outcome.result, result);
    ASSERT_FALSE(outcome.records.empty());
    EXPECT_EQ(outcome.records.back(), ending);
    if (outcome.token == -1) {
        EXPECT_EQ(outcome.records.size(), 1U);
        return;
    }
    EXPECT_NE(outcome.token, 0);
    EXPECT_EQ(outcome.records.front(), kStarted);
    for (std::size_t i = 1; i + 1 < outcome.records.size(); ++i) {
        const auto& [kind, status, bytes] = outcome.records[i];
        EXPECT_TRUE(kind == CurlMessageTypeData && status == 0 && bytes > 0)
            << "record " << i << ": kind " << kind << ", status " << status << ", " << bytes << " bytes";
    }
    const std::string line = "SyncDownload Return Code:" + std::to_string(result) + "\n";
    EXPECT_NE(outcome.log.find(line), std::string::npos) << outcome.log;
}

class Transfer : public testing::Test {
  protected:
    Transfer() {
        setenv("no_proxy", "*", 1); // ignores proxies that the machine is set up for
        CurlWrapper::SyncStop(0);
        std::generate(document_.begin(), document_.end(), std::mt19937()); // so that any cut or shift shows
        std::ofstream(source_, std::ios::binary) << document_;
    }

    std::string document_ = std::string(kAll, '\0');
    const ScratchFolder folder_;
    const std::string source_ = folder_.path() + "/document";
    const std::string path_ = folder_.path() + "/Pellomar.tmp";
};

TEST_F(Transfer, PostsWhatTheServerGave) {
    constexpr std::int64_t kProbe = -1;
    const auto length = [](std::int64_t bytes) { return Fields(CurlMessageTypeLength, 0, bytes); };
    const struct {
        const char* answer;
        std::int64_t offset;
        Fields ending;
        int result = CURLE_OK;
        std::int64_t bytes = 0; ///< added to the file
    } rows[] = {{"", kProbe, length(kAll)},
                {"length=9223372036854775807", kProbe, length(INT64_MAX)},
                {"length=0", kProbe, length(0)},
                {"length=None", kProbe, kMissing, -1},
                {"head=0", kProbe, {CurlMessageTypeProbeFailed, CURLE_GOT_NOTHING, 0}, CURLE_GOT_NOTHING},
                {"", 0, kFinished, CURLE_OK, kAll},
                {"", kHalf, kFinished, CURLE_OK, kAll - kHalf},
                {"head=0 ending=reset", 0, kFailed, CURLE_RECV_ERROR},
                {"cut=-1", kHalf, kFailed, CURLE_PARTIAL_FILE, kAll - kHalf - 1},
                {"range=ignore", kHalf, kFailed, CURLE_RANGE_ERROR}};
    for (const auto& [answer, offset, ending, result, bytes] : rows) {
        SCOPED_TRACE(std::string(answer) + " at " + std::to_string(offset));
        const std::string held = document_.substr(0, std::max<std::int64_t>(offset, 0));
        std::ofstream(path_, std::ios::binary) << held;
        Server server(source_, {answer});
        const Outcome outcome = offset == kProbe ? run([&] { return CurlWrapper::SyncHead(server.url()); })
                                                 : download(server.url(), path_, offset);
        expectRecords(outcome, ending, result);
        EXPECT_EQ(outcome.bytes, bytes);
        EXPECT_TRUE(readFile(path_) == document_.substr(0, held.size() + bytes));
        EXPECT_EQ(server.line(), std::string(offset == kProbe ? "HEAD" : "GET") + " /soft/Pellomar.pkg " +
                                     (offset > 0 ? std::to_string(offset) : "-"));
        EXPECT_EQ(outcome.log.find(", Connection reset") != std::string::npos, result == CURLE_RECV_ERROR);
    }
}

TEST_F(Transfer, StopByAnyIdentifierHidesAFailureAndNeverASuccess) {
    for (const std::int64_t identifier : {1LL, -1LL, 1LL << 32}) {
        Server server(source_, {"head=0", ""});
        CurlWrapper::SyncStop(identifier);
        expectRecords(download(server.url(), path_, 0), kStopped, CURLE_GOT_NOTHING);
        react = [&](const Outcome& soFar) { CurlWrapper::SyncStop(soFar.bytes == kAll ? identifier : 0); };
        expectRecords(download(server.url(), path_, 0), kFinished, CURLE_OK);
        react = nullptr;
        expectRecords(download(server.url(), path_, 0), kStopped, CURLE_WRITE_ERROR);
    }
}

TEST_F(Transfer, CountsWhatReachedTheDiskAndNothingElse) {
    std::signal(SIGXFSZ, SIG_IGN);
    constexpr std::int64_t kRoom = 1501; // less than the size of a stream's buffer
    rlimit before{};
    const rlimit small{kRoom, RLIM_INFINITY};
    Server server(source_, {"body=2000"});
    for (const std::int64_t bytes : {kRoom, std::int64_t{0}}) { // the second time, there is no room left
        ASSERT_EQ(prlimit(0, RLIMIT_FSIZE, &small, &before), 0);
        const Outcome outcome = download(server.url(), path_, kRoom - bytes);
        ASSERT_EQ(prlimit(0, RLIMIT_FSIZE, &before, nullptr), 0);
        expectRecords(outcome, kFailed, CURLE_WRITE_ERROR);
        EXPECT_EQ(outcome.bytes, bytes);
        EXPECT_TRUE(readFile(path_) == document_.substr(0, kRoom));
    }
    const Outcome unopened = download("http://127.0.0.1:1/", folder_.path(), 0);
    EXPECT_EQ(unopened.records, std::vector{kFailed});
    EXPECT_EQ(unopened.result, CURLE_WRITE_ERROR);
    EXPECT_TRUE(unopened.token != 0 && unopened.token != -1);
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
