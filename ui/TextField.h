#pragma once

#include <QLabel>

#include <string_view>

/// A one-line white text without border or background. A line of Chinese is higher than the labels of the
/// screens, so the text is drawn centred on the frame and is never cut at its top or bottom; a text that is
/// too wide is set smaller until it fits. Its accessible name is the text that it shows. Main thread.
class TextField : public QLabel {
  public:
    explicit TextField(QWidget* superview);

    void setStringValue(std::string_view text);

    /// The font in which the present text fits the width.
    [[nodiscard]] QFont fittingFont() const;

  protected:
    void paintEvent(QPaintEvent* event) override;
};
