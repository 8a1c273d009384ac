#include "tests/TestServers.h"

#include <curl/curl.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>

#ifndef QX_TEST_SERVERS_DIR
#error "QX_TEST_SERVERS_DIR must name the folder of scripts/test-servers.sh"
#endif

namespace qxtest {
namespace {

constexpr long kTransferTimeoutSeconds = 300;
constexpr long kConnectTimeoutSeconds = 10;

std::string envFilePath() { return std::string(QX_TEST_SERVERS_DIR) + "/env"; }

TestServersEnv const& serversEnv() {
  // A throw leaves the static unset, so the next call reads the file again.
  static TestServersEnv const env = readTestServersEnv(envFilePath());
  return env;
}

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string hexOf(unsigned char const* bytes, std::size_t size) {
  static char const kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(size * 2);
  for (std::size_t i = 0; i < size; ++i) {
    hex += kDigits[bytes[i] >> 4];
    hex += kDigits[bytes[i] & 0x0f];
  }
  return hex;
}

std::string sha256Hex(std::string const& bytes) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<unsigned char const*>(bytes.data()), bytes.size(), digest);
  return hexOf(digest, sizeof digest);
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// "%2F" back to "/"; a "%" without two hex digits stays as it is.
std::string percentDecode(std::string const& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
        hexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

// The query as the signature's canonical request has it: each parameter
// "name=value", encoded, sorted.
std::string canonicalQuery(std::string const& query) {
  std::vector<std::pair<std::string, std::string>> params;
  std::size_t start = 0;
  while (start <= query.size()) {
    std::size_t end = query.find('&', start);
    if (end == std::string::npos) end = query.size();
    std::string const param = query.substr(start, end - start);
    if (!param.empty()) {
      std::size_t const eq = param.find('=');
      std::string const name = param.substr(0, eq);
      std::string const value = eq == std::string::npos ? "" : param.substr(eq + 1);
      params.emplace_back(s3Encode(percentDecode(name), false),
                          s3Encode(percentDecode(value), false));
    }
    start = end + 1;
  }
  std::sort(params.begin(), params.end());
  std::string out;
  for (auto const& [name, value] : params) {
    if (!out.empty()) out += '&';
    out += name + '=' + value;
  }
  return out;
}

bool hasHeader(HttpHeaders const& headers, std::string const& name) {
  std::string const wanted = lowerCase(name) + ":";
  return std::any_of(headers.begin(), headers.end(), [&](std::string const& line) {
    return lowerCase(line.substr(0, wanted.size())) == wanted;
  });
}

struct CurlHandleDeleter {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct CurlListDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

struct BodySource {
  std::string const* bytes;
  std::size_t offset = 0;
};

std::size_t readBody(char* buffer, std::size_t size, std::size_t count, void* context) {
  auto* source = static_cast<BodySource*>(context);
  std::size_t const n = std::min(size * count, source->bytes->size() - source->offset);
  std::copy_n(source->bytes->data() + source->offset, n, buffer);
  source->offset += n;
  return n;
}

std::size_t appendBody(char* data, std::size_t size, std::size_t count, void* context) {
  static_cast<HttpAnswer*>(context)->body.append(data, size * count);
  return size * count;
}

std::size_t takeHeader(char* data, std::size_t size, std::size_t count, void* context) {
  auto* answer = static_cast<HttpAnswer*>(context);
  std::string line(data, size * count);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  if (line.compare(0, 5, "HTTP/") == 0) {
    answer->headers.clear();  // an interim answer's headers are not the final's
  } else if (std::size_t const colon = line.find(':'); colon != std::string::npos) {
    std::string value = line.substr(colon + 1);
    value.erase(0, value.find_first_not_of(" \t"));
    answer->headers.emplace_back(lowerCase(line.substr(0, colon)), value);
  }
  return size * count;
}

struct Credentials {
  std::string user;
  std::string password;
  std::string sigv4;  // "aws:amz:REGION:s3" for S3, "" for basic authentication
};

HttpAnswer perform(std::string const& method, std::string const& url, std::string const& body,
                   HttpHeaders headers, Credentials const& credentials) {
  static std::once_flag curlReady;
  std::call_once(curlReady, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });

  std::unique_ptr<CURL, CurlHandleDeleter> handle(curl_easy_init());
  if (!handle) throw std::runtime_error(method + " " + url + ": curl_easy_init failed");
  CURL* const curl = handle.get();
  HttpAnswer answer;
  BodySource source{&body};
  char error[CURL_ERROR_SIZE] = "";

  // Small bodies need no round trip for "100 Continue". Not with a signature:
  // libcurl 7.88 signs the emptied header as if it were sent, and the S3
  // gateway then refuses the signature.
  if (credentials.sigv4.empty() && !hasHeader(headers, "Expect")) headers.push_back("Expect:");
  std::unique_ptr<curl_slist, CurlListDeleter> headerList;
  for (std::string const& line : headers) {
    curl_slist* const longer = curl_slist_append(headerList.get(), line.c_str());
    if (longer == nullptr) throw std::runtime_error(method + " " + url + ": out of memory");
    headerList.release();
    headerList.reset(longer);
  }

  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, kTransferTimeoutSeconds);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headerList.get());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, appendBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, takeHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &answer);
  curl_easy_setopt(curl, CURLOPT_USERNAME, credentials.user.c_str());
  curl_easy_setopt(curl, CURLOPT_PASSWORD, credentials.password.c_str());
  if (credentials.sigv4.empty()) {
    curl_easy_setopt(curl, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
  } else {
    curl_easy_setopt(curl, CURLOPT_AWS_SIGV4, credentials.sigv4.c_str());
  }
  if (method == "HEAD") {
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  } else if (method != "GET") {
    // Always with a known length: the S3 gateway refuses a chunked body.
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, readBody);
    curl_easy_setopt(curl, CURLOPT_READDATA, &source);
    curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(body.size()));
    if (method != "PUT") curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
  }

  CURLcode const code = curl_easy_perform(curl);
  if (code != CURLE_OK) {
    throw std::runtime_error(method + " " + url + ": " +
                             (error[0] != '\0' ? error : curl_easy_strerror(code)));
  }
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.status);
  return answer;
}

