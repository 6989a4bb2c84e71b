// The sample product: a window that says that it is running.
#include <QApplication>
#include <QGuiApplication>
#include <QLinearGradient>
#include <QPainter>
#include <QWidget>

namespace {

class Greeting : public QWidget {
  public:
    Greeting() {
        setWindowTitle("Pellomar");
        setFixedSize(520, 320);
        setAccessibleName("Pellomar 已启动");
    }

  protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        QLinearGradient evening(0, 0, 0, height());
        evening.setColorAt(0, QColor(24, 40, 84));
        evening.setColorAt(0.65, QColor(86, 74, 142));
        evening.setColorAt(1, QColor(233, 137, 121));
        painter.fillRect(rect(), evening);

        painter.setPen(Qt::NoPen);
        painter.setBrush(QColor(255, 226, 178));
        painter.drawEllipse(QPointF(width() / 2.0, 96), 44, 44);
        painter.setBrush(QColor(24, 40, 84));
        painter.drawPolygon(QPolygonF({{246, 74}, {246, 118}, {284, 96}}));

        QFont font = painter.font();
        font.setPixelSize(30);
        font.setBold(true);
        painter.setFont(font);
        painter.setPen(Qt::white);
        painter.drawText(QRect(0, 160, width(), 50), Qt::AlignCenter, "Pellomar 已启动");
        font.setPixelSize(15);
        font.setBold(false);
        painter.setFont(font);
        painter.drawText(QRect(0, 212, width(), 30), Qt::AlignCenter, "驱动已就绪，祝您游戏愉快");
    }
};

} // namespace

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    Greeting window;
    window.show();
    return QApplication::exec();
}
