#include "ui/TextField.h"

#include "platform/Text.h"

#include <QPainter>

namespace {
constexpr int kFontSize = 11; ///< pixels; the longest status text is 290 wide
constexpr int kSmallestFontSize = 8;
} // namespace

TextField::TextField(QWidget* superview) : QLabel(superview) {
    setTextFormat(Qt::PlainText);
    QFont font = this->font();
    font.setPixelSize(kFontSize);
    setFont(font);
}

void TextField::setStringValue(std::string_view text) {
    const QString shown = viewText(text);
    if (shown == this->text()) {
        return;
    }
    setText(shown);
}

QFont TextField::fittingFont() const {
    QFont fitting = font();
    while (fitting.pixelSize() > kSmallestFontSize &&
           QFontMetrics(fitting).horizontalAdvance(text()) > width()) {
        fitting.setPixelSize(fitting.pixelSize() - 1);
    }
    return fitting;
}

void TextField::paintEvent(QPaintEvent* /*event*/) {
    QPainter painter(this);
    painter.setFont(fittingFont());
    painter.setPen(Qt::white);
    painter.drawText(rect(),
                     static_cast<int>((alignment() & Qt::AlignHorizontal_Mask) | Qt::AlignVCenter) |
                         Qt::TextSingleLine | Qt::TextDontClip,
                     text());
}
