// Every input that the fuzzers start from or once failed on, given to the same functions.
#include <filesystem>
#include <string>

#include "fuzz/targets.h"
#include "test_support.h"

namespace {

/// Whether a call returned, or ended by an exit that says why.
bool ends_cleanly(const ProgramRun& run) {
  if (run.status == 1) return holds(run.output, "! Exit now!\n");
  if (run.status == 0) return holds(run.output, "Failed to recognize option");
  return run.status == kDidNotExit;
}

}  // namespace

struct FuzzSeeds : FolderTest, testing::WithParamInterface<const char*> {};

TEST_P(FuzzSeeds, AreReadOrRefused) {
  const FuzzTarget* target = find_fuzz_target(GetParam());
  ASSERT_TRUE(target);
  int seeds = 0;
  for (const auto& seed :
       std::filesystem::directory_iterator(KESTRIX_SOURCE_DIR "/tests/fuzz/seeds/" + std::string(GetParam()))) {
    const std::string own_folder = path(std::to_string(seeds++)), input = own_folder + "/" + target->file_name;
    std::filesystem::create_directory(own_folder);
    const std::string content = read_file(seed.path().string());
    write_fuzz_input(input.c_str(), reinterpret_cast<const uint8_t*>(content.data()), content.size());
    for (const FuzzPart part : target->parts) {
      const ProgramRun run = run_in_child([&] { part(input.c_str()); });
      EXPECT_TRUE(ends_cleanly(run)) << seed.path() << ", status " << run.status << ": " << run.output << run.errors;
    }
  }
  EXPECT_GE(seeds, 15);
}

INSTANTIATE_TEST_SUITE_P(Of, FuzzSeeds, testing::Values("mrc", "image", "tiff", "box", "star", "command_line"));
