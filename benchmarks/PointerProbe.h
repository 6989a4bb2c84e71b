#pragma once

#include <QRect>

#include <chrono>
#include <memory>
#include <vector>

using Clock = std::chrono::steady_clock;

inline double milliseconds(Clock::duration time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

/// Moves the pointer with the X server's test extension, on its own thread and connection, and measures how
/// long the main thread takes to handle each move. Ends the process where there is no X server or it lacks
/// the extension. All functions are called on the main thread.
class PointerProbe {
  public:
    PointerProbe();
    ~PointerProbe();

    /// Moves to a position and clicks the left button.
    void click(QPoint place);

    /// From now on the pointer moves every few milliseconds, within the window that lies there.
    void startMoving(const QRect& window);

    /// A move to `place` was handled. Earlier moves that the toolkit merged into it count as handled now.
    void served(QPoint place);

    /// Ends the moves and returns the delay of each in milliseconds, of pending ones up to now.
    std::vector<double> stop();

  private:
    struct Moves;
    std::unique_ptr<Moves> moves_;
};
