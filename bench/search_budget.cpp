// What the search for peaks costs beside maps of the same scans, over random settings that leave it much or nothing to
// pass over: times, peak memory and the peaks themselves, which must be the same.
//   kestrix_search_budget [--settings N] [--seed S] [--table | --setting I] [--verbose]
// Exit status 1 if a setting takes more than 1.3 times the processor's time of maps or 64 MiB more memory, if a peak differs by
// more than 2e-5, or if the bits depend on the number of threads. Each way of each setting has a process of its own.
#include <omp.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "conditioning/conditioning.h"
#include "quorlin56.h"

namespace {

constexpr double kMostTimes = 1.3;
constexpr double kMostMoreMiB = 64;
constexpr double kMostScoreError = 2e-5;

// A ratio above this is measured again, by turns, before it counts.
constexpr double kDoubtful = 1.15;
constexpr int kMostRounds = 6;

// Scans by maps that take no longer than this are searched with 1, 2 and 3 threads as well.
constexpr double kSecondsForThreads = 0.2;

enum class Shape { kDisc, kRing, kNoise, kCheckerboard };
constexpr const char* kShapeNames[] = {"disc", "ring", "noise", "checkerboard"};

// One micrograph and its templates, and how they are scanned. Pixels are those of the working image.
struct Setting {
  std::string name;
  int side, box, cell;
  int templates;
  Shape shape;
  float band;  // the band-pass's limit, cycles per pixel
  float step;  // degrees
  float cutoff;
  double hot_sigma;  // of the hot pixels, 0 for none
  int hot_pixels;
  int border;  // columns of a constant value at the left edge
  unsigned seed;
};

size_t pixels_of(const Setting& s) { return static_cast<size_t>(s.side) * static_cast<size_t>(s.side); }
size_t box_pixels_of(const Setting& s) { return static_cast<size_t>(s.box) * static_cast<size_t>(s.box); }
int cells_across(const Setting& s) { return (s.side - 1) / s.cell + 1; }
size_t cells_of(const Setting& s) {
  return static_cast<size_t>(cells_across(s)) * static_cast<size_t>(cells_across(s));
}
float radius_of(const Setting& s) { return static_cast<float>(s.box) / 2.6f; }

// --- Scenes ---

// Standard normal values that are the same with every library.
class Normal {
 public:
  explicit Normal(unsigned seed) : generator_(seed) {}
  double uniform() { return (static_cast<double>(generator_() >> 11) + 0.5) / 9007199254740992.0; }
  double operator()() { return std::sqrt(-2 * std::log(uniform())) * std::cos(2 * M_PI * uniform()); }

