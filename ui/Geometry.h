#pragma once

#include <QRect>
#include <QSize>

/// A view's place in its parent, in points; the origin is the parent's lower-left corner and y grows upwards.
struct Frame {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
};

inline Frame frameAt(double x, double y, const QSize& size) {
    return {x, y, static_cast<double>(size.width()), static_cast<double>(size.height())};
}

/// Converts a frame to the toolkit's rectangle, whose origin is the upper-left corner.
inline QRect toolkitRect(const Frame& frame, int parentHeight) {
    return {qRound(frame.x), qRound(parentHeight - frame.y - frame.height), qRound(frame.width),
            qRound(frame.height)};
}
