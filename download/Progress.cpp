#include "download/Progress.h"

double percentOf(std::int64_t received, std::int64_t total) {
    return static_cast<double>(received) * 100.0 / static_cast<double>(total);
}

std::optional<std::string> speedText(std::int64_t bytes, double seconds) {
    if (!(seconds > 1.0)) {
        return std::nullopt;
    }
    const double rate = static_cast<double>(bytes) / seconds * 0.0009765625;
    return std::to_string(static_cast<int>(rate)) + " KB/s";
}
