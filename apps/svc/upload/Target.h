// Where the service uploads to: the server address of the configuration
// ("InetServer", and "InetAltServer" to fail over to) read as an upload
// target.
//
// Addresses:
//   s3://host[:port]/bucket[/prefix]    an S3-compatible store over HTTP
//   s3s://host[:port]/bucket[/prefix]   the same over HTTPS
//   dav://host[:port]/path              a WebDAV folder over HTTP
//   davs://host[:port]/path             the same over HTTPS
//   http://... and https://...          a WebDAV folder, as given
// An S3 address may end in "?region=NAME" (default "us-east-1"), the region
// that requests are signed for. Hosts may be names, IPv4 addresses or
// bracketed IPv6 addresses. User names and passwords in the address are
// refused: credentials live in their own file (Credentials.h). The path may
// hold percent escapes, which are decoded here (prefix is raw text that
// objectUrl encodes again); empty segments are dropped, and "." or ".."
// segments, blanks, control characters, fragments and other parameters are
// refused.
//
// A plain value.
#ifndef QX_APPS_SVC_UPLOAD_TARGET_H
#define QX_APPS_SVC_UPLOAD_TARGET_H

#include <string>

namespace qxsvc {

enum class Protocol { S3, WebDav };

struct Target {
  Protocol protocol = Protocol::WebDav;
  std::string origin;  // "http://host:port" or "https://host", as requests use it
  std::string bucket;  // S3 only
  std::string prefix;  // the path below the bucket (S3) or the folder (WebDAV); no slash at either end
  std::string region;  // S3 only

  // The URL of the object at key (a key as objectKey() makes it: segments
  // joined by "/", not yet percent-encoded): origin, bucket, prefix and key,
  // each segment percent-encoded.
  std::string objectUrl(std::string const& key) const;
  // The address as a person wrote it, for messages.
  std::string display() const;
};

// Reads address. On success returns true and sets target; otherwise returns
// false and sets why to a sentence that names the address and what is wrong
// ("the server address \"ftp://x\" has an unknown scheme \"ftp\": use s3://,
// s3s://, dav://, davs://, http:// or https://").
bool parseTarget(std::string const& address, Target& target, std::string& why);

}  // namespace qxsvc

#endif  // QX_APPS_SVC_UPLOAD_TARGET_H
