// A lower bound for the product: a window with one picture and one Chinese label. With PICTURE alone, reports
// its first paint; with REPORT PICTURE URL FILE, how late it handles events while another thread does a bare
// transfer.
#include "BareTransfer.h"
#include "FirstPaint.h"
#include "InterfaceProbe.h"

#include <QApplication>
#include <QLabel>
#include <QTimer>

#include <curl/curl.h>
#include <unistd.h>

#include <thread>

namespace {

void reportLateness(const QWidget& window, const char* report, const char* url, const char* path) {
    auto* const probe = new InterfaceProbe;
    probe->start(window);
    std::thread([probe, report, url, path] {
        const bool succeeded = transferBare(url, path);
        QMetaObject::invokeMethod(probe, [probe, report, succeeded] {
            FILE* const file = std::fopen(report, "w");
            if (file == nullptr || !succeeded) {
                _exit(1);
            }
            std::fputs("{\"window\": \"bare\"", file);
            probe->print(file);
            std::fputs("}\n", file);
            std::fclose(file);
            _exit(0);
        });
    }).detach();
}

} // namespace

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    curl_global_init(CURL_GLOBAL_ALL);
    QLabel window;
    const QPixmap picture(QString::fromLocal8Bit(argv[argc == 2 ? 1 : 2]));
    window.setPixmap(picture);
    window.setFixedSize(picture.size());
    QLabel label(QStringLiteral("正在检测网络"), &window);
    label.move(60, 360);
    if (argc == 2) {
        reportFirstPaint(&window);
    }
    window.show();
    if (argc == 5) {
        QTimer::singleShot(500, &window,
                           [&window, argv] { reportLateness(window, argv[1], argv[3], argv[4]); });
    }
    return QApplication::exec();
}