 private:
  std::mt19937_64 generator_;
};

// A particle's contrast at a distance from its centre, in units of its radius.
double profile(Shape shape, double r) {
  if (shape == Shape::kRing) return std::exp(-std::pow((r - 0.8) / 0.1, 2));
  return 1 / (1 + std::exp((r - 0.9) / 0.05));
}

void normalise(float* values, size_t n) {
  double sum = 0, squares = 0;
  for (size_t i = 0; i < n; i++) sum += static_cast<double>(values[i]);
  const double mean = sum / static_cast<double>(n);
  for (size_t i = 0; i < n; i++) squares += std::pow(static_cast<double>(values[i]) - mean, 2);
  const double scale = squares > 0 ? std::sqrt(static_cast<double>(n) / squares) : 0;
  for (size_t i = 0; i < n; i++) values[i] = static_cast<float>((static_cast<double>(values[i]) - mean) * scale);
}

void make_template(const Setting& s, int t, float* T) {
  Normal normal(s.seed * 31 + static_cast<unsigned>(t) + 1);
  const double centre = (s.box - 1) / 2.0;
  const double wave = 2 + t;
  for (int y = 0; y < s.box; y++) {
    for (int x = 0; x < s.box; x++) {
      const double dx = x - centre, dy = y - centre;
      const double radius = static_cast<double>(radius_of(s));
      const double r = std::hypot(dx, dy) / radius;
      float& value = T[static_cast<size_t>(y) * static_cast<size_t>(s.box) + static_cast<size_t>(x)];
      if (s.shape == Shape::kNoise) {
        value = static_cast<float>(normal());
      } else if (s.shape == Shape::kCheckerboard) {
        value = (x / (t + 1) + y / (t + 1)) % 2 ? 1.0f : -1.0f;
      } else {
        value = static_cast<float>(profile(s.shape, r) *
                                   (1 + 0.3 * dx / radius + 0.3 * std::cos(wave * std::atan2(dy, dx))));
      }
    }
  }
  normalise(T, box_pixels_of(s));
}

void add_particles(const Setting& s, Normal* normal, float* mic) {
  const double radius = static_cast<double>(radius_of(s));
  const int particles =
      std::min(2000, static_cast<int>(0.15 * static_cast<double>(pixels_of(s)) / (M_PI * radius * radius)) + 1);
  for (int i = 0; i < particles; i++) {
    const double at_x = normal->uniform() * s.side, at_y = normal->uniform() * s.side;
    const int reach = static_cast<int>(1.2 * radius) + 1;
    for (int y = std::max(0, static_cast<int>(at_y) - reach); y < std::min(s.side, static_cast<int>(at_y) + reach); y++)
      for (int x = std::max(0, static_cast<int>(at_x) - reach); x < std::min(s.side, static_cast<int>(at_x) + reach);
           x++)
        mic[static_cast<size_t>(y) * static_cast<size_t>(s.side) + static_cast<size_t>(x)] +=
            static_cast<float>(0.5 * profile(s.shape, std::hypot(x - at_x, y - at_y) / radius));
  }
}

void make_micrograph(const Setting& s, float* mic) {
  Normal normal(s.seed);
  for (size_t i = 0; i < pixels_of(s); i++) mic[i] = static_cast<float>(normal());
  add_particles(s, &normal, mic);
  for (int i = 0; i < s.hot_pixels; i++)
    mic[static_cast<size_t>(normal.uniform() * static_cast<double>(pixels_of(s)))] = static_cast<float>(s.hot_sigma);
  for (int y = 0; y < s.side; y++)
    std::fill_n(mic + static_cast<size_t>(y) * static_cast<size_t>(s.side), s.border, -2.0f);
  MirrorPad pad = mirror_pad_new(s.side, s.side);
  hcuda_2d_bandpass_guas_mpad_inplace(&pad, mic, 1, 1 / s.band, static_cast<float>(s.side) / 3);
  mirror_pad_free(&pad);
  normalise(mic, pixels_of(s));
}

// --- What the processes of a setting share ---

enum Way { kBySearch, kByMaps };

// The peaks of all templates: an entry for each of their cells.
struct Peaks {
  unsigned* found;
  float* cc;
  float* psi;
};

// Memory that children fill and the parent reads.
class SharedMemory {
 public:
  explicit SharedMemory(size_t bytes) : bytes_(bytes) {
    start_ = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (start_ == MAP_FAILED) std::abort();
  }
  ~SharedMemory() { munmap(start_, bytes_); }
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;

  template <class T>
  T* take(size_t count) {
    T* place = reinterpret_cast<T*>(static_cast<char*>(start_) + used_);
    used_ += (count * sizeof(T) + 63) / 64 * 64;
    if (used_ > bytes_) std::abort();
    return place;
  }

 private:
  size_t bytes_, used_ = 0;
  void* start_;
};

class Scene {
 public:
  explicit Scene(const Setting& setting)
      : s(setting),
        n_peaks(static_cast<size_t>(setting.templates) * ::cells_of(setting)),
        memory_(4 * (2 * pixels_of(setting) + static_cast<size_t>(setting.templates) * box_pixels_of(setting) +
                     9 * n_peaks) +
                65536) {
    mic = memory_.take<float>(pixels_of(s));
    mask = memory_.take<float>(pixels_of(s));
    T = memory_.take<float>(static_cast<size_t>(s.templates) * box_pixels_of(s));
    for (Peaks& p : peaks)
      p = {memory_.take<unsigned>(n_peaks), memory_.take<float>(n_peaks), memory_.take<float>(n_peaks)};
    seconds = memory_.take<double>(1);
  }

  const Setting s;
  const size_t n_peaks;
  float *mic, *mask, *T;
  Peaks peaks[3];   // by search, by maps and by another search
  double* seconds;  // of the last child

