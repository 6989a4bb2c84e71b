#include "support/RecordCollector.h"

#include <utility>

RecordCollector::RecordCollector(std::function<void(const CurlMessage&)> reaction)
    : reaction_(std::move(reaction)), observer_(NotificationCenter::defaultCenter().addObserver(
                                          "CurlCallbackMessage", [this](const void* object) {
                                              const auto& message = *static_cast<const CurlMessage*>(object);
                                              {
                                                  const std::lock_guard lock(mutex_);
                                                  records_.push_back({message, std::this_thread::get_id()});
                                              }
                                              if (reaction_) {
                                                  reaction_(message);
                                              }
                                          })) {}

RecordCollector::~RecordCollector() {
    NotificationCenter::defaultCenter().removeObserver(observer_);
}

std::vector<RecordCollector::Record> RecordCollector::records() const {
    const std::lock_guard lock(mutex_);
    return records_;
}

std::int64_t RecordCollector::bytes() const {
    std::int64_t bytes = 0;
    for (const Record& record : records()) {
        bytes += record.message.itype() == CurlMessageTypeData ? record.message.iMessage() : 0;
    }
    return bytes;
}

std::int64_t RecordCollector::token() const {
    std::int64_t token = 0;
    for (const Record& record : records()) {
        token = record.message.itype() == CurlMessageTypeStarted ? record.message.identifier() : token;
    }
    return token;
}
