#pragma once

#include <QBasicTimer>
#include <QProgressBar>

/// A progress bar from 0 to 100 percent that shows fractions too. Main thread.
class ProgressIndicator : public QProgressBar {
  public:
    explicit ProgressIndicator(QWidget* superview);

    /// Sets the value. It is painted when the event loop next runs, at most about thirty times a second: a
    /// change within 33 ms of the last frame waits for the next frame.
    void setDoubleValue(double percent);

  protected:
    void paintEvent(QPaintEvent* event) override;

    void timerEvent(QTimerEvent* event) override;

  private:
    void showValue();
    [[nodiscard]] double filledWidth() const;
    [[nodiscard]] int filledPixels() const; ///< of the screen

    double doubleValue_ = 0;
    double shownValue_ = 0;
    QBasicTimer nextFrame_;
};
