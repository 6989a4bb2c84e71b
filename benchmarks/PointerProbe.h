#pragma once

#include <QPoint>

#include <chrono>
#include <memory>
#include <vector>

using Clock = std::chrono::steady_clock;

inline double milliseconds(Clock::duration time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

/// Moves and presses the pointer through the X server's test extension, from a thread and over a connection
/// of its own, and measures how long the main thread takes to serve each move. Ends the process where the
/// display is no X server or lacks the extension.
class PointerProbe {
  public:
    PointerProbe();
    ~PointerProbe();

    /// Main thread. Moves there, presses and releases the left button.
    void click(QPoint place);

    /// Main thread. From here on the pointer moves every few milliseconds.
    void startMoving();

    /// Main thread: the pointer was seen at `place`. Moves that the toolkit left out for this later one count
    /// as served now.
    void served(QPoint place);

    /// Main thread. Ends the moves; the milliseconds that each served one had waited. Moves still under way
    /// count up to now.
    std::vector<double> stop();

  private:
    struct Moves;
    std::unique_ptr<Moves> moves_;
};
