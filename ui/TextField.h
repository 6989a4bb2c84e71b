#pragma once

#include <QLabel>

#include <string_view>

/// A white one-line label without border or background. A line of Chinese is taller than the label, so the
/// text is centred vertically and not clipped; a text that is too wide gets a smaller font. Its accessible
/// name is its text. Main thread.
class TextField : public QLabel {
  public:
    explicit TextField(QWidget* superview);

    void setStringValue(std::string_view text);

    /// The font in which the current text fits the width.
    [[nodiscard]] QFont fittingFont() const;

  protected:
    void paintEvent(QPaintEvent* event) override;
};
