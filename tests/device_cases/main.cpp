// kestrix_device_record FILE: runs every device operation on fixed inputs and writes the results to FILE, for comparison
// with those of another device (test_device_record.cpp).
#include <cstdio>

#include "device_record.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "Usage: %s FILE\n", argv[0]);
    return 1;
  }
  DeviceRecord record;
  record_flat_cases(record);
  record_image_cases(record);
  record_transform_cases(record);
  record_cell_cases(record);
  record_scan_cases(record);
  if (write_record(argv[1], record)) return 0;
  fprintf(stderr, "%s can't be written\n", argv[1]);
  return 1;
}
