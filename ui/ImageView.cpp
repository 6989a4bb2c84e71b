#include "ui/ImageView.h"

#include <QPainter>

ImageView::ImageView(QWidget* superview) : QWidget(superview) {}

void ImageView::setImage(Image::Ref image) {
    image_ = std::move(image);
    update();
}

void ImageView::paintEvent(QPaintEvent* /*event*/) {
    if (image_ == nullptr) {
        return;
    }
    QPainter painter(this);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    const QPixmap& pixmap = image_->pixmap(devicePixelRatioF());
    painter.drawPixmap(rect(), pixmap, pixmap.rect());
}
