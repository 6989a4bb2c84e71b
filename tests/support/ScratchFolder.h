#pragma once

#include <string>

/// A folder of a test's own, removed with all it holds when the test has passed; kept, and its path printed,
/// when it has failed.
class ScratchFolder {
  public:
    ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ~ScratchFolder();

    [[nodiscard]] const std::string& path() const { return path_; }

  private:
    std::string path_;
};
