#include "apps/ConfigFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace fs = boost::filesystem;

namespace qxapp {

namespace {

std::string systemError(std::string const& what, fs::path const& file, int err) {
  return what + " \"" + file.string() + "\": " + std::strerror(err);
}

void writeAll(int fd, std::string const& text, fs::path const& tmp) {
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t const n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw ConfigError(systemError("cannot write", tmp, errno));
    done += static_cast<std::size_t>(n);
  }
}

}  // namespace

json::Object readConfigObject(fs::path const& file) {
  // Plain descriptors: a stream would neither tell a folder from a file nor
  // report a failed read.
  int const fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return json::Object();
    throw ConfigError(systemError("cannot open", file, errno));
  }
  std::string all;
  try {
    struct stat st {};
    if (::fstat(fd, &st) != 0) throw ConfigError(systemError("cannot examine", file, errno));
    if (S_ISDIR(st.st_mode)) throw ConfigError("\"" + file.string() + "\" is a folder, not a configuration file");
    char buffer[65536];
    for (;;) {
      ssize_t const n = ::read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throw ConfigError(systemError("cannot read", file, errno));
      if (n == 0) break;
      all.append(buffer, static_cast<std::size_t>(n));
    }
  } catch (...) {
    ::close(fd);
    throw;
  }
  ::close(fd);
  try {
    return json::strToObject(all.data(), all.size());
  } catch (json::Exc const& e) {
    throw ConfigError("\"" + file.string() + "\" is not a JSON object: " + e.what());
  }
}

Settings settingsFromObject(json::Object const& obj, std::string const& what) {
  Settings settings{json::Object()};
  try {
    settings.deserialize(obj);
    // The caches still describe the default lists of the construction; the
    // rules must follow the lists just read.
    settings.IgnoredExtensionSet.clear();
    settings.SrvFileExtsSet.clear();
    settings.fix();
  } catch (std::runtime_error const& e) {
    throw ConfigError(what + " holds a value that is refused: " + e.what());
  }
  return settings;
}

std::string configText(Settings const& settings) {
  std::ostringstream text;
  text.iword(json::m_gOStreamSortedIdx) = 1;
  text << settings.serialize() << "\n";
  return text.str();
}

void writeConfigAtomically(fs::path const& file, std::string const& text) {
  writeFileAtomically(file, text, 0600, "configuration");
}

void writeFileAtomically(fs::path const& file, std::string const& text, mode_t mode, char const* what) {
  fs::path const tmp = file.string() + ".tmp";
  int const fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, mode);
  if (fd < 0) throw ConfigError(systemError("cannot create", tmp, errno));
  try {
    writeAll(fd, text, tmp);
    if (::fchmod(fd, mode) != 0 || ::fsync(fd) != 0) {
      throw ConfigError(systemError("cannot flush", tmp, errno));
    }
  } catch (...) {
    ::close(fd);
    ::unlink(tmp.c_str());
    throw;
  }
  if (::close(fd) != 0) {
    int const err = errno;
    ::unlink(tmp.c_str());
    throw ConfigError(systemError("cannot close", tmp, err));
  }
  if (::rename(tmp.c_str(), file.c_str()) != 0) {
    int const err = errno;
    ::unlink(tmp.c_str());
    throw ConfigError(systemError(std::string("cannot rename the new ") + what + " onto", file, err));
  }
  // The rename is durable once the folder is flushed too.
  int const dir = ::open(file.has_parent_path() ? file.parent_path().c_str() : ".",
                         O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
}

// The keys' meanings are marked for the desktop program's translations (its
// lupdate reads this file too); the mark leaves a text as it is.
#ifndef QT_TRANSLATE_NOOP
#define QT_TRANSLATE_NOOP(context, text) text
#endif

