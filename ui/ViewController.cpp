#include "ui/ViewController.h"

ViewController::ViewController(QWidget* superview) : view_(new QWidget(superview)) {}

void ViewController::viewDidLoad() {
    const Image::Ref background = Image::named("firstbackground");
    const QSize size = sizeOf(background);
    view_->setFixedSize(size);

    const Frame whole = frameAt(0, 0, size);
    panel_ = new CoreImageView(whole, view_);
    auto* const backgroundView = new ImageView(panel_);
    backgroundView->setImage(background);
    panel_->addSubview(backgroundView, whole);

    addStartButton();
    addAgreement();
    panel_->setFocus(); // otherwise the toolkit would focus a button
}

void ViewController::addStartButton() {
    const ButtonPictures pictures{Image::named("start_normal"), Image::named("start_deep"),
                                  Image::named("start_gray")};
    const QSize size = sizeOf(pictures.normal);
    panel_->addButton(ImageButtonView::kPushButton, button::kStart, "开始", pictures,
                      frameAt((panel_->width() - size.width()) * 0.5, 180, size));
}

void ViewController::addAgreement() {
    constexpr char kText[] = "同意许可协议";
    const ButtonPictures pictures{Image::named("checked"), Image::named("uncheck"), nullptr};
    const Frame frame = frameAt(25, 15, sizeOf(pictures.normal));
    panel_->addButton(ImageButtonView::kCheckbox, button::kCheckbox, kText, pictures, frame, true);

    auto* const label = new TextField(panel_);
    label->setStringValue(kText);
    panel_->addSubview(label, {frame.x + frame.width, frame.y, 300, frame.height}, true);
}

void ViewController::setRepresentedObject(const void* /*object*/) {}
