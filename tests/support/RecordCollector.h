#pragma once

#include "platform/NotificationCenter.h"
#include "transfer/CurlMessage.h"

#include <functional>
#include <mutex>
#include <thread>
#include <vector>

/// Keeps a copy of every transfer record that is posted while it lives, with the thread that posted it. No
/// transfer may be running when it ends.
class RecordCollector {
  public:
    struct Record {
        CurlMessage message;
        std::thread::id thread;
    };

    /// `reaction` (optional) then handles each record in the poster's thread, as the panel would.
    explicit RecordCollector(std::function<void(const CurlMessage&)> reaction = nullptr);
    RecordCollector(const RecordCollector&) = delete;
    RecordCollector& operator=(const RecordCollector&) = delete;
    ~RecordCollector();

    /// All so far. Any thread.
    [[nodiscard]] std::vector<Record> records() const;

    /// How many bytes the data records have counted so far. Any thread.
    [[nodiscard]] std::int64_t bytes() const;

    /// The token of the latest started record, 0 before the first. Any thread.
    [[nodiscard]] std::int64_t token() const;

  private:
    std::function<void(const CurlMessage&)> reaction_;
    mutable std::mutex mutex_;
    std::vector<Record> records_;
    NotificationCenter::Observer* observer_;
};