std::vector<ConfigKey> const& configKeyTable() {
  static std::vector<ConfigKey> const table{
      {"AccountId", "text", "", QT_TRANSLATE_NOOP("ConfigKey", "the account at the upload server that this node belongs to"), false},
      {"SpoolerId", "integer", "0", QT_TRANSLATE_NOOP("ConfigKey", "this node's id at the server"), false},
      {"KeyId", "integer", "0", QT_TRANSLATE_NOOP("ConfigKey", "id of the node's key pair at the server"), false},
      {"PublicKey", "text", "", QT_TRANSLATE_NOOP("ConfigKey", "the node's public key"), false},
      {"IgnoredExtension", "list of texts", "[\"noqx\",\"ds_store\",\"db\"]",
       QT_TRANSLATE_NOOP("ConfigKey", "file extensions that are never uploaded"), false},
      {"SrvFileExts", "list of texts", "[\"pdf\",\"ps\",\"xps\",\"oxps\",\"xml\",\"json\",\"js\",\"csv\",\"xls\",\"xlsx\",\"ods\",\"zip\",\"tar\",\"enm\",\"qxw\"]", QT_TRANSLATE_NOOP("ConfigKey", "file extensions that the server accepts"),
       false},
      {"ReceiveFolder", "text", "/var/spool/QXUpload/in", QT_TRANSLATE_NOOP("ConfigKey", "incoming folder: files dropped here are uploaded"), false},
      {"SpoolFolder", "text", "/var/spool/QXUpload/out", QT_TRANSLATE_NOOP("ConfigKey", "outgoing folder"), false},
      {"BackupExpireSecs", "integer", "0",
       QT_TRANSLATE_NOOP("ConfigKey", "backup of uploaded items: 0 off, 4294967295 kept for ever, else seconds until they expire"), false},
      {"BackupFolder", "text", "/var/spool/QXUpload/backup", QT_TRANSLATE_NOOP("ConfigKey", "backup folder (rejected files go to its .rejected)"),
       false},
      {"EnableLogging", "flag", "false", QT_TRANSLATE_NOOP("ConfigKey", "trace logging of the service"), false},
      {"AllowRemoteConfig", "flag", "false", QT_TRANSLATE_NOOP("ConfigKey", "whether remote clients may configure the service"), false},
      {"MinFilesToZip", "integer", "0",
       QT_TRANSLATE_NOOP("ConfigKey", "zip an upload from 10 plus this many files on (-7: from 3 files, 15: from 25)"), false},
      {"UseDirName", "flag", "false", QT_TRANSLATE_NOOP("ConfigKey", "use a dropped folder's name as the title of its upload"), false},
      {"ConcurrentUploads", "integer", "2", QT_TRANSLATE_NOOP("ConfigKey", "the most uploads that run at once"), false},
      {"IpcPort", "integer", "45654", QT_TRANSLATE_NOOP("ConfigKey", "TCP port between the client and the service"), false},
      {"MaxConnIdleSecs", "integer", "600", QT_TRANSLATE_NOOP("ConfigKey", "seconds a connection may stay idle"), false},
      {"IpcForceIP4", "flag", "false", QT_TRANSLATE_NOOP("ConfigKey", "use IPv4 only between the client and the service"), false},
      {"EnableCurlDbgLog", "flag", "false", QT_TRANSLATE_NOOP("ConfigKey", "debug tracing of the transfers to the server"), false},
      {"InetServer", "text", "", QT_TRANSLATE_NOOP("ConfigKey", "address of the upload server"), false},
      {"InetAltServer", "text", "", QT_TRANSLATE_NOOP("ConfigKey", "alternative address of the upload server"), false},
      {"InetUseProxy", "flag", "false", QT_TRANSLATE_NOOP("ConfigKey", "reach the server through a proxy"), false},
      {"InetProxy", "text", "", QT_TRANSLATE_NOOP("ConfigKey", "the proxy's address"), false},
      {"InetProxyTunnel", "flag", "false", QT_TRANSLATE_NOOP("ConfigKey", "tunnel through the proxy"), false},
      {"InetProxySocks", "flag", "false", QT_TRANSLATE_NOOP("ConfigKey", "the proxy speaks SOCKS5 (else HTTP)"), false},
      {"InetInsecureTls", "flag", "false", QT_TRANSLATE_NOOP("ConfigKey", "skip the check of the server's certificate"), false},
      {"InetProxyAuth", "text", "", QT_TRANSLATE_NOOP("ConfigKey", "how to authenticate at the proxy"), false},
      {"InetProxyUser", "text", "", QT_TRANSLATE_NOOP("ConfigKey", "user name at the proxy"), false},
      {"InetProxyPassword", "text", "", QT_TRANSLATE_NOOP("ConfigKey", "password at the proxy"), true},
      {"EmailSmtpUrl", "text", "", QT_TRANSLATE_NOOP("ConfigKey", "SMTP server for e-mail notices (none: no notices)"), false},
      {"EmailUser", "text", "", QT_TRANSLATE_NOOP("ConfigKey", "user name at the SMTP server"), false},
      {"EmailPassword", "text", "", QT_TRANSLATE_NOOP("ConfigKey", "password at the SMTP server"), true},
      {"EmailRequireTls", "flag", "false", QT_TRANSLATE_NOOP("ConfigKey", "require TLS with the SMTP server"), false},
      {"EmailNotifySuccess", "flag", "false", QT_TRANSLATE_NOOP("ConfigKey", "send an e-mail when an upload succeeds"), false},
      {"EmailNotifyFailure", "flag", "false", QT_TRANSLATE_NOOP("ConfigKey", "send an e-mail when an upload fails"), false},
      {"EmailFrom", "text", "", QT_TRANSLATE_NOOP("ConfigKey", "sender of the e-mail notices"), false},
      {"EmailTo", "text", "", QT_TRANSLATE_NOOP("ConfigKey", "recipient of the e-mail notices"), false},
  };
  return table;
}

