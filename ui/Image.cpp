#include "ui/Image.h"

#include "platform/Bundle.h"
#include "platform/FileManager.h"

#include <utility>

namespace {

QPixmap readResource(const std::string& name) {
    QPixmap pixmap;
    if (const auto bytes = readFile(bundleResourcePath(name, "png"))) {
        pixmap.loadFromData(reinterpret_cast<const uchar*>(bytes->data()), static_cast<uint>(bytes->size()));
    }
    return pixmap;
}

} // namespace

Image::Ref Image::named(const std::string& name) {
    QPixmap pixmap = readResource(name);
    return pixmap.isNull() ? nullptr : std::make_shared<const Image>(name, std::move(pixmap));
}

Image::Image(std::string name, QPixmap pixmap) : name_(std::move(name)), single_(std::move(pixmap)) {}

const QPixmap& Image::pixmap(qreal devicePixelRatio) const {
    if (devicePixelRatio <= 1) {
        return single_;
    }
    if (!std::exchange(doubleWasRead_, true)) {
        double_ = readResource(name_ + "@2x");
    }
    return double_.isNull() ? single_ : double_;
}
