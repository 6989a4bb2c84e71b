#include "InterfaceProbe.h"

#include <QApplication>
#include <QMouseEvent>
#include <QTimer>
#include <QWidget>

#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <thread>

namespace {

using namespace std::chrono_literals;

constexpr auto kTick = 5ms;
constexpr auto kBetweenMoves = 4ms;
constexpr std::size_t kMost = 1U << 16U;

// The position encodes a move's number, modulo this: fewer moves than that are pending at once.
constexpr int kColumns = 200;
constexpr int kRows = 100;
constexpr std::size_t kPlaces = std::size_t{kColumns} * kRows;
constexpr int kEdge = 20;

QPoint placeOf(std::size_t number) {
    const auto wrapped = static_cast<int>(number % kPlaces);
    return {kEdge + wrapped % kColumns, kEdge + wrapped / kColumns};
}

std::size_t numberAt(QPoint place) {
    return static_cast<std::size_t>((place.y() - kEdge) * kColumns + place.x() - kEdge);
}

double milliseconds(Clock::duration time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

void printDelays(FILE* file, const char* name, std::vector<double>& delays) {
    std::sort(delays.begin(), delays.end());
    const auto quantile = [&delays](double share) {
        const auto last = static_cast<double>(delays.size()) - 1;
        return delays.empty() ? NAN : delays[static_cast<std::size_t>(std::llround(last * share))];
    };
    std::fprintf(file, R"(, "%ss": %zu, "%s_p99": %.2f, "%s_worst": %.2f)", name, delays.size(), name,
                 quantile(0.99), name, quantile(1));
}

} // namespace

struct InterfaceProbe::Moves {
    xcb_connection_t* connection = xcb_connect(nullptr, nullptr);
    std::array<Clock::time_point, kMost> sentAt;
    std::atomic<std::size_t> sent{0};
    std::size_t servedCount = 0; // main thread
    std::vector<double> delays;  // main thread
    std::atomic<bool> over{false};
    QPoint corner; // of the window

    void fake(std::uint8_t type, std::uint8_t detail, QPoint place) const {
        xcb_test_fake_input(connection, type, detail, XCB_CURRENT_TIME, XCB_NONE,
                            static_cast<std::int16_t>(place.x()), static_cast<std::int16_t>(place.y()), 0);
        xcb_flush(connection);
    }

    void move() {
        while (!over && sent < kMost) {
            const std::size_t number = sent;
            sentAt[number] = Clock::now();
            sent = number + 1;
            fake(XCB_MOTION_NOTIFY, 0, corner + placeOf(number));
            std::this_thread::sleep_for(kBetweenMoves);
        }
    }

    void servedUpTo(std::size_t end) {
        const Clock::time_point now = Clock::now();
        for (; servedCount < end; ++servedCount) {
            delays.push_back(milliseconds(now - sentAt[servedCount]));
        }
    }

    /// A move to `place` was handled. Earlier moves that the toolkit merged into it count as handled now.
    void served(QPoint place) {
        const std::size_t number = numberAt(place - corner);
        // The number of the latest move that was sent to this position.
        const std::size_t latest = sent;
        if (latest == 0 || number >= kPlaces) {
            return;
        }
        const std::size_t behind = ((latest - 1) % kPlaces + kPlaces - number) % kPlaces;
        if (behind < latest) {
            servedUpTo(latest - behind);
        }
    }
};

InterfaceProbe::InterfaceProbe() : moves_(std::make_unique<Moves>()) {
    if (xcb_connection_has_error(moves_->connection) != 0 ||
        !xcb_get_extension_data(moves_->connection, &xcb_test_id)->present) {
        std::fputs("no X server with the test extension\n", stderr);
        std::exit(1);
    }
}

InterfaceProbe::~InterfaceProbe() = default;

void InterfaceProbe::click(QPoint place) {
    moves_->fake(XCB_MOTION_NOTIFY, 0, place);
    moves_->fake(XCB_BUTTON_PRESS, XCB_BUTTON_INDEX_1, place);
    moves_->fake(XCB_BUTTON_RELEASE, XCB_BUTTON_INDEX_1, place);
}

void InterfaceProbe::start(const QWidget& window) {
    moves_->corner = window.geometry().topLeft();
    std::thread([moves = moves_.get()] { moves->move(); }).detach();
    qApp->installEventFilter(this);
    auto* const timer = new QTimer(this);
    timer->setTimerType(Qt::PreciseTimer);
    lastTick_ = Clock::now();
    connect(timer, &QTimer::timeout, this, [this] {
        const Clock::time_point now = Clock::now();
        ticks_.push_back(std::max(0.0, milliseconds(now - lastTick_ - kTick)));
        lastTick_ = now;
    });
    timer->start(kTick);
}

void InterfaceProbe::print(FILE* file) {
    moves_->over = true;
    moves_->servedUpTo(moves_->sent); // those that are still pending are late by the time since then
    printDelays(file, "tick", ticks_);
    printDelays(file, "move", moves_->delays);
}

bool InterfaceProbe::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::MouseMove && watched->isWindowType()) {
        moves_->served(static_cast<QMouseEvent*>(event)->globalPosition().toPoint());
    }
    return QObject::eventFilter(watched, event);
}
