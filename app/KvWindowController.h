#pragma once

#include <QWidget>

#include <memory>

class ViewController;

/// Controls the one main window: titles it, sets the transfer library up, and ends the process when the user
/// closes the window. Main thread.
class KvWindowController {
  public:
    KvWindowController();
    ~KvWindowController();

    void windowDidLoad();

    /// The user asked to close the window: ends the process at once, whatever is under way.
    [[noreturn]] void windowShouldClose();

    /// The window closes in another way: ends any modal loop and says the last words; the process goes on.
    void windowWillClose();

    void showWindow();
    [[nodiscard]] QWidget* window() const { return window_.get(); }
    [[nodiscard]] ViewController& contentViewController() const { return *content_; }

  private:
    std::unique_ptr<QWidget> window_;
    std::unique_ptr<ViewController> content_;
};
