// The real upload targets of the tests: an S3 gateway and a WebDAV server on
// loopback, which scripts/test-servers.sh starts (the ctest fixture
// TestServers, see tests/CMakeLists.txt) and describes in DIR/env. DIR is the
// compile definition QX_TEST_SERVERS_DIR.
//
// s3Server() and davServer() read DIR/env on first use and throw
// std::runtime_error naming the file when it is missing or lacks a line. The
// requests below are plain blocking libcurl transfers that give up after
// 300 s; every function may be called from any thread at once. makeBucket()
// gives every caller a bucket of its own, so tests may run in parallel.
// Failures of the transport (no connection, time-out) throw
// std::runtime_error with the method and URL; an HTTP error status is an
// answer, not a failure, except for the helpers that name what they expect.
#ifndef QX_TESTS_TESTSERVERS_H
#define QX_TESTS_TESTSERVERS_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qxtest {

struct S3TestServer {
  std::string endpoint;  // "http://127.0.0.1:PORT", no slash at the end
  std::string accessKey;
  std::string secretKey;
  std::string region;
};

struct DavTestServer {
  std::string url;  // "http://127.0.0.1:PORT/dav", no slash at the end
  std::string user;
  std::string password;
  std::string root;  // the local folder that holds what is under url
};

struct TestServersEnv {
  S3TestServer s3;
  DavTestServer dav;
};

// Reads an env file of scripts/test-servers.sh ("NAME=value" lines).
TestServersEnv readTestServersEnv(std::string const& envFile);

S3TestServer const& s3Server();
DavTestServer const& davServer();

struct HttpAnswer {
  long status = 0;
  // In order of arrival, names in lower case; of the final answer only
  // (a "100 Continue" before it is dropped).
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;

  // The value of the first header of that name (any case); "" when none.
  std::string header(std::string const& name) const;
};

// Request headers as "Name: value" lines; "Name:" removes one that libcurl
// would send.
using HttpHeaders = std::vector<std::string>;

// Percent-encodes text as S3 signs it: all but A-Z a-z 0-9 - _ . ~, and "/"
// too unless keepSlash.
std::string s3Encode(std::string const& text, bool keepSlash);

// A request signed for the server (AWS signature version 4 by libcurl).
// pathAndQuery is "/bucket/key?query" with the path already encoded (see
// s3Encode); the query is put in the form the signature needs: every
// parameter gets its "=", names and values are encoded and the parameters
// sorted ("?uploads" and "?prefix=a/&list-type=2" work as written). The body's
// SHA-256 goes in x-amz-content-sha256 unless extraHeaders set that header.
HttpAnswer s3Request(S3TestServer const& server, std::string const& method,
                     std::string const& pathAndQuery, std::string const& body = "",
                     HttpHeaders const& extraHeaders = {});

// A request to the WebDAV server with its user and password; path is below
// the server's url ("/folder/file.txt"), already encoded.
HttpAnswer davRequest(DavTestServer const& server, std::string const& method,
                      std::string const& path, std::string const& body = "",
                      HttpHeaders const& extraHeaders = {});

// The text of the first <tag> element of an S3 answer, entities replaced
// ("<UploadId>", "<Code>"); "" when there is none.
std::string xmlElementText(std::string const& xml, std::string const& tag);

// The value of an Authorization header for basic authentication.
std::string basicAuthorization(std::string const& user, std::string const& password);

struct HostPort {
  std::string host;
  std::uint16_t port = 0;
};
// The host and port of "http://host:port[/...]"; throws std::runtime_error
// naming url when it has no port.
HostPort hostPortOf(std::string const& url);

// Creates a bucket of a new valid name made from hint and returns the name.
// Throws std::runtime_error with the server's answer when it refuses.
std::string makeBucket(S3TestServer const& server, std::string const& hint);

// The bytes of the object at key (not encoded); throws std::runtime_error
// naming bucket, key and status unless the answer is 200.
std::string s3ObjectBytes(S3TestServer const& server, std::string const& bucket,
                          std::string const& key);

// Every key of the bucket that begins with prefix, in the server's (sorted)
// order, over as many pages (of up to pageSize keys) as there are.
std::vector<std::string> s3ListKeys(S3TestServer const& server, std::string const& bucket,
                                    std::string const& prefix = "", unsigned pageSize = 1000);

struct MultipartUploadEntry {
  std::string key;
  std::string uploadId;
  bool operator==(MultipartUploadEntry const& other) const {
    return key == other.key && uploadId == other.uploadId;
  }
};

// The multipart uploads of the bucket that were begun and neither completed
// nor aborted (the first 1000).
std::vector<MultipartUploadEntry> s3ListMultipartUploads(S3TestServer const& server,
                                                         std::string const& bucket);

}  // namespace qxtest

#endif  // QX_TESTS_TESTSERVERS_H
