// How a client program finds the running service and earns its way in:
// the runtime file names the port and the token file, the token file must
// be readable by this person, and a refused connection means nobody serves.
// The command-line client and the desktop program both use these, so that a
// person reads the same words from either.
//
// Every failure is an exception whose text is one line for a person:
// ServiceNotRunning when the service is not there to ask (a state, not an
// error), std::runtime_error for anything else. Pure functions of the file
// system; any thread.
#ifndef QX_APPS_SERVICEFINDER_H
#define QX_APPS_SERVICEFINDER_H

#include "apps/RuntimeFile.h"
#include "shared/SecretToken.h"

#include <boost/filesystem/path.hpp>

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

namespace qxapp {

// The service is not there to ask; the text says how we know.
struct ServiceNotRunning : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The facts of the first runtime file that names a running service, looked
// for in namedFolder alone when one is named, else in clientRuntimeFolders().
// Nothing when no folder holds a file (the defaults then apply). A named
// folder without a usable file throws; a default folder's problem is passed
// to note and the next one is looked at (a stale file only when verbose).
std::optional<RuntimeFacts> findRunningService(std::string const& namedFolder, bool verbose,
                                               std::function<void(std::string const&)> const& note);

// tokenFile, or the client's default token file when it is empty.
boost::filesystem::path clientTokenFile(std::string const& tokenFile);

// The token of file. A missing file means a service that never ran here
// (ServiceNotRunning); one that cannot be read, a person outside the token's
// group, which the text names with how to join it.
Ipc::SecretToken loadClientToken(boost::filesystem::path const& file);

// For a transport error that says nobody is on the service's port,
// "nothing answers at HOST:PORT..."; otherwise empty.
std::string nobodyAnswers(std::string const& transportError);

// The one line a client gives when the service is not running.
std::string notRunningText(std::string const& why);

}  // namespace qxapp

#endif  // QX_APPS_SERVICEFINDER_H
