#include "ui/ImageButtonView.h"

#include "platform/Log.h"
#include "ui/ImageButtonAccessible.h"

#include <QAccessible>
#include <QApplication>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>

namespace {
bool keyboardLeads = false;
} // namespace

ImageButtonView::ImageButtonView(QWidget* superview) : ImageView(superview) {
    ImageButtonAccessible::install();
    setFocusPolicy(Qt::TabFocus);
}

void ImageButtonView::setKeyboardLeads(bool leads) {
    QWidget* const focused = QApplication::focusWidget();
    if (std::exchange(keyboardLeads, leads) != leads && focused != nullptr) {
        focused->update();
    }
}

bool ImageButtonView::event(QEvent* event) {
    if (event->type() == QEvent::KeyPress) {
        setKeyboardLeads(true);
    }
    return ImageView::event(event);
}

void ImageButtonView::focusInEvent(QFocusEvent* event) {
    // The Tab key was sent to the widget that had the focus before, which may not be a button.
    if (event->reason() == Qt::TabFocusReason || event->reason() == Qt::BacktabFocusReason) {
        setKeyboardLeads(true);
    }
    ImageView::focusInEvent(event);
}

void ImageButtonView::setIType(std::int32_t type) {
    iType_ = type;
}

void ImageButtonView::setImage(Image::Ref image) {
    const bool wasTicked = getStatus();
    ImageView::setImage(std::move(image));
    if (getStatus() != wasTicked) {
        QAccessible::State changed;
        changed.checked = true;
        QAccessibleStateChangeEvent event(this, changed);
        QAccessible::updateAccessibility(&event);
    }
}

bool ImageButtonView::getStatus() const {
    return iType_ == kCheckbox && image() == normalImage_;
}

ImageButtonTarget& ImageButtonView::superview() const {
    return dynamic_cast<ImageButtonTarget&>(*parentWidget());
}

void ImageButtonView::mousePressEvent(QMouseEvent* event) {
    const int clickCount = superview().pressed(*event);
    if (event->button() != Qt::LeftButton) {
        return;
    }
    pressClickCount_ = clickCount;
    if (clickCount == 1) {
        mouseDown();
    }
}

void ImageButtonView::mouseDoubleClickEvent(QMouseEvent* event) {
    mousePressEvent(event);
}

void ImageButtonView::mouseReleaseEvent(QMouseEvent* event) {
    // If the pressed button is hidden before its release, the toolkit may send the release to a button that
    // got no press.
    if (event->button() == Qt::LeftButton && pressClickCount_ != 0) {
        mouseUp(std::exchange(pressClickCount_, 0));
    }
}

void ImageButtonView::mouseDown() {
    NSLog("%s has been clicked", imageName_.c_str());
    if (iType_ == kPushButton && deepImage_ != nullptr && !showsGray()) {
        setImage(deepImage_);
    }
}

void ImageButtonView::mouseUp(int clickCount) {
    if (iType_ == kPushButton) {
        if (normalImage_ != nullptr && !showsGray()) {
            setImage(normalImage_);
        }
        if (clickCount == 1) {
            sendMessage();
        }
    } else if (iType_ == kCheckbox && clickCount == 1) {
        toggle();
    }
}

void ImageButtonView::sendMessage() {
    using Message = void (ImageButtonTarget::*)();
    static constexpr struct {
        const char* name;
        Message message;
    } kMessages[] = {
        {button::kStart, &ImageButtonTarget::startDownload},
        {button::kStop, &ImageButtonTarget::stopDownload},
        {button::kContinue, &ImageButtonTarget::continueDownload},
        {button::kContinueInstall, &ImageButtonTarget::downloadFinished},
        {button::kRetryDownload, &ImageButtonTarget::retryDownload},
    };
    ImageButtonTarget& target = superview();
    for (const auto& [name, message] : kMessages) {
        if (imageName_ == name) {
            (target.*message)();
        }
    }
}

void ImageButtonView::toggle() {
    const bool ticked = !getStatus();
    setImage(ticked ? normalImage_ : deepImage_);
    superview().enableStart(ticked);
}

void ImageButtonView::performClick() {
    if (isVisible() && QApplication::activeModalWidget() == nullptr) {
        mouseDown();
        mouseUp(1);
    }
}

void ImageButtonView::keyPressEvent(QKeyEvent* event) {
    const bool presses =
        event->key() == Qt::Key_Space || event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter;
    if (!presses) {
        ImageView::keyPressEvent(event);
    } else if (!event->isAutoRepeat()) {
        performClick();
    }
}

void ImageButtonView::hideEvent(QHideEvent* event) {
    // A button that is hidden while it is pressed gets no release, and must not reappear pressed.
    if (std::exchange(pressClickCount_, 0) != 0 && iType_ == kPushButton && image() == deepImage_) {
        setImage(normalImage_);
    }
    // The toolkit would move the focus on to the button that takes this one's place.
    if (window()->focusWidget() == this) {
        parentWidget()->setFocus();
    }
    ImageView::hideEvent(event);
}

void ImageButtonView::paintEvent(QPaintEvent* event) {
    ImageView::paintEvent(event);
    if (hasFocus() && keyboardLeads) {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(QPen(Qt::white, 2));
        // Follows the outline of a push button, whose ends are half circles.
        const QRectF ring = QRectF(rect()).adjusted(2, 2, -2, -2);
        const double radius = iType_ == kPushButton ? ring.height() / 2 : 3;
        painter.drawRoundedRect(ring, radius, radius);
    }
}