std::set<std::string> const& configKeys() {
  static std::set<std::string> const keys = [] {
    std::set<std::string> names;
    for (ConfigKey const& k : configKeyTable()) names.insert(k.name);
    return names;
  }();
  return keys;
}

ConfigKey const* findConfigKey(std::string const& key) {
  for (ConfigKey const& k : configKeyTable()) {
    if (key == k.name) return &k;
  }
  return nullptr;
}

char const* const kExtensionListKeys[2] = {"IgnoredExtension", "SrvFileExts"};

std::optional<NonText> firstNonText(json::Object const& raw, char const* key) {
  json::Value const v = raw[key];
  if (v.empty()) return std::nullopt;
  if (!v.isArray()) return NonText{-1, v.type2String()};
  json::Array const list(v);
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (!list[i].isString()) return NonText{static_cast<long>(i), list[i].type2String()};
  }
  return std::nullopt;
}

std::string checkConfigValues(json::Object const& raw) {
  // The numbers with a range first: the range says the type too.
  struct Range {
    char const* key;
    json_int_t min;
    json_int_t max;
  };
  static Range const ranges[] = {
      {"IpcPort", 1, 65535},
      {"ConcurrentUploads", 1, 1024},
      {"MaxConnIdleSecs", 1, 4294967295LL},
      {"BackupExpireSecs", 0, 4294967295LL},
      {"MinFilesToZip", -10, 4294967285LL},
  };
  for (Range const& r : ranges) {
    json::Value const v = raw[r.key];
    if (v.empty()) continue;
    if (!v.isInteger() || v.asInt() < r.min || v.asInt() > r.max) {
      return std::string("\"") + r.key + "\" must be an integer from " + std::to_string(r.min) + " to " +
             std::to_string(r.max);
    }
  }
  // The type of every other key: the reader would pass over a wrong one
  // silently.
  for (ConfigKey const& key : configKeyTable()) {
    json::Value const v = raw[key.name];
    if (v.empty()) continue;
    std::string const type = key.type;
    bool const fits = type == "text"      ? v.isString()
                      : type == "integer" ? v.isInteger() || (std::string(key.name) == "SpoolerId" && v.isString())
                      : type == "flag"    ? json_is_boolean(v.get())
                                          : v.isArray();
    if (!fits) {
      return std::string("\"") + key.name + "\" must be " +
             (type == "text" ? "a text" : type == "integer" ? "an integer" : type == "flag" ? "true or false" : "a list of texts") +
             ", not " + v.type2String();
    }
  }
  // A folder name with a NUL byte would be cut short by the system calls.
  for (char const* key : {"ReceiveFolder", "SpoolFolder", "BackupFolder"}) {
    if (raw[key].asStringSafe().find('\0') != std::string::npos) {
      return std::string("\"") + key + "\" holds a NUL character";
    }
  }
  for (char const* key : kExtensionListKeys) {
    if (firstNonText(raw, key)) return std::string("\"") + key + "\" must be a list of texts";
  }
  return std::string();
}

