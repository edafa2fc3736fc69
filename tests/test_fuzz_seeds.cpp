// Every input that the fuzzers start from or once failed on, given to the same functions.
#include <filesystem>
#include <string>

#include "fuzz/targets.h"
#include "test_support.h"

namespace {

class FuzzSeeds : public FolderTest {
 protected:
  /// Replays all seeds of a target; each ends with a return, or by an exit that says why.
  void replay(const char* name) const {
    const FuzzTarget* target = find_fuzz_target(name);
    ASSERT_TRUE(target);
    int seeds = 0;
    for (const auto& seed :
         std::filesystem::directory_iterator(KESTRIX_SOURCE_DIR "/tests/fuzz/seeds/" + std::string(name))) {
      const std::string own_folder = path(seed.path().filename().string());
      std::filesystem::create_directory(own_folder);
      const std::string input = own_folder + "/" + target->file_name;
      const std::string content = read_file(seed.path().string());
      write_fuzz_input(input.c_str(), reinterpret_cast<const uint8_t*>(content.data()), content.size());
      for (int part = 0; part < target->n_parts; part++) {
        const ChildResult result = run_in_child([&] { target->parts[part](input.c_str()); });
        EXPECT_TRUE(ends_cleanly(result))
            << seed.path() << ", part " << part << ", status " << result.status << ": " << result.out << result.err;
      }
      seeds++;
    }
    EXPECT_GE(seeds, 15);
  }

 private:
  static bool ends_cleanly(const ChildResult& result) {
    if (result.status == 1) return holds(result.out, "! Exit now!\n");
    if (result.status == 0) return holds(result.out, "Failed to recognize option");
    return result.status == kDidNotExit;
  }
};

}  // namespace

TEST_F(FuzzSeeds, OfMrcFilesAreReadOrRefused) { replay("mrc"); }
TEST_F(FuzzSeeds, OfBoxFilesAreReadOrRefused) { replay("box"); }
TEST_F(FuzzSeeds, OfStarFilesAreReadOrRefused) { replay("star"); }
TEST_F(FuzzSeeds, OfCommandLinesAreTakenOrRefused) { replay("command_line"); }
