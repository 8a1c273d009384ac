// "2.9 KiB": an amount of bytes for people, as every program of the product
// writes it (binary units, one decimal above bytes).
#ifndef QX_APPS_SIZETEXT_H
#define QX_APPS_SIZETEXT_H

#include <iomanip>
#include <sstream>
#include <string>

namespace qxapp {

inline std::string sizeText(double bytes) {
  char const* const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int u = 0;
  while (bytes >= 1024 && u < 4) {
    bytes /= 1024;
    ++u;
  }
  std::ostringstream os;
  os << std::fixed << std::setprecision(u == 0 ? 0 : 1) << bytes << " " << units[u];
  return os.str();
}

}  // namespace qxapp

#endif  // QX_APPS_SIZETEXT_H
