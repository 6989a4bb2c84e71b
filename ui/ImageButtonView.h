#pragma once

#include "ui/ImageView.h"

#include <cstdint>
#include <string>

/// The names of the panel's buttons. A button is found by its name, which also decides what a release does.
namespace button {
inline constexpr char kStart[] = "start_button";
inline constexpr char kCheckbox[] = "checkbox";
inline constexpr char kStop[] = "stop_button";
inline constexpr char kContinue[] = "continue_button";
inline constexpr char kContinueInstall[] = "continueInsTall_button";
inline constexpr char kRetryDownload[] = "retryDownload_button";
} // namespace button

/// What the view that contains image buttons provides: the messages that a release sends, and a click count
/// that continues when one button has replaced another.
class ImageButtonTarget {
  public:
    virtual ~ImageButtonTarget() = default;
    virtual void startDownload() = 0;
    virtual void stopDownload() = 0;
    virtual void continueDownload() = 0;
    virtual void downloadFinished() = 0;
    virtual void retryDownload() = 0;
    virtual void enableStart(bool enabled) = 0;

    /// Records a mouse press over the view and returns its click count: 1 for a single click.
    virtual int pressed(const QMouseEvent& event) = 0;
};

/// The pictures of a button, by the names of its properties. All but the first may be null.
struct ButtonPictures {
    Image::Ref normal;
    Image::Ref deep;
    Image::Ref gray;
};

/// A control that shows one of three pictures and, when released, sends a message, chosen by its name, to the
/// view that contains it, an ImageButtonTarget. Main thread.
class ImageButtonView : public ImageView {
  public:
    static constexpr std::int32_t kPushButton = 1;
    static constexpr std::int32_t kCheckbox = 2;

    explicit ImageButtonView(QWidget* superview);

    /// kPushButton or kCheckbox; with any other value a press is only logged.
    [[nodiscard]] std::int32_t iType() const { return iType_; }
    void setIType(std::int32_t type);

    /// The button's name: decides what a release does, and identifies the button among the panel's subviews.
    [[nodiscard]] const std::string& imageName() const { return imageName_; }
    void setImageName(std::string name) { imageName_ = std::move(name); }

    /// Picture at rest; for a checkbox, ticked.
    [[nodiscard]] const Image::Ref& normalImage() const { return normalImage_; }
    void setNormalImage(Image::Ref image) { normalImage_ = std::move(image); }

    /// Picture while pressed; for a checkbox, unticked.
    [[nodiscard]] const Image::Ref& deepImage() const { return deepImage_; }
    void setDeepImage(Image::Ref image) { deepImage_ = std::move(image); }

    /// Picture while disabled; may be null. A gray button still sends its message; the receiver decides
    /// whether to act on it.
    [[nodiscard]] const Image::Ref& grayImage() const { return grayImage_; }
    void setGrayImage(Image::Ref image) { grayImage_ = std::move(image); }

    void setImage(Image::Ref image) override;

    /// True only for a ticked checkbox.
    [[nodiscard]] bool getStatus() const;

    /// Sets whether the focused button shows a ring: while the keyboard is used, not while the mouse is.
    static void setKeyboardLeads(bool leads);

    /// A press and a release, as made by the keyboard or a screen reader.
    void performClick();

  protected:
    bool event(QEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

  private:
    [[nodiscard]] ImageButtonTarget& superview() const;
    [[nodiscard]] bool showsGray() const { return grayImage_ != nullptr && image() == grayImage_; }
    void mouseDown();
    void mouseUp(int clickCount);
    void sendMessage();
    void toggle();

    std::int32_t iType_ = 0;
    std::string imageName_;
    Image::Ref normalImage_;
    Image::Ref deepImage_;
    Image::Ref grayImage_;
    int pressClickCount_ = 0; ///< click count of the press that is not yet released, or 0
};
