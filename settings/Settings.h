/// \file
/// Settings: the one configuration record of the upload product.
///
/// Both processes hold their configuration in it, pass it between each other in
/// IPC commands, keep it in the configuration file (a flat JSON object, see
/// serialize()/deserialize()) and let the server change parts of it
/// (reconfig()). All data members are public; each member with a key in the
/// JSON form bears that key's name.
///
/// Guarantees:
///  - Both constructors end with fix(): folders and extension lists are never
///    empty afterwards, and RejectedFolder is BackupFolder / ".rejected".
///  - Settings(json::Object const&) never fails on bad content that its reader
///    reports with std::runtime_error: it logs one "ERR:" line, keeps what it
///    had read, and marks the record unregistered (SpoolerId -1).
///  - The file-type rules (isIgnoredExtension, isBadFileExt,
///    checkPathForAcceptedExts, canZip) fill the two extension caches lazily
///    inside const members.
///
/// Threads: no lock of its own. Because even const members fill caches, one
/// record is used by one thread at a time, or under its owner's lock.
#ifndef QX_SETTINGS_SETTINGS_H
#define QX_SETTINGS_SETTINGS_H

#include "json/Json.h"
#include "shared/EmailCfg.h"
#include "shared/InetCfg.h"

#include <boost/filesystem/path.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_set>

/// The version text handed to every Inet::InetCfg that the library constructs.
constexpr char LITE_VERSION_STR[] = "7.0.1";

/// Default TCP port of the IPC connection between user interface and service.
constexpr std::uint16_t IPC_DEFAULT_SVC_PORT = 45654;

/// The configuration record (see the file's contract).
class QX_LITE_API Settings {
 public:
  /// An extension list of the configuration: a JSON array of strings such as
  /// "pdf" or ".PDF".
  class CfgFileExts : public json::Array {
   public:
    using json::Array::Array;
    CfgFileExts() = default;
    ///@{
    /// Shares the other list's array, as json::Array does.
    CfgFileExts(CfgFileExts const&) = default;
    CfgFileExts(CfgFileExts&&) noexcept = default;
    CfgFileExts& operator=(CfgFileExts const&) = default;
    CfgFileExts& operator=(CfgFileExts&&) noexcept = default;
    ///@}
    /// Stores a deep copy of arr. Throws json::Exc ("... Expected type: array")
    /// when arr is not an array, and keeps the old list then. Does not touch
    /// the derived set of the record.
    CfgFileExts& operator=(json::Array const& arr);
  };

  /// SpoolerId of a node that is not registered.
  static const long long INVALID_NODE_ID = -1;
  /// "noqx": always ignored; the last extension of every temporary spool item.
  static std::string const RESERVED_IGNORED_EXT;
  /// "zip" and "enm": refused inside a dropped folder, never zipped again.
  static std::unordered_set<std::string> const INDIR_BAD_EXTS;

  /// The full constructor. Arguments 9 to 18 go to Inet::InetCfg (with
  /// LITE_VERSION_STR last), 25 to 32 to Inet::EmailCfg. The node id is parsed
  /// from text: "", "abc" give 0; "-1" gives INVALID_NODE_ID.
  Settings(std::string const& accountId, std::string const& nodeId, long long keyId,
           std::string const& publicKey, CfgFileExts&& ignoredExtension,
           CfgFileExts&& srvFileExts, boost::filesystem::path const& receiveFolder,
           boost::filesystem::path const& spoolFolder, std::string const& serverAddress,
           std::string const& altServerAddress, bool useProxy, std::string const& proxyAddress,
           bool proxyTunnel, bool proxySocks, bool insecureTls,
           Inet::InetCfg::ProxyAuthMethod proxyAuth, std::string const& proxyUser,
           std::string const& proxyPassword, unsigned int backupExpireSecs,
           boost::filesystem::path const& backupFolder, bool enableLogging,
           bool allowRemoteConfig, unsigned int minFilesToZip, bool useDirName,
           std::string const& smtpUrl, std::string const& smtpUser,
           std::string const& smtpPassword, bool smtpRequireTls, bool notifySuccess,
           bool notifyFailure, std::string const& mailFrom, std::string const& mailTo);
  /// The JSON constructor; pass an empty json::Object for a record of defaults.
  explicit Settings(json::Object const& obj);

  /// Compares every member but the extension caches (and the version text
  /// of InetConfig).
  bool operator==(Settings const& other) const;
  /// Not equal as operator== compares.
  bool operator!=(Settings const& other) const { return !(*this == other); }

  ///@{
  /// SpoolerId or KeyId as decimal text ("-1" for INVALID_NODE_ID).
  std::string strNodeId() const;
  std::string strKeyId() const;
  ///@}
  ///@{
  /// Sets SpoolerId or KeyId from an integer, or decimal text ("42", " 42",
  /// "42abc" give 42); anything else gives 0.
  void setNodeId(json::Value const& v);
  void setKeyId(json::Value const& v);
  ///@}

