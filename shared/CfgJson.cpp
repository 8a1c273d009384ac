#include "shared/CfgJson.h"

#include <cctype>

namespace qx {
namespace cfgjson {

std::string checkAddressPort(std::string const& address) {
  std::string rest = address;
  std::string::size_type const scheme = rest.find("://");
  if (scheme != std::string::npos) rest.erase(0, scheme + 3);
  rest = rest.substr(0, rest.find('/'));
  std::string::size_type const at = rest.rfind('@');  // user:password@host
  if (at != std::string::npos) rest.erase(0, at + 1);

  std::string port;
  bool hasPort = false;
  if (!rest.empty() && rest[0] == '[') {
    std::string::size_type const close = rest.find(']');
    if (close == std::string::npos) return "the IPv6 address has no closing ']'";
    if (close + 1 < rest.size()) {
      if (rest[close + 1] != ':') return "unexpected text after the IPv6 address";
      hasPort = true;
      port = rest.substr(close + 2);
    }
  } else {
    std::string::size_type const colon = rest.find(':');
    // More than one colon without brackets: a bare IPv6 address, no port.
    if (colon != std::string::npos && rest.find(':', colon + 1) == std::string::npos) {
      hasPort = true;
      port = rest.substr(colon + 1);
    }
  }
  if (!hasPort) return std::string();
  bool digits = !port.empty() && port.size() <= 5;
  for (char c : port) digits = digits && std::isdigit(static_cast<unsigned char>(c));
  if (!digits || std::stoul(port) < 1 || std::stoul(port) > 65535) {
    return "port \"" + port + "\" is not a number from 1 to 65535";
  }
  return std::string();
}

}  // namespace cfgjson
}  // namespace qx
