// The JSON text parsers on any bytes. Whatever parses must write back as text
// that parses to an equal document, sorted or not.
#include "json/Json.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

namespace {

template <class Doc>
std::string written(Doc const& doc, bool sorted) {
  std::ostringstream os;
  if (sorted) os.iword(json::m_gOStreamSortedIdx) = 1;
  os << doc;
  return os.str();
}

template <class Doc, class Parse>
void checkRoundTrip(Doc const& doc, Parse parse) {
  for (bool sorted : {false, true}) {
    std::string const text = written(doc, sorted);
    Doc const again = parse(text.data(), text.size());
    if (!(doc == again)) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  char const* text = reinterpret_cast<char const*>(data);
  try {
    checkRoundTrip(json::strToObject(text, size), json::strToObject);
  } catch (json::Exc const&) {
  }
  try {
    checkRoundTrip(json::strToArray(text, size), json::strToArray);
  } catch (json::Exc const&) {
  }
  return 0;
}
