#include "support/SampleServer.h"
#include "support/WaitUntil.h"
#include "transfer/CurlWrapper.h"
#include "transfer/Transfer.h"

#include <curl/curl.h>

#include <filesystem>
#include <fstream>
#include <thread>

namespace {

using Resume = Transfer;

TEST_F(Resume, AfterAStopGoesOnAtTheNextByte) {
    const std::string documents = folder_.path() + "/documents";
    const std::string document = makeDocument(2'000'000);
    std::filesystem::create_directories(documents + "/soft");
    std::ofstream(documents + "/soft/Pellomar.pkg", std::ios::binary) << document;
    const SampleServer server(documents, "4m");
    const std::string url = server.url("/soft/Pellomar.pkg");
    const auto download = [&](std::int64_t offset) {
        return CurlWrapper::SyncDownloadToFile(url, path_, offset);
    };

    EXPECT_EQ(onWorker([&] { return CurlWrapper::SyncHead(url); }).records.at(0).iMessage(), 2'000'000);
    // Stopped from another thread, as by a button, while bytes come in.
    std::int64_t received = 0;
    {
        const RecordCollector panel;
        std::thread user([&] {
            EXPECT_TRUE(waitUntil([&] { return panel.bytes() > 100'000; }));
            CurlWrapper::SyncStop(panel.token());
        });
        const Outcome outcome = onWorker([&] { return download(0); });
        user.join();
        EXPECT_EQ(outcome.result, CURLE_WRITE_ERROR);
        expectBodyTransfer(outcome, Ending::Stopped);
        received = outcome.bytes();
    }
    EXPECT_EQ(file(), document.substr(0, static_cast<std::size_t>(received)));
    EXPECT_LT(received, 2'000'000);

    CurlWrapper::SyncStop(0);
    const Outcome rest = onWorker([&] { return download(received); });
    expectBodyTransfer(rest, Ending::Finished);
    EXPECT_EQ(received + rest.bytes(), 2'000'000);
    EXPECT_EQ(sha256(file()), sha256(document));

    // Nothing is left to ask for: finished, and the file is as it was.
    expectBodyTransfer(onWorker([&] { return download(2'000'000); }), Ending::Finished);
    EXPECT_EQ(sha256(file()), sha256(document));

    const std::string logged[] = {"range=\"-\" 200", "range=\"bytes=" + std::to_string(received) + "-\" 206",
                                  "range=\"bytes=2000000-\" 416"};
    for (const std::string& expected : logged) {
        EXPECT_TRUE(waitUntil([&] { return server.accessLog().find(expected) != std::string::npos; }))
            << expected << " is not in\n"
            << server.accessLog();
    }
}

TEST_F(Resume, SurvivesAConnectionThatBreaksEachTime) {
    server_.behave({.gets = {{.upTo = Answer::Place{Answer::Place::Body, 9'000}, .then = Answer::Close}}});
    std::vector<std::string> expectedRanges;
    std::int64_t received = 0;
    for (int attempt = 0; received < static_cast<std::int64_t>(document_.size()) && attempt < 12; ++attempt) {
        expectedRanges.push_back(received == 0 ? "" : "bytes=" + std::to_string(received) + "-");
        received += download(received).bytes();
    }
    EXPECT_EQ(sha256(file()), sha256(document_));
    std::vector<std::string> ranges;
    for (const FaultServer::Request& request : server_.requests()) {
        ranges.push_back(request.range);
    }
    EXPECT_EQ(ranges, expectedRanges);
    EXPECT_EQ(ranges.size(), 12U);
}

TEST_F(Resume, AsksForOffsetsBeyondFourGigabytes) {
    EXPECT_EQ(download(5'000'000'000).result, CURLE_OK);
    EXPECT_EQ(server_.requests().at(0).range, "bytes=5000000000-");
    EXPECT_EQ(file(), "");
}

TEST_F(Resume, TakesTheOffsetFromItsCallerAndNotFromTheFile) {
    setFile("before");
    expectBodyTransfer(download(0), Ending::Finished);
    expectBodyTransfer(download(kMidBody), Ending::Finished);
    EXPECT_EQ(file(), "before" + document_ + document_.substr(kMidBody));
}

} // namespace