 private:
  SharedMemory memory_;
};

// Runs f in a child with this many threads; returns its peak memory in MiB.
template <class F>
double in_child(int threads, F f) {
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    if (!freopen("/dev/null", "w", stdout)) _exit(2);
    omp_set_num_threads(threads);
    f();
    _exit(0);
  }
  int status = 0;
  rusage usage{};
  wait4(child, &status, 0, &usage);
  if (status != 0) {
    fprintf(stderr, "a scan ended with status %d\n", status);
    exit(2);
  }
  return static_cast<double>(usage.ru_maxrss) / 1024;
}

void copy_peaks(const PeakWorkspace& from, size_t n, size_t at, const Peaks& to) {
  std::copy_n(from.found, n, to.found + at);
  std::copy_n(from.cc, n, to.cc + at);
  std::copy_n(from.psi, n, to.psi + at);
}

// Of all threads: what others do on the machine disturbs it less than the time of a clock.
double processor_seconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// What PICKING does with a micrograph but for the filter of the peaks, `repeats` times; the least of their times.
double scan_scene(const Scene& scene, Way way, int repeats, const Peaks& to) {
  const Setting& s = scene.s;
  const size_t cells = cells_of(s);
  const int n_angles = count_scan_angles(0, 359, s.step);
  ScanWorkspace scan = scan_workspace_new(s.side, s.side, s.box, s.box, n_angles, way == kBySearch ? s.band : kFullBand,
                                          way == kBySearch ? s.cell : 0, kHostScan, s.templates);
  PeakWorkspace peaks = peak_workspace_new(cells_across(s), cells_across(s));
  std::vector<float> ccmax, psi, grid_cc(cells), grid_psi(cells);
  std::vector<unsigned> kept(cells);
  const bool searches = scan_searches(&scan);
  if (!searches) ccmax.resize(pixels_of(s)), psi.resize(pixels_of(s));
  double least = std::numeric_limits<double>::infinity();
  for (int i = 0; i < repeats; i++) {
    const double start = processor_seconds();
    quorlin_transform_micrograph(&scan, scene.mic);
    for (int t = 0; t < s.templates; t++) {
      const float* T = scene.T + static_cast<size_t>(t) * box_pixels_of(s);
      if (searches) {
        scan_search_by_one_template(&scan, &peaks, scene.mic, scene.mask, T, radius_of(s), 0, 359, s.step, s.cutoff);
      } else {
        quorlin_ccmax_psi_by_one_template(&scan, scene.mic, scene.mask, ccmax.data(), psi.data(), 1, T, radius_of(s), 0,
                                          359, s.step);
        gpu_find_filter_ccmax_psi_grids_exclusive(&peaks, ccmax.data(), psi.data(), kept.data(), grid_cc.data(),
                                                  grid_psi.data(), s.cutoff, s.side, s.side, s.cell, nullptr, 0);
      }
      copy_peaks(peaks, cells, static_cast<size_t>(t) * cells, to);
    }
    least = std::min(least, processor_seconds() - start);
  }
  peak_workspace_free(&peaks);
  scan_workspace_free(&scan);
  return least;
}

// --- What is compared ---

struct Cost {
  double seconds = std::numeric_limits<double>::infinity();
  double peak_MiB = 0;
};

void measure(const Scene& scene, Way way, int repeats, Cost* cost) {
  const double peak = in_child(1, [&] { *scene.seconds = scan_scene(scene, way, repeats, scene.peaks[way]); });
  cost->seconds = std::min(cost->seconds, *scene.seconds);
  cost->peak_MiB = std::max(cost->peak_MiB, peak);
}

struct Result {
  Setting s;
  Cost search, maps;
  size_t picks = 0, other_places = 0;  // of the cells that reach the cutoff
  double score_error = 0;
  bool depends_on_threads = false;

  double times() const { return search.seconds / maps.seconds; }
  double more_MiB() const { return search.peak_MiB - maps.peak_MiB; }
};

// The peaks of both ways must have the same score. Where the places differ, the scores of both places do not.
void compare_peaks(const Scene& scene, Result* result) {
  const Peaks& search = scene.peaks[kBySearch];
  const Peaks& maps = scene.peaks[kByMaps];
  for (size_t i = 0; i < scene.n_peaks; i++) {
    const bool reaches = maps.cc[i] >= scene.s.cutoff;
    if (!reaches && search.cc[i] < scene.s.cutoff) continue;
    result->picks++;
    result->score_error =
        std::max(result->score_error, std::abs(static_cast<double>(search.cc[i]) - static_cast<double>(maps.cc[i])));
    result->other_places +=
        search.found[i] != maps.found[i] || search.psi[i] < maps.psi[i] || search.psi[i] > maps.psi[i];
  }
}

