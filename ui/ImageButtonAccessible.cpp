#include "ui/ImageButtonAccessible.h"

#include "ui/ImageButtonView.h"

namespace {

QAccessibleInterface* makeInterface(const QString& /*className*/, QObject* object) {
    auto* const button = dynamic_cast<ImageButtonView*>(object);
    return button == nullptr ? nullptr : new ImageButtonAccessible(button);
}

} // namespace

void ImageButtonAccessible::install() {
    static const bool once = [] {
        QAccessible::installFactory(makeInterface);
        return true;
    }();
    static_cast<void>(once);
}

ImageButtonAccessible::ImageButtonAccessible(ImageButtonView* button)
    : QAccessibleWidget(button, button->iType() == ImageButtonView::kCheckbox ? QAccessible::CheckBox
                                                                              : QAccessible::PushButton) {}

ImageButtonView* ImageButtonAccessible::button() const {
    return static_cast<ImageButtonView*>(widget());
}

QAccessible::State ImageButtonAccessible::state() const {
    QAccessible::State state = QAccessibleWidget::state();
    if (button()->iType() == ImageButtonView::kCheckbox) {
        state.checkable = true;
        state.checked = button()->getStatus();
    }
    return state;
}

QStringList ImageButtonAccessible::actionNames() const {
    return QStringList{pressAction()} + QAccessibleWidget::actionNames();
}

void ImageButtonAccessible::doAction(const QString& actionName) {
    if (actionName == pressAction()) {
        // The screen reader blocks until this call returns, so a dialog that the press opens must not run in
        // it.
        const auto press = [pressed = button()] { pressed->performClick(); };
        QMetaObject::invokeMethod(button(), press, Qt::QueuedConnection);
    } else {
        QAccessibleWidget::doAction(actionName);
    }
}
