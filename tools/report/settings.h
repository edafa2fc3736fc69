// The command line of kestrix_report.
#pragma once

#include <string>
#include <vector>

struct ReportSettings {
  double apixM = 0;     // pixel size of the micrographs, Å
  double diameter = 0;  // of the particle, Å
  const char* micrographs = nullptr;
  const char* summary = nullptr;
  const char* list = "_quorlin";
  const char* odir = "";
  const char* out = "kestrix_report";
  long side = 1024;                // longest side of the pictures, pixels
  int folder = 0;                  // a folder of files whatever the number of micrographs
  std::vector<std::string> names;  // of the micrographs
};

/// Reads the command line. Returns false where help was asked for and given. What can't work is refused.
bool settings_from_arguments(int argc, char** argv, ReportSettings* settings);
