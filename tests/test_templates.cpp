#include "templates/templates.h"

#include <cstdlib>

#include "mrcfile.h"
#include "process2d_raw.h"
#include "test_numeric.h"
#include "test_support.h"

namespace {

/// What get_or_create_template_data is asked for; one template radius and a large working image unless changed.
struct Request {
  std::string T = "NULL";
  float apixT = 2, apixM = 2;
  int shrink = 1;
  float radius = 10, center1_ratio = 0.05f;
};

/// A stack of templates and its size.
struct Stack {
  int nx = -1, ny = -1, nz = -1;
  std::vector<float> pixels;
};

Stack acquired(const Request& r) {
  Stack stack;
  float* pixels = get_or_create_template_data(stack.nx, stack.ny, stack.nz, r.T.c_str(), r.radius, r.apixT, r.apixM,
                                              r.shrink, r.center1_ratio, 1000);
  stack.pixels.assign(pixels, pixels + static_cast<size_t>(stack.nx) * stack.ny * stack.nz);
  free(pixels);
  return stack;
}

/// Resampled by bilinear interpolation about the centre, then averaged in blocks, in double precision.
void add_resampled(std::vector<double>& out, const std::vector<float>& image, int nx, int ny, float scale, int shrink) {
  const int snx = static_cast<int>(nx * scale), sny = static_cast<int>(ny * scale);
  for (int y = 0; y < sny / shrink; y++) {
    for (int x = 0; x < snx / shrink; x++) {
      out.push_back(0);
      for (int k = 0; k < shrink * shrink; k++)
        out.back() += bilinear(image, nx, ny, (nx - 1) / 2.0 + (x * shrink + k % shrink - (snx - 1) / 2.0) / scale,
                               (ny - 1) / 2.0 + (y * shrink + k / shrink - (sny - 1) / 2.0) / scale) /
                      (shrink * shrink);
    }
  }
}

double distance_from_centre(int i, int nx, int ny) {
  return std::hypot(i % nx - (nx - 1) / 2.0, i / nx - (ny - 1) / 2.0);
}

/// A soft disc in the middle of an image.
std::vector<double> disc_image(int nx, int ny, double r, double soft) {
  std::vector<double> disc;
  for (int i = 0; i < nx * ny; i++) disc.push_back(soft_disc(distance_from_centre(i, nx, ny), r, soft));
  return disc;
}

std::vector<float> normalised(std::vector<float> data, int nx, int ny, int type, float radius, float ratio) {
  normalise_template(data.data(), nx, ny, type, radius, ratio);
  return data;
}

struct TemplateStack : FolderTest {
  void SetUp() override { REQUIRE_DEVICE(); }  // resampling runs there

  /// A request for the templates of a file with these pixels.
  Request stack_file(const std::vector<float>& pixels, int nx, int ny, int nz) const {
    Request request;
    request.T = path("templates.mrcs");
    mrcf_write_xyz_data(request.T.c_str(), pixels.data(), nx, ny, nz);
    return request;
  }
};

}  // namespace

TEST(AutomaticTemplate, IsADiscThatFallsToTheRadiusAtThreeDeviations) {
  const struct {
    const char* name;
    float radius, ratio;
    int side;
  } cases[] = {{"NULL", 48.5075f, 0.05f, 192}, {"none", 20.9f, 0.3f, 80}, {"Null", 12.3f, 1, 48}};
  for (const auto& c : cases) {
    const Stack disc = acquired({c.name, 2, 2, 1, c.radius, c.ratio});
    EXPECT_TRUE(disc.nx == c.side && disc.ny == c.side && disc.nz == 1);
    const double top = static_cast<double>(c.radius) * c.ratio;
    EXPECT_TRUE(all_near(disc.pixels, disc_image(c.side, c.side, top, c.radius - top), 2e-6)) << "float exponentials";
  }
}

