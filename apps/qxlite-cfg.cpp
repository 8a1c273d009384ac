// qxlite-cfg FILE: reads a configuration file, prints its report, and writes
// the normalised sparse form back.
//
// A file that is not a JSON object, or that holds a value the reader refuses,
// is an error (exit status 2) and is left untouched: the program never
// replaces a configuration by defaults. A missing file is read as an empty
// object, so the program creates a configuration of defaults. The file is
// replaced atomically, with mode 0600.
#include "apps/ConfigFile.h"

#include <iostream>

int main(int argc, char** argv) {
  if (argc != 2 || std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h") {
    std::cerr << "usage: qxlite-cfg FILE\n"
                 "Reads the configuration FILE (a JSON object; a missing file means defaults),\n"
                 "prints its report and writes the normalised sparse form back.\n";
    return argc == 2 ? 0 : 1;
  }
  boost::filesystem::path const file(argv[1]);
  try {
    Settings const settings =
        qxapp::settingsFromObject(qxapp::readConfigObject(file), "\"" + file.string() + "\"");
    std::cout << settings.dump();
    qxapp::writeConfigAtomically(file, qxapp::configText(settings));
    std::cout << "Wrote " << file << "\n";
    return 0;
  } catch (std::exception const& e) {
    std::cerr << "qxlite-cfg: " << e.what() << "\n";
    return 2;
  }
}
