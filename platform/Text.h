#pragma once

#include <QString>

#include <optional>
#include <string>
#include <string_view>

/// Text is kept as UTF-8 bytes, so that conversions neither drop nor replace anything.

/// `bytes` as text, or nothing when they are not strictly valid UTF-8. A byte-order mark is kept.
std::optional<std::string> decodedUtf8(std::string_view bytes);

/// The text, or "(null)" if there is no text, as it is written to the log, to addresses and to files.
std::string described(const std::optional<std::string>& text);

/// The text as the toolkit's string, for views.
inline QString viewText(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}
