// The simulated particle: an asymmetric body of 3D Gaussians, whose projections are sums of 2D Gaussians.
#pragma once

constexpr int kBlobs = 40;

/// An isotropic 3D Gaussian density * exp(-r^2 / (2 sigma^2)). Lengths in Å.
struct Blob {
  double x, y, z;
  double sigma;
  double density;
};

/// A particle, its centre of mass at the origin.
struct Phantom {
  Blob blobs[kBlobs];
};

/// Euler angles in degrees, as RELION defines them: turned by rot about z, tilt about the new y, psi about
/// the new z. The particle is seen along z.
struct Orientation {
  double rot, tilt, psi;
};

/// A 2D Gaussian height * exp(-r^2 / (2 sigma^2)), its place in Å from the particle's centre.
struct Spot {
  double x, y;
  double sigma;
  double height;
};

/// What the particle looks like: a lumpy body without symmetry, a lumpy ball, a hollow sphere, a
/// hollow barrel, a rod.
enum class Shape { body, ball, shell, barrel, rod };

/// Finds the shape of a name. Returns false for a name that no shape has.
bool shape_from_name(const char* name, Shape* shape);

/// The particle of a diameter in Å: for each shape always the same, scaled. It lies within the sphere of that diameter
/// but for the outer tails of its Gaussians.
Phantom make_phantom(double diameter, Shape shape = Shape::body);

/// Density of the particle at a point in Å.
double phantom_density(const Phantom& phantom, double x, double y, double z);

/// The first two rows of the rotation that takes a point of the particle to its place in the projection.
void rotation_rows(const Orientation& orientation, double rows[2][3]);

/// Writes the kBlobs Gaussians of the projection. lowpass is the resolution in Å at which a Gaussian low-pass
/// filter has fallen to one half; 0 filters nothing.
void project_phantom(const Phantom& phantom, const Orientation& orientation, double lowpass, Spot* spots);

/// Adds the kBlobs spots to an image of ny rows of stride floats, nx of them used, pixel size apix Å, with
/// the particle's centre at pixel (x, y). A spot is drawn out to 5 sigma, parts outside the image are left
/// out.
void add_projection(const Spot* spots, double x, double y, double apix, float* image, int nx, int ny, long stride);
