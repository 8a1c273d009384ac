#include "settings/Settings.h"

#include "shared/Log.h"
#include "shared/Platform.h"
#include "shared/Service.h"

#include <boost/filesystem/operations.hpp>

#include <locale>
#include <sstream>
#include <vector>

namespace fs = boost::filesystem;

const long long Settings::INVALID_NODE_ID;

// Built when the library is loaded, before the units of the IPC commands.
std::string const Settings::RESERVED_IGNORED_EXT = "noqx";
std::unordered_set<std::string> const Settings::INDIR_BAD_EXTS = {"zip", "enm"};

namespace {

constexpr std::uint32_t kBackupNeverExpires = 0xFFFFFFFFu;
constexpr std::uint32_t kDefaultMinFilesToZip = 10;
constexpr std::size_t kDefaultConcurrentUploads = 2;
constexpr std::uint32_t kDefaultMaxConnIdleSecs = 600;
constexpr char kRejectedDirName[] = ".rejected";
constexpr char kDefaultSrvFileExts[] =
    R"(["pdf","ps","xps","oxps","xml","json","js","csv","xls","xlsx","ods","zip","tar","enm","qxw"])";

fs::path const& DEFAULT_INCOMING_DIR() {
  static fs::path const dir("/var/spool/QXUpload/in");
  return dir;
}
fs::path const& DEFAULT_OUTGOING_DIR() {
  static fs::path const dir("/var/spool/QXUpload/out");
  return dir;
}
fs::path const& DEFAULT_BACKUP_DIR() {
  static fs::path const dir("/var/spool/QXUpload/backup");
  return dir;
}

// An integer node, or decimal text read as a stream reads a long long
// (leading blanks skipped, trailing text ignored, saturating on overflow);
// anything else gives 0.
long long jsonNumberOrStr(json::Value v) {
  if (v.isInteger()) return json_integer_value(v.get());
  std::string const text = v.asStringSafe();
  if (text.empty()) return 0;
  long long n = 0;
  std::istringstream in(text);
  in >> n;
  return n;
}

// jansson's integer reading: 0 for anything that is not an integer node.
json_int_t integerOrZero(json::Object const& obj, char const* key) {
  return json_integer_value(obj[key].get());
}

void add2OutReconfMsg(std::string& out, std::string const& msg) {
  out += out.empty() ? "Reconfigured settings: " : "; ";
  out += msg;
}

std::string normalisedExt(fs::path const& p) {
  return Settings::fixExtForSet(p.extension().string());
}

}  // namespace

// ---------------------------------------------------------------------------
// Record

Settings::CfgFileExts& Settings::CfgFileExts::operator=(json::Array const& arr) {
  json::Array copy = arr.deepCopy();
  if (!copy.isArray()) copy.onCastErr("array");
  json::Array::operator=(std::move(copy));
  return *this;
}

Settings::Settings(std::string const& accountId, std::string const& nodeId, long long keyId,
                   std::string const& publicKey, CfgFileExts&& ignoredExtension,
                   CfgFileExts&& srvFileExts, fs::path const& receiveFolder,
                   fs::path const& spoolFolder, std::string const& serverAddress,
                   std::string const& altServerAddress, bool useProxy,
                   std::string const& proxyAddress, bool proxyTunnel, bool proxySocks,
                   bool insecureTls, Inet::InetCfg::ProxyAuthMethod proxyAuth,
                   std::string const& proxyUser, std::string const& proxyPassword,
                   unsigned int backupExpireSecs, fs::path const& backupFolder,
                   bool enableLogging, bool allowRemoteConfig, unsigned int minFilesToZip,
                   bool useDirName, std::string const& smtpUrl, std::string const& smtpUser,
                   std::string const& smtpPassword, bool smtpRequireTls, bool notifySuccess,
                   bool notifyFailure, std::string const& mailFrom, std::string const& mailTo)
    : AccountId(accountId),
      SpoolerId(INVALID_NODE_ID),
      KeyId(keyId),
      PublicKey(publicKey),
      IgnoredExtension(std::move(ignoredExtension)),
      SrvFileExts(std::move(srvFileExts)),
      ReceiveFolder(receiveFolder),
      SpoolFolder(spoolFolder),
      InetConfig(serverAddress, altServerAddress, useProxy, proxyAddress, proxyTunnel, proxySocks,
                 insecureTls, proxyAuth, proxyUser, proxyPassword, LITE_VERSION_STR),
      EmailConfig(smtpUrl, smtpUser, smtpPassword, smtpRequireTls, notifySuccess, notifyFailure,
                  mailFrom, mailTo),
      BackupExpireSecs(backupExpireSecs),
      BackupFolder(backupFolder),
      EnableLogging(enableLogging),
      AllowRemoteConfig(allowRemoteConfig),
      MinFilesToZip(minFilesToZip),
      UseDirName(useDirName),
      ConcurrentUploads(kDefaultConcurrentUploads),
      IpcPort(IPC_DEFAULT_SVC_PORT),
      IpcForceIP4(false),
      MaxConnIdleSecs(kDefaultMaxConnIdleSecs),
      EnableCurlDbgLog(false) {
  // The node id goes through the text parsing of jsonNumberOrStr on purpose:
  // an empty text gives 0, and only "-1" gives an unregistered record.
  setNodeId(json::Value(nodeId));
  fix();
}

