#include "run/version.h"

#include <cstdio>

#include "formats/image_file.h"
#include "platform/device_text.h"
#include "str_utils.h"
#include "transforms/wide_lanes.h"

bool asks_for_version(const char* argument) { return keywd_cmp(argument, "version") != 0; }

void put_version(const char* program) {
  printf("%s %s\n", program, KESTRIX_RELEASE);
  printf("device        %s\n", device_text().c_str());
  printf("instructions  %s\n", instruction_set());
  printf("images        MRC; %s\n", image_libraries().c_str());
}
