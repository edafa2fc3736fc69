// A colour picture to draw marks on.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

using Colour = std::array<uint8_t, 3>;

/// Red, green, blue of each pixel, row-major.
struct Picture {
  int nx, ny;
  std::vector<uint8_t> rgb;
};

/// A colour by its name (red, lime, blue, cyan, magenta, yellow, orange, white, black) or as #rrggbb. Returns false for
/// any other text.
bool colour_from_text(const std::string& text, Colour* colour);

/// A picture of grey levels.
Picture picture_of(int nx, int ny, const std::vector<uint8_t>& levels);

/// Marks around (x, y), in pixels of the picture, where whole numbers are corners of pixels: outlines two pixels wide,
/// as far as they lie in the picture.
void draw_circle(Picture* picture, double x, double y, double radius, const Colour& colour);
void draw_box(Picture* picture, double x, double y, double half, const Colour& colour);
void draw_cross(Picture* picture, double x, double y, double half, const Colour& colour);

/// Turns the picture upside down.
void flip_picture(Picture* picture);

/// Writes a PNG file. Refuses a name that can't be written.
void write_png(const std::string& name, const Picture& picture);

/// A JPEG file of grey levels, as its bytes; quality from 1 to 100.
std::string jpeg_of(int nx, int ny, const std::vector<uint8_t>& levels, int quality);
