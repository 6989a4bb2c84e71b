// A plugin for the toolkit: what the window tells assistive technologies, it writes to the program's standard
// error, where the log is: "@status TEXT", "@no speed", "@show NAME", "@hide NAME", "@dialog TEXTS" and
// "@dialog closed". So these lines and the log's lines are in the order in which the program wrote them. When
// the program starts another one that it does not wait for, the line is "@NUMBER " with six digits, and the
// other one finds the number in PELLOMAR_STARTED; programs that it waits for find 0 there.

#include <QAccessible>
#include <QAccessibleWidget>
#include <QGenericPlugin>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void tell(const QString& line) {
    const QByteArray bytes = ("@" + line + "\n").toUtf8();
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, bytes.data(), bytes.size());
}

/// The message, the explanation, and the buttons from left to right.
QString textsOf(const QMessageBox& box) {
    QList<QPushButton*> buttons = box.findChildren<QPushButton*>();
    std::ranges::sort(buttons, {}, [](const QPushButton* button) { return button->x(); });
    QStringList texts{box.text(), box.informativeText()};
    for (const QPushButton* const button : buttons) {
        texts.append(button->text());
    }
    return texts.join('|').replace('\n', ' ');
}

void tellOf(QAccessibleEvent* event) {
    const QAccessible::Event type = event->type();
    if (type == QAccessible::NameChanged) {
        const auto* const label = qobject_cast<QLabel*>(event->object());
        const bool isStatus =
            label != nullptr && label->parent() != nullptr && !label->window()->inherits("QMessageBox");
        if (isStatus && !label->text().endsWith(" KB/s")) { // those figures depend on the clock
            tell(label->text().isEmpty() ? "no speed" : "status " + label->text());
        }
    } else if (type == QAccessible::ObjectShow || type == QAccessible::ObjectHide) {
        const bool isShown = type == QAccessible::ObjectShow;
        const auto* const widget = qobject_cast<QWidget*>(event->object());
        if (const auto* const box = qobject_cast<const QMessageBox*>(widget)) {
            tell("dialog " + (isShown ? textsOf(*box) : "closed"));
        } else if (widget != nullptr && !widget->accessibleName().isEmpty()) {
            tell((isShown ? "show " : "hide ") + widget->accessibleName());
        }
    }
}

void onUpdate(QAccessibleEvent* event) {
    tellOf(event);
    // Pass the event on to the default handler.
    QAccessible::installUpdateHandler(nullptr);
    QAccessible::updateAccessibility(event);
    QAccessible::installUpdateHandler(onUpdate);
}

char variable[] = "PELLOMAR_STARTED=000000";
thread_local char number[7];

void beforeFork() {
    static std::atomic<unsigned> last{0};
    snprintf(number, sizeof number, "%06u", ++last % 1'000'000);
    tell(QString(number) + ' ');
}

void inChild() {
    std::memcpy(std::strchr(variable, '=') + 1, number, sizeof number);
}

} // namespace

class Trace : public QGenericPlugin {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID QGenericPluginFactoryInterface_iid FILE "Trace.json")

  public:
    QObject* create(const QString& /*name*/, const QString& /*unused*/) override {
        QAccessible::installUpdateHandler(onUpdate);
        putenv(variable);
        pthread_atfork(beforeFork, nullptr, inChild);
        return new QObject;
    }
};

#include "Trace.moc"
