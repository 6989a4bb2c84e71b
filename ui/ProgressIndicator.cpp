#include "ui/ProgressIndicator.h"

#include <QPainter>
#include <QPainterPath>
#include <QTimerEvent>

#include <algorithm>

namespace {
const QColor kTrack(255, 255, 255, 36);
const QColor kFillStart(0x1f, 0xc8, 0xc2);
const QColor kFillEnd(0x0d, 0x80, 0xba);
constexpr int kFrame = 33; ///< milliseconds
} // namespace

ProgressIndicator::ProgressIndicator(QWidget* superview) : QProgressBar(superview) {
    setRange(0, 100);
    setValue(0);
    setTextVisible(false);
}

double ProgressIndicator::filledWidth() const {
    return width() * std::clamp(shownValue_, 0.0, 100.0) / 100.0;
}

int ProgressIndicator::filledPixels() const {
    return static_cast<int>(filledWidth() * devicePixelRatioF());
}

void ProgressIndicator::setDoubleValue(double percent) {
    doubleValue_ = percent;
    // Called for every block of a transfer, far more often than the screen needs to change.
    if (!nextFrame_.isActive()) {
        showValue();
    }
}

void ProgressIndicator::showValue() {
    const int paintedPixels = filledPixels();
    shownValue_ = doubleValue_;
    if (const int percent = static_cast<int>(std::clamp(shownValue_, 0.0, 100.0)); percent != value()) {
        // QProgressBar::setValue would repaint synchronously.
        setUpdatesEnabled(false);
        setValue(percent);
        setUpdatesEnabled(true);
    } else if (filledPixels() !=
               paintedPixels) { // a slow transfer moves it by a pixel only a few times a second
        update();
    }
    nextFrame_.start(kFrame, this);
}

void ProgressIndicator::timerEvent(QTimerEvent* event) {
    if (event->timerId() != nextFrame_.timerId()) {
        QProgressBar::timerEvent(event);
        return;
    }
    nextFrame_.stop();
    if (doubleValue_ != shownValue_) {
        showValue();
    }
}

void ProgressIndicator::paintEvent(QPaintEvent* /*event*/) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    const QRectF track = rect();
    const double radius = track.height() / 2;
    painter.setBrush(kTrack);
    painter.drawRoundedRect(track, radius, radius);
    if (filledWidth() <= 0) {
        return;
    }
    QPainterPath shape;
    shape.addRoundedRect(track, radius, radius);
    painter.setClipPath(shape);
    QLinearGradient fill(track.topLeft(), track.topRight());
    fill.setColorAt(0, kFillStart);
    fill.setColorAt(1, kFillEnd);
    painter.setBrush(fill);
    painter.drawRoundedRect(
        QRectF(track.left(), track.top(), std::max(filledWidth(), track.height()), track.height()), radius,
        radius);
}
