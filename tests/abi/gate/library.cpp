#include "library.h"

Shape::~Shape() = default;
int Shape::edges() const {
    return 0;
}
int Shape::corners() const {
    return 0;
}

int distance(const Point& point) {
    return point.x + point.y;
}
int brightness(Colour colour) {
    return static_cast<int>(colour);
}
#ifndef REMOVED_FUNCTION
int answer() {
    return 42;
}
#endif
#ifdef ADDED_FUNCTION
int question() {
    return 0;
}
#endif
