#include "particles/point_grid.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "platform/host_memory.h"

PointGrid point_grid_new(int nx, int ny, float distance, int room) {
  PointGrid grid{};
  grid.distance = distance;
  const float largest = static_cast<float>(std::max(nx, ny));
  grid.cell = std::max(1, static_cast<int>(std::ceil(std::min(distance, largest))));
  grid.columns = (std::max(nx, 1) - 1) / grid.cell + 1;
  grid.rows = (std::max(ny, 1) - 1) / grid.cell + 1;
  const size_t cells = static_cast<size_t>(grid.columns) * static_cast<size_t>(grid.rows);
  grid.first = host_new<int>(cells);
  std::fill_n(grid.first, cells, -1);
  grid.next = host_new<int>(static_cast<size_t>(room));
  grid.points = host_new<int[2]>(static_cast<size_t>(room));
  return grid;
}

void point_grid_free(PointGrid* grid) {
  free(grid->first);
  free(grid->next);
  free(grid->points);
  *grid = PointGrid{};
}

void point_grid_add(PointGrid* grid, int x, int y) {
  int& first = grid->first[y / grid->cell * grid->columns + x / grid->cell];
  grid->points[grid->n][0] = x;
  grid->points[grid->n][1] = y;
  grid->next[grid->n] = first;
  first = grid->n++;
}

bool is_point_near(const PointGrid& grid, int x, int y) {
  const double limit = static_cast<double>(grid.distance) * static_cast<double>(grid.distance);
  const int column = x / grid.cell;
  const int row = y / grid.cell;
  for (int cy = std::max(row - 1, 0); cy <= std::min(row + 1, grid.rows - 1); cy++) {
    for (int cx = std::max(column - 1, 0); cx <= std::min(column + 1, grid.columns - 1); cx++) {
      for (int i = grid.first[cy * grid.columns + cx]; i >= 0; i = grid.next[i]) {
        const double dx = grid.points[i][0] - x;
        const double dy = grid.points[i][1] - y;
        if (dx * dx + dy * dy < limit) return true;
      }
    }
  }
  return false;
}
