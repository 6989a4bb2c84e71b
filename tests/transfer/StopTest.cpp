#include "platform/FileManager.h"
#include "support/CapturedLog.h"
#include "support/WaitUntil.h"
#include "transfer/CurlWrapper.h"
#include "transfer/Transfer.h"

#include <curl/curl.h>

#include <map>
#include <thread>

namespace {

using Stop = Transfer;

const Answer kStallsInMidBody{.upTo = Answer::Place{Answer::Place::Body, kMidBody}, .then = Answer::Stall};

TEST_F(Stop, EndsTheTransferAtTheNextBlock) {
    const Outcome stopped = download(0, [](const CurlMessage& record) {
        if (record.iMessage() > 0) {
            CurlWrapper::SyncStop(record.identifier());
        }
    });
    EXPECT_EQ(stopped.result, CURLE_WRITE_ERROR);
    expectBodyTransfer(stopped, Ending::Stopped);
    ASSERT_EQ(stopped.records.size(), 3U);
    EXPECT_EQ(file(), document_.substr(0, static_cast<std::size_t>(stopped.bytes())));

    // The flag stays until it is cleared.
    const Outcome again = download(stopped.bytes());
    expectBodyTransfer(again, Ending::Stopped);
    EXPECT_EQ(again.bytes(), 0);

    CurlWrapper::SyncStop(0);
    expectBodyTransfer(download(stopped.bytes()), Ending::Finished);
    EXPECT_EQ(sha256(file()), sha256(document_));
}

TEST_F(Stop, IsAskedForByAnyIdentifierButZero) {
    const struct {
        std::int64_t identifier;
        Ending ending;
    } rows[] = {
        {1, Ending::Stopped},  {0, Ending::Finished},        {-1, Ending::Stopped},
        {0, Ending::Finished}, {1LL << 32, Ending::Stopped}, {0, Ending::Finished},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.identifier);
        setFile("");
        CurlWrapper::SyncStop(row.identifier);
        expectBodyTransfer(download(0), row.ending);
    }
}

TEST_F(Stop, NeverHidesASuccess) {
    std::size_t received = 0;
    const Outcome outcome = download(0, [&](const CurlMessage& record) {
        received += record.itype() == CurlMessageTypeData ? static_cast<std::size_t>(record.iMessage()) : 0;
        CurlWrapper::SyncStop(received == document_.size() ? record.identifier() : 0);
    });
    expectBodyTransfer(outcome, Ending::Finished);
    EXPECT_EQ(sha256(file()), sha256(document_));
}

TEST_F(Stop, ReportsAFailureAsStopped) {
    server_.behave({.gets = {{.upTo = Answer::Place{Answer::Place::Headers, 0}, .then = Answer::Close}}});
    CurlWrapper::SyncStop(1);
    const Outcome outcome = download(0);
    EXPECT_EQ(outcome.result, CURLE_GOT_NOTHING);
    expectBodyTransfer(outcome, Ending::Stopped);
}

TEST_F(Stop, WaitsWhileTheServerStalls) {
    server_.behave({.gets = {kStallsInMidBody}});
    const RecordCollector panel;
    std::thread user([&] {
        EXPECT_TRUE(waitUntil([&] { return panel.bytes() == kMidBody; }));
        CurlWrapper::SyncStop(panel.token());
        server_.endStalls();
    });
    const Outcome outcome = download(0);
    user.join();
    EXPECT_EQ(outcome.result, CURLE_WRITE_ERROR);
    expectBodyTransfer(outcome, Ending::Stopped);
    EXPECT_EQ(file(), document_.substr(0, kMidBody));
}

TEST_F(Stop, EndsEveryTransferThatRuns) {
    server_.behave({.gets = {kStallsInMidBody}});
    const std::string paths[] = {path_, folder_.path() + "/other"};
    int results[] = {0, 0};
    const CapturedLog log;
    const RecordCollector panel;
    const auto fetch = [&](int i) {
        results[i] = CurlWrapper::SyncDownloadToFile(server_.url(), paths[i], 0);
    };
    std::thread workers[] = {std::thread(fetch, 0), std::thread(fetch, 1)};
    EXPECT_TRUE(waitUntil([&] { return panel.bytes() == 2 * kMidBody; }));
    CurlWrapper::SyncStop(panel.token());
    server_.endStalls();
    for (std::thread& worker : workers) {
        worker.join();
    }

    std::map<std::thread::id, std::int64_t> tokens;
    std::size_t stopped = 0;
    for (const auto& [message, thread] : panel.records()) {
        EXPECT_EQ(tokens.try_emplace(thread, message.identifier()).first->second, message.identifier());
        stopped += message.itype() == CurlMessageTypeData && message.iMessage() == 0 && message.status() == 0;
    }
    EXPECT_EQ(stopped, 2U);
    ASSERT_EQ(tokens.size(), 2U);
    EXPECT_NE(tokens.begin()->second, tokens.rbegin()->second);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(results[i], CURLE_WRITE_ERROR);
        EXPECT_EQ(readFile(paths[i]), document_.substr(0, kMidBody));
    }
}

} // namespace
