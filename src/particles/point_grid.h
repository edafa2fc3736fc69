// Whether a point is near any of many: points in cells as large as the distance, so that nine cells tell.
#pragma once

/// Points of an image of nx by ny pixels.
struct PointGrid {
  float distance;     // pixels
  int cell;           // side of a cell, pixels
  int columns, rows;  // of cells
  int* first;         // of each cell: its last point, -1: none
  int* next;          // of each point: the one before it in its cell, -1: none
  int (*points)[2];   // x, y
  int n;
};

/// Room for at most `room` points; released with point_grid_free. A lack of memory ends the run.
PointGrid point_grid_new(int nx, int ny, float distance, int room);
void point_grid_free(PointGrid* grid);

/// Adds a point within the image.
void point_grid_add(PointGrid* grid, int x, int y);

/// Whether a point of the grid is nearer than the distance to a point within the image.
bool is_point_near(const PointGrid& grid, int x, int y);
