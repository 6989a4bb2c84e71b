#include "download/Progress.h"
#include "platform/Log.h"
#include "platform/MainThread.h"
#include "report/WebStatic.h"
#include "transfer/CurlMessage.h"
#include "transfer/CurlWrapper.h"
#include "ui/CoreImageView.h"
#include "ui/StatusTexts.h"

void CoreImageView::onCallbackMessage(const CurlMessage& message) {
    switch (message.itype()) {
    case CurlMessageTypeData:
        if (message.status() == 0) {
            dataReceived(message);
        } else {
            transferFailed();
        }
        break;
    case CurlMessageTypeLength:
        if (message.status() == 0) {
            _iTotalLength = message.iMessage();
        }
        break;
    case CurlMessageTypeFinished:
        executeWebStatic(event::kDownloaded);
        downloadFinished();
        break;
    case CurlMessageTypeStop:
        CurlWrapper::SyncStop(_identifier);
        break;
    case CurlMessageTypeStarted:
        _identifier = message.identifier();
        updateStatus(status::kDownloading);
        break;
    case CurlMessageTypeProbeFailed:
        probeFailed(message.status());
        break;
    default:
        break;
    }
}

void CoreImageView::dataReceived(const CurlMessage& message) {
    _lastReceived = message.timestamp();
    _iStartPos += message.iMessage();
    if (const std::int64_t total = _iTotalLength; total != 0) {
        _percent = percentOf(_iStartPos, total);
        // The next block is taken when this one is recorded and the bar's value set; painting follows within
        // a frame.
        MainThread::performAndWait([this] { updateProgress(); });
    }
    if (message.iMessage() == 0) {
        updateStatus(status::kStopped);
    }
}

void CoreImageView::transferFailed() {
    enterState(ScreenState::NetworkFailure);
    updateStatus(status::kNetworkFailure);
    executeWebStatic(event::kDownloadFailed);
}

void CoreImageView::probeFailed(std::int32_t probeStatus) {
    if (probeStatus != -1) {
        NSLog("Error Code:%d", probeStatus);
        updateStatus(status::kDownloadFailed);
    } else {
        updateStatus(status::kFileMissing);
    }
    enterState(ScreenState::ProbeFailed);
    NSLog("Webstatic:Download Faild");
    executeWebStatic(event::kDownloadFailed);
}

void CoreImageView::updateProgress() {
    updateSpeed();
    _progress->setDoubleValue(_percent);
}

void CoreImageView::updateSpeed() {
    const auto text = speedText(_iStartPos - _iBytesReceived, _lastReceived - _timestapCompute);
    if (text) {
        _speed->setStringValue(*text);
        _iBytesReceived = _iStartPos.load();
        _timestapCompute = _lastReceived.load();
    }
}

void CoreImageView::downloadReceived(const void* /*unused*/) {}
