#pragma once

class QWidget;

/// Once `view` has been painted and the window system has the picture: prints the milliseconds since the
/// process was started and the resident memory in kilobytes, and ends the process.
void reportFirstPaint(QWidget* view);
