#pragma once

#include "platform/NotificationCenter.h"
#include "ui/Geometry.h"
#include "ui/ImageButtonView.h"
#include "ui/ProgressIndicator.h"
#include "ui/ScreenState.h"
#include "ui/TextField.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>

class CurlMessage;
struct ComParam;
struct InstallAttempt;
enum class PrivilegedCommand;

/// The download panel: the view that fills the window and shows both screens, receives the buttons' messages
/// and handles the transfer's records. Its methods are defined in the folders they belong to:
///
///   view      ui/CoreImageView.cpp                 set-up, pictures, the second screen, the status line
///   download  download/CoreImageView_download.cpp  start, stop, continue, retry; source; version stamp
///   events    download/CoreImageView_events.cpp    the transfer's records, progress, speed
///   install   install/CoreImageView_install.cpp    the pipeline after the last byte
///   dialogs   install/CoreImageView_dialogs.cpp    keep-data question and flag, guidance
///   product   install/CoreImageView_product.cpp    the installed application
///
/// Main thread unless stated otherwise. The panel must outlive the workers that it starts.
class CoreImageView : public QWidget, public ImageButtonTarget {
  public:
    // --- view -------------------------------------------------------------------------------------------

    /// `frame` is in points in `superview`; the panel's place in it is (0, 0).
    CoreImageView(const Frame& frame, QWidget* superview);
    ~CoreImageView() override;

    /// Places `view`, a child of this panel, on top of the other subviews.
    void addSubview(QWidget* view, const Frame& frame, bool hidden = false);

    /// Creates a button, owned by the panel, on top of the other subviews. `type` is one of
    /// ImageButtonView's; `accessibleName` is what a screen reader says.
    void addButton(std::int32_t type, const char* name, const char* accessibleName,
                   const ButtonPictures& pictures, const Frame& frame, bool hidden = false);

    /// The view under `point`, or the panel itself if there is no view. Logged.
    QWidget* hitTest(const QPoint& point);

    /// Sets the picture of every direct subview that is an image view, including hidden ones and buttons.
    void setImage(const Image::Ref& image);

    /// Shows the start button's normal or gray picture; it stays clickable.
    void enableStart(bool enabled) override;

    /// Sets the status line. Any thread; done on return.
    void updateStatus(const std::string& text);

    int pressed(const QMouseEvent& event) override;

    // --- download ---------------------------------------------------------------------------------------

    void startDownload() override;
    void stopDownload() override;
    void continueDownload() override;
    void retryDownload() override;

    /// What a download worker runs: the length probe, then the body.
    static void downloadThread(const ComParam& param);

    /// The package's address, or "" when no configuration file could be read.
    static std::string getDownloadUrl();

    /// Fetches `url` with synchronousGet and a time-out of 10 seconds for the reply. Returns its text, or
    /// nothing when the request failed or the reply is not UTF-8. Blocks. Any thread.
    static std::optional<std::string> getRequest(const std::string& url);

    /// Asks the update server for the current version and rewrites the stamp file. Blocks. Any thread. The
    /// window does not call it; it is part of the panel's interface.
    static void modifyVersion();

    // --- events -----------------------------------------------------------------------------------------

    /// Handles a transfer's record, on the thread that posted it.
    void onCallbackMessage(const CurlMessage& message);
    void updateProgress();
    void updateSpeed();
    void downloadReceived(const void* unused); ///< does nothing; no caller: part of the panel's interface

    // --- install ----------------------------------------------------------------------------------------

    /// Starts the installation: closes running copies, obtains rights, asks whether games are kept, and
    /// starts the install worker. On the download worker or the main thread.
    void downloadFinished() override;

    // --- dialogs ----------------------------------------------------------------------------------------

    /// Asks whether games are to be kept. If not, creates the flag file that makes the product overwrite
    /// them.
    void isCoverInstall();

    /// Removes that flag file, if it exists.
    static void removeCoverFile();

    /// Show why the driver is not loaded and, if the user presses the button, open the security settings or
    /// the help page.
    static void installFaildGuide();
    static void installFaildDueToSip();

    // --- product ----------------------------------------------------------------------------------------

    /// Sends running copies of the product the signal to end, and does not wait until they have. Any thread.
    static void killTovaniPlayer();

    /// Launches the product; on success, ends this process. Any thread.
    void startTovaniPlayer(const void* unused);

  protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;

  private:
    // --- view -------------------------------------------------------------------------------------------

    void buildSecondScreen();
    TextField* addLabel(const Frame& frame, Qt::Alignment alignment, const char* text);
    [[nodiscard]] bool consentGiven() const;

    /// Shows and hides the controls as the state's row says. Any thread; done on return.
    void enterState(ScreenState state);
    void setButtonVisibility(const char* imageName, Visibility visibility);

    TextField* _status = nullptr;
    TextField* _speed = nullptr;
    ProgressIndicator* _progress = nullptr;
    NotificationCenter::Observer* _observer = nullptr;

    struct {
        int count = 0;
        std::uint64_t time = 0; ///< milliseconds, on the window system's clock
        QPoint place;
    } _lastPress;

    // --- download ---------------------------------------------------------------------------------------

    /// Creates the empty temporary file and returns its path; on failure, sets the status line to the cause.
    std::optional<std::string> prepareTemporaryFile();
    void startWorker(std::int64_t startPos, const std::string& filePath);

    std::thread::id _downloadThread; ///< the most recent worker; an older one may still run
    std::string _strDownloadUrl;

    // --- events: shared by workers and the main thread --------------------------------------------------

    void dataReceived(const CurlMessage& message);
    void transferFailed();
    void probeFailed(std::int32_t status);

    std::atomic<std::int64_t> _iStartPos{0};      ///< bytes received so far: the resume offset
    std::atomic<std::int64_t> _iBytesReceived{0}; ///< _iStartPos at the last speed sample
    std::atomic<double> _lastReceived{0};         ///< time of the last data record, seconds since 1970
    std::atomic<double> _timestapCompute{0};      ///< time of the last speed sample, seconds since 1970
    std::atomic<std::int64_t> _iTotalLength{0};   ///< bytes of the whole file; 0 until known
    std::atomic<std::int64_t> _identifier{0};     ///< token of the running body transfer
    std::atomic<double> _percent{0};

    // --- install: shared by install workers and the main thread -----------------------------------------

    void installWorker(InstallAttempt& attempt);
    bool removeOldApplication(InstallAttempt& attempt);
    bool installPackage(InstallAttempt& attempt);
    bool queryDriver(InstallAttempt& attempt);
    bool startDriver(InstallAttempt& attempt);
    bool runDriverTool(InstallAttempt& attempt, PrivilegedCommand command);
    enum class DriverPass { First, Retry };
    void driverFailed(InstallAttempt& attempt, DriverPass pass);

    std::atomic<bool> _bAlreadyInstallPkg{false}; ///< installed since the last download started
    std::atomic<bool> _retryInstallVbox{false};   ///< the driver step has failed: a retry starts the driver
    bool _isCoverInstall = false;                 ///< main thread; the last answer: do not keep the games
};
