#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

namespace package {

/// Bytes that a thread of its own makes ready, at most 1 MB ahead, while the caller uses those before. The
/// thread has ended when the object is gone. Everything but `fill` is for one thread.
class ReadAhead {
  public:
    /// Puts up to `size` bytes at `to` and returns how many; 0 at the end. Called in the other thread, until
    /// it returns 0 or throws.
    using Fill = std::function<std::size_t(char* to, std::size_t size)>;

    explicit ReadAhead(Fill fill);
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;
    ~ReadAhead();

    /// The next bytes, valid until the next call; empty at the end. Throws what `fill` has thrown.
    std::string_view next();

  private:
    struct Block {
        std::vector<char> bytes;
        std::size_t size = 0;
    };

    void run();
    Block& at(std::size_t number) { return blocks_[number % blocks_.size()]; }

    Fill fill_;
    std::array<Block, 4> blocks_;
    std::mutex mutex_; // of everything below
    std::condition_variable changed_;
    std::size_t filled_ = 0; // blocks
    std::size_t used_ = 0;
    bool isInUse_ = false; // the block of number used_
    bool isStopped_ = false;
    std::exception_ptr problem_;
    std::thread thread_; // last, since it uses all others
};

} // namespace package