Settings::Settings(json::Object const& obj)
    : SpoolerId(INVALID_NODE_ID),
      KeyId(0),
      InetConfig(LITE_VERSION_STR),
      BackupExpireSecs(0),
      EnableLogging(false),
      AllowRemoteConfig(false),
      MinFilesToZip(kDefaultMinFilesToZip),
      UseDirName(false),
      ConcurrentUploads(kDefaultConcurrentUploads),
      IpcPort(IPC_DEFAULT_SVC_PORT),
      IpcForceIP4(false),
      MaxConnIdleSecs(kDefaultMaxConnIdleSecs),
      EnableCurlDbgLog(false) {
  try {
    deserialize(obj);
  } catch (std::runtime_error const& e) {
    {
      boost::lock_guard<boost::mutex> lock(Log::inst().mutex());
      Log::inst().logStreamStartLine()
          << "ERR:" << "Failed to deserialize settings from \""
          << json::jsonToString<json::Object>(obj, false) << "\"!Error: " << e.what()
          << std::endl;
    }
    SpoolerId = INVALID_NODE_ID;
  }
  fix();
}

bool Settings::operator==(Settings const& o) const {
  return AccountId == o.AccountId && SpoolerId == o.SpoolerId && KeyId == o.KeyId &&
         PublicKey == o.PublicKey && IgnoredExtension == o.IgnoredExtension &&
         SrvFileExts == o.SrvFileExts && ReceiveFolder == o.ReceiveFolder &&
         SpoolFolder == o.SpoolFolder && InetConfig == o.InetConfig &&
         EmailConfig == o.EmailConfig && BackupExpireSecs == o.BackupExpireSecs &&
         BackupFolder == o.BackupFolder && RejectedFolder == o.RejectedFolder &&
         EnableLogging == o.EnableLogging && AllowRemoteConfig == o.AllowRemoteConfig &&
         MinFilesToZip == o.MinFilesToZip && UseDirName == o.UseDirName &&
         ConcurrentUploads == o.ConcurrentUploads && IpcPort == o.IpcPort &&
         IpcForceIP4 == o.IpcForceIP4 && MaxConnIdleSecs == o.MaxConnIdleSecs &&
         EnableCurlDbgLog == o.EnableCurlDbgLog;
}

std::string Settings::strNodeId() const {
  std::ostringstream os;
  os << SpoolerId;
  return os.str();
}

std::string Settings::strKeyId() const {
  std::ostringstream os;
  os << KeyId;
  return os.str();
}

void Settings::setNodeId(json::Value const& v) { SpoolerId = jsonNumberOrStr(v); }

void Settings::setKeyId(json::Value const& v) { KeyId = jsonNumberOrStr(v); }

std::string Settings::IPC_DEFAULT_SVC_PORT_STR() {
  std::ostringstream os;
  os << static_cast<unsigned int>(IPC_DEFAULT_SVC_PORT);
  return os.str();
}

void Settings::fix() {
  static std::vector<std::string> const DEF_IGN_EXTS{RESERVED_IGNORED_EXT, "ds_store", "db"};

  // The reserved extension marks a list that already had its defaults added:
  // a user who removed "ds_store" or "db" from it keeps it that way.
  if (!isIgnoredExtension(fs::path("." + RESERVED_IGNORED_EXT))) {
    for (std::string const& ext : DEF_IGN_EXTS) {
      IgnoredExtension.append(json::Value(ext));
      IgnoredExtensionSet.insert(ext);
    }
  }
  if (ReceiveFolder.empty()) ReceiveFolder = DEFAULT_INCOMING_DIR();
  if (SpoolFolder.empty()) SpoolFolder = DEFAULT_OUTGOING_DIR();
  if (BackupFolder.empty()) BackupFolder = DEFAULT_BACKUP_DIR();
  RejectedFolder = BackupFolder;
  RejectedFolder /= kRejectedDirName;
  if (SrvFileExts.size() == 0) {
    SrvFileExts = json::strToArray(kDefaultSrvFileExts, sizeof kDefaultSrvFileExts - 1);
  }
}

