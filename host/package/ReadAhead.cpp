#include "host/package/ReadAhead.h"

#include <utility>

namespace package {

ReadAhead::ReadAhead(Fill fill) : fill_(std::move(fill)) {
    constexpr std::size_t kBlock = 256 << 10;
    for (Block& block : blocks_) {
        block.bytes.resize(kBlock);
    }
    thread_ = std::thread(&ReadAhead::run, this);
}

ReadAhead::~ReadAhead() {
    {
        const std::lock_guard lock(mutex_);
        isStopped_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

std::string_view ReadAhead::next() {
    std::unique_lock lock(mutex_);
    if (isInUse_) {
        ++used_;
        isInUse_ = false;
        changed_.notify_all();
    }
    changed_.wait(lock, [this] { return filled_ > used_; });
    const Block& block = at(used_);
    isInUse_ = block.size > 0;
    if (problem_ && !isInUse_) {
        std::rethrow_exception(problem_);
    }
    return {block.bytes.data(), block.size};
}

void ReadAhead::run() {
    for (bool isMore = true; isMore;) {
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return isStopped_ || filled_ < used_ + blocks_.size(); });
            if (isStopped_) {
                return;
            }
        }
        Block& block = at(filled_); // the caller does not touch it before it counts as filled
        std::exception_ptr problem;
        try {
            block.size = fill_(block.bytes.data(), block.bytes.size());
        } catch (...) {
            block.size = 0;
            problem = std::current_exception();
        }
        isMore = block.size > 0;
        {
            const std::lock_guard lock(mutex_);
            ++filled_;
            problem_ = problem;
        }
        changed_.notify_all();
    }
}

} // namespace package