bool same_bits(const Peaks& a, const Peaks& b, size_t n) {
  return memcmp(a.found, b.found, n * sizeof *a.found) == 0 && memcmp(a.cc, b.cc, n * sizeof *a.cc) == 0 &&
         memcmp(a.psi, b.psi, n * sizeof *a.psi) == 0;
}

Result run_setting(const Setting& s) {
  Result result;
  result.s = s;
  const Scene scene(s);
  in_child(1, [&] {
    make_micrograph(s, scene.mic);
    std::fill_n(scene.mask, pixels_of(s), 1.0f);
    for (int t = 0; t < s.templates; t++) make_template(s, t, scene.T + static_cast<size_t>(t) * box_pixels_of(s));
  });
  for (int round = 0; round < kMostRounds; round++) {
    // What is in doubt isn't measured by the first micrograph, which has the memory to take as well.
    const int repeats = round == 0 ? 1 : 2;
    measure(scene, kByMaps, repeats, &result.maps);
    measure(scene, kBySearch, repeats, &result.search);
    if (result.times() < kDoubtful) break;
  }
  compare_peaks(scene, &result);
  if (result.maps.seconds <= kSecondsForThreads) {
    for (const int threads : {2, 3}) {
      in_child(threads, [&] { scan_scene(scene, kBySearch, 1, scene.peaks[2]); });
      result.depends_on_threads |= !same_bits(scene.peaks[kBySearch], scene.peaks[2], scene.n_peaks);
    }
  }
  return result;
}

bool is_within_limits(const Result& r) {
  return r.times() <= kMostTimes && r.more_MiB() <= kMostMoreMiB && r.score_error <= kMostScoreError &&
         !r.depends_on_threads;
}

// --- Settings ---

Setting random_setting(unsigned seed) {
  Normal random(seed);
  const auto between = [&](double a, double b) { return a + (b - a) * random.uniform(); };
  const auto spread = [&](double a, double b) { return a * std::pow(b / a, random.uniform()); };
  Setting s{};
  s.name = "seed " + std::to_string(seed);
  s.seed = seed;
  s.side = 2 * static_cast<int>(spread(128, 512));
  s.box = static_cast<int>(spread(8, s.side * 0.25 + 0.99));
  s.cell = std::max(3, static_cast<int>(s.box * between(0.15, 0.6)));
  s.templates = static_cast<int>(between(1, 4));
  s.shape = static_cast<Shape>(static_cast<int>(between(0, 4)));
  s.band = static_cast<float>(spread(0.05, 0.5));
  s.step = static_cast<float>(spread(0.9, 30));
  s.cutoff = static_cast<float>(between(-0.2, 0.6));
  if (random.uniform() < 0.4) {
    s.hot_sigma = spread(10, 1e5);
    s.hot_pixels = static_cast<int>(spread(1, 20));
  }
  if (random.uniform() < 0.3) s.border = static_cast<int>(s.side * between(0.02, 0.3));
  return s;
}

std::vector<Setting> table_settings() {
  const Setting wide{"", 958, 236, 42, 1, Shape::kDisc, 0.14f, 5, 0.02f, 0, 0, 0, 1};
  std::vector<Setting> settings(1, wide);
  settings[0].name = "958, box 236, 0.9 degrees, cutoff 0.02";
  settings[0].step = 0.9f;
  for (const float cutoff : {0.02f, 0.05f, 0.10f, 0.15f}) {
    Setting s = wide;
    char name[80];
    snprintf(name, sizeof name, "958, box 236, 5 degrees, cutoff %.2f", static_cast<double>(cutoff));
    s.name = name;
    s.cutoff = cutoff;
    settings.push_back(s);
  }
  settings.push_back({"1024, box 236, cutoff 0.05", 1024, 236, 104, 1, Shape::kDisc, 0.14f, 5, 0.05f, 0, 0, 0, 2});
  for (const float cutoff : {0.15f, 0.05f}) {
    char name[80];
    snprintf(name, sizeof name, "1024, box 61, 8 templates, cutoff %.2f", static_cast<double>(cutoff));
    settings.push_back({name, 1024, 61, 27, 8, Shape::kDisc, 0.134f, 5, cutoff, 0, 0, 0, 5});
  }
  settings.push_back(
      {"340, checkerboard, 1.7 degrees, cutoff 0", 340, 84, 30, 1, Shape::kCheckerboard, 0.14f, 1.7f, 0, 0, 0, 0, 3});
  settings.push_back(
      {"1000, a hot pixel, 1.7 degrees, cutoff 0", 1000, 61, 27, 1, Shape::kRing, 0.14f, 1.7f, 0, 4.8e4, 1, 0, 4});
  return settings;
}

