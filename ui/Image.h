#pragma once

#include <QPixmap>
#include <QSize>

#include <memory>
#include <string>

/// A picture of the bundle. Views compare pictures by identity: two loads of one name differ. Main thread.
class Image {
  public:
    using Ref = std::shared_ptr<const Image>;

    /// Reads the PNG resource `name`; nothing where it is missing or unreadable.
    static Ref named(const std::string& name);

    explicit Image(std::string name, QPixmap pixmap);

    /// Size in pixels, which is also its size in points: a double-resolution picture of the same name makes
    /// the drawing crisper and changes no geometry.
    [[nodiscard]] QSize size() const { return single_.size(); }

    /// The pixels to draw on a screen of this scale.
    [[nodiscard]] const QPixmap& pixmap(qreal devicePixelRatio) const;

  private:
    std::string name_;
    QPixmap single_;
    mutable QPixmap double_; // read when a screen first asks for it
    mutable bool doubleWasRead_ = false;
};

/// A missing picture counts as having no size.
inline QSize sizeOf(const Image::Ref& image) {
    return image == nullptr ? QSize(0, 0) : image->size();
}