// ---------------------------------------------------------------------------
// Configuration file form

fs::path const& Settings::OLD_CFG_FILE_PATH() {
  static fs::path const file = [] {
    Platform const& platform = Platform::inst();
    std::string dir = platform.sysCfgDir();
    if (dir.empty()) {
      platform.initSysCfgDir();
      dir = platform.sysCfgDir();
    }
    fs::path p(dir);
    p /= "QXLite";
    p /= "config.json";
    return p;
  }();
  return file;
}

json::Object Settings::serialize() const {
  json::Object obj;
  auto putText = [&obj](char const* key, std::string const& text) {
    if (!text.empty()) obj.setAt(key, json::Value(text));
  };
  auto putInt = [&obj](char const* key, json_int_t n) { obj.setAt(key, json::Value(n)); };
  auto putFlag = [&obj](char const* key, bool flag) {
    if (flag) obj.setAt(key, json::Value::makeTrue());
  };
  auto putList = [&obj](char const* key, CfgFileExts const& list) {
    if (list.size() > 0) obj.setAt(key, list);  // shared node; copy-on-write protects it
  };

  putText("AccountId", AccountId);
  if (SpoolerId > 0) putInt("SpoolerId", SpoolerId);
  if (KeyId > 0) putInt("KeyId", KeyId);
  putText("PublicKey", PublicKey);
  putList("IgnoredExtension", IgnoredExtension);
  putList("SrvFileExts", SrvFileExts);
  putText("ReceiveFolder", ReceiveFolder.string());
  putText("SpoolFolder", SpoolFolder.string());
  if (BackupExpireSecs != 0) putInt("BackupExpireSecs", BackupExpireSecs);
  putText("BackupFolder", BackupFolder.string());
  putFlag("EnableLogging", EnableLogging);
  putFlag("AllowRemoteConfig", AllowRemoteConfig);
  // Stored as the distance from the default, in signed 64-bit arithmetic.
  if (MinFilesToZip != kDefaultMinFilesToZip) {
    putInt("MinFilesToZip", static_cast<json_int_t>(MinFilesToZip) - kDefaultMinFilesToZip);
  }
  putFlag("UseDirName", UseDirName);
  if (ConcurrentUploads != kDefaultConcurrentUploads) {
    putInt("ConcurrentUploads", static_cast<json_int_t>(ConcurrentUploads));
  }
  if (IpcPort != IPC_DEFAULT_SVC_PORT) putInt("IpcPort", IpcPort);
  if (MaxConnIdleSecs != kDefaultMaxConnIdleSecs) putInt("MaxConnIdleSecs", MaxConnIdleSecs);
  putFlag("IpcForceIP4", IpcForceIP4);
  putFlag("EnableCurlDbgLog", EnableCurlDbgLog);
  InetConfig.serialize(obj);
  EmailConfig.serialize(obj);
  return obj;
}

