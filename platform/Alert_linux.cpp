#include "platform/Alert.h"
#include "platform/Text.h"

#include <QApplication>
#include <QCloseEvent>
#include <QIcon>
#include <QKeyEvent>
#include <QMessageBox>
#include <QPushButton>

namespace {

// The toolkit's box presses a button of its own choice on Escape; closing must never count as an answer.
class AlertBox : public QMessageBox {
  public:
    AlertBox(bool mustBeAnswered, QWidget* parent) : QMessageBox(parent), mustBeAnswered_(mustBeAnswered) {}

  protected:
    void keyPressEvent(QKeyEvent* event) override {
        if (event->key() == Qt::Key_Escape) {
            closeWithoutChoice();
        } else {
            QMessageBox::keyPressEvent(event);
        }
    }
    void closeEvent(QCloseEvent* event) override {
        event->ignore();
        closeWithoutChoice();
    }

  private:
    void closeWithoutChoice() {
        if (!mustBeAnswered_) {
            done(Alert::kClosed);
        }
    }

    bool mustBeAnswered_;
};

QWidget* programWindow() {
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        if (widget->isVisible() && widget->windowType() == Qt::Window) {
            return widget;
        }
    }
    return nullptr;
}

} // namespace

int Alert::runModal() const {
    QWidget* const window = programWindow();
    AlertBox box(mustBeAnswered, window);
    // One order of buttons on every desktop, and the message above its explanation, as a headline.
    box.setStyleSheet(
        "* { button-layout: 0 } QLabel#qt_msgbox_label { font-weight: bold; min-width: 260px }");
    box.setWindowTitle(window == nullptr ? QString() : window->windowTitle());
    constexpr int kIconSize = 48;
    box.setIconPixmap(
        QApplication::windowIcon().pixmap(QSize(kIconSize, kIconSize), box.devicePixelRatioF()));
    box.setText(viewText(messageText));
    box.setInformativeText(viewText(informativeText));
    std::vector<QAbstractButton*> added;
    for (const std::string& label : buttons) {
        QPushButton* const button = box.addButton(viewText(label), QMessageBox::ActionRole);
        if (added.empty()) {
            box.setDefaultButton(button);
        }
        added.push_back(button);
    }
    const int ended = box.exec();
    for (std::size_t index = 0; index < added.size(); ++index) {
        if (box.clickedButton() == added[index]) {
            return kFirstButton + static_cast<int>(index);
        }
    }
    return ended;
}

void Alert::stopModal(int code) {
    while (QWidget* const modal = QApplication::activeModalWidget()) {
        auto* const dialog = qobject_cast<QDialog*>(modal);
        if (dialog == nullptr) {
            return;
        }
        dialog->done(code);
    }
}
