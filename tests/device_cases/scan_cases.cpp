// The rotational scan.
#include <limits>
#include <string>

#include "device_record.h"
#include "quorlin56.h"

namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();

// Maps and images of few values, so that angles tie, with infinities and NaN among them.
void record_updates(DeviceRecord& record, int nx, int ny) {
  constexpr int kImages = 5;
  const size_t pixels = static_cast<size_t>(nx) * ny;
  std::vector<float> images = noise(kImages * pixels, 101);
  for (float& v : images) v = static_cast<float>(static_cast<int>(v * 6));
  images[3] = std::numeric_limits<float>::quiet_NaN();
  images[pixels + 4] = kInfinity;
  images[pixels + 5] = -kInfinity;
  const OnDevice<float> cc(images);
  const OnDevice<float> ccmax(std::vector<float>(pixels, -kInfinity));
  const OnDevice<float> psi(pixels);
  ScanAngles angles{};
  for (int k = 0; k < kImages; k++) angles.psi[k] = 10.5f * static_cast<float>(k);
  hcuda_update_ccmax_psi_2d(ccmax.data, cc.data, psi.data, angles, kImages, nx, ny);
  const std::string tail = "/" + std::to_string(nx) + "x" + std::to_string(ny);
  record_array(record, "update_ccmax_psi_2d.ccmax" + tail, ccmax, nx, ny, kSameBits);
  record_array(record, "update_ccmax_psi_2d.psi" + tail, psi, nx, ny, kSameBits);
  const OnDevice<float> only(std::vector<float>(pixels, 1.0f));
  hcuda_update_ccmax_2d(only.data, cc.data, kImages, nx, ny);
  record_array(record, "update_ccmax_2d" + tail, only, nx, ny, kSameBits);
}

struct ScanCase {
  int n, T_nx, T_ny;
  float step;
};

void record_scan(DeviceRecord& record, const ScanCase& s, ScanWay way, const std::string& name) {
  const size_t pixels = static_cast<size_t>(s.n) * s.n;
  const OnDevice<float> mic(noise(pixels, 111));
  const OnDevice<float> mask(std::vector<float>(pixels, 1.0f));
  const OnDevice<float> T(noise(static_cast<size_t>(s.T_nx) * s.T_ny, 112));
  const OnDevice<float> ccmax(pixels);
  const OnDevice<float> psi(pixels);
  ScanWorkspace ws = scan_workspace_new(s.n, s.n, s.T_nx, s.T_ny, count_scan_angles(0.0f, 359.0f, s.step), kFullBand, way);
  quorlin_transform_micrograph(&ws, mic.data);
  quorlin_ccmax_psi_by_one_template(&ws, mic.data, mask.data, ccmax.data, psi.data, 1, T.data, 9.0f, 0.0f, 359.0f,
                                    s.step);
  scan_workspace_free(&ws);
  const std::string tail = "/" + std::to_string(s.n) + "." + std::to_string(s.T_nx) + "x" + std::to_string(s.T_ny);
  record_array(record, name + ".ccmax" + tail, ccmax, s.n, s.n, kTransform);
  record_array(record, name + ".psi" + tail, psi, s.n, s.n, kChoice);
}

}  // namespace

// Numbers of angles that fill a batch and that don't, one angle, templates of even and odd sides and of the image's.
void record_scan_cases(DeviceRecord& record) {
  record_updates(record, 40, 33);
  record_updates(record, 64, 64);
  for (const ScanCase& s : {ScanCase{96, 24, 24, 5.0f}, ScanCase{90, 17, 21, 50.0f}, ScanCase{64, 64, 64, 360.0f},
                            ScanCase{142, 31, 30, 3.0f}}) {
    record_scan(record, s, kDeviceTransforms, "quorlin_ccmax_psi_by_one_template");
    record_scan(record, s, kFastestScanWay, "quorlin_ccmax_psi_by_one_template.fastest");
  }
}
