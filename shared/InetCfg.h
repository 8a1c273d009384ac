// Inet::InetCfg: how the service reaches the upload server.
//
// The record holds the server address and an alternative one (tried when the
// first does not answer), the proxy settings and the program's version text
// (sent to the server; never written to the configuration).
//
// Its JSON form shares one flat object with other records' keys, so every key
// begins with "Inet". The form is sparse: a member is written only when it
// differs from the default of InetCfg(version). deserialize() reads every key,
// missing ones giving their default, and throws json::Exc on a value that it
// refuses: a proxy address whose port is not 1 to 65535, or an unknown proxy
// authentication method.
//
// Keys: "InetServer", "InetAltServer" (texts), "InetUseProxy",
// "InetProxyTunnel", "InetProxySocks", "InetInsecureTls" (true when set),
// "InetProxy" ("host" or "host:port"), "InetProxyAuth" ("basic", "digest",
// "ntlm", "negotiate", "any"; missing means none), "InetProxyUser",
// "InetProxyPassword".
//
// A plain value: copyable; no locks; one thread at a time.
#ifndef QX_SHARED_INETCFG_H
#define QX_SHARED_INETCFG_H

#include "json/Json.h"

#include <string>

namespace Inet {

class QX_SHARED_API InetCfg {
 public:
  enum class ProxyAuthMethod { None, Basic, Digest, Ntlm, Negotiate, Any };

  // Defaults: no server address, no proxy, certificate checks on.
  explicit InetCfg(std::string version);
  // Throws std::invalid_argument when proxyAddress has a port outside 1 to
  // 65535.
  InetCfg(std::string const& serverAddress, std::string const& altServerAddress, bool useProxy,
          std::string const& proxyAddress, bool proxyTunnel, bool proxySocks, bool insecureTls,
          ProxyAuthMethod proxyAuth, std::string const& proxyUser,
          std::string const& proxyPassword, std::string const& version);

  void serialize(json::Object& obj) const;
  void deserialize(json::Object const& obj);

  // Compares every member but the version text.
  bool operator==(InetCfg const& other) const;
  bool operator!=(InetCfg const& other) const { return !(*this == other); }

  // Lines of a label and a value, each ending in a line feed. The proxy
  // password is never shown, only whether one is set.
  std::string dump() const;

  std::string const& serverAddress() const { return m_serverAddress; }
  void setServerAddress(std::string address) { m_serverAddress = std::move(address); }
  std::string const& altServerAddress() const { return m_altServerAddress; }
  void setAltServerAddress(std::string address) { m_altServerAddress = std::move(address); }
  bool useProxy() const { return m_useProxy; }
  std::string const& proxyAddress() const { return m_proxyAddress; }
  bool proxyTunnel() const { return m_proxyTunnel; }
  bool proxySocks() const { return m_proxySocks; }
  bool insecureTls() const { return m_insecureTls; }
  ProxyAuthMethod proxyAuth() const { return m_proxyAuth; }
  std::string const& proxyUser() const { return m_proxyUser; }
  std::string const& proxyPassword() const { return m_proxyPassword; }
  std::string const& version() const { return m_version; }

  // "none", "basic", ...; the name used in the JSON form.
  static char const* proxyAuthName(ProxyAuthMethod method);

 private:
  std::string m_serverAddress;
  std::string m_altServerAddress;
  bool m_useProxy = false;
  std::string m_proxyAddress;   // "host" or "host:port"
  bool m_proxyTunnel = false;   // tunnel through the proxy (HTTP CONNECT)
  bool m_proxySocks = false;    // the proxy speaks SOCKS5, not HTTP
  bool m_insecureTls = false;   // skip the server's certificate check
  ProxyAuthMethod m_proxyAuth = ProxyAuthMethod::None;
  std::string m_proxyUser;
  std::string m_proxyPassword;
  std::string m_version;
};

}  // namespace Inet

#endif  // QX_SHARED_INETCFG_H
