// What the fuzz targets share.
#ifndef QX_FUZZ_FUZZUTIL_H
#define QX_FUZZ_FUZZUTIL_H

#include "shared/Log.h"

#include <ios>
#include <sstream>

namespace qxfuzz {

// Bad input makes the library log an error per input; nobody reads those
// lines here, and writing them would slow every run down.
inline bool quietLog() {
  static std::ostringstream discarded;
  discarded.setstate(std::ios::badbit);
  Log::inst().toStream(discarded);
  return true;
}

}  // namespace qxfuzz

#endif  // QX_FUZZ_FUZZUTIL_H
