#pragma once

#include "ui/Image.h"

#include <QWidget>

/// Shows a picture, each axis scaled independently to fill the frame. Draws nothing without a picture. Main
/// thread.
class ImageView : public QWidget {
  public:
    explicit ImageView(QWidget* superview);

    [[nodiscard]] const Image::Ref& image() const { return image_; }
    virtual void setImage(Image::Ref image);

  protected:
    void paintEvent(QPaintEvent* event) override;

  private:
    Image::Ref image_;
};
