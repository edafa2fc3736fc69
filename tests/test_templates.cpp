#include "templates.h"

#include <cstdlib>

#include "mrcfile.h"
#include "process2d_raw.h"
#include "test_numeric.h"
#include "test_support.h"

namespace {

/// A stack of templates and its size, as get_or_create_template_data gives them.
struct Stack {
  int nx = -1, ny = -1, nz = -1;
  std::vector<float> pixels;
};

/// What get_or_create_template_data is asked for; one template radius and a large working image unless changed.
struct Request {
  std::string T;
  float apixT = 2, apixM = 2;
  int shrink = 1;
  float radius = 10, center1_ratio = 0.05f;
  int work_side = 1000;
};

Stack acquired(const Request& r) {
  Stack stack;
  float* pixels = get_or_create_template_data(stack.nx, stack.ny, stack.nz, r.T.c_str(), r.radius, r.apixT, r.apixM,
                                              r.shrink, r.center1_ratio, r.work_side);
  stack.pixels.assign(pixels, pixels + static_cast<size_t>(stack.nx) * stack.ny * stack.nz);
  free(pixels);
  return stack;
}

/// What a refused request prints; the run must end with status 1.
std::string refusal(const Request& request) {
  const ChildResult result = run_in_child([&] { acquired(request); });
  EXPECT_EQ(1, result.status) << request.T;
  return result.out;
}

/// Resampled by bilinear interpolation about the centre, then averaged in blocks, in double precision.
std::vector<double> resampled(const std::vector<float>& image, int nx, int ny, float scale, int shrink) {
  const int snx = static_cast<int>(static_cast<float>(nx) * scale),
            sny = static_cast<int>(static_cast<float>(ny) * scale);
  std::vector<double> out;
  for (int y = 0; y < sny / shrink; y++) {
    for (int x = 0; x < snx / shrink; x++) {
      double sum = 0;
      for (int j = 0; j < shrink; j++)
        for (int i = 0; i < shrink; i++)
          sum += bilinear(image, nx, ny, (nx - 1) / 2.0 + (x * shrink + i - (snx - 1) / 2.0) / scale,
                          (ny - 1) / 2.0 + (y * shrink + j - (sny - 1) / 2.0) / scale);
      out.push_back(sum / (shrink * shrink));
    }
  }
  return out;
}

/// A disc of 1 with a Gaussian fall of a third of `soft`, in double precision.
std::vector<double> soft_disc(int nx, int ny, double r, double soft) {
  std::vector<double> disc;
  for (int y = 0; y < ny; y++) {
    for (int x = 0; x < nx; x++) {
      const double d = std::hypot(x - (nx - 1) / 2.0, y - (ny - 1) / 2.0), past = (d - r) / (soft / 3);
      disc.push_back(d <= r ? 1 : d <= r + soft ? std::exp(-past * past / 2) : 0);
    }
  }
  return disc;
}

std::vector<float> normalised(std::vector<float> data, int nx, int ny, int type, float radius, float ratio) {
  normalise_template(data.data(), nx, ny, type, radius, ratio);
  return data;
}

class TemplateStack : public FolderTest {
 protected:
  void SetUp() override { REQUIRE_DEVICE(); }  // resampling runs there

  std::string stack_file(const std::vector<float>& pixels, int nx, int ny, int nz) const {
    std::string name = path("templates.mrcs");
    mrcf_write_xyz_data(name.c_str(), pixels.data(), nx, ny, nz);
    return name;
  }
};

}  // namespace

// --- The automatic template ---

TEST(AutomaticTemplate, IsADiscThatFallsToTheRadiusAtThreeDeviations) {
  for (const char* name : {"NULL", "null", "None"}) {
    Request request;
    request.T = name;
    request.radius = 48.5075f;
    const Stack disc = acquired(request);
    ASSERT_EQ(192, disc.nx);
    ASSERT_EQ(192, disc.ny);
    ASSERT_EQ(1, disc.nz);
    const double top = 48.5075 * 0.05;
    EXPECT_TRUE(all_near(disc.pixels, soft_disc(192, 192, top, 48.5075 - top), 2e-6));  // float exponentials
    float rim = 1;
    for (const float v : disc.pixels)
      if (v > 0) rim = std::min(rim, v);
    EXPECT_GE(rim, std::exp(-4.5));
    EXPECT_LT(rim, 1.01 * std::exp(-4.5));
  }
}

TEST(AutomaticTemplate, IsTheSameSeenFromAllSidesOfItsCentreBetweenThePixels) {
  Request request;
  request.T = "NULL";
  request.radius = 20.9f;
  const Stack disc = acquired(request);
  ASSERT_EQ(80, disc.nx);
  const auto at = [&](int x, int y) { return disc.pixels[static_cast<size_t>(y) * 80 + x]; };
  for (int y = 0; y < 80; y++) {
    for (int x = 0; x < 80; x++) {
      ASSERT_EQ(at(x, y), at(79 - x, y));
      ASSERT_EQ(at(x, y), at(y, x));
    }
  }
  EXPECT_EQ(1.0f, at(40, 40));
}

