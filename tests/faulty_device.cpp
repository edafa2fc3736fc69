// Linked into a program, makes its host device differ from a healthy one as the environment variable
// KESTRIX_TEST_FAULTS says. Names and values, for instance "malloc=17" or "devices=3,capability=7.0:8.6:-1":
//   malloc, malloc_host, memcpy, launch, fft   the n-th and every later call of that kind fails; -n, but for fft: the
//                                              n-th alone
//   devices                                    how many there are
//   capability                                 of each, in order; -1 for one that gives no properties
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/host_cuda.h"

namespace {

[[noreturn]] void refuse(const char* fault) {
  fprintf(stderr, "KESTRIX_TEST_FAULTS: can't make sense of \"%s\"\n", fault);
  abort();
}

void set_capabilities(char* list) {
  int(&capability)[8][2] = host_device_faults().capability;
  char* rest = nullptr;
  int device = 0;
  for (char* item = strtok_r(list, ":", &rest); item && device < 8; item = strtok_r(nullptr, ":", &rest)) {
    capability[device][0] = static_cast<int>(strtol(item, &item, 10));
    if (*item == '.') capability[device][1] = static_cast<int>(strtol(item + 1, nullptr, 10));
    device++;
  }
}

void set_fault(char* fault) {
  char* value = strchr(fault, '=');
  if (!value) refuse(fault);
  *value++ = '\0';
  HostDeviceFaults& faults = host_device_faults();
  const struct {
    const char* name;
    long* at;
  } counted[] = {{"malloc", &faults.fail_malloc_at},
                 {"malloc_host", &faults.fail_malloc_host_at},
                 {"memcpy", &faults.fail_memcpy_at},
                 {"launch", &faults.fail_launch_at},
                 {"fft", &faults.fail_fft_at}};
  for (const auto& kind : counted) {
    if (strcmp(fault, kind.name) != 0) continue;
    *kind.at = strtol(value, nullptr, 10);
    return;
  }
  if (strcmp(fault, "devices") == 0) {
    faults.device_count = static_cast<int>(strtol(value, nullptr, 10));
  } else if (strcmp(fault, "capability") == 0) {
    set_capabilities(value);
  } else {
    refuse(fault);
  }
}

bool set_faults() {
  const char* wanted = getenv("KESTRIX_TEST_FAULTS");
  if (!wanted) return false;
  char faults[256];
  if (snprintf(faults, sizeof faults, "%s", wanted) >= static_cast<int>(sizeof faults)) refuse(wanted);
  char* rest = nullptr;
  for (char* fault = strtok_r(faults, ",", &rest); fault; fault = strtok_r(nullptr, ",", &rest)) set_fault(fault);
  return true;
}

const bool are_set = set_faults();

}  // namespace
