#include "transfer/Transfer.h"

#include "platform/FileManager.h"
#include "support/CapturedLog.h"
#include "transfer/CurlWrapper.h"

#include <chrono>
#include <fstream>
#include <thread>

namespace {

double now() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

} // namespace

std::int64_t Outcome::bytes() const {
    std::int64_t bytes = 0;
    for (const CurlMessage& record : records) {
        bytes += record.itype() == CurlMessageTypeData ? record.iMessage() : 0;
    }
    return bytes;
}

void expectBodyTransfer(const Outcome& outcome, Ending ending) {
    const std::vector<CurlMessage>& records = outcome.records;
    ASSERT_GE(records.size(), 2U);
    const std::int64_t token = records.front().identifier();
    EXPECT_NE(token, 0);
    EXPECT_NE(token, -1);
    for (std::size_t i = 0; i < records.size(); ++i) {
        SCOPED_TRACE("record " + std::to_string(i));
        const CurlMessage& record = records[i];
        EXPECT_EQ(record.identifier(), token);
        if (i == 0) {
            EXPECT_EQ(record.itype(), CurlMessageTypeStarted);
            EXPECT_EQ(record.status(), 0);
            EXPECT_EQ(record.iMessage(), -1);
        } else if (i + 1 < records.size()) {
            EXPECT_EQ(record.itype(), CurlMessageTypeData);
            EXPECT_EQ(record.status(), 0);
            EXPECT_GT(record.iMessage(), 0);
        } else {
            EXPECT_EQ(record.itype(),
                      ending == Ending::Finished ? CurlMessageTypeFinished : CurlMessageTypeData);
            EXPECT_EQ(record.status(), ending == Ending::Failed ? -1 : 0);
            EXPECT_EQ(record.iMessage(), 0);
        }
    }
    EXPECT_EQ(outcome.result == 0, ending == Ending::Finished);
    EXPECT_NE(outcome.log.find("SyncDownload Return Code:" + std::to_string(outcome.result) + "\n"),
              std::string::npos)
        << outcome.log;
}

Outcome onWorker(const std::function<int()>& operation,
                 const std::function<void(const CurlMessage&)>& reaction) {
    Outcome outcome;
    const double start = now();
    const RecordCollector collector(reaction);
    std::thread::id id;
    {
        const CapturedLog log;
        const CapturedLog output(STDOUT_FILENO);
        std::thread worker([&] { outcome.result = operation(); });
        id = worker.get_id();
        worker.join();
        outcome.log = log.text();
        outcome.output = output.text();
    }
    double earlier = start;
    for (const RecordCollector::Record& record : collector.records()) {
        EXPECT_EQ(record.thread, id);
        EXPECT_GE(record.message.timestamp(), earlier);
        earlier = record.message.timestamp();
        outcome.records.push_back(record.message);
    }
    EXPECT_LE(earlier, now());
    return outcome;
}

Transfer::Transfer() {
    CurlWrapper::SyncStop(0);
    setFile("");
}

Outcome Transfer::probe() const {
    return onWorker([&] { return CurlWrapper::SyncHead(server_.url()); });
}

Outcome Transfer::download(std::int64_t offset,
                           const std::function<void(const CurlMessage&)>& reaction) const {
    return onWorker([&] { return CurlWrapper::SyncDownloadToFile(server_.url(), path_, offset); }, reaction);
}

std::string Transfer::file() const {
    return readFile(path_).value();
}

void Transfer::setFile(const std::string& content) const {
    std::ofstream(path_, std::ios::binary | std::ios::trunc) << content;
}
