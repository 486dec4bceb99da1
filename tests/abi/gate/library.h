#pragma once

// A library in as many versions as there are changes to it that the comparison has to see.

class __attribute__((visibility("default"))) Shape {
public:
    virtual ~Shape();
#ifdef VIRTUAL_ORDER
    virtual int corners() const;
    virtual int edges() const;
#else
    virtual int edges() const;
    virtual int corners() const;
#endif
};

struct Point {
    int x;
    int y;
#ifdef STRUCT_SIZE
    int z;
#endif
};

enum Colour {
    RED,
    GREEN,
#ifdef ADDED_ENUMERATOR
    BLUE,
#endif
};

__attribute__((visibility("default"))) int distance(const Point& point);
__attribute__((visibility("default"))) int brightness(Colour colour);
#ifndef REMOVED_FUNCTION
__attribute__((visibility("default"))) int answer();
#endif
#ifdef ADDED_FUNCTION
__attribute__((visibility("default"))) int question();
#endif
