#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>

/// A temporary folder, removed when the test has passed; kept, and its path printed, when it has failed.
class ScratchFolder {
  public:
    ScratchFolder() {
        if (mkdtemp(path_.data()) == nullptr) {
            throw std::runtime_error("no scratch folder can be made at " + path_);
        }
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ~ScratchFolder() {
        if (testing::Test::HasFailure()) {
            std::cerr << "Kept: " << path_ << '\n';
        } else {
            std::error_code ignored;
            std::filesystem::remove_all(path_, ignored);
        }
    }

    [[nodiscard]] const std::string& path() const { return path_; }

  private:
    std::string path_ = std::filesystem::temp_directory_path().string() + "/pellomar-XXXXXX";
};
