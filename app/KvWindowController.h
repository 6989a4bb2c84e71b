#pragma once

#include <QWidget>

#include <memory>

class ViewController;

/// Controls the main window: sets its title, initialises the transfer library, and ends the process when the
/// user closes the window. Main thread.
class KvWindowController {
  public:
    KvWindowController();
    ~KvWindowController();

    void windowDidLoad();

    /// The user asked to close the window: ends the process at once, without waiting for running threads.
    [[noreturn]] void windowShouldClose();

    /// The program itself closes the window: ends any modal loop, submits the statistics and cleans up. The
    /// toolkit then ends the event loop, and with it the process.
    void windowWillClose();

    /// Shows the window in the middle of the screen with the pointer, if the window system lets programs
    /// place windows.
    void showWindow();
    [[nodiscard]] QWidget* window() const { return window_.get(); }
    [[nodiscard]] ViewController& contentViewController() const { return *content_; }

  private:
    std::unique_ptr<QWidget> window_;
    std::unique_ptr<ViewController> content_;
};
