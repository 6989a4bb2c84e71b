#include "platform/PropertyList.h"

#include "platform/FileManager.h"
#include "platform/Text.h"

#include <QXmlStreamReader>

std::optional<std::string> propertyListString(const std::string& path, const std::string& key) {
    const std::optional<std::string> content = readFile(path);
    if (!content) {
        return std::nullopt;
    }
    QXmlStreamReader xml(QByteArray::fromStdString(*content));
    if (!xml.readNextStartElement() || xml.name() != QLatin1String("plist") || !xml.readNextStartElement() ||
        xml.name() != QLatin1String("dict")) {
        return std::nullopt;
    }
    bool isWanted = false;
    while (xml.readNextStartElement()) {
        if (xml.name() == QLatin1String("key")) {
            isWanted = xml.readElementText() == viewText(key);
        } else if (isWanted && xml.name() == QLatin1String("string")) {
            return xml.readElementText().toStdString();
        } else {
            isWanted = false;
            xml.skipCurrentElement();
        }
    }
    return std::nullopt;
}
