// The program as it is, with a person in front of its window who does what the arguments say, one after the
// other. What is seen, the log and the statistics go to one file, to which the tools add their calls.
//
//   NAME     when nothing is under way, presses the button of that name; in a dialog, the one that says so
//   Escape, Return, close    types that key in the open dialog, or asks it to close
//   !MS ACTION               does it whatever is under way, and the next one MS milliseconds later
//
// When nothing is under way and nothing is left to do, the program ends.

#include "app/MainInterface.h"
#include "platform/Application.h"
#include "platform/Log.h"
#include "platform/WorkerThread.h"
#include "report/WebStatic.h"
#include "ui/ImageButtonView.h"
#include "ui/TextField.h"

#include <QApplication>
#include <QCloseEvent>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QTest>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <fstream>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

// Each line in one write, so that those of several threads and tools stand in the order of what they tell.
void trace(const std::string& line) {
    std::ofstream("/tmp/pipeline/trace", std::ios::app) << line + '\n';
}

[[noreturn]] void end(const std::string& how) {
    trace(how);
#if defined(__SANITIZE_ADDRESS__)
    if (__lsan_do_recoverable_leak_check() != 0) {
        trace("leak");
    }
#endif
    exitProcess(0);
}

// From left to right.
std::vector<QPushButton*> buttonsOf(const QMessageBox& box) {
    const QList<QPushButton*> found = box.findChildren<QPushButton*>();
    std::vector<QPushButton*> buttons(found.begin(), found.end());
    std::ranges::sort(buttons, {}, [](const QPushButton* button) { return button->x(); });
    return buttons;
}

class Person : public QObject {
  public:
    explicit Person(std::vector<std::string> actions) : actions_(std::move(actions)) {
        qApp->installEventFilter(this);
        startTimer(kInterval);
    }

  protected:
    bool eventFilter(QObject* object, QEvent* event) override {
        if (event->type() == QEvent::Show || event->type() == QEvent::Hide) {
            if (const auto* const button = dynamic_cast<ImageButtonView*>(object)) {
                trace((event->type() == QEvent::Show ? "show " : "hide ") + button->imageName());
            } else if (object == dialog_ && event->type() == QEvent::Hide) {
                dialog_ = nullptr;
                trace("dialog closed");
            }
        }
        return false;
    }
    void timerEvent(QTimerEvent* event) override {
        // Each look has a timer of its own: what is done can open a dialog, and then the looking must go on.
        killTimer(event->timerId());
        startTimer(isHasty() ? std::chrono::milliseconds(std::stoi(due().substr(1))) : kInterval);
        look();
    }

  private:
    [[nodiscard]] const std::string& due() const { return actions_[std::min(next_, actions_.size() - 1)]; }
    [[nodiscard]] bool isHasty() const { return due().starts_with('!'); }

    void look() {
        auto* const dialog = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        // The last hasty action has told the program to leave.
        if (isHasty() ? next_ == actions_.size() : dialog == nullptr && WorkerThread::running() > 0) {
            return;
        }
        if (dialog != nullptr && std::exchange(dialog_, dialog) != dialog) {
            std::string line =
                "dialog " + dialog->text().toStdString() + "|" + dialog->informativeText().toStdString();
            for (const QPushButton* const button : buttonsOf(*dialog)) {
                line += "|" + button->text().toStdString();
            }
            trace(line);
        }
        if (next_ == actions_.size()) {
            end(dialog == nullptr ? "end" : "a dialog is left open");
        }
        const std::string& action = actions_[next_++];
        trace("> " + action);
        if (action.starts_with('!')) {
            hurry(dialog, action.substr(action.find(' ') + 1));
        } else if (!(dialog == nullptr ? press(action) : answer(*dialog, action))) {
            end("there is no " + action);
        }
    }

    static bool press(const std::string& name) {
        for (QWidget* const widget : QApplication::allWidgets()) {
            auto* const button = dynamic_cast<ImageButtonView*>(widget);
            if (button != nullptr && button->imageName() == name && button->isVisible()) {
                button->performClick();
                return true;
            }
        }
        return false;
    }

