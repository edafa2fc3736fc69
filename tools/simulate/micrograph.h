// The image of a scene: what the microscope makes of it before the electrons are counted.
#pragma once

#include "simulate/ctf.h"
#include "simulate/phantom.h"
#include "simulate/scene.h"
#include "simulate/settings.h"

/// The buffers of a run, made once.
struct Workspace {
  Canvas canvas;    // the micrograph with a border on all sides, in which the transforms' wrap-around ends
  int border;       // pixels
  float* expected;  // nx * ny floats: expected electrons per pixel
};

/// Allocates the buffers for the micrographs of a run. Refuses if there is no memory. The caller frees them
/// with workspace_free.
void workspace_new(Workspace* workspace, const Settings& settings);
void workspace_free(Workspace* workspace);

/// Fills workspace->expected with the expected electron counts of a scene: the dose, times the illumination,
/// times what ice and carbon let pass, times 1 + contrast. The particles' contrast is scaled so that its
/// variance within the particles' discs, times the square of the mean count, over the mean count (the
/// variance of the shot noise) is the signal-to-noise ratio asked for. Refuses settings that would need
/// negative counts.
void expose_scene(const Settings& settings, const Phantom& phantom, const Scene& scene, Workspace* workspace);

/// Mean electrons per pixel where nothing lies in the beam.
double mean_count(const Settings& settings);

/// Expected electrons in the brightest pixel.
double brightest_count(const Settings& settings, const Workspace& workspace);
