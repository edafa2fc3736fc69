// What several tests need: a folder of their own, files as text, the output of code that may end the process, and runs
// of the built programs.
#pragma once

#include <gtest/gtest.h>
#include <omp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "mrcfile.h"
#include "platform/device.h"

// --- Files and texts ---

/// A fixture with a fresh folder, which is removed with all that it holds when the test ends.
class FolderTest : public ::testing::Test {
 protected:
  FolderTest() : folder_(std::filesystem::temp_directory_path() / ("kestrix_" + std::to_string(getpid()))) {
    std::filesystem::create_directories(folder_);
  }
  ~FolderTest() override { std::filesystem::remove_all(folder_); }

  /// The name of a file in the folder.
  std::string path(const std::string& name) const { return (folder_ / name).string(); }

 private:
  std::filesystem::path folder_;
};

inline void write_file(const std::string& name, const std::string& content) {
  std::ofstream(name, std::ios::binary) << content;
}

/// The whole content of a file; empty if there is none.
inline std::string read_file(const std::string& name) {
  std::ifstream file(name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// Whether text holds words.
inline bool holds(const std::string& text, const std::string& words) { return text.find(words) != std::string::npos; }

inline bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// Replaces the line numbers of failure and warning lines by N, so that they can be compared as a whole.
inline std::string without_line_numbers(const std::string& text) {
  return std::regex_replace(text, std::regex("on line [0-9]+"), "on line N");
}

/// The cases of a table under tests/golden/, one a line: what stands before " => " and what stands behind it, \n for the
/// end of a line and \t for a tab. Other lines are comments.
inline std::vector<std::pair<std::string, std::string>> golden_cases(const std::string& table) {
  std::ifstream file(KESTRIX_SOURCE_DIR "/tests/golden/" + table);
  std::vector<std::pair<std::string, std::string>> cases;
  for (std::string line; std::getline(file, line);) {
    line = std::regex_replace(std::regex_replace(line, std::regex("\\\\n"), "\n"), std::regex("\\\\t"), "\t");
    const size_t arrow = line.find(" => ");
    if (arrow != std::string::npos) cases.emplace_back(line.substr(0, arrow), line.substr(arrow + 4));
  }
  EXPECT_FALSE(cases.empty()) << table;
  return cases;
}

/// Where a line of a failure says that it happened, less the line number. function: a public one, or "" where the name is
/// nobody's business, for the rest behind the name.
inline std::string place_line(const std::string& kind, const std::string& function, const std::string& unit) {
  return (function.empty() ? "" : kind + " in function " + function) + "(), file " + unit + " on line N: ";
}

/// The line that a fatal error leaves on standard output, or its end if function is "".
inline std::string fatal_line(const std::string& function, const std::string& unit, const std::string& text) {
  return place_line("Error", function, unit) + text + "! Exit now!\n";
}

inline std::string warning_line(const std::string& function, const std::string& unit, const std::string& text) {
  return place_line("Warning", function, unit) + text + "!\n";
}

// --- Images ---

/// An MRC file, all its sections as floats.
struct Image {
  MRC_HEAD head;
  std::vector<float> data;
  float at(long x, long y, long z = 0) const { return data[static_cast<size_t>((z * head.ny + y) * head.nx + x)]; }
};

inline Image read_image(const std::string& name) {
  Image image;
  MRC_HEAD* head = get_mrcf_head(name.c_str());
  image.head = *head;
  float* data = get_mrcf_data_all(name.c_str());
  image.data.assign(data, data + static_cast<size_t>(head->nx) * head->ny * head->nz);
  free(data);
  free(head);
  return image;
}

/// Writes a plain head of these sizes and that mode with samples behind it.
inline void write_mrc(const std::string& name, int nx, int ny, int nz, int mode, const std::string& samples) {
  MRC_HEAD head;
  mrc_init_head(&head);
  mrc_set_head_xyz_mode(&head, nx, ny, nz, mode);
  write_file(name, std::string(reinterpret_cast<const char*>(&head), sizeof head) + samples);
}

// --- Code and programs, and how they end ---

constexpr int kDidNotExit = 254, kLostDevice = 253;

struct ProgramRun {
  int status;                  // of its exit, -1 where a signal ended it; kDidNotExit of code that returned
  std::string output, errors;  // the two streams; of code in a child less line numbers
};

/// It must have ended with status 1 and these words on one of the streams.
inline void expect_refused(const ProgramRun& run, const std::string& words) {
  EXPECT_EQ(1, run.status) << words;
  EXPECT_TRUE(holds(run.output + run.errors, words)) << words << ", but got: " << run.output << run.errors;
}

/// What code leaves on standard output, less line numbers.
template <class Code>
std::string output_of(Code code) {
  ::testing::internal::CaptureStdout();
  code();
  return without_line_numbers(::testing::internal::GetCapturedStdout());
}

/// In a child: ends it where it could not use the device because its parent had, which no result would show.
inline void end_without_device() {
  if (cudaPeekAtLastError() == cudaErrorInitializationError) _exit(kLostDevice);
}

/// Runs code that may end the process, in a child of its own. The process must not have used the device.
template <class Code>
ProgramRun run_in_child(Code code) {
  FILE* streams[2] = {tmpfile(), tmpfile()};
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    omp_set_num_threads(1);  // a team that the parent has started doesn't exist here
    for (int i = 0; i < 2; i++) dup2(fileno(streams[i]), i + 1);
    atexit(end_without_device);
    code();
    fflush(nullptr);
    end_without_device();
    _exit(kDidNotExit);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ProgramRun run{WIFEXITED(status) ? WEXITSTATUS(status) : -1, "", ""};
  EXPECT_NE(kLostDevice, run.status) << "the child could not use the device";
  for (FILE* stream : streams) {
    rewind(stream);
    std::string text;
    for (int c = fgetc(stream); c != EOF; c = fgetc(stream)) text += static_cast<char>(c);
    fclose(stream);
    (stream == streams[0] ? run.output : run.errors) = without_line_numbers(text);
  }
  return run;
}

/// Runs a shell command in an existing folder, where output and errors are kept meanwhile.
inline ProgramRun run_program(const std::string& folder, const std::string& command) {
  const std::string output = folder + "/stdout.txt", errors = folder + "/stderr.txt";
  const std::string line = "cd '" + folder + "' && " + command + " >'" + output + "' 2>'" + errors + "'";
  const int status = system(line.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(output), read_file(errors)};
}
