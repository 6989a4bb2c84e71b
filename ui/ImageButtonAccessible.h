#pragma once

#include <QAccessibleWidget>

class ImageButtonView;

/// What a screen reader learns of an image button: a push button, or a check box with its state, that can be
/// pressed. Main thread.
class ImageButtonAccessible : public QAccessibleWidget {
  public:
    /// Makes the toolkit use this for every ImageButtonView from now on. Harmless to repeat.
    static void install();

    explicit ImageButtonAccessible(ImageButtonView* button);

    [[nodiscard]] QAccessible::State state() const override;
    [[nodiscard]] QStringList actionNames() const override;
    void doAction(const QString& actionName) override;

  private:
    [[nodiscard]] ImageButtonView* button() const;
};
