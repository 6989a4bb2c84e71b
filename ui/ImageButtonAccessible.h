#pragma once

#include <QAccessibleWidget>

class ImageButtonView;

/// Presents an image button to screen readers as a push button, or a check box with its state, that can be
/// pressed. Main thread.
class ImageButtonAccessible : public QAccessibleWidget {
  public:
    /// Registers this class with the toolkit for every ImageButtonView. May be called repeatedly.
    static void install();

    explicit ImageButtonAccessible(ImageButtonView* button);

    [[nodiscard]] QAccessible::State state() const override;
    [[nodiscard]] QStringList actionNames() const override;
    void doAction(const QString& actionName) override;

  private:
    [[nodiscard]] ImageButtonView* button() const;
};
