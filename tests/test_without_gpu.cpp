// A CUDA build on a machine without a GPU: what its programs say, and its tests that need one.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <new>

#include "platform/device.h"
#include "test_numeric.h"
#include "test_support.h"

namespace {

// --- A test that fails after it asked for a device in vain counts as skipped: CTest looks for the line below ---

// Whether this process or a child of it asked; shared among them. Null where there is a device.
bool* asked_in_vain = nullptr;
pid_t test_process;

void take_note() {
  if (cudaPeekAtLastError() != cudaSuccess) *asked_in_vain = true;
}

void put_verdict() {
  take_note();
  if (*asked_in_vain) fprintf(stderr, "SKIPPED: this test needs a CUDA device and there is none here\n");
}

class MissingDevice : public ::testing::EmptyTestEventListener {
  void OnTestEnd(const ::testing::TestInfo& test) override {
    if (test.result()->Failed()) put_verdict();
  }
};

// Device failures end a process in the middle of a test; whether a child's end fails the test is the test's to say.
void note_at_exit() {
  if (!::testing::UnitTest::GetInstance()->current_test_info()) return;
  if (getpid() == test_process) {
    put_verdict();
  } else {
    take_note();
  }
}

bool watch_for_missing_device() {
  if (number_of_devices() > 0) return false;
  void* shared = mmap(nullptr, sizeof(bool), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) abort();
  asked_in_vain = new (shared) bool(false);
  test_process = getpid();
  ::testing::UnitTest::GetInstance()->listeners().Append(new MissingDevice);
  atexit(note_at_exit);
  return true;
}

const bool device_is_missing = watch_for_missing_device();

// --- Programs, from which any GPU of this machine is hidden ---

class WithoutGpu : public FolderTest {
 protected:
  ProgramRun run(const std::string& command) const {
    return run_program(path(""), "CUDA_VISIBLE_DEVICES=-1 '" + command);
  }
};

TEST_F(WithoutGpu, TheProgramAndTheProbeSayThatThereIsNoneAndEndWithStatus1) {
  write_file(path("mic.mrc"), std::string(2000, '\0'));
  const ProgramRun none = run(KESTRIX_PROGRAM "' --apixM 2 mic.mrc"), probe = run(KESTRIX_PROBE "'");
  EXPECT_EQ(1, none.status);
  EXPECT_EQ(0u, none.output.find("Warning: no GPU device found!\n"));
  EXPECT_TRUE(ends_with(none.output, "Failed to find any usable GPU device!! Exit now!\n"));
  EXPECT_EQ(1, probe.status);
  EXPECT_EQ(0u, probe.errors.find("gpu_probe: no device that kestrix can run on: "));
  EXPECT_EQ(0, run(KESTRIX_PROGRAM "' --help").status) << "help needs no device";
}

}  // namespace
