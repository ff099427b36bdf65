// Feature matrices to files: NumPy .npy (float32, frames x dim), CSV with a
// header row, and HTK parameter files (big-endian header and values).
#pragma once

#include <string>
#include <vector>

#include "frontend_options.h"

namespace xkltool {

void writeNpy(const std::string &path, const Features &f);
void writeCsv(const std::string &path, const Features &f, const std::vector<std::string> &names);

// HTK: `periodSeconds` is the frame shift; `kind` the parameter kind with its
// qualifiers. The columns are written in the order given.
void writeHtk(const std::string &path, const Features &f, double periodSeconds, int kind);

// HTK's parameter kinds and qualifiers.
enum : int {
  kHtkLpc = 1,
  kHtkMfcc = 6,
  kHtkE = 0x40,
  kHtkD = 0x100,
  kHtkA = 0x200,
  kHtkZ = 0x800,
  kHtk0 = 0x2000
};

// The HTK kind of front-end features, and the features reordered the HTK
// way: within each block of statics, deltas and delta-deltas the energy or
// c0 goes last (c1 .. c(C-1), then E or c0).
int htkKind(const xkl_frontend_config &config);
Features htkOrder(const Features &f, const xkl_frontend_config &config);

}  // namespace xkltool
