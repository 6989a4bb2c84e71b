#include "base/ReadWrite.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

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

namespace {

// Until the end, or until `use` returns false.
template <typename Use>
bool forEachBlock(int descriptor, Use use) {
    std::array<char, 65536> block{};
    for (;;) {
        const ssize_t count = read(descriptor, block.data(), block.size());
        if (count == 0) {
            return true;
        }
        if (count > 0 ? !use({block.data(), static_cast<std::size_t>(count)}) : errno != EINTR) {
            return false;
        }
    }
}

} // namespace

bool copyAll(int from, int to) {
    return forEachBlock(from, [to](std::string_view block) { return writeAll(to, block); });
}

std::optional<std::string> readAll(int descriptor) {
    std::string content;
    const bool isWhole = forEachBlock(descriptor, [&](std::string_view block) {
        content += block;
        return true;
    });
    return isWhole ? std::optional(std::move(content)) : std::nullopt;
}
