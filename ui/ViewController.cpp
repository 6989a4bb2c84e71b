#include "ui/ViewController.h"

#include "platform/Text.h"

ViewController::ViewController(QWidget* superview) : view_(new QWidget(superview)) {}

void ViewController::viewDidLoad() {
    const Image::Ref background = Image::named("firstbackground");
    const QSize size = sizeOf(background);
    view_->setFixedSize(size);

    const Frame whole{0, 0, static_cast<double>(size.width()), static_cast<double>(size.height())};
    panel_ = new CoreImageView(whole, view_);
    auto* const backgroundView = new ImageView(panel_);
    backgroundView->setImage(background);
    panel_->addSubview(backgroundView, whole);

    addStartButton();
    addAgreement();
}

void ViewController::addStartButton() {
    const Image::Ref normal = Image::named("start_normal");
    auto* const start = new ImageButtonView(panel_);
    start->setIType(ImageButtonView::kPushButton);
    start->setImageName(button::kStart);
    start->setImage(normal);
    start->setNormalImage(normal);
    start->setDeepImage(Image::named("start_deep"));
    start->setGrayImage(Image::named("start_gray"));
    start->setAccessibleName(viewText("开始"));
    const QSize size = sizeOf(normal);
    const double width = size.width();
    panel_->addSubview(start,
                       {(panel_->width() - width) * 0.5, 180, width, static_cast<double>(size.height())});
}

void ViewController::addAgreement() {
    const Image::Ref ticked = Image::named("checked");
    auto* const checkbox = new ImageButtonView(panel_);
    checkbox->setIType(ImageButtonView::kCheckbox);
    checkbox->setImageName(button::kCheckbox);
    checkbox->setImage(ticked);
    checkbox->setNormalImage(ticked);
    checkbox->setDeepImage(Image::named("uncheck"));
    checkbox->setAccessibleName(viewText("同意许可协议"));
    const QSize size = sizeOf(ticked);
    const Frame frame{25, 15, static_cast<double>(size.width()), static_cast<double>(size.height())};
    panel_->addSubview(checkbox, frame, true);

    auto* const label = new TextField(panel_);
    label->setStringValue("同意许可协议");
    panel_->addSubview(label, {frame.x + frame.width, frame.y, 300, frame.height}, true);
}

void ViewController::setRepresentedObject(const void* /*object*/) {}
