// What a rank tells the leader of a micrograph, as a message.
#pragma once

#include <string>

#include "session/picker.h"
#include "session/streams.h"

constexpr int kPreparing = -1;

struct Told {
  int position = kPreparing;  // in the list; kPreparing: of the preparation
  int status = -1;            // with which the run must end here; -1: it goes on
  std::string rank;           // which one it is and where, for messages
  Taken taken{};              // where the run goes on
  Printed printed;

  bool ends_run() const { return status >= 0; }
};

/// The bytes of a message. Both ends must be the same program on the same kind of machine.
std::string pack(const Told& told);

/// What pack made the bytes of.
Told unpack(const std::string& bytes);