TEST(AutomaticTemplate, WithoutASoftEdgeHoldsOnlyOnesAndZeros) {
  Request request;
  request.T = "NULL";
  request.radius = 12.3f;
  request.center1_ratio = 1;
  const Stack disc = acquired(request);
  std::vector<double> want = soft_disc(48, 48, 12.3, 0);
  EXPECT_TRUE(all_near(disc.pixels, want, 0));
}

TEST(AutomaticTemplate, ThatNoWorkingImageHoldsIsRefused) {
  for (const float radius : {0.9f, -5.0f, 26.0f, 1e30f, kInfinity, kNaN}) {
    Request request;
    request.T = "NULL";
    request.radius = radius;
    request.work_side = 100;
    EXPECT_NE(std::string::npos, refusal(request).find("the automatic template would come out")) << radius;
  }
}

// --- Templates from a file ---

TEST_F(TemplateStack, IsScaledAboutTheCentreThenShrunk) {
  const int nx = 23, ny = 18, nz = 3;
  const std::vector<float> pixels = random_values(static_cast<size_t>(nx) * ny * nz, 1);
  Request request;
  request.T = stack_file(pixels, nx, ny, nz);
  for (const float apixT : {2.5f, 1.3f}) {
    for (const int shrink : {1, 2, 4}) {
      request.apixT = apixT;
      request.shrink = shrink;
      const Stack got = acquired(request);
      std::vector<double> want;
      for (int z = 0; z < nz; z++) {
        const auto slice = pixels.begin() + static_cast<ptrdiff_t>(z) * nx * ny;
        const auto part = resampled({slice, slice + static_cast<ptrdiff_t>(nx) * ny}, nx, ny, apixT / 2, shrink);
        want.insert(want.end(), part.begin(), part.end());
      }
      EXPECT_EQ(static_cast<int>(23 * apixT / 2) / shrink, got.nx);
      EXPECT_EQ(static_cast<int>(18 * apixT / 2) / shrink, got.ny);
      EXPECT_EQ(3, got.nz);
      EXPECT_TRUE(all_near(got.pixels, want, 1e-4)) << apixT << " A, by " << shrink;  // float source positions
    }
  }
}

TEST_F(TemplateStack, AtTheMicrographsPixelSizeIsUntouched) {
  const std::vector<float> pixels = random_values(13 * 11 * 5, 2);
  Request request;
  request.T = stack_file(pixels, 13, 11, 5);
  const Stack got = acquired(request);
  EXPECT_EQ(5, got.nz);
  EXPECT_TRUE(same_bits(got.pixels, pixels));
}

TEST_F(TemplateStack, ShrunkOnlyLosesTheLastRowAndColumn) {
  std::vector<float> pixels(101 * 101);
  for (int y = 0; y < 101; y++) {
    for (int x = 0; x < 101; x++) {
      const int block = x / 4 + 25 * (y / 4);
      pixels[static_cast<size_t>(y) * 101 + x] = x == 100 || y == 100 ? kNaN : static_cast<float>(block);
    }
  }
  Request request;
  request.T = stack_file(pixels, 101, 101, 1);
  request.shrink = 4;
  const Stack got = acquired(request);
  ASSERT_EQ(25, got.nx);
  ASSERT_EQ(25, got.ny);
  for (size_t i = 0; i < got.pixels.size(); i++) ASSERT_EQ(static_cast<float>(i), got.pixels[i]);
}

TEST_F(TemplateStack, ThatComesOutTooSmallOrTooLargeIsRefused) {
  Request request;
  request.T = stack_file(random_values(16 * 12, 3), 16, 12, 1);
  request.work_side = 16;
  EXPECT_EQ(16, acquired(request).nx);
  const auto refused = [&](float apixT, float apixM, int shrink, const char* reason) {
    request.apixT = apixT;
    request.apixM = apixM;
    request.shrink = shrink;
    EXPECT_NE(std::string::npos, refusal(request).find(reason)) << apixT << " " << apixM << " " << shrink;
  };
  refused(2.2f, 2, 1, "larger than the working image of 16 x 16");
  refused(1e30f, 1e-30f, 8, "larger than the working image");
  refused(0.1f, 2, 1, "smaller than 1 pixel (0 x 0)");
  refused(2, 2, 13, "smaller than 1 pixel (1 x 0)");
  refused(kNaN, 2, 1, "smaller than 1 pixel");
}

TEST_F(TemplateStack, ThatCannotBeReadIsRefusedBeforeAnythingIsAllocated) {
  Request request;
  request.T = path("absent.mrcs");
  EXPECT_EQ("Cannot open file " + request.T + ". Permission denied or wrong file name.\n" +
                fatal_line("get_template_data", "quorlin56", "open file failed."),
            refusal(request));
  request.T = stack_file(random_values(16 * 12 * 2, 3), 16, 12, 2);
  const std::string good = read_file(request.T);
  const auto refused = [&](const std::string& bytes, const char* reason) {
    write_file(request.T, bytes);
    EXPECT_NE(std::string::npos, refusal(request).find(reason)) << reason;
  };
  const auto with_field = [&](size_t at, int32_t value) {
    std::string bytes = good;
    memcpy(&bytes[at], &value, sizeof value);
    return bytes;
  };
  refused(good.substr(0, good.size() - 1), "ends before its last image");
  refused(good.substr(0, 1024), "ends before its last image");
  refused("", "which can't be");
  refused(with_field(0, -16), "which can't be");
  refused(with_field(4, 1 << 30), "which can't be");
  refused(with_field(8, 2147483647), "ends before its last image");
  refused(with_field(12, 4), "MRC mode 4");
}