void Settings::deserialize(json::Object const& obj) {
  auto readList = [&obj](char const* key, CfgFileExts& list) {
    json::Value const v = obj[key];
    list = v.isArray() ? json::Array(v) : json::Array();
  };

  AccountId = obj["AccountId"].asStringSafe();
  SpoolerId = jsonNumberOrStr(obj["SpoolerId"]);
  KeyId = jsonNumberOrStr(obj["KeyId"]);
  PublicKey = obj["PublicKey"].asStringSafe();
  readList("IgnoredExtension", IgnoredExtension);
  readList("SrvFileExts", SrvFileExts);
  ReceiveFolder = obj["ReceiveFolder"].asStringSafe();
  SpoolFolder = obj["SpoolFolder"].asStringSafe();
  InetConfig.deserialize(obj);
  BackupExpireSecs = static_cast<std::uint32_t>(integerOrZero(obj, "BackupExpireSecs"));
  if (BackupExpireSecs == 0 && obj["BackupEnabled"].isTrue()) {
    BackupExpireSecs = kBackupNeverExpires;
  }
  BackupFolder = obj["BackupFolder"].asStringSafe();
  EnableLogging = obj["EnableLogging"].isTrue();
  AllowRemoteConfig = obj["AllowRemoteConfig"].isTrue();
  // Unsigned 32-bit wrap-around undoes the writer's signed difference.
  MinFilesToZip =
      static_cast<std::uint32_t>(integerOrZero(obj, "MinFilesToZip")) + kDefaultMinFilesToZip;
  UseDirName = obj["UseDirName"].isTrue();
  EmailConfig.deserialize(obj);
  if (EmailConfig.smtpUrl().empty()) {
    std::string const host = obj["SmtpHost"].asStringSafe();
    auto const port = static_cast<std::uint32_t>(integerOrZero(obj, "SmtpPort"));
    if (!host.empty()) {
      // A host on the standard port keeps its old bare form.
      EmailConfig.setSmtpUrl(port == 25 || port == 0 ? host
                                                     : Inet::EmailCfg::SMTP_PROT_PREF + host +
                                                           ":" + std::to_string(port));
    }
  }
  ConcurrentUploads = static_cast<std::size_t>(integerOrZero(obj, "ConcurrentUploads"));
  if (ConcurrentUploads == 0) ConcurrentUploads = kDefaultConcurrentUploads;
  IpcPort = static_cast<std::uint16_t>(integerOrZero(obj, "IpcPort"));
  if (IpcPort == 0) IpcPort = IPC_DEFAULT_SVC_PORT;
  MaxConnIdleSecs = static_cast<std::uint32_t>(integerOrZero(obj, "MaxConnIdleSecs"));
  if (MaxConnIdleSecs == 0) MaxConnIdleSecs = kDefaultMaxConnIdleSecs;
  IpcForceIP4 = obj["IpcForceIP4"].isTrue();
  EnableCurlDbgLog = obj["EnableCurlDbgLog"].isTrue();
}

// ---------------------------------------------------------------------------
// File-type rules

std::string Settings::fixExtForSet(std::string ext) {
  if (!ext.empty() && ext[0] == '.') ext.erase(0, 1);
  if (!ext.empty()) {
    std::use_facet<std::ctype<char>>(std::locale()).tolower(&ext[0], &ext[0] + ext.size());
  }
  return ext;
}

std::unordered_set<std::string> Settings::cfgExtsToSet(CfgFileExts const& list) {
  std::unordered_set<std::string> set;
  std::size_t const n = list.size();
  for (std::size_t i = 0; i < n; ++i) {
    json::Value const element = list[i];
    if (!element.isString()) element.onCastErr("string");
    set.insert(fixExtForSet(element.asStringSafe()));
  }
  return set;
}

bool Settings::isIgnoredExtension(fs::path const& p) const {
  if (IgnoredExtensionSet.empty()) IgnoredExtensionSet = cfgExtsToSet(IgnoredExtension);
  return IgnoredExtensionSet.count(normalisedExt(p)) != 0;
}

bool Settings::isBadFileExt(fs::path const& p, bool inDir) const {
  if (SrvFileExtsSet.empty()) SrvFileExtsSet = cfgExtsToSet(SrvFileExts);
  std::string const ext = normalisedExt(p);
  // The accepted list comes first: inside a folder even accepted "zip" and
  // "enm" files are refused below, but an unaccepted one that is ignored is
  // only skipped.
  if (!SrvFileExtsSet.empty() && SrvFileExtsSet.count(ext) == 0) return !isIgnoredExtension(p);
  if (!inDir) return false;
  if (INDIR_BAD_EXTS.count(ext) != 0) return true;
  return fs::is_directory(fs::status(p));
}

std::string Settings::checkPathForAcceptedExts(fs::path const& p) const {
  if (fs::is_directory(fs::status(p))) {
    for (fs::directory_iterator it(p), end; it != end; ++it) {
      if (isBadFileExt(it->path(), true)) return it->path().string();
    }
    return std::string();
  }
  return isBadFileExt(p, false) ? p.string() : std::string();
}

bool Settings::canZip(fs::path const& p) const {
  if (fs::is_directory(fs::status(p))) return true;
  return INDIR_BAD_EXTS.count(normalisedExt(p)) == 0;
}

// ---------------------------------------------------------------------------
// Remote reconfiguration

