#pragma once

#include <QBasicTimer>
#include <QProgressBar>

/// A determinate bar from 0 to 100 that shows fractions of a percent too. Main thread.
class ProgressIndicator : public QProgressBar {
  public:
    explicit ProgressIndicator(QWidget* superview);

    [[nodiscard]] double doubleValue() const { return doubleValue_; }

    /// Shown at once, or, where the last change is less than a frame old, with the next frame.
    void setDoubleValue(double percent);

  protected:
    void paintEvent(QPaintEvent* event) override;

    void timerEvent(QTimerEvent* event) override;

  private:
    void showValue();
    [[nodiscard]] double filledWidth() const;

    double doubleValue_ = 0;
    double shownValue_ = 0;
    QBasicTimer nextFrame_;
};
