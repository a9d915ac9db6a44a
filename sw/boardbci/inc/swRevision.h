#pragma once

#include <cstdint>

/// The place of a software revision among all: P or R, up to four digits, up to four capitals, up to four
/// digits; what follows does not count. "P" comes before "R", then the first number decides, then the
/// letters, then the last number; of two numbers that begin alike the longer one is the later.
///
/// `missingLetters` tells what a revision without letters ranks as: 'H' above all letters, 'L' as "A", 'F' as
/// no revision at all, anything else below all letters. -1 for a text that is no revision.
[[nodiscard]] std::int64_t swrev_str_to_int(const char* revision, int missingLetters);
