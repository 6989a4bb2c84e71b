#pragma once

#include <QRect>
#include <QSize>

/// A view's place in its parent, in points, with the origin at the parent's lower-left corner and y growing
/// upwards, as every frame of the two screens is given.
struct Frame {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
};

inline Frame frameAt(double x, double y, const QSize& size) {
    return {x, y, static_cast<double>(size.width()), static_cast<double>(size.height())};
}

/// The one place where a frame becomes the toolkit's rectangle, whose origin is at the upper left.
inline QRect toolkitRect(const Frame& frame, int parentHeight) {
    return {qRound(frame.x), qRound(parentHeight - frame.y - frame.height), qRound(frame.width),
            qRound(frame.height)};
}
