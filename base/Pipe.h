#pragma once

#include "base/FileDescriptor.h"

#include <fcntl.h>

#include <array>

/// Both ends of a pipe, not inherited by child processes. If it cannot be created, neither end is open and
/// `errno` is set.
struct Pipe {
    FileDescriptor readEnd;
    FileDescriptor writeEnd;

    Pipe() {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) == 0) {
            readEnd = FileDescriptor(ends[0]);
            writeEnd = FileDescriptor(ends[1]);
        }
    }
};
