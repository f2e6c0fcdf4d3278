// KIVControl_window.h: the size arithmetic of the status window, kept apart from
// the Tk scripts so that it can be checked without a display.
#pragma once

struct KIVWindowSize {
    int width;
    int height;
};

// Size of a freshly built window whose inner frame asks for reqW x reqH pixels:
// room for the scrollbars and the button bar, kept between 500x150 and 800x600.
KIVWindowSize kivWindowStartSize(int reqW, int reqH);

// Size of the window after an error row was added. The enlarged request is
// limited by the room left on the screen right and below the window's corner
// (minus a 50-pixel margin), but never below 500x150: the lower bounds win.
KIVWindowSize kivWindowGrowSize(int reqW, int reqH, int screenW, int screenH,
                                int rootX, int rootY);
