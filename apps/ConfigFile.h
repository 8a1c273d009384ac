// Reading and writing the configuration file of the reference programs.
//
// readConfigObject() reads a JSON object from a file; a missing file is an
// empty object (a configuration of defaults). settingsFromObject() builds a
// Settings strictly: a value that the reader refuses is an error, never a
// silent default. writeConfigAtomically() replaces the file through a
// temporary file beside it, flushed to disk and renamed over the old one,
// with mode 0600 (the file may hold passwords): a reader sees the old file
// or the new one, never a part.
//
// Every failure throws ConfigError with a message that names the file and
// what is wrong.
#ifndef QX_APPS_CONFIGFILE_H
#define QX_APPS_CONFIGFILE_H

#include "json/Json.h"
#include "settings/Settings.h"

#include <sys/types.h>

#include <boost/filesystem/path.hpp>

#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace qxapp {

class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

json::Object readConfigObject(boost::filesystem::path const& file);
// what names the source in messages (a file name, "the request").
Settings settingsFromObject(json::Object const& obj, std::string const& what);
// The sparse form, keys sorted, one line.
std::string configText(Settings const& settings);
void writeConfigAtomically(boost::filesystem::path const& file, std::string const& text);
// The same for any file of the programs; what names it in messages
// ("configuration").
void writeFileAtomically(boost::filesystem::path const& file, std::string const& text, mode_t mode, char const* what);

// One key of the configuration file, as `qxlite config keys` shows it.
struct ConfigKey {
  char const* name;
  char const* type;          // "text", "integer", "flag", "list of texts"
  char const* defaultValue;  // as a person would write it; "" for none
  char const* meaning;
  bool secret;  // a password: the client masks it unless asked
};

// Every key of the configuration file, in the order Settings::serialize()
// writes them: those that it writes for a record whose members are all set,
// the internet and e-mail records' keys included. `qxlite config set`
// accepts exactly these.
std::vector<ConfigKey> const& configKeyTable();

// What a change of configuration changes, for the log: one "Key: old -> new"
// text per key whose value differs, in the order of configKeyTable(), each
// value as JSON (its default where the record leaves it out); a password
// shows as *** on both sides.
std::vector<std::string> configChanges(Settings const& before, Settings const& after);
// What writing settings (read from raw) back in their normalised form does
// to the file, one "Key: old → new" text per key that changes: first the
// keys of configKeyTable() in order, then the file's other keys in its
// order. A value left out is "(absent)"; a key that goes says why ("the
// default", "an older key, read into \"BackupExpireSecs\"", "not a
// configuration key"); a password shows as ***.
std::vector<std::string> normalisingChanges(json::Object const& raw, Settings const& settings);
// The names of configKeyTable().
std::set<std::string> const& configKeys();
// The entry of key, or null when key is not a configuration key.
ConfigKey const* findConfigKey(std::string const& key);

// The keys of the extension lists, which the reader passes over silently
// when they are not lists of texts.
extern char const* const kExtensionListKeys[2];

// What is wrong with the extension list under key: index is -1 when the
// value is not a list, else the first element that is not a text; type is
// the offending value's type. Empty when the list is missing or holds texts
// only.
struct NonText {
  long index;
  std::string type;
};
std::optional<NonText> firstNonText(json::Object const& raw, char const* key);

// The one check of a configuration's values, before the reader (which
// passes over what it cannot use silently) sees them: each key's type, the
// ranges of the numbers, folder names without NUL, lists of texts. The
// empty string when every value is acceptable, else the first problem
// ("\"ConcurrentUploads\" must be an integer from 1 to 1024"). Used by the
// service at start and on SaveCfg, and by qxlite-cfg.
std::string checkConfigValues(json::Object const& raw);

// A copy of settings that shares no JSON node with it. JSON reference counts
// are not atomic, so a record handed to another thread must not share its
// extension lists with a record that stays: call this with the source
// record's owner lock held (or on a record that no other thread sees).
Settings independentCopy(Settings const& settings);

}  // namespace qxapp

#endif  // QX_APPS_CONFIGFILE_H
