// kestrix_mpi: the run of kestrix on the ranks of an MPI job.
#include "mpi/mpi_session.h"
#include "run/stage_timer.h"
#include "session/front_end.h"
#include "session/signals.h"

int main(int argc, char** argv) {
  time_push();
  time_push();
  if (asks_for_words(argc, argv)) {
    if (speaks_for_launcher()) put_words(argc, argv, "kestrix_mpi");
    return 0;
  }
  const RankPlace place = join_ranks(&argc, &argv);
  end_cleanly_on_signals();
  take_threads(place);
  SessionEnd end{-1, 0};
  if (place.rank == 0)
    end = lead_session(place, argc, argv);
  else
    follow_session(place);
  leave_ranks();
  if (end.finished >= 0) put_end(end.finished);
  return end.status;
}
