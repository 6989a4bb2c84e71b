#include "platform/Alert.h"
#include "platform/Text.h"

#include <QApplication>
#include <QCloseEvent>
#include <QGridLayout>
#include <QIcon>
#include <QKeyEvent>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>

namespace {

/// A message box whose Escape key and close button never count as an answer; the toolkit's own presses a
/// button of its choice.
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

/// Makes the box wide enough for its title, and a message above an explanation bold.
void arrange(QMessageBox& box, bool hasExplanation) {
    constexpr int kLeastWidth = 320;
    if (auto* const grid = qobject_cast<QGridLayout*>(box.layout())) {
        grid->addItem(new QSpacerItem(kLeastWidth, 0), grid->rowCount(), 0, 1, grid->columnCount());
    }
    if (auto* const message = box.findChild<QLabel*>("qt_msgbox_label");
        message != nullptr && hasExplanation) {
        QFont font = message->font();
        font.setBold(true);
        message->setFont(font);
    }
}

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
    box.setWindowTitle(window == nullptr ? QString() : window->windowTitle());
    constexpr int kIconSize = 48;
    box.setIconPixmap(
        QApplication::windowIcon().pixmap(QSize(kIconSize, kIconSize), box.devicePixelRatioF()));
    box.setText(viewText(messageText));
    box.setInformativeText(viewText(informativeText));
    arrange(box, !informativeText.empty());
    std::vector<QAbstractButton*> added;
    for (const std::string& label : buttons) {
        // Buttons of this role stand in the order in which they are added, on every desktop.
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