void print_result(const Result& r) {
  const Setting& s = r.s;
  printf("%-42s %5d %4d %4d %2d %-12s %5.3f %5.1f %6.2f %8.1e %3d | %7.3f %7.3f %5.2f %5.0f %5.0f | %6zu %4zu %.1e%s\n",
         s.name.c_str(), s.side, s.box, s.cell, s.templates, kShapeNames[static_cast<int>(s.shape)],
         static_cast<double>(s.band), static_cast<double>(s.step), static_cast<double>(s.cutoff), s.hot_sigma, s.border,
         r.search.seconds, r.maps.seconds, r.times(), r.search.peak_MiB, r.maps.peak_MiB, r.picks, r.other_places,
         r.score_error, r.depends_on_threads ? " DEPENDS ON THREADS" : "");
  fflush(stdout);
}

void print_head() {
  printf("%-42s %5s %4s %4s %2s %-12s %5s %5s %6s %8s %3s | %7s %7s %5s %5s %5s | %6s %4s %s\n", "setting", "side",
         "box", "cell", "T", "shape", "band", "step", "cutoff", "hot", "rim", "search", "maps", "times", "MiB", "MiB",
         "peaks", "ties", "error");
}

// The `count` worst by f.
template <class F>
void print_worst(const char* title, std::vector<Result> results, size_t count, F f) {
  std::sort(results.begin(), results.end(), [&](const Result& a, const Result& b) { return f(a) > f(b); });
  printf("\n%s:\n", title);
  print_head();
  for (size_t i = 0; i < std::min(count, results.size()); i++) print_result(results[i]);
}

}  // namespace

int main(int argc, char** argv) {
  int n_settings = 220, only = -1;
  unsigned seed = 1000;
  bool with_random = true, verbose = false;
  for (int i = 1; i < argc; i++) {
    const std::string option = argv[i];
    if (option == "--table") {
      with_random = false;
    } else if (option == "--verbose") {
      verbose = true;
    } else if (i + 1 < argc && option == "--settings") {
      n_settings = atoi(argv[++i]);
    } else if (i + 1 < argc && option == "--seed") {
      seed = static_cast<unsigned>(atoi(argv[++i]));
    } else if (i + 1 < argc && option == "--setting") {
      only = atoi(argv[++i]);
    } else {
      fprintf(stderr, "usage: %s [--settings N] [--seed S] [--table | --setting SEED] [--verbose]\n", argv[0]);
      return 2;
    }
  }
  std::vector<Result> results;
  print_head();
  if (only >= 0) {
    results.push_back(run_setting(random_setting(static_cast<unsigned>(only))));
    print_result(results.back());
  } else {
    for (const Setting& s : table_settings()) {
      results.push_back(run_setting(s));
      print_result(results.back());
    }
    for (int i = 0; with_random && i < n_settings; i++) {
      results.push_back(run_setting(random_setting(seed + static_cast<unsigned>(i))));
      if (verbose) print_result(results.back());
    }
  }
  const auto outside =
      std::count_if(results.begin(), results.end(), [](const Result& r) { return !is_within_limits(r); });
  const auto faster = std::count_if(results.begin(), results.end(), [](const Result& r) { return r.times() < 0.9; });
  double gain = 0;
  for (const Result& r : results) gain += std::log(r.times());
  print_worst("longest, of the time by maps", results, 10, [](const Result& r) { return r.times(); });
  print_worst("most memory beyond that of maps", results, 5, [](const Result& r) { return r.more_MiB(); });
  printf(
      "\n%zu settings, %td of them faster by search, %.2f times the time of maps on average; %td beyond the limits\n",
      results.size(), faster, std::exp(gain / static_cast<double>(results.size())), outside);
  return outside > 0;
}