Settings independentCopy(Settings const& settings) {
  Settings copy(settings);
  // The list assignment from a plain array takes a deep copy.
  copy.IgnoredExtension = static_cast<json::Array const&>(settings.IgnoredExtension);
  copy.SrvFileExts = static_cast<json::Array const&>(settings.SrvFileExts);
  return copy;
}


namespace {

std::string jsonText(json_t const* value) {
  char* text = json_dumps(value, JSON_ENCODE_ANY | JSON_COMPACT);
  std::string const result = text ? text : "?";
  std::free(text);
  return result;
}

// A value as JSON; one the record leaves out is its default.
std::string valueText(json::Value const& value, ConfigKey const& key) {
  if (value.empty()) return *key.defaultValue ? key.defaultValue : "(none)";
  return jsonText(value.get());
}

// A value as the file holds it: JSON, or "(absent)".
std::string fileValueText(json::Value const& value) { return value.empty() ? "(absent)" : jsonText(value.get()); }

// Keys of older files that the reader carries into a current key.
struct OlderKey {
  char const* name;
  char const* readInto;
};
constexpr OlderKey kOlderKeys[] = {
    {"BackupEnabled", "BackupExpireSecs"},
    {"SmtpHost", "EmailSmtpUrl"},
    {"SmtpPort", "EmailSmtpUrl"},
};

}  // namespace

std::vector<std::string> normalisingChanges(json::Object const& raw, Settings const& settings) {
  json::Object const normal = settings.serialize();
  std::vector<std::string> changes;
  for (ConfigKey const& key : configKeyTable()) {
    json::Value const was = raw[key.name];
    json::Value const is = normal[key.name];
    if (!was.empty() && !is.empty() && json_equal(was.get(), is.get())) continue;
    if (was.empty() && is.empty()) continue;
    std::string const old = key.secret && !was.empty() ? "***" : fileValueText(was);
    std::string const now = is.empty() ? "(removed: the default)" : key.secret ? "***" : fileValueText(is);
    changes.push_back(std::string(key.name) + ": " + old + " \u2192 " + now);
  }
  char const* name;
  json_t* value;
  json_object_foreach(raw.get(), name, value) {
    if (findConfigKey(name)) continue;
    std::string why = "not a configuration key";
    for (OlderKey const& older : kOlderKeys) {
      if (std::strcmp(older.name, name) == 0) why = std::string("an older key, read into \"") + older.readInto + "\"";
    }
    changes.push_back(std::string(name) + ": " + jsonText(value) + " \u2192 (removed: " + why + ")");
  }
  return changes;
}

std::vector<std::string> configChanges(Settings const& before, Settings const& after) {
  json::Object const was = before.serialize();
  json::Object const is = after.serialize();
  std::vector<std::string> changes;
  for (ConfigKey const& key : configKeyTable()) {
    std::string const old = valueText(was[key.name], key);
    std::string const now = valueText(is[key.name], key);
    if (old == now) continue;
    changes.push_back(std::string(key.name) + ": " + (key.secret ? "***" : old) + " \u2192 " + (key.secret ? "***" : now));
  }
  return changes;
}

}  // namespace qxapp
