#pragma once

#include "support/ScratchFolder.h"

#include <QProcess>

#include <fstream>
#include <string>

/// Runs tests/stage/server.py, which documents the answers, with `document`. Used by the thread that created
/// it.
class Server {
  public:
    explicit Server(const std::string& document, const QStringList& answers = {""}) {
        const std::string path = folder_.path() + "/document";
        std::ofstream(path, std::ios::binary) << document;
        process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process_.start(PYTHON,
                       QStringList{SERVER, "--document", QString::fromStdString(path), "--"} + answers);
        port_ = line();
    }
    ~Server() {
        process_.closeWriteChannel();
        process_.waitForFinished();
    }

    [[nodiscard]] const std::string& port() const { return port_; }
    [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + port_ + "/soft/Pellomar.pkg"; }

    /// The next request: method, path, and the first byte of the range or "-". Blocks until there is one.
    std::string request() { return line(); }

    /// Ends every stall, and accepts connections that were held back.
    void release() {
        process_.write("\n");
        process_.waitForBytesWritten();
    }

  private:
    std::string line() {
        while (!process_.canReadLine() && process_.waitForReadyRead()) {
        }
        return process_.readLine().trimmed().toStdString();
    }

    ScratchFolder folder_;
    QProcess process_;
    std::string port_;
};