std::string Settings::reconfig(json::Object const& srv, long long* stopSecs) {
  std::string out;

  json::Value const account = srv["account"];
  if (!account.empty()) {
    if (!account.isString()) account.onCastErr("string");
    std::string text = account.asStringSafe();
    if (text != AccountId) {
      AccountId = std::move(text);
      add2OutReconfMsg(out, "account");
    }
  }

  auto reconfFlag = [&](char const* key, bool& flag, char const* what) {
    json::Value const v = srv[key];
    if (v.empty()) return;
    if (!json_is_boolean(v.get())) v.onCastErr("boolean");
    if (v.isTrue() != flag) {
      flag = v.isTrue();
      add2OutReconfMsg(out, what);
    }
  };
  reconfFlag("enable_logging", EnableLogging, "extra logging");
  reconfFlag("enable_remote_clients", AllowRemoteConfig, "configuration from remote clients");

  // Low 32 bits on purpose: -1 for the backup expiry means "never expire".
  auto reconfU32 = [&](char const* key, std::uint32_t& field, char const* what) {
    json::Value const v = srv[key];
    if (v.empty()) return;
    auto const n = static_cast<std::uint32_t>(v.asInt());
    if (n != field) {
      field = n;
      add2OutReconfMsg(out, what);
    }
  };
  reconfU32("zip_min_files", MinFilesToZip, "zip min files");
  reconfU32("backup_expire_secs", BackupExpireSecs, "backup");

  // One key replaces both server addresses, each compared on its own.
  std::string const site = srv["secondary_site"].asStringSafe();
  if (!site.empty()) {
    if (site != InetConfig.serverAddress()) {
      InetConfig.setServerAddress(site);
      add2OutReconfMsg(out, "server address");
    }
    if (site != InetConfig.altServerAddress()) {
      InetConfig.setAltServerAddress(site);
      add2OutReconfMsg(out, "alternative server address");
    }
  }

  json::Value const accept = srv["accept_xtn"];
  if (accept.isArray() && json_array_size(accept.get()) > 0 && accept != SrvFileExts) {
    SrvFileExts = json::Array(accept);
    add2OutReconfMsg(out, "accepted file types");
  }

  bool const reset = srv["reset_registration"].isTrue();
  if (reset) {
    SpoolerId = 0;
    KeyId = 0;
    PublicKey.clear();
    add2OutReconfMsg(out, "registration information reset");
  }

  json::Value const stop = srv["service_stop"];
  if (stopSecs && (!stop.empty() || reset)) {
    long long const secs = json_integer_value(stop.get());
    *stopSecs = secs;
    if (secs < 0) {
      add2OutReconfMsg(out, "requested " + Service::TERM4SVC + " suspension!");
    } else if (stop.empty()) {
      out += " (service reset)";
    } else {
      add2OutReconfMsg(out, "requested " + Service::TERM4SVC + " pause for " +
                                std::to_string(secs) + "s");
    }
  }
  return out;
}

// ---------------------------------------------------------------------------
// Report

std::string Settings::dump() const {
  std::ostringstream os;
  os << "Account Id: " << AccountId << "\n";
  os << "Node Id: " << SpoolerId << "\n";
  os << "Key Id: " << KeyId << "\n";
  os << "Key: " << (PublicKey.empty() ? "empty" : "not empty") << "\n";
  os << "Ignored extensions: " << IgnoredExtension << "\n";
  os << "Incoming Folder: " << ReceiveFolder << "\n";
  os << "Outgoing Folder: " << SpoolFolder << "\n";
  os << InetConfig.dump();
  if (BackupExpireSecs == 0) {
    os << "Backup disabled\n";
  } else if (BackupExpireSecs == kBackupNeverExpires) {
    os << "Backup enabled, no expire\n";
  } else {
    os << "Backup items expire in " << BackupExpireSecs << "s (" << BackupExpireSecs / 86400
       << " day(s) )\n";
  }
  os << "Backup folder " << BackupFolder << "\n";
  os << "Rejected folder " << RejectedFolder << "\n";
  os << (EnableLogging ? "Trace logging enabled" : "Trace logging disabled") << "\n";
  os << "Remote clients " << (AllowRemoteConfig ? "can" : "cannot") << " configure the service\n";
  os << "Zip uploads with " << MinFilesToZip << " or more files\n";
  os << (UseDirName ? "Setting folder name as pack title" : "Not using folder name") << "\n";
  os << EmailConfig.dump();
  os << "Server accepted extensions: " << SrvFileExts << "\n";
  os << "Max upload threads: " << ConcurrentUploads << "\n";
  os << "IPC TCP port: " << IpcPort << "\n";
  os << "Maximum idle connection time: " << MaxConnIdleSecs << "s\n";
  os << "IP4 is " << (IpcForceIP4 ? "forced" : "not forced") << "\n";
  if (EnableLogging) {
    os << "cURL debug tracing is " << (EnableCurlDbgLog ? "enabled" : "disabled") << "\n";
  }
  return os.str();
}
