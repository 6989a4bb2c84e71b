#pragma once

#include "PackageMaker.h"
#include "Process.h"

#include <gtest/gtest.h>

#include <regex>

namespace fs = std::filesystem;

// The way in which the caller tells failure from success.
inline bool saysFailure(const std::string& output) {
    return std::regex_search(output, std::regex("error|invalid", std::regex::icase));
}

inline void expectOneErrorLine(const Outcome& outcome, const std::string& cause) {
    EXPECT_NE(outcome.status, 0);
    const std::regex line("installer: Error - [^\n]+\n");
    const auto begin = std::sregex_iterator(outcome.output.begin(), outcome.output.end(), line);
    EXPECT_EQ(std::distance(begin, {}), 1) << outcome.output;
    const std::size_t at = outcome.output.find("Error");
    EXPECT_NE(outcome.output.find(cause, at), std::string::npos)
        << "expected: " << cause << "\nprinted: " << outcome.output;
    EXPECT_EQ(outcome.output.find("successful"), std::string::npos);
}

inline void expectSuccess(const Outcome& outcome) {
    EXPECT_EQ(outcome.status, 0);
    EXPECT_FALSE(saysFailure(outcome.output)) << outcome.output;
    EXPECT_NE(outcome.output.find("installer: The install was successful.\n"), std::string::npos);
}

// A target and a place outside it; everything that an installer could reach in a test.
class Installer : public testing::Test {
  protected:
    Installer() {
        fs::create_directories(target);
        fs::create_directories(outside);
        fs::create_directories(trusted);
        writeFile(outside / "kept", "kept");
    }

    std::vector<std::string> command() const {
        return {INSTALLER_PROGRAM, "-pkg", packagePath, "-target", target, "-trusted", trusted};
    }

    Outcome install(const std::string& package) {
        writeFile(packagePath, package);
        return run(command());
    }

    const TemporaryFolder scratch;
    const fs::path world = scratch / "world";
    const fs::path target = world / "target";
    const fs::path outside = world / "outside";
    const fs::path trusted = scratch / "trusted"; // empty: unsigned packages are let through
    const fs::path packagePath = scratch / "恐怖 terror invalid.pkg";
};
