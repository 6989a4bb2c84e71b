#pragma once

#include <QPixmap>
#include <QSize>

#include <memory>
#include <string>

/// A picture from the bundle's resources. Compared by identity: loading a name twice gives two. Main thread.
class Image {
  public:
    using Ref = std::shared_ptr<const Image>;

    /// Reads the PNG resource `name`; null when it is missing or unreadable.
    static Ref named(const std::string& name);

    explicit Image(std::string name, QPixmap pixmap);

    /// Size in pixels, which is also the size in points: the double-resolution picture of the same name is
    /// only sharper and changes no geometry.
    [[nodiscard]] QSize size() const { return single_.size(); }

    /// The picture for a screen of this scale.
    [[nodiscard]] const QPixmap& pixmap(qreal devicePixelRatio) const;

  private:
    std::string name_;
    QPixmap single_;
    mutable QPixmap double_; ///< read on first use
    mutable bool doubleWasRead_ = false;
};

/// The size of a picture; a missing one has size 0.
inline QSize sizeOf(const Image::Ref& image) {
    return image == nullptr ? QSize(0, 0) : image->size();
}
