#pragma once

#include "ui/CoreImageView.h"

#include <QWidget>

/// Builds the first screen: the content view that fills the window, the panel in it, and on the panel the
/// background, the start button and the agreement. The window owns the views; this class only points to them.
/// Main thread.
class ViewController {
  public:
    /// `superview` is the window.
    explicit ViewController(QWidget* superview);

    void viewDidLoad();
    void
    setRepresentedObject(const void* object); ///< does nothing; no caller: part of the platform's interface

    [[nodiscard]] QWidget* view() const { return view_; }
    [[nodiscard]] CoreImageView* panel() const { return panel_; }

  private:
    void addStartButton();
    void addAgreement();

    QWidget* view_;
    CoreImageView* panel_ = nullptr;
};
