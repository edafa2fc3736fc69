#include "session/begin_run.h"

#include <filesystem>
#include <vector>

#include "platform/failure.h"
#include "run/stage_timer.h"
#include "session/learning.h"
#include "session/micrograph_list.h"
#include "str_utils.h"

namespace {

constexpr char unit[] = "begin_run";

void make_output_folder(const char* odir) {
  std::error_code failed;
  if (is_str_null(odir)) return;
  std::filesystem::create_directories(odir, failed);
  if (!std::filesystem::is_directory(odir))
    KESTRIX_FATAL("the folder --odir %s can't be made: %s", odir,
                  failed ? failed.message().c_str() : "a file has that name");
}

}  // namespace

Shard read_run(int argc, char** argv, Run* run) {
  read_command_line(argc, argv, run);
  Kestrix_Para& para = run->para;
  para.n_files = leave_out_own_images(para.files, para.n_files, &para);
  // The whole list is looked through: parts of it are picked beside one another.
  const std::vector<char*> list(para.files, para.files + para.n_files);
  const Shard shard = is_str_null(para.shard) ? Shard() : take_shard(para.files, &para.n_files, para.shard);
  if (para.check) return shard;
  report_command_line(argc, argv, run);
  check_output_names(list.data(), static_cast<int>(list.size()), &para);
  make_output_folder(para.odir);
  read_learned(run);
  return shard;
}

void begin_run(int argc, char** argv, Run* run) {
  read_run(argc, argv, run);
  const Kestrix_Para& para = run->para;
  if (para.check || para.keep_going || para.watch > 0 || !is_str_null(para.summary))
    KESTRIX_FATAL(
        "--check, --keep_going, --summary and --watch work on one device: give --gid a single number, and a part of "
        "the list to a process for each device");
  refuse_to_learn(run, "A run on several devices");
  prepare_run(run);
  time_pop("PREPARATION");
}
