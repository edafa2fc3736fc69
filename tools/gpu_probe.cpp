// gpu_probe: lists the devices that kestrix can run on, by the numbers that its option --gid takes.
#include <cstdio>
#include <cstring>

#include "platform/device.h"
#include "run/version.h"

namespace {

constexpr double kGiB = 1024.0 * 1024.0 * 1024.0;

void put_help(FILE* out, const char* program) {
  fprintf(out,
          "Usage: %s\n"
          "Lists the devices that kestrix can run on, one a line: the number for its option --gid, name, compute\n"
          "capability and memory. Exit status 1 if there is none.\n",
          program);
}

// One line for each device that answers; returns how many do.
int list_devices(int count) {
  int listed = 0;
  for (int device = 0; device < count; device++) {
    cudaDeviceProp properties;
    const cudaError_t error = cudaGetDeviceProperties(&properties, device);
    if (error != cudaSuccess) {
      fprintf(stderr, "gpu_probe: device %d can't be used: %s\n", device, cudaGetErrorString(error));
      continue;
    }
    printf("%d: %s, compute capability %d.%d, %.1f GiB\n", device, properties.name, properties.major, properties.minor,
           static_cast<double>(properties.totalGlobalMem) / kGiB);
    listed++;
  }
  return listed;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && asks_for_version(argv[1])) {
    put_version("gpu_probe");
    return 0;
  }
  if (argc > 1 && strcmp(argv[1], "--list_options") == 0) {
    puts("--help flag\n--version flag");
    return 0;
  }
  if (argc > 1) {
    const bool asked = strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0;
    put_help(asked ? stdout : stderr, argv[0]);
    return asked ? 0 : 1;
  }
  int count = 0;
  const cudaError_t error = cudaGetDeviceCount(&count);
  if (error == cudaSuccess && list_devices(count) > 0) return 0;
  fprintf(stderr, "gpu_probe: no device that kestrix can run on%s%s\n", error == cudaSuccess ? "" : ": ",
          error == cudaSuccess ? "" : cudaGetErrorString(error));
  return 1;
}
