#include "support/WaitUntil.h"
#include "transfer/CurlWrapper.h"
#include "transfer/Transfer.h"

#include <curl/curl.h>

namespace {

using Probe = Transfer;

TEST_F(Probe, IsOnePlainRequestWhoseHeadersGoToStandardOutput) {
    const Outcome outcome = probe();
    const std::vector<FaultServer::Request> requests = server_.requests();
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].method, "HEAD");
    EXPECT_EQ(requests[0].range, "");
    EXPECT_EQ(requests[0].text.find("User-Agent"), std::string::npos);
    EXPECT_NE(outcome.output.find("Content-Length: 100000"), std::string::npos);
}

TEST_F(Probe, FailsWhereNoServerAnswers) {
    const std::string url = server_.url();
    const struct {
        std::string url;
        int result;
    } rows[] = {
        {"", CURLE_URL_MALFORMAT},
        {url + "\n", CURLE_URL_MALFORMAT},
        {url + " x", CURLE_URL_MALFORMAT},
        {url + "\t", CURLE_URL_MALFORMAT},
        {"carrier-pigeon://127.0.0.1/", CURLE_UNSUPPORTED_PROTOCOL},
        {"http://127.0.0.1:1/", CURLE_COULDNT_CONNECT},
        {"http://nowhere.invalid/", CURLE_COULDNT_RESOLVE_HOST},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.url);
        const Outcome probed = onWorker([&] { return CurlWrapper::SyncHead(row.url); });
        EXPECT_EQ(probed.result, row.result);
        ASSERT_EQ(probed.records.size(), 1U);
        EXPECT_EQ(probed.records[0].itype(), CurlMessageTypeProbeFailed);
        EXPECT_EQ(probed.records[0].status(), row.result);

        const Outcome fetched = onWorker([&] { return CurlWrapper::SyncDownloadToFile(row.url, path_, 0); });
        EXPECT_EQ(fetched.result, row.result);
        expectBodyTransfer(fetched, Ending::Failed);
    }
    EXPECT_TRUE(server_.requests().empty());
}

TEST_F(Probe, TakesChineseCharactersInAUrl) {
    const std::string url = server_.url() + "/安装包.pkg";
    EXPECT_EQ(onWorker([&] { return CurlWrapper::SyncHead(url); }).result, CURLE_OK);
    ASSERT_EQ(server_.requests().size(), 1U);
    EXPECT_NE(server_.requests()[0].text.find("/%e5%ae%89%e8%a3%85%e5%8c%85.pkg HTTP/1.1"), std::string::npos)
        << server_.requests()[0].text;
}

// A handle that is left unreleased keeps its connection. The leak checker, where it is built in, looks at
// the end of the process whether it was told.
TEST_F(Probe, LeavesItsHandleOnlyWhereTheLengthIsUnknown) {
    const Answer unknown{.headers = "Connection: keep-alive\r\n", .length = ""};
    const Answer negative{.length = "-5"};
    server_.behave({.heads = {unknown, {}, negative}});
    EXPECT_EQ(probe().result, -1);
    EXPECT_EQ(probe().result, CURLE_OK);
    EXPECT_EQ(probe().result, CURLE_WEIRD_SERVER_REPLY);
    // Hang-ups arrive in order: once the later ones are seen, the first will not come.
    EXPECT_TRUE(waitUntil([&] { return server_.connections() <= 1; }));
    EXPECT_EQ(server_.connections(), 1U);
}

} // namespace
