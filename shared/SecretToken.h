/// \file
/// Ipc::SecretToken: the secret that every IPC connection must prove first.
///
/// The service creates a random 256-bit token at its first start, in a file
/// that only its owner (mode 0600) or also one named group (mode 0640) may
/// read, so that exactly those users may drive it. Clients read the same file.
/// The file holds the token as 64 hexadecimal digits and a line feed.
///
/// Comparison takes the same time whatever the bytes. A plain value; no locks.
#ifndef QX_SHARED_SECRETTOKEN_H
#define QX_SHARED_SECRETTOKEN_H

#include "json/Export.h"

#include <boost/filesystem/path.hpp>

#include <array>
#include <cstddef>
#include <string>

namespace Ipc {

/// The IPC's secret token (see the file's contract).
class QX_SHARED_API SecretToken {
 public:
  /// The token's length in bytes.
  static constexpr std::size_t SIZE = 32;

  /// A new random token (getrandom).
  static SecretToken generate();
  /// Service: reads the token file, or creates it (and its folder) with a new
  /// token. Either way the file ends with mode 0600, or 0640 and the group
  /// named. Throws std::runtime_error naming the file when it cannot be made
  /// or read, is malformed, is a symbolic link, or belongs to another user;
  /// and naming the group when it does not exist.
  static SecretToken loadOrCreate(boost::filesystem::path const& file,
                                  std::string const& group = std::string());
  /// Client: reads the token file; throws std::runtime_error naming it.
  static SecretToken load(boost::filesystem::path const& file);

  /// The service's token file: the platform's configuration directory /
  /// "QXLite" / "ipc.token".
  static boost::filesystem::path defaultPath();
  /// Where a client looks without being told: defaultPath() when that file
  /// exists, otherwise the file of a service that runs as root,
  /// "/etc/QXLite/ipc.token".
  static boost::filesystem::path clientDefaultPath();

  /// Constant-time comparison with SIZE bytes.
  bool matches(unsigned char const* candidate) const;
  /// The SIZE bytes of the token.
  unsigned char const* data() const { return m_bytes.data(); }

 private:
  SecretToken() = default;
  std::array<unsigned char, SIZE> m_bytes{};
};

}  // namespace Ipc

#endif  // QX_SHARED_SECRETTOKEN_H