TEST_F(TemplateStack, IsScaledAboutTheCentreThenShrunk) {
  const int nx = 23, ny = 18, nz = 3;
  const std::vector<float> pixels = random_values(pixel_index(0, ny * nz, nx), 1);
  Request request = stack_file(pixels, nx, ny, nz);
  EXPECT_TRUE(same_bits(acquired(request).pixels, pixels)) << "at the micrographs' pixel size it is untouched";
  for (const float apixT : {2.5f, 2.0f, 1.3f}) {
    for (const int shrink : {1, 2, 4}) {
      request.apixT = apixT;
      request.shrink = shrink;
      const Stack got = acquired(request);
      std::vector<double> want;
      for (auto slice = pixels.begin(); slice != pixels.end(); slice += nx * ny)
        add_resampled(want, {slice, slice + nx * ny}, nx, ny, apixT / 2, shrink);
      EXPECT_EQ(static_cast<int>(23 * apixT / 2) / shrink, got.nx);
      EXPECT_EQ(static_cast<int>(18 * apixT / 2) / shrink, got.ny);
      EXPECT_EQ(3, got.nz);
      EXPECT_TRUE(all_near(got.pixels, want, 1e-4)) << apixT << " A, by " << shrink;  // float source positions
    }
  }
}

TEST_F(TemplateStack, ThatCannotBeReadIsRefusedBeforeAnythingIsAllocated) {
  Request request = stack_file(random_values(16 * 12 * 2, 3), 16, 12, 2);
  const std::string good = read_file(request.T);
  const auto with_field = [&](size_t at, int32_t value) {
    std::string bytes = good;
    memcpy(&bytes[at], &value, sizeof value);
    return bytes;
  };
  const std::pair<std::string, const char*> cases[] = {
      {good.substr(0, good.size() - 1), "ends before its last image"},
      {with_field(0, -16), "which can't be"},
      {with_field(8, 0), "which can't be"},
      {with_field(8, 2147483647), "ends before its last image"},
      {with_field(12, 4), "MRC mode 4 (Complex Float); modes 0, 1, 2 and 6"}};
  for (const auto& [bytes, reason] : cases) {
    write_file(request.T, bytes);
    expect_refused(run_in_child([&] { acquired(request); }), reason);
  }
  request.T = path("absent.mrcs");
  expect_refused(run_in_child([&] { acquired(request); }),
                 "Cannot open file " + request.T + ". Permission denied or wrong file name.\n" +
                     fatal_line("get_template_data", "quorlin56", "open file failed."));
}

// --- Normalisation ---

TEST(TemplateNormalisation, OfTypes1And2BalancesTheBoxAndZeroesOutsideTheRadius) {
  const int nx = 21, ny = 16;
  const std::vector<float> data = random_values(pixel_index(0, ny, nx), 5, 3, 9);
  for (const int type : {0, 4, -1}) EXPECT_TRUE(same_bits(normalised(data, nx, ny, type, 5, 0.05f), data)) << type;
  // 5.5 is the distance of a pixel on the middle column: a pixel at the radius itself is kept.
  for (const double radius : {0.6, 5.5, 7.2, 100.0}) {
    double sum = 0;
    std::vector<double> want = widened(data);
    for (int i = 0; i < nx * ny; i++) {
      if (distance_from_centre(i, nx, ny) > radius) want[i] = 0;
      sum += want[i];
    }
    for (double& v : want) v -= sum / (nx * ny);
    EXPECT_TRUE(all_near(normalised(data, nx, ny, 2, static_cast<float>(radius), 0.05f), want, 1e-6)) << radius;
    EXPECT_TRUE(radius < 100 || all_near(normalised(data, nx, ny, 1, 5, 0.05f), want, 1e-6)) << "type 1";
  }
}

TEST(TemplateNormalisation, OfType3StandardisesUnderTheDiscAndIsZeroBeyondTheRadius) {
  const int nx = 30, ny = 27;
  const double radius = 11.3, ratio = 0.3;
  const std::vector<float> data =
      random_values(pixel_index(0, ny, nx), 6, 1000, 1001);  // floats' squares lose half their digits
  const std::vector<double> disc = disc_image(nx, ny, radius * (1 - ratio), radius * ratio);
  double weight = 0, mean = 0, square = 0;
  for (size_t i = 0; i < disc.size(); i++) weight += disc[i];
  for (size_t i = 0; i < disc.size(); i++) mean += disc[i] * data[i] / weight;
  for (size_t i = 0; i < disc.size(); i++) square += disc[i] * (data[i] - mean) * (data[i] - mean) / weight;
  std::vector<double> want;
  for (size_t i = 0; i < disc.size(); i++) want.push_back((data[i] - mean) / std::sqrt(square) * disc[i]);
  EXPECT_TRUE(all_near(normalised(data, nx, ny, 3, 11.3f, 0.3f), want, 1e-5));  // the disc's float weights
}