// --- Normalisation ---

TEST(TemplateNormalisation, OfType1RemovesTheMeanOfTheBox) {
  const std::vector<float> data = random_values(21 * 16, 4, 3, 9);
  double sum = 0;
  for (const float v : data) sum += v;
  std::vector<double> want = widened(data);
  for (double& v : want) v -= sum / (21 * 16);
  EXPECT_TRUE(all_near(normalised(data, 21, 16, 1, 5, 0.05f), want, 1e-6));  // roundings of values below 9
}

TEST(TemplateNormalisation, OfType2ZeroesOutsideTheRadiusAndBalancesTheBox) {
  const int nx = 21, ny = 16;
  const std::vector<float> data = random_values(static_cast<size_t>(nx) * ny, 5, 3, 9);
  // 5.5 is the distance of a pixel on the middle column: a pixel at the radius itself is kept.
  for (const double radius : {0.6, 5.5, 7.2, 100.0}) {
    double sum = 0;
    std::vector<double> want = widened(data);
    for (int y = 0; y < ny; y++) {
      for (int x = 0; x < nx; x++) {
        double& v = want[static_cast<size_t>(y) * nx + x];
        if (std::hypot(x - 10.0, y - 7.5) > radius) v = 0;
        sum += v;
      }
    }
    for (double& v : want) v -= sum / (nx * ny);
    EXPECT_TRUE(all_near(normalised(data, nx, ny, 2, static_cast<float>(radius), 0.05f), want, 1e-6)) << radius;
  }
  EXPECT_TRUE(all_near(normalised(data, nx, ny, 2, 100, 0.05f), normalised(data, nx, ny, 1, 100, 0.05f), 1e-6));
  EXPECT_EQ(std::vector<float>(10 * 8, 0.0f), normalised({data.begin(), data.begin() + 80}, 10, 8, 2, 0, 0.05f));
}

TEST(TemplateNormalisation, OfType3StandardisesUnderTheDiscAndIsZeroBeyondTheRadius) {
  const int nx = 30, ny = 27;
  const double radius = 11.3, ratio = 0.3;
  const std::vector<float> data = random_values(static_cast<size_t>(nx) * ny, 6, 3, 9);
  const std::vector<double> disc = soft_disc(nx, ny, radius * (1 - ratio), radius * ratio);
  double weight = 0, mean = 0, square = 0;
  for (size_t i = 0; i < disc.size(); i++) weight += disc[i];
  for (size_t i = 0; i < disc.size(); i++) mean += disc[i] * data[i] / weight;
  for (size_t i = 0; i < disc.size(); i++) square += disc[i] * (data[i] - mean) * (data[i] - mean) / weight;
  std::vector<double> want;
  for (size_t i = 0; i < disc.size(); i++) want.push_back((data[i] - mean) / std::sqrt(square) * disc[i]);
  const std::vector<float> got = normalised(data, nx, ny, 3, 11.3f, 0.3f);
  EXPECT_TRUE(all_near(got, want, 1e-5));  // the disc's float weights
  for (size_t i = 0; i < disc.size(); i++) EXPECT_EQ(disc[i] == 0, got[i] == 0) << i;
}

TEST(TemplateNormalisation, OfAnyOtherTypeLeavesTheBits) {
  const std::vector<float> data = random_values(21 * 16, 7);
  for (const int type : {0, 4, -1}) EXPECT_TRUE(same_bits(normalised(data, 21, 16, type, 5, 0.05f), data));
}

TEST(TemplateCheck, RefusesTemplatesThatMatchNothingAndNamesThem) {
  const auto said = [](const std::vector<float>& data) {
    const ChildResult result = run_in_child([&] { check_template_usable(data.data(), data.size(), 4, 1); });
    return std::to_string(result.status) + " " + result.out;
  };
  const std::vector<float> flat = normalised(std::vector<float>(144, 0.7f), 12, 12, 1, 4, 0.05f);
  const std::string zero = said(flat);
  EXPECT_EQ(0u, zero.find("1 Error in function check_template_usable(), file quorlin56 on line N: template 5 is zero"));
  for (const float wrong : {kNaN, kInfinity, -kInfinity}) {
    std::vector<float> data = random_values(144, 8);
    data[143] = wrong;
    EXPECT_NE(std::string::npos, said(data).find("template 5 holds values that are not finite"));
  }
  std::vector<float> faint(144, 0.0f);
  faint[143] = 1e-30f;
  EXPECT_EQ(std::to_string(kDidNotExit) + " ", said(faint));
}
