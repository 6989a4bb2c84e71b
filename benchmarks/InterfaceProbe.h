#pragma once

#include <QObject>
#include <QPoint>

#include <chrono>
#include <cstdio>
#include <memory>
#include <vector>

class QWidget;

using Clock = std::chrono::steady_clock;

/// Measures how late the main thread handles timers and mouse moves. Moves and clicks are sent with the X
/// server's test extension; the process ends if there is no X server or it lacks the extension. All functions
/// are called on the main thread.
class InterfaceProbe : public QObject {
  public:
    InterfaceProbe();
    ~InterfaceProbe() override;

    /// Moves the pointer to a position and clicks the left button.
    void click(QPoint place);

    /// From now on a timer expires and the pointer moves every few milliseconds, within the window.
    void start(const QWidget& window);

    /// Prints how many were handled since start() and how late, in milliseconds, as members of a JSON object.
    void print(FILE* file);

    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    struct Moves;
    std::unique_ptr<Moves> moves_;
    Clock::time_point lastTick_;
    std::vector<double> ticks_;
};
