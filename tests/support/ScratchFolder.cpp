#include "support/ScratchFolder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>

ScratchFolder::ScratchFolder() {
    std::string pattern = std::filesystem::temp_directory_path().string() + "/pellomar-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("no scratch folder can be made at " + pattern);
    }
    path_ = pattern;
}

ScratchFolder::~ScratchFolder() {
    if (testing::Test::HasFailure()) {
        std::cerr << "Kept for a look: " << path_ << '\n';
        return;
    }
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}
