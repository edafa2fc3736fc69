// One field of the parameter record, for the tables of the parser and of the report.
#pragma once

#include "parameters.h"

/// Exactly one of the members points to a field; its type is the field's type.
struct Para_Field {
  constexpr Para_Field(float Kestrix_Para::*field) : real(field) {}
  constexpr Para_Field(int Kestrix_Para::*field) : integer(field) {}
  constexpr Para_Field(char* Kestrix_Para::*field) : text(field) {}

  float Kestrix_Para::*real = nullptr;
  int Kestrix_Para::*integer = nullptr;
  char* Kestrix_Para::*text = nullptr;
};