  /// "45654".
  static std::string IPC_DEFAULT_SVC_PORT_STR();
  /// The configuration file: the platform's system configuration directory /
  /// "QXLite" / "config.json". The same object for the life of the process.
  static boost::filesystem::path const& OLD_CFG_FILE_PATH();

  /// The sparse JSON form: a member is written only when it differs from what
  /// the reader falls back to.
  json::Object serialize() const;
  /// Sets every member of the form from obj (a missing key gives the reader's
  /// fall-back). Throws what the list assignment and the Inet readers throw.
  /// Neither normalises (call fix() afterwards) nor touches the extension
  /// caches: on a record whose caches were filled, clear them first if the
  /// rules are to follow the lists read here.
  void deserialize(json::Object const& obj);

  /// Fills empty folders and lists with their defaults and derives
  /// RejectedFolder. May run again at any time.
  void fix();

  /// The configuration as a fixed, line-oriented text.
  std::string dump() const;

  /// Applies the server's object; returns the line that lists the changes
  /// ("Reconfigured settings: ...") or the empty string. A pause, stop or
  /// registration reset is written through stopSecs when it is not null.
  /// Throws json::Exc on a wrong type in "account" to "backup_expire_secs".
  std::string reconfig(json::Object const& srv, long long* stopSecs);

  // File-type rules. An extension is compared without its dot and in lower
  // case; a name's extension is what follows its last dot.

  /// ext without a leading dot, in lower case: the form the rules compare.
  static std::string fixExtForSet(std::string ext);
  /// The extensions of list in the form the rules compare; throws json::Exc
  /// when an element is not a string.
  static std::unordered_set<std::string> cfgExtsToSet(CfgFileExts const& list);
  /// Whether p's extension is in IgnoredExtension: such an item is never
  /// touched.
  bool isIgnoredExtension(boost::filesystem::path const& p) const;
  /// Whether p is refused: its extension is not in SrvFileExts (unless the
  /// list is empty) and not ignored; or, inside a dropped folder (inDir), it
  /// is a folder or one of INDIR_BAD_EXTS.
  bool isBadFileExt(boost::filesystem::path const& p, bool inDir) const;
  /// The empty string when p (a file, or a folder with its direct entries) may
  /// be uploaded; otherwise the path of the first offending item.
  std::string checkPathForAcceptedExts(boost::filesystem::path const& p) const;
  /// Whether p may go into a zip archive: a folder, or a file that is not
  /// one of INDIR_BAD_EXTS.
  bool canZip(boost::filesystem::path const& p) const;

  std::string AccountId;  ///< the account at the upload server that this node belongs to
  long long SpoolerId;    ///< this node's id at the server; INVALID_NODE_ID when not registered
  long long KeyId;        ///< the id of the node's key pair at the server
  std::string PublicKey;  ///< the node's public key
  CfgFileExts IgnoredExtension;  ///< extensions that are never uploaded nor touched
  mutable std::unordered_set<std::string> IgnoredExtensionSet;  ///< cache of IgnoredExtension
  CfgFileExts SrvFileExts;  ///< extensions that the server accepts; empty: all
  mutable std::unordered_set<std::string> SrvFileExtsSet;  ///< cache of SrvFileExts
  boost::filesystem::path ReceiveFolder;  ///< the incoming folder: what arrives here is uploaded
  boost::filesystem::path SpoolFolder;    ///< the outgoing folder: jobs while they are uploaded
  Inet::InetCfg InetConfig;    ///< how the upload server is reached
  Inet::EmailCfg EmailConfig;  ///< the e-mail notices
  /// 0: backup off; 4294967295: backup on, never expires; else expiry age.
  std::uint32_t BackupExpireSecs;
  boost::filesystem::path BackupFolder;  ///< where uploaded jobs are kept while backup is on
  boost::filesystem::path RejectedFolder;  ///< derived by fix(), never stored
  bool EnableLogging;      ///< trace logging of the service
  bool AllowRemoteConfig;  ///< whether the server may reconfigure the service (reconfig())
  /// A dropped folder of this many files or more is uploaded as one zip
  /// archive (default 10; the JSON form holds the difference from 10).
  std::uint32_t MinFilesToZip;
  bool UseDirName;                ///< a dropped folder's name titles its upload
  std::size_t ConcurrentUploads;  ///< the most uploads that run at once
  std::uint16_t IpcPort;          ///< the service's TCP port on loopback
  bool IpcForceIP4;               ///< the service listens on 127.0.0.1 only, not on ::1
  std::uint32_t MaxConnIdleSecs;  ///< how long an IPC connection may stay idle
  bool EnableCurlDbgLog;          ///< debug tracing of the transfers to the server
};

#endif  // QX_SETTINGS_SETTINGS_H
