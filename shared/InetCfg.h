/// \file
/// Inet::InetCfg: how the service reaches the upload server.
///
/// The record holds the server address and an alternative one (tried when the
/// first does not answer), the proxy settings and the program's version text
/// (sent to the server; never written to the configuration).
///
/// Its JSON form shares one flat object with other records' keys, so every key
/// begins with "Inet". The form is sparse: a member is written only when it
/// differs from the default of InetCfg(version). deserialize() reads every key,
/// missing ones giving their default, and throws json::Exc on a value that it
/// refuses: a proxy address whose port is not 1 to 65535, or an unknown proxy
/// authentication method.
///
/// Keys: "InetServer", "InetAltServer" (texts), "InetUseProxy",
/// "InetProxyTunnel", "InetProxySocks", "InetInsecureTls" (true when set),
/// "InetProxy" ("host" or "host:port"), "InetProxyAuth" ("basic", "digest",
/// "ntlm", "negotiate", "any"; missing means none), "InetProxyUser",
/// "InetProxyPassword".
///
/// A plain value: copyable; no locks; one thread at a time.
#ifndef QX_SHARED_INETCFG_H
#define QX_SHARED_INETCFG_H

#include "json/Json.h"

#include <string>

/// How the service reaches other servers: the upload server and e-mail.
namespace Inet {

/// The upload server's addresses and the proxy (see the file's contract).
class QX_SHARED_API InetCfg {
 public:
  /// How the service authenticates at the proxy; Any lets the proxy choose.
  enum class ProxyAuthMethod { None, Basic, Digest, Ntlm, Negotiate, Any };

  /// Defaults: no server address, no proxy, certificate checks on.
  explicit InetCfg(std::string version);
  /// Throws std::invalid_argument when proxyAddress has a port outside 1 to
  /// 65535.
  InetCfg(std::string const& serverAddress, std::string const& altServerAddress, bool useProxy,
          std::string const& proxyAddress, bool proxyTunnel, bool proxySocks, bool insecureTls,
          ProxyAuthMethod proxyAuth, std::string const& proxyUser,
          std::string const& proxyPassword, std::string const& version);

  /// Writes the record's keys into obj (sparse; other keys stay).
  void serialize(json::Object& obj) const;
  /// Reads every key of the record from obj (see the file's contract).
  void deserialize(json::Object const& obj);

  /// Compares every member but the version text.
  bool operator==(InetCfg const& other) const;
  /// Not equal as operator== compares.
  bool operator!=(InetCfg const& other) const { return !(*this == other); }

  /// Lines of a label and a value, each ending in a line feed. The proxy
  /// password is never shown, only whether one is set.
  std::string dump() const;

  ///@{
  /// The upload server's address ("InetServer").
  std::string const& serverAddress() const { return m_serverAddress; }
  void setServerAddress(std::string address) { m_serverAddress = std::move(address); }
  ///@}
  ///@{
  /// The address tried every other time after a failure ("InetAltServer").
  std::string const& altServerAddress() const { return m_altServerAddress; }
  void setAltServerAddress(std::string address) { m_altServerAddress = std::move(address); }
  ///@}
  /// Whether the server is reached through the proxy ("InetUseProxy").
  bool useProxy() const { return m_useProxy; }
  /// "host" or "host:port" ("InetProxy").
  std::string const& proxyAddress() const { return m_proxyAddress; }
  /// Tunnel through the proxy with HTTP CONNECT ("InetProxyTunnel").
  bool proxyTunnel() const { return m_proxyTunnel; }
  /// The proxy speaks SOCKS5, not HTTP ("InetProxySocks").
  bool proxySocks() const { return m_proxySocks; }
  /// Skip the check of the server's certificate ("InetInsecureTls").
  bool insecureTls() const { return m_insecureTls; }
  /// How to authenticate at the proxy ("InetProxyAuth").
  ProxyAuthMethod proxyAuth() const { return m_proxyAuth; }
  /// The user name at the proxy ("InetProxyUser").
  std::string const& proxyUser() const { return m_proxyUser; }
  /// The password at the proxy ("InetProxyPassword").
  std::string const& proxyPassword() const { return m_proxyPassword; }
  /// The program's version text, sent to the server; never in the JSON form.
  std::string const& version() const { return m_version; }

  /// "none", "basic", ...; the name used in the JSON form.
  static char const* proxyAuthName(ProxyAuthMethod method);

 private:
  std::string m_serverAddress;
  std::string m_altServerAddress;
  bool m_useProxy = false;
  std::string m_proxyAddress;   ///< "host" or "host:port"
  bool m_proxyTunnel = false;   ///< tunnel through the proxy (HTTP CONNECT)
  bool m_proxySocks = false;    ///< the proxy speaks SOCKS5, not HTTP
  bool m_insecureTls = false;   ///< skip the server's certificate check
  ProxyAuthMethod m_proxyAuth = ProxyAuthMethod::None;
  std::string m_proxyUser;
  std::string m_proxyPassword;
  std::string m_version;
};

}  // namespace Inet

#endif  // QX_SHARED_INETCFG_H
