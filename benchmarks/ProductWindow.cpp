// Measures the product's start up to the first paint.
#include "FirstPaint.h"
#include "app/MainInterface.h"

#include <QApplication>
#include <QWidget>

namespace {

// Runs when the application object is constructed, before the window exists.
void watchWindows() {
    class Watcher : public QObject {
      public:
        using QObject::QObject;
        bool eventFilter(QObject* watched, QEvent* event) override {
            auto* const widget = qobject_cast<QWidget*>(watched);
            if (event->type() == QEvent::Show && widget != nullptr && widget->isWindow()) {
                reportFirstPaint(widget);
            }
            return QObject::eventFilter(watched, event);
        }
    };
    qApp->installEventFilter(new Watcher(qApp));
}

Q_COREAPP_STARTUP_FUNCTION(watchWindows)

} // namespace

int main(int argc, char** argv) {
    return NSApplicationMain(argc, argv);
}
