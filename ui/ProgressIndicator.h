#pragma once

#include <QProgressBar>

/// A determinate bar from 0 to 100 that shows fractions of a percent too. Main thread.
class ProgressIndicator : public QProgressBar {
  public:
    explicit ProgressIndicator(QWidget* superview);

    [[nodiscard]] double doubleValue() const { return doubleValue_; }
    void setDoubleValue(double percent);

  protected:
    void paintEvent(QPaintEvent* event) override;

  private:
    [[nodiscard]] double filledWidth() const;

    double doubleValue_ = 0;
};