std::string xmlUnescape(std::string const& text) {
  static std::pair<char const*, char> const kEntities[] = {
      {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    bool replaced = false;
    if (text[i] == '&') {
      for (auto const& [entity, c] : kEntities) {
        std::string const name(entity);
        if (text.compare(i, name.size(), name) == 0) {
          out += c;
          i += name.size();
          replaced = true;
          break;
        }
      }
    }
    if (!replaced) out += text[i++];
  }
  return out;
}

// The contents of every <tag>...</tag> in xml, in order (no nesting of the
// same tag, as in the S3 listings).
std::vector<std::string> xmlElements(std::string const& xml, std::string const& tag) {
  std::vector<std::string> found;
  std::string const open = "<" + tag + ">";
  std::string const close = "</" + tag + ">";
  for (std::size_t at = xml.find(open); at != std::string::npos; at = xml.find(open, at)) {
    std::size_t const start = at + open.size();
    std::size_t const end = xml.find(close, start);
    if (end == std::string::npos) break;
    found.push_back(xml.substr(start, end - start));
    at = end + close.size();
  }
  return found;
}

std::runtime_error refused(std::string const& what, HttpAnswer const& answer) {
  return std::runtime_error(what + ": status " + std::to_string(answer.status) + ": " +
                            answer.body);
}

}  // namespace

std::string HttpAnswer::header(std::string const& name) const {
  std::string const wanted = lowerCase(name);
  for (auto const& [key, value] : headers) {
    if (key == wanted) return value;
  }
  return "";
}

TestServersEnv readTestServersEnv(std::string const& envFile) {
  std::ifstream in(envFile);
  if (!in) {
    throw std::runtime_error("test servers: cannot read " + envFile +
                             " (start them: ctest with the TestServers fixture, or "
                             "scripts/test-servers.sh start DIR)");
  }
  std::map<std::string, std::string> values;
  for (std::string line; std::getline(in, line);) {
    std::size_t const eq = line.find('=');
    if (eq != std::string::npos) values[line.substr(0, eq)] = line.substr(eq + 1);
  }
  auto value = [&](std::string const& name) {
    auto const found = values.find(name);
    if (found == values.end() || found->second.empty()) {
      throw std::runtime_error("test servers: " + envFile + " has no " + name);
    }
    return found->second;
  };
  TestServersEnv env;
  env.s3 = {value("QX_S3_ENDPOINT"), value("QX_S3_ACCESS_KEY"), value("QX_S3_SECRET_KEY"),
            value("QX_S3_REGION")};
  env.dav = {value("QX_DAV_URL"), value("QX_DAV_USER"), value("QX_DAV_PASSWORD"),
             value("QX_DAV_ROOT")};
  return env;
}

std::string xmlElementText(std::string const& xml, std::string const& tag) {
  std::vector<std::string> const found = xmlElements(xml, tag);
  return found.empty() ? "" : xmlUnescape(found.front());
}

S3TestServer const& s3Server() { return serversEnv().s3; }
DavTestServer const& davServer() { return serversEnv().dav; }

std::string s3Encode(std::string const& text, bool keepSlash) {
  static char const kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char const c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~' ||
        (keepSlash && c == '/')) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kDigits[c >> 4];
      out += kDigits[c & 0x0f];
    }
  }
  return out;
}

