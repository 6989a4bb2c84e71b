// A lower bound for the product's start: a window with one picture and one Chinese label.
#include "FirstPaint.h"

#include <QApplication>
#include <QLabel>

#include <curl/curl.h>

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    curl_global_init(CURL_GLOBAL_ALL);
    QLabel window;
    const QPixmap picture(QString::fromLocal8Bit(argv[1]));
    window.setPixmap(picture);
    window.setFixedSize(picture.size());
    QLabel label(QStringLiteral("正在检测网络"), &window);
    label.move(60, 360);
    reportFirstPaint(&window);
    window.show();
    return QApplication::exec();
}
