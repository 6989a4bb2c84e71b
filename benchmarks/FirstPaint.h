#pragma once

class QWidget;

/// When `view` has painted for the first time and the window system has the picture, prints the milliseconds
/// since the process was started and the resident memory in kilobytes, and ends the process.
void reportFirstPaint(QWidget* view);