HttpAnswer s3Request(S3TestServer const& server, std::string const& method,
                     std::string const& pathAndQuery, std::string const& body,
                     HttpHeaders const& extraHeaders) {
  std::string url = server.endpoint;
  std::size_t const question = pathAndQuery.find('?');
  url += pathAndQuery.substr(0, question);
  if (question != std::string::npos) {
    std::string const query = canonicalQuery(pathAndQuery.substr(question + 1));
    if (!query.empty()) url += "?" + query;
  }
  HttpHeaders headers = extraHeaders;
  // libcurl 7.88 signs wrongly without it.
  if (!hasHeader(headers, "x-amz-content-sha256")) {
    headers.push_back("x-amz-content-sha256: " + sha256Hex(body));
  }
  return perform(method, url, body, headers,
                 {server.accessKey, server.secretKey, "aws:amz:" + server.region + ":s3"});
}

HttpAnswer davRequest(DavTestServer const& server, std::string const& method,
                      std::string const& path, std::string const& body,
                      HttpHeaders const& extraHeaders) {
  return perform(method, server.url + path, body, extraHeaders,
                 {server.user, server.password, ""});
}

std::string basicAuthorization(std::string const& user, std::string const& password) {
  std::string const plain = user + ":" + password;
  std::string encoded(4 * ((plain.size() + 2) / 3) + 1, '\0');
  int const length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&encoded[0]),
                                     reinterpret_cast<unsigned char const*>(plain.data()),
                                     static_cast<int>(plain.size()));
  encoded.resize(static_cast<std::size_t>(length));
  return "Basic " + encoded;
}

HostPort hostPortOf(std::string const& url) {
  std::size_t const hostStart = url.find("://");
  std::size_t const begin = hostStart == std::string::npos ? 0 : hostStart + 3;
  std::size_t const end = url.find('/', begin);
  std::string const authority = url.substr(begin, end == std::string::npos ? end : end - begin);
  std::size_t const colon = authority.rfind(':');
  if (colon == std::string::npos || colon + 1 == authority.size() ||
      authority.find_first_not_of("0123456789", colon + 1) != std::string::npos ||
      authority.size() - colon > 6 || std::stoul(authority.substr(colon + 1)) > 65535) {
    throw std::runtime_error("no port in the address \"" + url + "\"");
  }
  return {authority.substr(0, colon), static_cast<std::uint16_t>(std::stoul(authority.substr(colon + 1)))};
}

std::string makeBucket(S3TestServer const& server, std::string const& hint) {
  static std::atomic<unsigned> made{0};
  // Lower-case letters, digits and single hyphens; at most 63 characters.
  std::string name = "qx-";
  for (unsigned char const c : hint) {
    if (name.size() >= 33) break;
    if (std::isalnum(c)) {
      name += static_cast<char>(std::tolower(c));
    } else if (name.back() != '-') {
      name += '-';
    }
  }
  if (name.back() != '-') name += '-';
  std::random_device random;
  char unique[40];
  std::snprintf(unique, sizeof unique, "%ld-%u-%08x", static_cast<long>(::getpid()), made++,
                static_cast<unsigned>(random()));
  name += unique;
  HttpAnswer const answer = s3Request(server, "PUT", "/" + name);
  if (answer.status != 200) throw refused("creating the bucket " + name, answer);
  return name;
}

std::string s3ObjectBytes(S3TestServer const& server, std::string const& bucket,
                          std::string const& key) {
  HttpAnswer const answer = s3Request(server, "GET", "/" + bucket + "/" + s3Encode(key, true));
  if (answer.status != 200) throw refused("getting " + bucket + "/" + key, answer);
  return answer.body;
}

std::vector<std::string> s3ListKeys(S3TestServer const& server, std::string const& bucket,
                                    std::string const& prefix, unsigned pageSize) {
  std::vector<std::string> keys;
  std::string continuation;
  for (;;) {
    std::string query = "list-type=2&max-keys=" + std::to_string(pageSize) +
                        "&prefix=" + s3Encode(prefix, false);
    if (!continuation.empty()) query += "&continuation-token=" + s3Encode(continuation, false);
    HttpAnswer const answer = s3Request(server, "GET", "/" + bucket + "?" + query);
    if (answer.status != 200) throw refused("listing " + bucket + " at \"" + prefix + "\"", answer);
    for (std::string const& entry : xmlElements(answer.body, "Contents")) {
      keys.push_back(xmlElementText(entry, "Key"));
    }
    if (xmlElementText(answer.body, "IsTruncated") != "true") return keys;
    continuation = xmlElementText(answer.body, "NextContinuationToken");
    if (continuation.empty()) throw refused("listing " + bucket + ": a page without its token", answer);
  }
}

std::vector<MultipartUploadEntry> s3ListMultipartUploads(S3TestServer const& server,
                                                         std::string const& bucket) {
  HttpAnswer const answer = s3Request(server, "GET", "/" + bucket + "?uploads");
  if (answer.status != 200) throw refused("listing the multipart uploads of " + bucket, answer);
  std::vector<MultipartUploadEntry> uploads;
  for (std::string const& entry : xmlElements(answer.body, "Upload")) {
    uploads.push_back({xmlElementText(entry, "Key"), xmlElementText(entry, "UploadId")});
  }
  return uploads;
}

}  // namespace qxtest
