#include "picture/drawing.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

struct NamedColour {
  const char* name;
  Colour colour;
};

constexpr NamedColour kColours[] = {
    {"red", {255, 0, 0}},      {"lime", {0, 255, 0}},      {"blue", {0, 0, 255}},
    {"cyan", {0, 255, 255}},   {"magenta", {255, 0, 255}}, {"yellow", {255, 255, 0}},
    {"orange", {255, 165, 0}}, {"white", {255, 255, 255}}, {"black", {0, 0, 0}},
};

// Colours the pixels of a square around (x, y) whose offset from it, taken at the pixel's middle, is marked.
template <class IsMarked>
void mark(Picture* picture, double x, double y, double reach, const Colour& colour, IsMarked is_marked) {
  const auto from = [](double v) { return static_cast<int>(std::max(0.0, std::floor(v))); };
  const auto to = [](double v, int side) { return static_cast<int>(std::clamp(std::ceil(v), 0.0, double(side))); };
  for (int row = from(y - reach); row < to(y + reach, picture->ny); row++)
    for (int column = from(x - reach); column < to(x + reach, picture->nx); column++)
      if (is_marked(column + 0.5 - x, row + 0.5 - y))
        std::copy(colour.begin(), colour.end(),
                  &picture->rgb[3 * (static_cast<size_t>(row) * static_cast<size_t>(picture->nx) +
                                     static_cast<size_t>(column))]);
}

}  // namespace

bool colour_from_text(const std::string& text, Colour* colour) {
  for (const NamedColour& known : kColours)
    if (text == known.name) {
      *colour = known.colour;
      return true;
    }
  if (text.size() != 7 || text[0] != '#' || text.find_first_not_of("0123456789abcdefABCDEF", 1) != std::string::npos)
    return false;
  for (size_t i = 0; i < 3; i++) (*colour)[i] = static_cast<uint8_t>(std::stoi(text.substr(1 + 2 * i, 2), nullptr, 16));
  return true;
}

Picture picture_of(int nx, int ny, const std::vector<uint8_t>& levels) {
  Picture picture{nx, ny, std::vector<uint8_t>(levels.size() * 3)};
  for (size_t i = 0; i < levels.size(); i++) std::fill_n(&picture.rgb[3 * i], 3, levels[i]);
  return picture;
}

void draw_circle(Picture* picture, double x, double y, double radius, const Colour& colour) {
  mark(picture, x, y, radius + 1, colour,
       [radius](double dx, double dy) { return std::fabs(std::hypot(dx, dy) - radius) <= 1; });
}

void draw_box(Picture* picture, double x, double y, double half, const Colour& colour) {
  mark(picture, x, y, half + 1, colour,
       [half](double dx, double dy) { return std::fabs(std::max(std::fabs(dx), std::fabs(dy)) - half) <= 1; });
}

void draw_cross(Picture* picture, double x, double y, double half, const Colour& colour) {
  mark(picture, x, y, half, colour,
       [](double dx, double dy) { return std::fabs(dx - dy) <= 1.5 || std::fabs(dx + dy) <= 1.5; });
}

void flip_picture(Picture* picture) {
  const size_t row = static_cast<size_t>(picture->nx) * 3;
  for (int y = 0; y < picture->ny / 2; y++) {
    uint8_t* upper = &picture->rgb[static_cast<size_t>(y) * row];
    std::swap_ranges(upper, upper + row, &picture->rgb[static_cast<size_t>(picture->ny - 1 - y) * row]);
  }
}
