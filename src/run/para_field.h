// One field of the parameter record, for the tables of the parser and of the report.
#pragma once

#include "run/parameters.h"

using Real_Field = float Kestrix_Para::*;
using Integer_Field = int Kestrix_Para::*;
using Text_Field = char* Kestrix_Para::*;

/// A field of any type: exactly one of the members points to it.
struct Para_Field {
  constexpr Para_Field(Real_Field field) : real(field) {}
  constexpr Para_Field(Integer_Field field) : integer(field) {}
  constexpr Para_Field(Text_Field field) : text(field) {}

  Real_Field real = nullptr;
  Integer_Field integer = nullptr;
  Text_Field text = nullptr;
};
