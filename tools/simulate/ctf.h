// What the microscope does to the image of a weak phase object: the contrast transfer function and its
// application.
#pragma once

/// Settings of the microscope.
struct Optics {
  double kv;       // acceleration voltage
  double defocus;  // Å, underfocus positive
  double cs;       // spherical aberration, mm
  double ac;       // amplitude contrast, 0 to 1
  int flat;        // 1: no transfer function, contrast is -1 at every frequency
};

/// Wavelength of the electrons in Å, relativistic: h / sqrt(2 m e V (1 + e V / (2 m c^2))).
double electron_wavelength(double kv);

/// Contrast per density at a spatial frequency k in 1/Å: -sin(pi lambda k^2 (defocus - lambda^2 k^2 Cs / 2) +
/// arcsin ac), as Mindell and Grigorieff (J. Struct. Biol. 142, 2003) write it. Negative at low frequencies:
/// density is dark.
double ctf_value(const Optics& optics, double k);

/// An image in reach of the transforms. Rows of the image have stride floats, of which nx count.
struct Canvas {
  int nx, ny;
  long stride;
  float* image;   // ny rows; the same memory holds the spectrum between the transforms
  void* forward;  // FFTW plans
  void* backward;
};

/// The smallest even number not below n without prime factors above 7.
int transform_size(int n);

/// Allocates a canvas, its image set to 0. Returns false, with nothing allocated, if memory lacks or FFTW
/// refuses. The caller frees it with canvas_free.
bool canvas_new(Canvas* canvas, int nx, int ny);
void canvas_free(Canvas* canvas);

/// Sets the whole image to 0.
void canvas_clear(Canvas* canvas);

/// Multiplies the image's spectrum by the transfer function and by a Gaussian that has fallen to one half at
/// the resolution lowpass Å (0: none). The image is taken to repeat periodically.
void canvas_apply_ctf(Canvas* canvas, double apix, const Optics& optics, double lowpass);
