#include "download/ComParam.h"
#include "download/DownloadSource.h"
#include "download/TemporaryFile.h"
#include "platform/Bundle.h"
#include "platform/Log.h"
#include "platform/Text.h"
#include "platform/UrlRequest.h"
#include "platform/WorkerThread.h"
#include "report/VersionStamp.h"
#include "report/WebStatic.h"
#include "transfer/CurlMessage.h"
#include "transfer/CurlWrapper.h"
#include "ui/CoreImageView.h"
#include "ui/StatusTexts.h"

namespace {

void reportDownloadStart() {
    NSLog("WebStatic:Download Start");
    executeWebStatic(event::kDownloadStarted);
}

} // namespace

void CoreImageView::startDownload() {
    _strDownloadUrl = getDownloadUrl();
    removeCoverFile();
    _retryInstallVbox = false;
    _bAlreadyInstallPkg = false;
    NSLog("CoreImageView startDownload url:%s", _strDownloadUrl.c_str());
    if (!consentGiven()) {
        return;
    }
    buildSecondScreen();
    reportDownloadStart();
    const auto filePath = prepareTemporaryFile();
    if (!filePath) {
        return;
    }
    _iStartPos = 0;
    NSLog("_strDownloadUrl:%s,tmpFile:%s", _strDownloadUrl.c_str(), filePath->c_str());
    startWorker(0, *filePath);
}

void CoreImageView::stopDownload() {
    NSLog("CoreImageView stopDownload");
    enterState(ScreenState::Stopped);
    CurlMessage message;
    message.setItype(CurlMessageTypeStop);
    postCurlMessage(message);
}

void CoreImageView::continueDownload() {
    NSLog("CoreImageView continueDownload");
    if (_status->text() != viewText(status::kStopped)) {
        reportDownloadStart();
    }
    enterState(ScreenState::Resumed);
    startWorker(_iStartPos, temporaryFilePath());
}

void CoreImageView::retryDownload() {
    const auto filePath = prepareTemporaryFile();
    if (!filePath) {
        return;
    }
    enterState(ScreenState::Retried);
    reportDownloadStart();
    _iStartPos = 0;
    _timestapCompute = 0;
    startWorker(0, *filePath);
}

std::optional<std::string> CoreImageView::prepareTemporaryFile() {
    if (const auto problem = createTemporaryFile(downloadDirectory())) {
        updateStatus(*problem);
        return std::nullopt;
    }
    return temporaryFilePath();
}

void CoreImageView::startWorker(std::int64_t startPos, const std::string& filePath) {
    const ComParam param{startPos, filePath, _strDownloadUrl};
    _downloadThread = startWorkerThread([param] { downloadThread(param); });
}

void CoreImageView::downloadThread(const ComParam& param) {
    if (CurlWrapper::SyncHead(param.fileurl) != 0) {
        return;
    }
    CurlWrapper::SyncStop(0);
    CurlWrapper::SyncDownloadToFile(param.fileurl, param.filepath, param.istartpos);
}

std::string CoreImageView::getDownloadUrl() {
    return downloadUrl(bundlePath(), kFallbackConfigurationPath);
}

std::optional<std::string> CoreImageView::getRequest(const std::string& url) {
    constexpr long kTimeout = 10;
    const std::optional<std::string> body = synchronousGet(url, kTimeout);
    std::optional<std::string> text = body ? decodedUtf8(*body) : std::nullopt;
    NSLog("%s", described(text).c_str());
    return text;
}

void CoreImageView::modifyVersion() {
    const std::optional<std::string> version = getRequest(updateInformationUrl());
    rewriteStampFile(bundlePath() + "/../.propaganda.dat", version);
}
