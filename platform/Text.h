#pragma once

#include <QString>

#include <optional>
#include <string>
#include <string_view>

/// Text as the program keeps it: UTF-8 bytes, so that nothing is dropped or replaced on the way.

/// `bytes` as text, or nothing where they are not strictly valid UTF-8. A byte-order mark stays.
std::optional<std::string> decodedUtf8(std::string_view bytes);

/// How the formatter renders an object that may be missing: the text, or "(null)".
std::string described(const std::optional<std::string>& text);

/// For views: the text as the toolkit's string.
inline QString viewText(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}
