// The account that the service uploads with: an S3 access key and secret,
// or a WebDAV user and password. They never go into the configuration file,
// which travels to the user interface; they live in a file of their own
// that only the service may read.
//
// File form (JSON): {"user": "...", "secret": "..."}.
// Where: the file given on the command line; else, under systemd's
// LoadCredential=, "$CREDENTIALS_DIRECTORY/upload"; else
// "/etc/QXLite/credentials.json".
//
// The file is refused unless it is a regular file (not a link) owned by the
// service's user and readable or writable by no one else (mode 0600 or
// 0400): a secret that others could read is treated as already lost.
#ifndef QX_APPS_SVC_UPLOAD_CREDENTIALS_H
#define QX_APPS_SVC_UPLOAD_CREDENTIALS_H

#include <boost/filesystem/path.hpp>

#include <string>

namespace qxsvc {

struct Credentials {
  std::string user;
  std::string secret;
};

// Where the credentials are read from when no file is given.
boost::filesystem::path defaultCredentialsPath();

// Reads file. Throws std::runtime_error naming the file and what is wrong:
// "the credentials file \"/etc/QXLite/credentials.json\" is readable by
// others (mode 0644): chmod 600 it", "... cannot be opened: No such file or
// directory", "... has no \"user\"".
Credentials loadCredentials(boost::filesystem::path const& file);

}  // namespace qxsvc

#endif  // QX_APPS_SVC_UPLOAD_CREDENTIALS_H
