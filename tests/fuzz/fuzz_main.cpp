// One fuzzer, of the target that the build names.
#include <cstdlib>
#include <filesystem>
#include <string>

#include "fuzz/guard.h"
#include "fuzz/targets.h"

namespace {

const FuzzTarget* target = nullptr;
std::string folder;
std::string input;

void remove_folder() { std::filesystem::remove_all(folder); }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  target = find_fuzz_target(KESTRIX_FUZZ_TARGET);
  folder = (std::filesystem::temp_directory_path() / "kestrix_fuzz_XXXXXX").string();
  if (!target || !mkdtemp(&folder[0])) abort();
  atexit(remove_folder);
  input = folder + "/" + target->file_name;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  write_fuzz_input(input.c_str(), data, size);
  for (const FuzzPart part : target->parts) returns_normally(part, input.c_str());
  return 0;
}
