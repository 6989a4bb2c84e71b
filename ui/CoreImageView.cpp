#include "ui/CoreImageView.h"

#include "platform/Log.h"
#include "platform/MainThread.h"
#include "platform/Text.h"
#include "transfer/CurlMessage.h"
#include "ui/StatusTexts.h"

#include <QApplication>
#include <QMouseEvent>
#include <QStyleHints>

namespace {

/// Calls `action` with each direct subview of the class `View`.
template <typename View, typename Action>
void forEachSubview(const QWidget& panel, const Action& action) {
    for (QObject* const child : panel.children()) {
        if (auto* const view = dynamic_cast<View*>(child); view != nullptr) {
            action(*view);
        }
    }
}

/// The panel's button of this name, or null.
ImageButtonView* buttonNamed(const QWidget& panel, std::string_view name) {
    ImageButtonView* found = nullptr;
    forEachSubview<ImageButtonView>(panel, [&](ImageButtonView& view) {
        if (view.imageName() == name) {
            found = &view;
        }
    });
    return found;
}

} // namespace

CoreImageView::CoreImageView(const Frame& frame, QWidget* superview) : QWidget(superview) {
    setGeometry(toolkitRect(frame, qRound(frame.height)));
    _observer =
        NotificationCenter::defaultCenter().addObserver(kCurlCallbackMessage, [this](const void* object) {
            onCallbackMessage(*static_cast<const CurlMessage*>(object));
        });
}

CoreImageView::~CoreImageView() {
    NotificationCenter::defaultCenter().removeObserver(_observer);
}

void CoreImageView::addSubview(QWidget* view, const Frame& frame, bool hidden) {
    view->setGeometry(toolkitRect(frame, height()));
    view->setHidden(hidden);
}

void CoreImageView::addButton(std::int32_t type, const char* name, const char* accessibleName,
                              const ButtonPictures& pictures, const Frame& frame, bool hidden) {
    auto* const view = new ImageButtonView(this);
    view->setIType(type);
    view->setImageName(name);
    view->setImage(pictures.normal);
    view->setNormalImage(pictures.normal);
    view->setDeepImage(pictures.deep);
    view->setGrayImage(pictures.gray);
    view->setAccessibleName(viewText(accessibleName));
    addSubview(view, frame, hidden);
}

QWidget* CoreImageView::hitTest(const QPoint& point) {
    NSLog("CoreImageView hitTest");
    QWidget* const child = childAt(point);
    return child == nullptr ? this : child;
}

int CoreImageView::pressed(const QMouseEvent& event) {
    const QPoint place = mapFromGlobal(event.globalPosition().toPoint());
    hitTest(place);
    ImageButtonView::setKeyboardLeads(false);
    if (event.button() != Qt::LeftButton) {
        return 0;
    }
    // The toolkit counts no further than double clicks, and starts again when another button has appeared
    // under the pointer. The second press of a double click must not count as a single click on that button.
    const QStyleHints& hints = *QGuiApplication::styleHints();
    const bool goesOn =
        _lastPress.count > 0 &&
        event.timestamp() - _lastPress.time <= static_cast<std::uint64_t>(hints.mouseDoubleClickInterval()) &&
        (place - _lastPress.place).manhattanLength() <= hints.mouseDoubleClickDistance();
    _lastPress = {goesOn ? _lastPress.count + 1 : 1, event.timestamp(), place};
    return _lastPress.count;
}

void CoreImageView::mousePressEvent(QMouseEvent* event) {
    pressed(*event);
}

void CoreImageView::mouseDoubleClickEvent(QMouseEvent* event) {
    pressed(*event);
}

void CoreImageView::setImage(const Image::Ref& image) {
    forEachSubview<ImageView>(*this, [&image](ImageView& view) { view.setImage(image); });
}

void CoreImageView::enableStart(bool enabled) {
    if (auto* const start = buttonNamed(*this, button::kStart); start != nullptr) {
        start->setImage(enabled ? start->normalImage() : start->grayImage());
    }
}

bool CoreImageView::consentGiven() const {
    const auto* const box = buttonNamed(*this, button::kCheckbox);
    return box != nullptr && box->getStatus();
}

void CoreImageView::buildSecondScreen() {
    forEachSubview<ImageButtonView>(*this, [](ImageButtonView& view) { view.hide(); });
    forEachSubview<TextField>(*this, [](TextField& view) { view.hide(); });
    setImage(Image::named("secondbackground"));

    const ButtonPictures stop{Image::named("stop_normal"), Image::named("stop_deep"), nullptr};
    const ButtonPictures resume{Image::named("continue_normal"), Image::named("continue_deep"), nullptr};
    const ButtonPictures retry{Image::named("retry_normal"), Image::named("retry_deep"),
                               Image::named("retry_gray")};
    // All buttons share one position. Stop has its own picture's size; the others have the continue
    // picture's.
    const auto add = [this](const char* name, const char* accessibleName, const ButtonPictures& pictures,
                            const QSize& size) {
        const Frame spot = frameAt((width() - size.width()) * 0.5, size.height(), size);
        addButton(ImageButtonView::kPushButton, name, accessibleName, pictures, spot, true);
    };

    add(button::kStop, "停止", stop, sizeOf(stop.normal));

    const Frame bar{60, height() / 5.0, width() - 120.0, 10};
    _progress = new ProgressIndicator(this);
    _progress->setAccessibleName(viewText("下载进度"));
    addSubview(_progress, bar);

    const double labelBottom = bar.y + bar.height + 15;
    _speed = addLabel({bar.x + bar.width - 100, labelBottom, 100, 15}, Qt::AlignRight, status::kNoSpeed);
    _status = addLabel({bar.x, labelBottom, 300, 15}, Qt::AlignLeft, status::kCheckingNetwork);

    add(button::kContinue, "继续", resume, sizeOf(resume.normal));
    add(button::kContinueInstall, "重试安装", retry, sizeOf(resume.normal));
    add(button::kRetryDownload, "重试下载", retry, sizeOf(resume.normal));
    enterState(ScreenState::Downloading);
}

TextField* CoreImageView::addLabel(const Frame& frame, Qt::Alignment alignment, const char* text) {
    auto* const label = new TextField(this);
    label->setAlignment(alignment);
    label->setStringValue(text);
    addSubview(label, frame);
    return label;
}

void CoreImageView::updateStatus(const std::string& text) {
    MainThread::performAndWait([this, &text] { _status->setStringValue(text); });
}

void CoreImageView::enterState(ScreenState state) {
    MainThread::performAndWait([this, row = visibilityIn(state)] {
        setButtonVisibility(button::kStop, row.stop);
        setButtonVisibility(button::kContinue, row.continueDownload);
        setButtonVisibility(button::kContinueInstall, row.continueInstall);
        setButtonVisibility(button::kRetryDownload, row.retryDownload);
        if (row.progressAndSpeed != Visibility::Unchanged) {
            _progress->setHidden(row.progressAndSpeed == Visibility::Hidden);
            _speed->setHidden(row.progressAndSpeed == Visibility::Hidden);
        }
    });
}

void CoreImageView::setButtonVisibility(const char* imageName, Visibility visibility) {
    if (auto* const view = buttonNamed(*this, imageName);
        view != nullptr && visibility != Visibility::Unchanged) {
        view->setHidden(visibility == Visibility::Hidden);
    }
}
