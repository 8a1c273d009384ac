// Command-line pieces that the programs share.
//
// portNumber(lowest) checks a port option's value: a decimal number from
// lowest to 65535. Its refusal reads `"abc" is not a port number from 1 to
// 65535`, which CLI11 prefixes with the option's name.
#ifndef QX_APPS_COMMANDLINE_H
#define QX_APPS_COMMANDLINE_H

#include <CLI/CLI.hpp>

#include <string>

namespace qxapp {

inline CLI::Validator portNumber(int lowest) {
  return CLI::Validator(
      [lowest](std::string& value) -> std::string {
        // No sign, no leading zero (the parser would read it as octal).
        bool digits = !value.empty() && value.size() <= 5 && (value.size() == 1 || value[0] != '0');
        for (char const c : value) digits = digits && c >= '0' && c <= '9';
        if (digits && std::stoi(value) >= lowest && std::stoi(value) <= 65535) return std::string();
        return "\"" + value + "\" is not a port number from " + std::to_string(lowest) + " to 65535";
      },
      "PORT");
}

}  // namespace qxapp

#endif  // QX_APPS_COMMANDLINE_H
