// The simulated particle's projection, evaluated point by point.
#pragma once

#include <cmath>

#include "simulate/phantom.h"

/// Value of a projection of kBlobs Gaussians at a place in Å from the particle's centre.
inline double sum_of_spots(const Spot* spots, double x, double y) {
  double sum = 0;
  for (int i = 0; i < kBlobs; i++) {
    const double dx = x - spots[i].x, dy = y - spots[i].y;
    sum += spots[i].height * std::exp(-(dx * dx + dy * dy) / (2 * spots[i].sigma * spots[i].sigma));
  }
  return sum;
}
