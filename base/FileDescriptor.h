#pragma once

#include <unistd.h>

#include <utility>

/// Owns one open file descriptor and closes it. A negative value means none.
class FileDescriptor {
  public:
    FileDescriptor() = default;
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    [[nodiscard]] bool isOpen() const { return descriptor_ >= 0; }
    [[nodiscard]] int get() const { return descriptor_; }
    [[nodiscard]] int release() { return std::exchange(descriptor_, -1); }
    void reset() {
        if (isOpen()) {
            close(release());
        }
    }

  private:
    int descriptor_ = -1;
};
