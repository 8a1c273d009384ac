// qxlite-cfg [--write] FILE: reads a configuration file, prints its report
// and what writing it in its normalised sparse form would change; --write
// writes that form back and lists what it changed.
//
// A file that is not a JSON object, or that holds a value the service
// refuses (a wrong type, a number out of range: qxapp::checkConfigValues, the
// service's own check), is an error (exit status 2) and is left untouched.
// Without --write nothing is written, so that no value (an unknown key, a
// default) leaves a person's file unless they asked. A missing file reads as
// an empty object: --write then creates a configuration of defaults. The
// file is replaced atomically, with mode 0600. --version prints the
// version; a wrong command line is one line on standard error and exit
// status 2.
#include "apps/ConfigFile.h"

#include <boost/filesystem/operations.hpp>

#include <cctype>
#include <cstring>
#include <iostream>

namespace {

char const kUsage[] =
    "usage: qxlite-cfg [--write] FILE\n"
    "Reads the configuration FILE (a JSON object; a missing file means defaults), prints its\n"
    "report and what normalising it changes: keys sorted, defaults and unknown keys left out,\n"
    "older keys carried into current ones.\n"
    "  --write    Write the normalised form back (mode 0600) and list what changed\n"
    "  --version  Print the version and exit\n";

// path as one word a shell reads back as it is, so that the command shown
// can be copied.
std::string shellWord(std::string const& path) {
  bool plain = !path.empty();
  for (char c : path) plain = plain && (std::isalnum(static_cast<unsigned char>(c)) || std::strchr("/._-+,:=@%", c));
  if (plain) return path;
  std::string word = "'";
  for (char c : path) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

int usageError(std::string const& what) {
  std::cerr << "qxlite-cfg: " << what << " (see qxlite-cfg --help)\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  bool write = false;
  std::string fileArg;
  int files = 0;
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::cout << kUsage;
      return 0;
    }
    if (arg == "--version") {
      std::cout << "qxlite-cfg " << QX_VERSION << "\n";
      return 0;
    }
    if (arg == "--write") {
      write = true;
    } else if (arg.size() > 1 && arg[0] == '-') {
      return usageError("unknown option \"" + arg + "\"");
    } else {
      fileArg = arg;
      ++files;
    }
  }
  if (files != 1) return usageError("expected one FILE");
  boost::filesystem::path const file(fileArg);
  std::string const name = "\"" + file.string() + "\"";
  try {
    boost::system::error_code ec;
    bool const exists = boost::filesystem::exists(file, ec);
    json::Object const raw = qxapp::readConfigObject(file);
    // Nothing is dropped silently: a value the reader would pass over is
    // refused, and the file stays as it is.
    std::string const why = qxapp::checkConfigValues(raw);
    if (!why.empty()) throw qxapp::ConfigError(name + " holds a value that is refused: " + why);
    Settings const settings = qxapp::settingsFromObject(raw, name);
    std::cout << settings.dump();
    std::vector<std::string> const changes = qxapp::normalisingChanges(raw, settings);
    if (write) qxapp::writeConfigAtomically(file, qxapp::configText(settings));
    if (!changes.empty()) {
      std::cout << (write ? "Normalising changed:\n" : "Normalising would change:\n");
      for (std::string const& change : changes) std::cout << "  " << change << "\n";
    }
    if (write) {
      std::cout << "Wrote " << name << "\n";
    } else if (!exists) {
      std::cout << name << " does not exist: qxlite-cfg --write " << shellWord(file.string())
                << " writes a configuration of defaults\n";
    } else if (changes.empty()) {
      std::cout << name << " is in normalised form\n";
    } else {
      std::cout << name << " was not changed: qxlite-cfg --write " << shellWord(file.string())
                << " writes the normalised form\n";
    }
    return 0;
  } catch (std::exception const& e) {
    std::cerr << "qxlite-cfg: " << e.what() << "\n";
    return 2;
  }
}
