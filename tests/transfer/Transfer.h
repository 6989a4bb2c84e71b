#pragma once

#include "support/Document.h"
#include "support/Faults.h"
#include "support/RecordCollector.h"
#include "support/ScratchFolder.h"
#include "transfer/CurlMessage.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

/// What one operation answered, posted and logged.
struct Outcome {
    int result = 0;
    std::vector<CurlMessage> records;
    std::string log;
    std::string output; ///< on standard output

    /// The bytes that the data records count.
    [[nodiscard]] std::int64_t bytes() const;
    [[nodiscard]] std::int64_t token() const { return records.empty() ? 0 : records.back().identifier(); }
};

enum class Ending { Finished, Failed, Stopped };

/// Checks what holds for the records of every body transfer: kinds, order, token, quantities, time stamps.
void expectBodyTransfer(const Outcome& outcome, Ending ending);

/// Runs an operation on a worker of its own, as the program does, and checks that its records came from
/// there. `reaction` (optional) sees each record first.
Outcome onWorker(const std::function<int()>& operation,
                 const std::function<void(const CurlMessage&)>& reaction = nullptr);

/// A document, a fault server that has it, and a file to download to.
class Transfer : public testing::Test {
  protected:
    Transfer();

    Outcome probe() const;
    Outcome download(std::int64_t offset,
                     const std::function<void(const CurlMessage&)>& reaction = nullptr) const;

    [[nodiscard]] std::string file() const;
    void setFile(const std::string& content) const;

    const std::string document_ = makeDocument(kFaultyDocumentSize);
    FaultServer server_{document_};
    const ScratchFolder folder_;
    const std::string path_ = folder_.path() + "/Pellomar.tmp";
};
