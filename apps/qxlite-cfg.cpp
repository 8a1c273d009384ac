// qxlite-cfg FILE: reads a configuration file, prints its report, and writes
// the normalised sparse form back.
//
// A value that the configuration reader refuses is an error (exit status 2)
// and leaves the file untouched: the program never replaces a configuration
// by defaults. A missing file is read as an empty object, so the program
// creates a configuration of defaults. The file is replaced atomically: the
// new text goes to a temporary file beside it, is flushed to disk, and is
// renamed over the old one with mode 0600 (it may hold passwords).
#include "json/Json.h"
#include "settings/Settings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace fs = boost::filesystem;

namespace {

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::string systemError(std::string const& what, fs::path const& file) {
  return what + " \"" + file.string() + "\": " + std::strerror(errno);
}

json::Object readConfig(fs::path const& file) {
  std::ifstream in(file.string(), std::ios::binary);
  if (!in) {
    if (errno == ENOENT) return json::Object();
    throw Failure(systemError("cannot open", file));
  }
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) throw Failure(systemError("cannot read", file));
  std::string const all = text.str();
  try {
    return json::strToObject(all.data(), all.size());
  } catch (json::Exc const& e) {
    throw Failure("\"" + file.string() + "\" is not a JSON object: " + e.what());
  }
}

void writeAll(int fd, std::string const& text, fs::path const& tmp) {
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t const n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw Failure(systemError("cannot write", tmp));
    done += static_cast<std::size_t>(n);
  }
}

void replaceFile(fs::path const& file, std::string const& text) {
  fs::path const tmp = file.string() + ".tmp";
  int const fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) throw Failure(systemError("cannot create", tmp));
  try {
    writeAll(fd, text, tmp);
    if (::fchmod(fd, 0600) != 0 || ::fsync(fd) != 0) throw Failure(systemError("cannot flush", tmp));
  } catch (...) {
    ::close(fd);
    ::unlink(tmp.c_str());
    throw;
  }
  if (::close(fd) != 0) {
    ::unlink(tmp.c_str());
    throw Failure(systemError("cannot close", tmp));
  }
  if (::rename(tmp.c_str(), file.c_str()) != 0) {
    std::string const why = systemError("cannot rename the new configuration onto", file);
    ::unlink(tmp.c_str());
    throw Failure(why);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h") {
    std::cerr << "usage: qxlite-cfg FILE\n"
                 "Reads the configuration FILE (a JSON object; a missing file means defaults),\n"
                 "prints its report and writes the normalised sparse form back.\n";
    return argc == 2 ? 0 : 1;
  }
  fs::path const file(argv[1]);
  try {
    json::Object const obj = readConfig(file);
    Settings settings{json::Object()};
    try {
      settings.deserialize(obj);
    } catch (std::runtime_error const& e) {
      throw Failure("\"" + file.string() + "\" holds a value that is refused: " + e.what());
    }
    // The record's extension caches still describe the default lists that
    // its construction read; the rules must see the lists just read.
    settings.IgnoredExtensionSet.clear();
    settings.SrvFileExtsSet.clear();
    settings.fix();
    std::cout << settings.dump();
    std::ostringstream text;
    text.iword(json::m_gOStreamSortedIdx) = 1;
    text << settings.serialize() << "\n";
    replaceFile(file, text.str());
    std::cout << "Wrote " << file << "\n";
    return 0;
  } catch (Failure const& e) {
    std::cerr << "qxlite-cfg: " << e.what() << "\n";
    return 2;
  } catch (std::exception const& e) {
    std::cerr << "qxlite-cfg: \"" << file.string() << "\": " << e.what() << "\n";
    return 2;
  }
}