    static bool answer(QMessageBox& dialog, const std::string& action) {
        if (action == "close") {
            dialog.close();
            return true;
        }
        if (action == "Escape" || action == "Return") {
            QTest::keyClick(dialog.focusWidget(), action == "Escape" ? Qt::Key_Escape : Qt::Key_Return);
            return true;
        }
        const std::vector<QPushButton*> buttons = buttonsOf(dialog);
        const auto found = std::ranges::find(buttons, QString::fromStdString(action), &QPushButton::text);
        if (found != buttons.end()) {
            (*found)->click();
        }
        return found != buttons.end();
    }

    void hurry(QMessageBox* dialog, const std::string& action) {
        QWidget* const window = QApplication::topLevelWidgets().value(0);
        if (dialog != nullptr) {
            const std::vector<QPushButton*> buttons = buttonsOf(*dialog);
            action == "close" && next_ < actions_.size() ? void(dialog->close())
                                                         : buttons[next_ % buttons.size()]->click();
            next_ -= next_ == actions_.size() ? 1 : 0;
        } else if (action == "Space" || action == "Tab") {
            QTest::keyClick(window, action == "Tab" ? Qt::Key_Tab : Qt::Key_Space);
        } else if (action.ends_with('%')) { // waits until so much has come
            next_ -= window->findChild<QProgressBar*>()->value() < std::stoi(action) ? 1 : 0;
        } else if (action == "close") {
            window->close();
        } else if (action == "leave") {
            QCloseEvent asThePersonWishes;
            QSpontaneKeyEvent::setSpontaneous(&asThePersonWishes);
            qApp->notify(window, &asThePersonWishes);
        } else {
            QPoint place(400, 440); // of the second screen's buttons
            for (QWidget* const widget : window->findChildren<QWidget*>()) {
                const auto* const button = dynamic_cast<ImageButtonView*>(widget);
                if (button != nullptr && (button->imageName() == "checkbox") == (action == "consent")) {
                    widget->setHidden(!button->isVisible() && action != "consent");
                    place = button->isVisible() ? button->geometry().center() : place;
                }
            }
            const QTest::MouseAction kind = action == "double"    ? QTest::MouseDClick
                                            : action == "press"   ? QTest::MousePress
                                            : action == "release" ? QTest::MouseRelease
                                                                  : QTest::MouseClick;
            QTest::mouseEvent(kind, window->windowHandle(), Qt::LeftButton, {}, place);
        }
    }

    static constexpr std::chrono::milliseconds kInterval{2};
    const std::vector<std::string> actions_;
    std::size_t next_ = 0;
    QMessageBox* dialog_ = nullptr; ///< the one that was traced as open
};

std::vector<std::string> actions;

} // namespace

// No signal tells that a label's text was changed, so the linker leads the calls through here.
void setStringValue(TextField* label, std::string_view text) __asm__("__real_" SET_STRING_VALUE);
void setAndTrace(TextField* label, std::string_view text) __asm__("__wrap_" SET_STRING_VALUE);

void setAndTrace(TextField* label, std::string_view text) {
    const QString before = label->text();
    setStringValue(label, text);
    if (label->text() == before) {
        return;
    }
    const bool isSpeed = label->alignment().testFlag(Qt::AlignRight);
    if (!isSpeed) {
        trace("status " + label->text().toStdString());
    } else if (text.empty()) {
        trace("no speed"); // the figures depend on the clock
    }
}

void NSLog(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    trace("log " + QString::vasprintf(format, arguments).toStdString());
    va_end(arguments);
}

void executeWebStatic(const char* code) {
    trace(std::string("event ") + code);
}

void submitWebStatic() {
    trace("events submitted");
}

int main(int argc, char** argv) {
    actions.assign(argv + 1, argv + argc);
    int noArguments = 1;
    qAddPreRoutine([] { static Person person(std::move(actions)); });
    return NSApplicationMain(noArguments, argv);
}
