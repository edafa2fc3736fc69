// Linked into a program, makes its host device differ from a healthy one as the environment variable
// KESTRIX_TEST_FAULTS says, and, as a GPU, lost to the children of a process that has used it. Names and values, for instance "malloc=17" or "devices=3,capability=7.0:8.6:-1":
//   set_device, malloc, malloc_host, memcpy,   the n-th and every later call of that kind fails; -n, but for fft: the
//   launch, fft                                n-th alone
//   killed                                     the n-th wait after a launch ends the process by a signal
//   memory                                     bytes of it
//   devices                                    how many there are
//   gpu_road                                   runs go by the device's own transforms, as on a GPU
//   capability                                 of each, in order; -1 for one that gives no properties
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/host_cuda.h"

namespace {

[[noreturn]] void refuse(const char* faults) {
  fprintf(stderr, "KESTRIX_TEST_FAULTS: can't make sense of \"%s\"\n", faults);
  abort();
}

void set_capabilities(const char* list) {
  int(&capability)[8][2] = host_device_faults().capability;
  for (int device = 0; device < 8 && list && *list; device++) {
    sscanf(list, "%d.%d", &capability[device][0], &capability[device][1]);
    list = strchr(list, ':');
    if (list) list++;
  }
}

bool set_faults() {
  const char* wanted = getenv("KESTRIX_TEST_FAULTS");
  if (!wanted) return false;
  HostDeviceFaults& faults = host_device_faults();
  faults.lost_by_fork = true;
  char text[256] = "";
  if (strlen(wanted) >= sizeof text) refuse(wanted);
  strcpy(text, wanted);
  char* rest = nullptr;
  for (char* fault = strtok_r(text, ",", &rest); fault; fault = strtok_r(nullptr, ",", &rest)) {
    if (strcmp(fault, "gpu_road") == 0) {
      faults.device_transforms = true;
      continue;
    }
    const bool understood =
        sscanf(fault, "set_device=%ld", &faults.fail_set_device_at) == 1 ||
        sscanf(fault, "malloc=%ld", &faults.fail_malloc_at) == 1 ||
        sscanf(fault, "malloc_host=%ld", &faults.fail_malloc_host_at) == 1 ||
        sscanf(fault, "memcpy=%ld", &faults.fail_memcpy_at) == 1 ||
        sscanf(fault, "launch=%ld", &faults.fail_launch_at) == 1 ||
        sscanf(fault, "fft=%ld", &faults.fail_fft_at) == 1 || sscanf(fault, "killed=%ld", &faults.killed_at) == 1 ||
        sscanf(fault, "memory=%zu", &faults.memory) == 1 || sscanf(fault, "devices=%d", &faults.device_count) == 1;
    if (!understood && strncmp(fault, "capability=", 11) != 0) refuse(wanted);
    if (!understood) set_capabilities(fault + 11);
  }
  return true;
}

const bool are_set = set_faults();

}  // namespace
