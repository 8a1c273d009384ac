// How the examples find the service: the options --port PORT and
// --token-file FILE, given as the service was started (without them, the
// standard port 45654 and the token file where a client looks by default),
// and the client options and token that follow from them.
//
// Header-only, so that a copy of an example needs nothing else from here.
#ifndef QX_EXAMPLES_SERVICEOPTIONS_H
#define QX_EXAMPLES_SERVICEOPTIONS_H

#include <settings/Settings.h>
#include <shared/CmdClient.h>
#include <shared/SecretToken.h>

#include <boost/filesystem/path.hpp>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace qxexample {

struct ServiceOptions {
  std::uint16_t port = IPC_DEFAULT_SVC_PORT;
  boost::filesystem::path tokenFile = Ipc::SecretToken::clientDefaultPath();
  std::vector<std::string> arguments;  // what is left after the options
};

// Reads --port and --token-file from the command line; throws
// std::invalid_argument with a message that names the option.
inline ServiceOptions parseServiceOptions(int argc, char** argv) {
  ServiceOptions options;
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    if (arg != "--port" && arg != "--token-file") {
      options.arguments.push_back(arg);
      continue;
    }
    if (i + 1 == argc) throw std::invalid_argument(arg + " needs a value");
    std::string const value = argv[++i];
    if (arg == "--token-file") {
      options.tokenFile = value;
      continue;
    }
    std::size_t used = 0;
    unsigned long port = 0;
    try {
      port = std::stoul(value, &used);
    } catch (std::exception const&) {
      used = 0;
    }
    if (used == 0 || used != value.size() || port < 1 || port > 65535) {
      throw std::invalid_argument("--port: \"" + value + "\" is not a port number from 1 to 65535");
    }
    options.port = static_cast<std::uint16_t>(port);
  }
  return options;
}

inline Ipc::CmdClientOptions clientOptions(ServiceOptions const& service) {
  Ipc::CmdClientOptions options;
  options.port = service.port;
  // Named in the error when the service on the port cannot prove the token.
  options.tokenFile = service.tokenFile.string();
  return options;
}

}  // namespace qxexample

#endif  // QX_EXAMPLES_SERVICEOPTIONS_H
