#include "platform/Text.h"

#include <QByteArrayView>

std::optional<std::string> decodedUtf8(std::string_view bytes) {
    const QByteArrayView view(bytes.data(), static_cast<qsizetype>(bytes.size()));
    return view.isValidUtf8() ? std::optional(std::string(bytes)) : std::nullopt;
}

std::string described(const std::optional<std::string>& text) {
    return text.value_or("(null)");
}
