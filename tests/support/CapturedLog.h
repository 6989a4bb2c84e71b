#pragma once

#include "platform/FileManager.h"

#include <QByteArray>

#include <unistd.h>

#include <cstdio>
#include <string>

/// Captures what is written to a standard stream, by default standard error, where the log is.
class CapturedLog {
  public:
    explicit CapturedLog(int descriptor = STDERR_FILENO) : descriptor_(descriptor) {
        std::fflush(stdout);
        dup2(fileno(file_), descriptor_);
    }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;
    ~CapturedLog() {
        std::fflush(stdout);
        dup2(saved_, descriptor_);
        close(saved_);
        std::fclose(file_);
    }

    /// Everything so far.
    [[nodiscard]] std::string text() const {
        std::fflush(stdout);
        return readFile("/proc/self/fd/" + std::to_string(fileno(file_))).value();
    }

    /// How often `words` occur in it.
    [[nodiscard]] int count(const std::string& words) const {
        return static_cast<int>(QByteArray::fromStdString(text()).count(words.c_str()));
    }

  private:
    int descriptor_;
    FILE* file_ = std::tmpfile();
    int saved_ = dup(descriptor_);
};
