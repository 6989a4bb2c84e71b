#include "platform/Text.h"

#include <QByteArrayView>
#include <QStringDecoder>

std::optional<std::string> decodedUtf8(std::string_view bytes) {
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString decoded =
        decoder.decode(QByteArrayView(bytes.data(), static_cast<qsizetype>(bytes.size())));
    if (decoder.hasError()) {
        return std::nullopt;
    }
    return std::string(bytes);
}

std::string described(const std::optional<std::string>& text) {
    return text.value_or("(null)");
}
