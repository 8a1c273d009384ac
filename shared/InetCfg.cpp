#include "shared/InetCfg.h"

#include "shared/CfgJson.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace Inet {

namespace {

using Method = InetCfg::ProxyAuthMethod;
using namespace qx::cfgjson;

struct AuthName {
  Method method;
  char const* name;
};
constexpr AuthName kAuthNames[] = {
    {Method::None, "none"},           {Method::Basic, "basic"}, {Method::Digest, "digest"},
    {Method::Ntlm, "ntlm"},           {Method::Negotiate, "negotiate"},
    {Method::Any, "any"},
};

constexpr char kServer[] = "InetServer";
constexpr char kAltServer[] = "InetAltServer";
constexpr char kUseProxy[] = "InetUseProxy";
constexpr char kProxy[] = "InetProxy";
constexpr char kProxyTunnel[] = "InetProxyTunnel";
constexpr char kProxySocks[] = "InetProxySocks";
constexpr char kInsecureTls[] = "InetInsecureTls";
constexpr char kProxyAuth[] = "InetProxyAuth";
constexpr char kProxyUser[] = "InetProxyUser";
constexpr char kProxyPassword[] = "InetProxyPassword";

}  // namespace

InetCfg::InetCfg(std::string version) : m_version(std::move(version)) {}

InetCfg::InetCfg(std::string const& serverAddress, std::string const& altServerAddress,
                 bool useProxy, std::string const& proxyAddress, bool proxyTunnel,
                 bool proxySocks, bool insecureTls, ProxyAuthMethod proxyAuth,
                 std::string const& proxyUser, std::string const& proxyPassword,
                 std::string const& version)
    : m_serverAddress(serverAddress),
      m_altServerAddress(altServerAddress),
      m_useProxy(useProxy),
      m_proxyAddress(proxyAddress),
      m_proxyTunnel(proxyTunnel),
      m_proxySocks(proxySocks),
      m_insecureTls(insecureTls),
      m_proxyAuth(proxyAuth),
      m_proxyUser(proxyUser),
      m_proxyPassword(proxyPassword),
      m_version(version) {
  std::string const why = checkAddressPort(proxyAddress);
  if (!why.empty()) {
    throw std::invalid_argument("Inet: proxy address \"" + proxyAddress + "\": " + why);
  }
}

char const* InetCfg::proxyAuthName(ProxyAuthMethod method) {
  for (AuthName const& a : kAuthNames) {
    if (a.method == method) return a.name;
  }
  return "unknown";
}

void InetCfg::serialize(json::Object& obj) const {
  putText(obj, kServer, m_serverAddress);
  putText(obj, kAltServer, m_altServerAddress);
  putFlag(obj, kUseProxy, m_useProxy);
  putText(obj, kProxy, m_proxyAddress);
  putFlag(obj, kProxyTunnel, m_proxyTunnel);
  putFlag(obj, kProxySocks, m_proxySocks);
  putFlag(obj, kInsecureTls, m_insecureTls);
  if (m_proxyAuth != Method::None) obj.setAt(kProxyAuth, json::Value(proxyAuthName(m_proxyAuth)));
  putText(obj, kProxyUser, m_proxyUser);
  putText(obj, kProxyPassword, m_proxyPassword);
}

void InetCfg::deserialize(json::Object const& obj) {
  std::string const proxy = getText(obj, kProxy);
  std::string const why = checkAddressPort(proxy);
  if (!why.empty()) {
    throw json::Exc("Inet: \"" + std::string(kProxy) + "\" \"" + proxy + "\": " + why);
  }
  Method auth = Method::None;
  std::string const authName = getText(obj, kProxyAuth);
  if (!authName.empty()) {
    auto const found = std::find_if(std::begin(kAuthNames), std::end(kAuthNames),
                                    [&](AuthName const& a) { return authName == a.name; });
    if (found == std::end(kAuthNames)) {
      throw json::Exc("Inet: \"" + std::string(kProxyAuth) + "\" \"" + authName +
                      "\" is not one of none, basic, digest, ntlm, negotiate, any");
    }
    auth = found->method;
  }
  m_serverAddress = getText(obj, kServer);
  m_altServerAddress = getText(obj, kAltServer);
  m_useProxy = getFlag(obj, kUseProxy);
  m_proxyAddress = proxy;
  m_proxyTunnel = getFlag(obj, kProxyTunnel);
  m_proxySocks = getFlag(obj, kProxySocks);
  m_insecureTls = getFlag(obj, kInsecureTls);
  m_proxyAuth = auth;
  m_proxyUser = getText(obj, kProxyUser);
  m_proxyPassword = getText(obj, kProxyPassword);
}

bool InetCfg::operator==(InetCfg const& o) const {
  return m_serverAddress == o.m_serverAddress && m_altServerAddress == o.m_altServerAddress &&
         m_useProxy == o.m_useProxy && m_proxyAddress == o.m_proxyAddress &&
         m_proxyTunnel == o.m_proxyTunnel && m_proxySocks == o.m_proxySocks &&
         m_insecureTls == o.m_insecureTls && m_proxyAuth == o.m_proxyAuth &&
         m_proxyUser == o.m_proxyUser && m_proxyPassword == o.m_proxyPassword;
}

std::string InetCfg::dump() const {
  std::string out;
  out += "Server address: " + m_serverAddress + "\n";
  out += "Alternative server address: " + m_altServerAddress + "\n";
  if (!m_useProxy) {
    out += "Proxy: not used\n";
  } else {
    out += "Proxy: " + m_proxyAddress + (m_proxySocks ? " (SOCKS5)" : " (HTTP)") +
           (m_proxyTunnel ? ", tunnelled\n" : "\n");
    out += std::string("Proxy authentication: ") + proxyAuthName(m_proxyAuth) + "\n";
    out += "Proxy user: " + m_proxyUser + "\n";
    out += std::string("Proxy password: ") + (m_proxyPassword.empty() ? "not set" : "set") + "\n";
  }
  out += std::string("Server certificate check: ") + (m_insecureTls ? "off" : "on") + "\n";
  return out;
}

}  // namespace Inet
