#include "pipeline/Observer.h"

#include "pipeline/Trace.h"
#include "platform/Application.h"
#include "platform/Text.h"
#include "platform/WorkerThread.h"
#include "ui/ImageButtonView.h"
#include "ui/TextField.h"

#include <QAbstractButton>
#include <QApplication>
#include <QKeyEvent>
#include <QMessageBox>

#include <algorithm>
#include <chrono>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

constexpr std::chrono::milliseconds kInterval(2);

[[noreturn]] void giveUp(const std::string& why) {
    trace::start();
    trace::add("the scenario does not fit: " + why);
    exitProcess(1);
}

[[noreturn]] void end() {
    trace::add("end");
#if defined(__SANITIZE_ADDRESS__)
    if (__lsan_do_recoverable_leak_check() != 0) {
        trace::add("leak");
    }
#endif
    exitProcess(0);
}

// As a reader meets them: from left to right.
std::vector<QAbstractButton*> buttonsOf(const QMessageBox& box) {
    const QList<QAbstractButton*> unordered = box.buttons();
    std::vector<QAbstractButton*> buttons(unordered.begin(), unordered.end());
    std::sort(buttons.begin(), buttons.end(), [&box](const QAbstractButton* a, const QAbstractButton* b) {
        return a->mapTo(&box, QPoint()).x() < b->mapTo(&box, QPoint()).x();
    });
    return buttons;
}

std::string describe(const QMessageBox& box) {
    std::string line = "dialog " + box.text().toStdString() + "|" + box.informativeText().toStdString();
    for (const QAbstractButton* const button : buttonsOf(box)) {
        line += "|" + button->text().toStdString();
    }
    return line;
}

void typeKey(QMessageBox& box, int key) {
    QWidget* const focus = box.focusWidget() == nullptr ? &box : box.focusWidget();
    QKeyEvent press(QEvent::KeyPress, key, Qt::NoModifier);
    QApplication::sendEvent(focus, &press);
    QKeyEvent release(QEvent::KeyRelease, key, Qt::NoModifier);
    QApplication::sendEvent(focus, &release);
}

ImageButtonView* findButton(const std::string& name) {
    for (QWidget* const widget : QApplication::allWidgets()) {
        auto* const button = dynamic_cast<ImageButtonView*>(widget);
        if (button != nullptr && button->imageName() == name) {
            return button;
        }
    }
    return nullptr;
}

} // namespace

Observer::Observer(std::vector<std::string> actions) : actions_(std::move(actions)) {
    std::reverse(actions_.begin(), actions_.end());
    qApp->installEventFilter(this);
    startTimer(kInterval);
}

void Observer::textWasSet(const TextField& label) {
    QString& last = texts_[&label];
    if (last == label.text()) {
        return;
    }
    last = label.text();
    const bool isSpeed = label.alignment().testFlag(Qt::AlignRight);
    if (!isSpeed) {
        trace::add("status " + last.toStdString());
    } else if (last.isEmpty()) {
        trace::add("no speed"); // the figures depend on the clock
    }
}

bool Observer::eventFilter(QObject* object, QEvent* event) {
    if (event->type() == QEvent::Show || event->type() == QEvent::Hide) {
        if (const auto* const button = dynamic_cast<ImageButtonView*>(object)) {
            trace::add((event->type() == QEvent::Show ? "show " : "hide ") + button->imageName());
        } else if (object == dialog_ && event->type() == QEvent::Hide) {
            dialog_ = nullptr;
            trace::add("dialog closed");
        }
    }
    return false;
}

void Observer::timerEvent(QTimerEvent* event) {
    // Each look has a timer of its own: an action can open a dialog, and in its loop the looking goes on.
    killTimer(event->timerId());
    startTimer(kInterval);
    look();
}

void Observer::look() {
    auto* const box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
    const bool underWay = WorkerThread::running() > 0;
    if (box == nullptr && underWay) {
        return;
    }
    if (box != nullptr && box != dialog_) {
        dialog_ = box;
        trace::add(describe(*box));
    }
    if (actions_.empty()) {
        if (box != nullptr) {
            giveUp("a dialog waits for an answer");
        }
        end();
    }
    const std::string action = actions_.back();
    actions_.pop_back();
    trace::add(action);
    if (box != nullptr) {
        actOnDialog(*box, action);
    } else {
        actOnWindow(action);
    }
}

void Observer::actOnDialog(QMessageBox& box, const std::string& action) {
    if (action == "close") {
        box.close();
    } else if (action == "key Escape") {
        typeKey(box, Qt::Key_Escape);
    } else if (action == "key Return") {
        typeKey(box, Qt::Key_Return);
    } else {
        for (QAbstractButton* const button : buttonsOf(box)) {
            if (action == "answer " + button->text().toStdString()) {
                button->click();
                return;
            }
        }
        giveUp("not with a dialog open: " + action);
    }
}

void Observer::actOnWindow(const std::string& action) {
    constexpr std::string_view kPress = "press ";
    ImageButtonView* const button =
        action.starts_with(kPress) ? findButton(action.substr(kPress.size())) : nullptr;
    if (button == nullptr || !button->isVisible()) {
        giveUp("not with nothing under way: " + action);
    }
    button->performClick();
}
