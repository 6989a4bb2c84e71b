#include "base/ReadWrite.h"

#include <unistd.h>

#include <array>
#include <cerrno>

bool writeAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(descriptor, bytes.data(), bytes.size());
        if (count > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

std::optional<std::string> readAll(int descriptor) {
    std::string content;
    std::array<char, 65536> block{};
    for (;;) {
        const ssize_t count = read(descriptor, block.data(), block.size());
        if (count > 0) {
            content.append(block.data(), static_cast<std::size_t>(count));
        } else if (count == 0) {
            return content;
        } else if (errno != EINTR) {
            return std::nullopt;
        }
    }
}
