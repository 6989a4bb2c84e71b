#pragma once

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
        std::string text(static_cast<std::size_t>(lseek(fileno(file_), 0, SEEK_END)), '\0');
        const ssize_t count = pread(fileno(file_), text.data(), text.size(), 0);
        text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return text;
    }

    /// How often `words` occur in it.
    [[nodiscard]] int count(const std::string& words) const {
        const std::string all = text();
        int found = 0;
        for (std::size_t at = all.find(words); at != std::string::npos; at = all.find(words, at + 1)) {
            ++found;
        }
        return found;
    }

  private:
    int descriptor_;
    FILE* file_ = std::tmpfile();
    int saved_ = dup(descriptor_);
};
