// qxlite-cfg FILE: reads a configuration file, prints its report, and writes
// the normalised sparse form back.
//
// A file that is not a JSON object, or that holds a value the service
// refuses (a wrong type, a number out of range: qxapp::checkConfigValues, the
// service's own check), is an error (exit status 2) and is left untouched: the program never
// replaces a configuration by defaults. A missing file is read as an empty
// object, so the program creates a configuration of defaults. The file is
// replaced atomically, with mode 0600. --version prints the version; a wrong
// command line is one line on standard error and exit status 2.
#include "apps/ConfigFile.h"

#include <iostream>

int main(int argc, char** argv) {
  std::string const first = argc > 1 ? argv[1] : "";
  if (argc == 2 && (first == "--help" || first == "-h")) {
    std::cout << "usage: qxlite-cfg FILE\n"
                 "Reads the configuration FILE (a JSON object; a missing file means defaults),\n"
                 "prints its report and writes the normalised sparse form back.\n"
                 "  --version  Print the version and exit\n";
    return 0;
  }
  if (argc == 2 && first == "--version") {
    std::cout << "qxlite-cfg " << QX_VERSION << "\n";
    return 0;
  }
  if (argc != 2 || (first.size() > 1 && first[0] == '-')) {
    std::cerr << "qxlite-cfg: " << (argc != 2 ? "expected one FILE" : "unknown option \"" + first + "\"")
              << " (see qxlite-cfg --help)\n";
    return 2;
  }
  boost::filesystem::path const file(argv[1]);
  try {
    json::Object const raw = qxapp::readConfigObject(file);
    // Nothing is dropped silently: a value the reader would pass over is
    // refused, and the file stays as it is.
    std::string const why = qxapp::checkConfigValues(raw);
    if (!why.empty()) throw qxapp::ConfigError("\"" + file.string() + "\" holds a value that is refused: " + why);
    Settings const settings = qxapp::settingsFromObject(raw, "\"" + file.string() + "\"");
    std::cout << settings.dump();
    qxapp::writeConfigAtomically(file, qxapp::configText(settings));
    std::cout << "Wrote " << file << "\n";
    return 0;
  } catch (std::exception const& e) {
    std::cerr << "qxlite-cfg: " << e.what() << "\n";
    return 2;
  }
}
