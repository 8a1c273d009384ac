// ManConfigKeys TEMPLATE OUTPUT: writes the page TEMPLATE (scdoc) to OUTPUT
// with its line "{{CONFIG_KEYS}}" replaced by every configuration key, its
// type, default and meaning, from the table that `qxlite config keys`
// prints, so that the manual page cannot drift from the program.
//
// Exit status 0 when OUTPUT is written; 1, with a message naming the file,
// when a file cannot be read or written or the template lacks the marker.
#include "apps/ConfigFile.h"

#include <cctype>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

namespace {

constexpr char kMarker[] = "{{CONFIG_KEYS}}";

// scdoc takes '*', '_' and '\' as markup.
std::string escaped(std::string const& text) {
  std::string out;
  for (char const c : text) {
    if (c == '*' || c == '_' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

// A list default written without blanks could not be broken across lines.
std::string breakable(std::string const& value) {
  std::string out;
  for (char const c : value) {
    out += c;
    if (c == ',') out += ' ';
  }
  return out;
}

std::string sentence(std::string text) {
  if (!text.empty()) text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
  return text + ".";
}

std::string keysSection() {
  std::ostringstream out;
  bool first = true;
  for (qxapp::ConfigKey const& k : qxapp::configKeyTable()) {
    if (!first) out << "\n";
    first = false;
    out << "*" << k.name << "* (" << k.type;
    if (*k.defaultValue) out << "; default: " << escaped(breakable(k.defaultValue));
    out << ")\n\t" << escaped(sentence(k.meaning));
    if (k.secret) out << " A password: *qxlite config get* shows it as \\*\\*\\* unless given *--show-secrets*.";
    out << "\n";
  }
  return out.str();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: ManConfigKeys TEMPLATE OUTPUT\n";
    return 2;
  }
  std::ifstream in(argv[1]);
  if (!in) {
    std::cerr << "ManConfigKeys: cannot read \"" << argv[1] << "\"\n";
    return 1;
  }
  std::ostringstream page;
  bool replaced = false;
  std::string line;
  while (std::getline(in, line)) {
    if (line == kMarker) {
      page << keysSection();
      replaced = true;
    } else {
      page << line << "\n";
    }
  }
  if (!replaced) {
    std::cerr << "ManConfigKeys: \"" << argv[1] << "\" has no line " << kMarker << "\n";
    return 1;
  }
  std::ofstream out(argv[2], std::ios::trunc);
  out << page.str();
  out.close();
  if (!out) {
    std::cerr << "ManConfigKeys: cannot write \"" << argv[2] << "\"\n";
    return 1;
  }
  return 0;
}
