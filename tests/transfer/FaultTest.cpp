#include "transfer/Transfer.h"

#include <curl/curl.h>

#include <algorithm>

namespace {

using Faults = Transfer;

constexpr std::int64_t kWhole = kFaultyDocumentSize;
constexpr std::int64_t kHalf = kMidBody;

/// What libcurl makes of a fault, as the probe, as a fresh download and as one that resumes at kMidBody:
/// results, the probe's length, and how many bytes reach the file.
struct Reading {
    const char* fault;
    std::int64_t probe;
    std::int64_t length;
    std::int64_t fresh;
    std::int64_t freshBytes;
    std::int64_t resume;
    std::int64_t resumeBytes;
};

constexpr int kUnknownLength = -1;

const Reading kReadings[] = {
    {"none", CURLE_OK, kWhole, CURLE_OK, kWhole, CURLE_OK, kWhole - kHalf},

    {"closed at once", CURLE_GOT_NOTHING, 0, CURLE_GOT_NOTHING, 0, CURLE_GOT_NOTHING, 0},
    {"closed in the headers", kUnknownLength, 0, CURLE_OK, 0, CURLE_OK, 0},
    {"closed after the headers", CURLE_OK, kWhole, CURLE_PARTIAL_FILE, 0, CURLE_PARTIAL_FILE, 0},
    {"closed in mid-body", CURLE_OK, kWhole, CURLE_PARTIAL_FILE, kHalf, CURLE_PARTIAL_FILE, kHalf},
    {"closed before the last byte", CURLE_OK, kWhole, CURLE_PARTIAL_FILE, kWhole - 1, CURLE_PARTIAL_FILE,
     kWhole - kHalf - 1},
    {"reset at once", CURLE_RECV_ERROR, 0, CURLE_RECV_ERROR, 0, CURLE_RECV_ERROR, 0},
    {"reset in the headers", CURLE_RECV_ERROR, 0, CURLE_RECV_ERROR, 0, CURLE_RECV_ERROR, 0},
    {"reset in mid-body", CURLE_OK, kWhole, CURLE_RECV_ERROR, kHalf, CURLE_RECV_ERROR, kHalf},
    {"dripping", CURLE_OK, kWhole, CURLE_OK, kWhole, CURLE_OK, kWhole - kHalf},

    {"body longer than its length", CURLE_OK, kWhole - 1000, CURLE_OK, kWhole - 1000, CURLE_OK,
     kWhole - kHalf - 1000},
    {"body shorter than its length", CURLE_OK, kWhole + 1000, CURLE_PARTIAL_FILE, kWhole, CURLE_PARTIAL_FILE,
     kWhole - kHalf},
    {"no length", kUnknownLength, 0, CURLE_OK, kWhole, CURLE_OK, kWhole - kHalf},
    {"no length, reset in mid-body", kUnknownLength, 0, CURLE_RECV_ERROR, kHalf, CURLE_RECV_ERROR, kHalf},
    {"chunked", kUnknownLength, 0, CURLE_OK, kWhole, CURLE_OK, kWhole - kHalf},
    // The line that tells the first chunk's size counts among the bytes up to mid-body.
    {"chunked, closed in mid-body", kUnknownLength, 0, CURLE_PARTIAL_FILE, kHalf - 7, CURLE_PARTIAL_FILE,
     kHalf - 6},
    {"chunked, broken size", kUnknownLength, 0, CURLE_RECV_ERROR, 0, CURLE_RECV_ERROR, 0},
    {"length 0 with a body", CURLE_OK, 0, CURLE_OK, 0, CURLE_OK, 0},
    {"length of 5 GB", CURLE_OK, 5'000'000'000, CURLE_PARTIAL_FILE, kWhole, CURLE_PARTIAL_FILE,
     kWhole - kHalf},
    {"largest length", CURLE_OK, INT64_MAX, CURLE_PARTIAL_FILE, kWhole, CURLE_PARTIAL_FILE, kWhole - kHalf},
    {"length too large to hold", kUnknownLength, 0, CURLE_OK, kWhole, CURLE_OK, kWhole - kHalf},
    {"negative length", CURLE_WEIRD_SERVER_REPLY, 0, CURLE_WEIRD_SERVER_REPLY, 0, CURLE_WEIRD_SERVER_REPLY,
     0},
    {"length in words", CURLE_WEIRD_SERVER_REPLY, 0, CURLE_WEIRD_SERVER_REPLY, 0, CURLE_WEIRD_SERVER_REPLY,
     0},

    {"range ignored", CURLE_OK, kWhole, CURLE_OK, kWhole, CURLE_RANGE_ERROR, 0},
    {"range ignored, empty", CURLE_OK, 0, CURLE_OK, 0, CURLE_OK, 0},
    {"wrong range", CURLE_OK, kWhole, CURLE_OK, kWhole, CURLE_RANGE_ERROR, 0},
    {"206 without a range", CURLE_OK, kWhole, CURLE_OK, kWhole, CURLE_RANGE_ERROR, 0},
    {"404 with a length", CURLE_OK, 8, CURLE_OK, 8, CURLE_RANGE_ERROR, 0},
    {"404 without a length", kUnknownLength, 0, CURLE_OK, 8, CURLE_RANGE_ERROR, 0},
    {"416", CURLE_OK, 13, CURLE_OK, 13, CURLE_OK, 0},
    {"500", CURLE_OK, 6, CURLE_OK, 6, CURLE_RANGE_ERROR, 0},
    {"204", CURLE_OK, 0, CURLE_OK, 0, CURLE_OK, 0},
    {"304", CURLE_OK, 0, CURLE_OK, 0, CURLE_OK, 0},
    {"redirect", CURLE_OK, 5, CURLE_OK, 5, CURLE_RANGE_ERROR, 0},
    {"100 first", CURLE_OK, kWhole, CURLE_OK, kWhole, CURLE_OK, kWhole - kHalf},
    {"HTTP/1.0", CURLE_OK, kWhole, CURLE_OK, kWhole, CURLE_OK, kWhole - kHalf},
    {"no headers at all", CURLE_GOT_NOTHING, 0, CURLE_UNSUPPORTED_PROTOCOL, 0, CURLE_UNSUPPORTED_PROTOCOL, 0},
    {"gzip", CURLE_OK, kWhole, CURLE_OK, kWhole, CURLE_OK, kWhole - kHalf},
    {"endless header line", CURLE_OUT_OF_MEMORY, 0, CURLE_OUT_OF_MEMORY, 0, CURLE_OUT_OF_MEMORY, 0},
};

/// Every fault with its reading; a fault without one fails the test.
void forEachFault(const std::function<void(const Fault&, const Reading&)>& check) {
    for (const Fault& fault : faults()) {
        SCOPED_TRACE(fault.name);
        const auto* const reading =
            std::find_if(std::begin(kReadings), std::end(kReadings),
                         [&](const Reading& candidate) { return candidate.fault == fault.name; });
        ASSERT_NE(reading, std::end(kReadings)) << "no reading";
        check(fault, *reading);
    }
}

/// A reset may overtake bytes that were sent before it.
void expectGain(std::int64_t gain, std::int64_t expected, const Fault& fault) {
    if (fault.answer.then == Answer::Reset) {
        EXPECT_LE(gain, expected);
    } else {
        EXPECT_EQ(gain, expected);
    }
}

TEST_F(Faults, AtTheProbe) {
    forEachFault([&](const Fault& fault, const Reading& reading) {
        server_.behave({.heads = {fault.answer}});
        const Outcome outcome = probe();
        EXPECT_EQ(outcome.result, reading.probe);
        ASSERT_EQ(outcome.records.size(), 1U);
        const CurlMessage& record = outcome.records.front();
        EXPECT_EQ(record.itype(),
                  reading.probe == CURLE_OK ? CurlMessageTypeLength : CurlMessageTypeProbeFailed);
        EXPECT_EQ(record.status(), reading.probe);
        EXPECT_EQ(record.iMessage(), reading.length);
        EXPECT_EQ(record.identifier(), -1);
        EXPECT_EQ(outcome.log.find("Target File does not exists\n") != std::string::npos,
                  reading.probe == kUnknownLength);
        EXPECT_EQ(server_.requests().size(), 1U);
    });
}

TEST_F(Faults, OfAFreshDownload) {
    forEachFault([&](const Fault& fault, const Reading& reading) {
        server_.behave({.gets = {fault.answer, {}}});
        setFile("");
        const Outcome outcome = download(0);
        EXPECT_EQ(outcome.result, reading.fresh);
        expectBodyTransfer(outcome, reading.fresh == CURLE_OK ? Ending::Finished : Ending::Failed);
        expectGain(outcome.bytes(), reading.freshBytes, fault);
        const auto count = static_cast<std::size_t>(outcome.bytes());
        EXPECT_EQ(file(), fault.answer.body.value_or(document_).substr(0, count));
        ASSERT_EQ(server_.requests().size(), 1U);
        EXPECT_EQ(server_.requests()[0].range, "");
        if (reading.fresh != CURLE_OK) {
            EXPECT_EQ(download(outcome.bytes()).result, CURLE_OK);
            EXPECT_EQ(sha256(file()), sha256(document_));
        }
    });
}

TEST_F(Faults, OfAResume) {
    forEachFault([&](const Fault& fault, const Reading& reading) {
        server_.behave({.gets = {fault.answer, {}}});
        setFile(document_.substr(0, kMidBody));
        const Outcome outcome = download(kHalf);
        EXPECT_EQ(outcome.result, reading.resume);
        expectBodyTransfer(outcome, reading.resume == CURLE_OK ? Ending::Finished : Ending::Failed);
        expectGain(outcome.bytes(), reading.resumeBytes, fault);
        EXPECT_EQ(file(), document_.substr(0, static_cast<std::size_t>(kHalf + outcome.bytes())));
        ASSERT_EQ(server_.requests().size(), 1U);
        EXPECT_EQ(server_.requests()[0].range, "bytes=40000-");
        if (reading.resume != CURLE_OK) {
            EXPECT_EQ(download(kHalf + outcome.bytes()).result, CURLE_OK);
            EXPECT_EQ(sha256(file()), sha256(document_));
        }
    });
}

} // namespace
