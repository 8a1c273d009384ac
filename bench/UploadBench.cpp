// The upload service's figures, each beside its anchor measured in the same
// run against the same servers:
//
//   1. one big file to S3 through the service (from its rename into the
//      incoming folder to its object in the bucket) against `rclone copy`
//      and against `curl -T` doing the service's work: `openssl dgst` takes
//      the body's SHA-256, which curl then signs, so that the server checks
//      the bytes as it checks the service's parts. Beside them, with no
//      target, `curl -T` with an unsigned body, which the server checks
//      nothing of, and the most any upload that hashes first can reach
//      against it: curl's time over curl's time plus the hash's alone;
//   2. many small files to S3 with ConcurrentUploads 2 and 8 against
//      `rclone copy --transfers 2` and `--transfers 8`;
//   3. the same small files to WebDAV against `curl -T` one after another;
//   4. the median time from a drop to the moment its PUT's head reaches a
//      pass-all proxy in front of the gateway (tests/FaultProxy.h);
//   5. the growth of the service's resident set (VmRSS sampled every 50 ms)
//      during the big upload, and during one of a quarter of its size.
//
//   UploadBench [--big-mib N] [--runs N] [--files N] [--file-kib N] [--drops N]
//               [--servers DIR] [--dir FOLDER] [--check-targets]
//
// The servers are those of DIR/env of scripts/test-servers.sh; without
// --servers the bench starts its own in a temporary folder and stops them at
// the end, also when it fails. The service runs as a process, one per figure
// with its own configuration, state folder and credentials file (mode 0600),
// and starts with one untimed drop that opens its connections. The sources
// are written once and read once before timing (page cache); each timed drop
// renames a fresh copy into the incoming folder. The figures of the big
// file and of the small files are the medians of --runs runs (3), each run
// timing the service and its anchors once; the runs' own figures follow the
// table.
//
// Exit status: 0; 1 with --check-targets when a target is missed; 2 when
// something fails (a transfer, a server, the service).
#include "bench/BenchFiles.h"
#include "bench/BenchProcess.h"
#include "json/Json.h"
#include "tests/FaultProxy.h"
#include "tests/TestServers.h"

#include <boost/filesystem.hpp>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace fs = boost::filesystem;
using Clock = std::chrono::steady_clock;
using qxbench::errnoText;
using qxbench::median;
using qxbench::Process;
using qxbench::readText;
using qxbench::readThrough;
using qxbench::runsText;
using qxbench::seconds;
using qxbench::writeSource;

namespace {

constexpr auto kTransferLimit = std::chrono::minutes(10);
constexpr auto kRssSampleEvery = std::chrono::milliseconds(50);

// Set by SIGINT and SIGTERM: every wait then throws, so that the servers and
// the programs started are stopped on the way out, as on any failure.
volatile std::sig_atomic_t g_interrupted = 0;

void throwIfInterrupted() {
  if (g_interrupted) throw std::runtime_error("interrupted");
}

void writeText(fs::path const& file, std::string const& text, mode_t mode = 0644) {
  int const fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) throw std::runtime_error(errnoText("create " + file.string()));
  bool const ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  if (!ok) throw std::runtime_error(errnoText("write " + file.string()));
}

// ---------------------------------------------------------------------------
// Processes

// Runs a program to its successful end; its wall time in seconds.
double timeProgram(std::vector<std::string> args, fs::path const& logStem,
                   std::vector<std::string> const& extraEnv = {}) {
  auto const t0 = Clock::now();
  Process p(std::move(args), logStem.string() + ".out", logStem.string() + ".err", extraEnv);
  p.expectSuccess(kTransferLimit, throwIfInterrupted);
  return seconds(Clock::now() - t0);
}

bool waitUntil(std::function<bool()> const& done, std::chrono::milliseconds pollEvery,
               std::chrono::milliseconds limit = kTransferLimit) {
  auto const deadline = Clock::now() + limit;
  while (!done()) {
    throwIfInterrupted();
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(pollEvery);
  }
  return true;
}

// ---------------------------------------------------------------------------
// The servers

// Those of an env file, or ones started for this run and stopped with it.
class Servers {
 public:
  Servers(fs::path const& givenDir, fs::path const& work) {
    fs::path dir = givenDir;
    if (dir.empty()) {
      dir = work / "servers";
      m_startedIn = dir;
      std::string const command = "bash '" QX_TEST_SERVERS_SCRIPT "' start '" + dir.string() + "' >'" +
                                  (work / "servers.log").string() + "' 2>&1";
      std::printf("UploadBench: starting the test servers in %s\n", dir.c_str());
      std::fflush(stdout);
      if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("the test servers did not start:\n" + readText(work / "servers.log"));
      }
    }
    env = qxtest::readTestServersEnv((dir / "env").string());
  }
  ~Servers() {
    if (m_startedIn.empty()) return;
    std::string const command = "bash '" QX_TEST_SERVERS_SCRIPT "' stop '" + m_startedIn.string() + "' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) std::fprintf(stderr, "UploadBench: stopping the test servers failed\n");
  }
  Servers(Servers const&) = delete;
  Servers& operator=(Servers const&) = delete;

  qxtest::TestServersEnv env;

 private:
  fs::path m_startedIn;
};

// rclone's S3 remote "qxbench" from the environment, so that no key is on a
// command line. A CA bundle named in AWS_CA_BUNDLE makes rclone 1.60 refuse
// to start, even for plain HTTP: it goes.
std::vector<std::string> rcloneEnv(qxtest::S3TestServer const& s3) {
  return {"AWS_CA_BUNDLE",
          "RCLONE_CONFIG_QXBENCH_TYPE=s3",
          "RCLONE_CONFIG_QXBENCH_PROVIDER=Ceph",
          "RCLONE_CONFIG_QXBENCH_ENV_AUTH=false",
          "RCLONE_CONFIG_QXBENCH_ACCESS_KEY_ID=" + s3.accessKey,
          "RCLONE_CONFIG_QXBENCH_SECRET_ACCESS_KEY=" + s3.secretKey,
          "RCLONE_CONFIG_QXBENCH_REGION=" + s3.region,
          "RCLONE_CONFIG_QXBENCH_ENDPOINT=" + s3.endpoint};
}

std::size_t keyCount(qxtest::S3TestServer const& s3, std::string const& bucket, std::string const& prefix) {
  return qxtest::s3ListKeys(s3, bucket, prefix).size();
}

// Regular files below folder (what nginx holds is whole: it renames a PUT's
// body into place).
std::size_t fileCount(fs::path const& folder) {
  boost::system::error_code ec;
  if (!fs::is_directory(folder, ec)) return 0;
  std::size_t n = 0;
  for (fs::recursive_directory_iterator it(folder, ec), end; it != end && !ec; it.increment(ec)) {
    if (fs::is_regular_file(it->status())) ++n;
  }
  return n;
}

void removeObjects(qxtest::S3TestServer const& s3, std::string const& bucket) {
  // Frees the store's memory for the next figures (it holds every byte).
  for (std::string const& key : qxtest::s3ListKeys(s3, bucket)) {
    qxtest::s3Request(s3, "DELETE", "/" + bucket + "/" + qxtest::s3Encode(key, true));
  }
}

// ---------------------------------------------------------------------------
// The service

struct ServiceConfig {
  std::string address;  // InetServer
  std::string user;
  std::string secret;
  int concurrentUploads = 2;
};

// One qxlite-svc process with folders of its own below dir: in/ (drops),
// stage/ (where drops are prepared, on the same file system), out/, backup/,
// state/.
class Service {
 public:
  Service(fs::path const& dir, ServiceConfig const& config) : m_dir(dir) {
    for (char const* f : {"in", "out", "backup", "backup/.rejected", "state", "stage"}) {
      fs::create_directories(dir / f);
      ::chmod((dir / f).c_str(), 0750);
    }
    ::chmod(dir.c_str(), 0750);
    json::Object cfg;
    cfg.setAt("ReceiveFolder", json::Value((dir / "in").string()));
    cfg.setAt("SpoolFolder", json::Value((dir / "out").string()));
    cfg.setAt("BackupFolder", json::Value((dir / "backup").string()));
    cfg.setAt("InetServer", json::Value(config.address));
    cfg.setAt("ConcurrentUploads", json::Value(json_int_t{config.concurrentUploads}));
    static char const kExts[] = R"(["bin"])";
    cfg.setAt("SrvFileExts", json::strToArray(kExts, sizeof kExts - 1));
    writeText(dir / "config.json", json::jsonToString(cfg, false), 0600);
    json::Object credentials;
    credentials.setAt("user", json::Value(config.user));
    credentials.setAt("secret", json::Value(config.secret));
    writeText(dir / "credentials.json", json::jsonToString(credentials, false), 0600);
    ::chmod((dir / "credentials.json").c_str(), 0600);
    m_process = std::make_unique<Process>(
        std::vector<std::string>{QX_SVC_PROGRAM, "--config", (dir / "config.json").string(), "--token-file",
                                 (dir / "ipc.token").string(), "--port", "0", "--foreground", "--state-dir",
                                 (dir / "state").string(), "--credentials", (dir / "credentials.json").string(),
                                 "--runtime-dir", (dir / "run").string()},
        dir / "svc.out", dir / "svc.err");
    if (!waitUntil([&] { return !m_process->running() || log().find("serving on") != std::string::npos; },
                   std::chrono::milliseconds(10), std::chrono::seconds(30)) ||
        !m_process->running()) {
      throw std::runtime_error("the service did not start:\n" + log());
    }
  }
  ~Service() {
    if (m_process) m_process->stop();
  }
  Service(Service const&) = delete;
  Service& operator=(Service const&) = delete;

  pid_t pid() const { return m_process->pid(); }
  std::string log() const { return m_process->err(); }
  // The jobs the service has reported uploaded: the server confirmed them.
  // Read from the log, so that waiting costs the server nothing.
  std::size_t uploadedJobs() const {
    std::string const text = log();
    std::size_t count = 0;
    for (std::size_t at = text.find(" uploaded job "); at != std::string::npos; at = text.find(" uploaded job ", at + 1)) {
      ++count;
    }
    return count;
  }
  fs::path stage() const { return m_dir / "stage"; }

  // Copies source into the stage folder (untimed), then returns a drop that
  // renames it into the incoming folder under name.
  std::function<void()> prepareDrop(fs::path const& source, std::string const& name) {
    fs::path const staged = stage() / name;
    fs::copy_file(source, staged, fs::copy_options::overwrite_existing);
    return [this, staged, name] { fs::rename(staged, m_dir / "in" / name); };
  }

  // Throws with the service's log unless done() holds before the limit.
  void await(std::string const& what, std::function<bool()> const& done, std::chrono::milliseconds pollEvery) {
    if (!waitUntil(
            [&] {
              if (!m_process->running()) throw std::runtime_error("the service ended during " + what + ":\n" + log());
              return done();
            },
            pollEvery)) {
      throw std::runtime_error(what + " did not finish in time; the service's log:\n" + log());
    }
  }

 private:
  fs::path const m_dir;
  std::unique_ptr<Process> m_process;
};

// The resident set of a process, sampled on a thread of its own until stop().
class RssSampler {
 public:
  explicit RssSampler(pid_t pid) : m_pid(pid), m_baselineKb(rssKb()) {
    m_thread = std::thread([this] {
      while (!m_stop.load()) {
        long const kb = rssKb();
        if (kb > m_peakKb.load()) m_peakKb.store(kb);
        std::this_thread::sleep_for(kRssSampleEvery);
      }
    });
  }
  ~RssSampler() { stop(); }
  RssSampler(RssSampler const&) = delete;
  RssSampler& operator=(RssSampler const&) = delete;

  void stop() {
    m_stop.store(true);
    if (m_thread.joinable()) m_thread.join();
  }
  double baselineMiB() const { return static_cast<double>(m_baselineKb) / 1024.0; }
  double growthMiB() const { return static_cast<double>(std::max(0L, m_peakKb.load() - m_baselineKb)) / 1024.0; }

 private:
  long rssKb() const {
    std::ifstream in("/proc/" + std::to_string(m_pid) + "/status");
    for (std::string line; std::getline(in, line);) {
      if (line.compare(0, 6, "VmRSS:") == 0) return std::atol(line.c_str() + 6);
    }
    return 0;
  }

  pid_t const m_pid;
  long const m_baselineKb;
  std::atomic<long> m_peakKb{0};
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

// ---------------------------------------------------------------------------
// The figures

struct Options {
  std::uint64_t bigMiB = 1024;
  int files = 1000;
  std::uint64_t fileKiB = 256;
  int drops = 50;
  int runs = 3;
  fs::path servers;
  fs::path dir;
  bool checkTargets = false;
};

[[noreturn]] void usage() {
  std::fprintf(stderr,
               "usage: UploadBench [--big-mib N] [--runs N] [--files N] [--file-kib N] [--drops N] [--servers DIR] "
               "[--dir FOLDER] [--check-targets]\n");
  std::exit(2);
}

Options parseOptions(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    auto number = [&]() -> std::uint64_t {
      if (i + 1 >= argc) usage();
      char* end = nullptr;
      unsigned long long const v = std::strtoull(argv[++i], &end, 10);
      if (*end != '\0' || v == 0) usage();
      return v;
    };
    if (arg == "--big-mib") {
      o.bigMiB = number();
    } else if (arg == "--files") {
      o.files = static_cast<int>(number());
    } else if (arg == "--file-kib") {
      o.fileKiB = number();
    } else if (arg == "--drops") {
      o.drops = static_cast<int>(number());
    } else if (arg == "--runs") {
      o.runs = static_cast<int>(number());
    } else if (arg == "--servers" && i + 1 < argc) {
      o.servers = argv[++i];
    } else if (arg == "--dir" && i + 1 < argc) {
      o.dir = argv[++i];
    } else if (arg == "--check-targets") {
      o.checkTargets = true;
    } else {
      usage();
    }
  }
  return o;
}

// None: a figure shown beside the others to explain them, with no target.
enum class Compare { AtLeast, AtMost, None };

struct Row {
  std::string figure;
  std::string service;
  std::string anchors;
  double value = 0;  // what the target bounds: a ratio, or a figure of the service alone
  std::string valueText;
  Compare compare = Compare::AtLeast;
  double target = 0;
  std::string targetText;
  bool met() const {
    switch (compare) {
      case Compare::AtLeast: return value >= target;
      case Compare::AtMost: return value <= target;
      case Compare::None: return true;
    }
    return false;
  }
};

template <typename... Numbers>
std::string format(std::string const& fmt, Numbers... x) {
  char buf[96];
  std::snprintf(buf, sizeof buf, fmt.c_str(), x...);
  return buf;
}

class Bench {
 public:
  Bench(Options const& options, fs::path const& work, qxtest::TestServersEnv const& servers)
      : m_options(options), m_work(work), m_s3(servers.s3), m_dav(servers.dav) {
    fs::create_directories(work / "sources" / "small");
    m_big = work / "sources" / "big.bin";
    m_quarter = work / "sources" / "quarter.bin";
    writeSource(m_big, options.bigMiB << 20, 1);
    writeSource(m_quarter, std::max<std::uint64_t>(1, options.bigMiB / 4) << 20, 2);
    for (int i = 0; i < options.files; ++i) {
      char name[32];
      std::snprintf(name, sizeof name, "f-%05d.bin", i);
      writeSource(work / "sources" / "small" / name, options.fileKiB << 10, 100 + static_cast<std::uint64_t>(i));
      m_smallNames.push_back(name);
    }
    readThrough(m_big);
    readThrough(m_quarter);
    for (std::string const& n : m_smallNames) readThrough(work / "sources" / "small" / n);
    m_tiny = work / "sources" / "warm-up.bin";
    writeText(m_tiny, "warm-up\n");
  }

  // The big file's figures: the median of --runs runs, in each of which
  // the service and every anchor upload the file once, in the same order.
  void bigFile() {
    std::string const bucket = qxtest::makeBucket(m_s3, "bench-big");
    double const mib = static_cast<double>(m_options.bigMiB);
    std::vector<double> svcSeconds, signedCurlSeconds, curlSeconds, hashSeconds, rcloneSeconds, rssGrowth;
    double rssBase = 0;
    for (int run = 0; run < m_options.runs; ++run) {
      BigDrop const drop = timeBigDrop("big-" + std::to_string(run + 1), bucket, m_big, "the big upload");
      svcSeconds.push_back(drop.seconds);
      rssGrowth.push_back(drop.rssGrowthMiB);
      rssBase = drop.rssBaselineMiB;
      expectObjectSize(bucket, bigKey(bucket), m_options.bigMiB << 20);
      removeObjects(m_s3, bucket);
      // curl doing what the service does: the body's SHA-256 taken first and
      // signed, so that the server checks the bytes (and spends the time to).
      signedCurlSeconds.push_back(timeProgram(
          {"sh", "-c",
           "sum=$(openssl dgst -sha256 -r \"$1\" | cut -d' ' -f1) && exec curl -fsS -o /dev/null --aws-sigv4 \"$2\" "
           "-u \"$3\" -H \"x-amz-content-sha256: $sum\" -T \"$1\" \"$4\"",
           "sh", m_big.string(), "aws:amz:" + m_s3.region + ":s3", m_s3.accessKey + ":" + m_s3.secretKey,
           m_s3.endpoint + "/" + bucket + "/curl/signed.bin"},
          m_work / "curl-big-signed"));
      expectObjectSize(bucket, "curl/signed.bin", m_options.bigMiB << 20);
      removeObjects(m_s3, bucket);
      curlSeconds.push_back(timeProgram(
          {"curl", "-fsS", "-o", "/dev/null", "--aws-sigv4", "aws:amz:" + m_s3.region + ":s3", "-u",
           m_s3.accessKey + ":" + m_s3.secretKey, "-H", "x-amz-content-sha256: UNSIGNED-PAYLOAD", "-T",
           m_big.string(), m_s3.endpoint + "/" + bucket + "/curl/big.bin"},
          m_work / "curl-big"));
      expectObjectSize(bucket, "curl/big.bin", m_options.bigMiB << 20);
      removeObjects(m_s3, bucket);
      hashSeconds.push_back(timeProgram({"openssl", "dgst", "-sha256", "-r", m_big.string()}, m_work / "hash-big"));
      rcloneSeconds.push_back(timeProgram({"rclone", "copy", "--config", rcloneConfig().string(), m_big.string(),
                                           "qxbench:" + bucket + "/rclone"},
                                          m_work / "rclone-big", rcloneEnv(m_s3)));
      expectObjectSize(bucket, "rclone/big.bin", m_options.bigMiB << 20);
      removeObjects(m_s3, bucket);
    }

    double const svc = mib / median(svcSeconds), signedCurl = mib / median(signedCurlSeconds);
    double const curl = mib / median(curlSeconds), rclone = mib / median(rcloneSeconds);
    double const hashFirstMost = median(curlSeconds) / (median(curlSeconds) + median(hashSeconds));
    double const growth = *std::max_element(rssGrowth.begin(), rssGrowth.end());
    std::string const size = std::to_string(m_options.bigMiB) + " MiB";
    m_rows.push_back({"1 file of " + size + " to S3, vs curl", format("%.0f MiB/s", svc),
                      format("signed curl %.0f MiB/s", signedCurl), svc / signedCurl,
                      format("%.2fx", svc / signedCurl), Compare::AtLeast, 0.9, ">= 0.9x"});
    m_rows.push_back({"the same, vs curl, body unsigned", format("%.0f MiB/s", svc),
                      format("curl %.0f MiB/s, %.2fx at most", curl, hashFirstMost), svc / curl,
                      format("%.2fx", svc / curl), Compare::None, 0, "-"});
    m_rows.push_back({"1 file of " + size + " to S3, vs rclone", format("%.0f MiB/s", svc),
                      format("rclone %.0f MiB/s", rclone), svc / rclone, format("%.2fx", svc / rclone),
                      Compare::AtLeast, 1.3, ">= 1.3x"});
    m_rows.push_back({"resident growth, " + size + " upload", format("%.1f MiB", growth),
                      format("(resident before: %.1f MiB)", rssBase), growth, format("%.1f MiB", growth),
                      Compare::AtMost, 16, "<= 16 MiB"});
    noteRuns("1 file of " + size, svcSeconds, signedCurlSeconds, "signed curl");
    noteRuns("1 file of " + size, svcSeconds, curlSeconds, "unsigned curl");
  }

  void quarterFileMemory() {
    std::string const bucket = qxtest::makeBucket(m_s3, "bench-quarter");
    std::uint64_t const mib = std::max<std::uint64_t>(1, m_options.bigMiB / 4);
    BigDrop const drop = timeBigDrop("quarter", bucket, m_quarter, "the quarter-size upload");
    expectObjectSize(bucket, bigKey(bucket), mib << 20);
    removeObjects(m_s3, bucket);
    std::string const size = std::to_string(mib) + " MiB";
    m_rows.push_back({"resident growth, " + size + " upload", format("%.1f MiB", drop.rssGrowthMiB),
                      format("(%.0f MiB/s)", static_cast<double>(mib) / drop.seconds), drop.rssGrowthMiB,
                      format("%.1f MiB", drop.rssGrowthMiB), Compare::AtMost, 16, "<= 16 MiB"});
  }

  // Many small files, the median of --runs runs. The service is done when
  // its log says that the server confirmed every file (a listing of the
  // bucket while it works would load the server); the bucket is checked
  // afterwards.
  void smallFilesS3(int concurrency) {
    std::string const bucket = qxtest::makeBucket(m_s3, "bench-small");
    std::size_t const n = m_smallNames.size();
    std::string const transfers = std::to_string(concurrency);
    std::vector<double> svcSeconds, rcloneSeconds;
    for (int run = 0; run < m_options.runs; ++run) {
      {
        auto service = s3Service("small" + transfers + "-" + std::to_string(run + 1), bucket, concurrency);
        svcSeconds.push_back(timeSmallDrops(*service, "the small uploads"));
        if (keyCount(m_s3, bucket, "") != n + 1) throw std::runtime_error("the service did not upload every small file");
      }
      removeObjects(m_s3, bucket);
      rcloneSeconds.push_back(
          timeProgram({"rclone", "copy", "--config", rcloneConfig().string(), "--transfers", transfers,
                       (m_work / "sources" / "small").string(), "qxbench:" + bucket + "/rclone"},
                      m_work / ("rclone-small" + transfers), rcloneEnv(m_s3)));
      if (keyCount(m_s3, bucket, "rclone/") != n) throw std::runtime_error("rclone did not upload every small file");
      removeObjects(m_s3, bucket);
    }
    double const svc = static_cast<double>(n) / median(svcSeconds);
    double const rclone = static_cast<double>(n) / median(rcloneSeconds);
    std::string const figure =
        std::to_string(n) + " x " + std::to_string(m_options.fileKiB) + " KiB to S3, " + transfers + " at once";
    m_rows.push_back({figure, format("%.0f files/s", svc), format("rclone --transfers " + transfers + " %.0f files/s", rclone),
                      svc / rclone, format("%.2fx", svc / rclone), Compare::AtLeast, 1.0, ">= 1.0x"});
    noteRuns(figure, svcSeconds, rcloneSeconds, "rclone");
  }

  void smallFilesDav() {
    std::size_t const n = m_smallNames.size();
    std::vector<double> svcSeconds, curlSeconds;
    for (int run = 0; run < m_options.runs; ++run) {
      std::string const folder =
          "bench-" + std::to_string(::getpid()) + "-" + std::to_string(Clock::now().time_since_epoch().count());
      fs::path const root = fs::path(m_dav.root) / folder;
      {
        ServiceConfig config{m_dav.url + "/" + folder + "/svc", m_dav.user, m_dav.password, 2};
        auto service = startWarm("dav-" + std::to_string(run + 1), config, [&] { return fileCount(root / "svc") == 1; });
        svcSeconds.push_back(timeSmallDrops(*service, "the WebDAV uploads"));
        if (fileCount(root / "svc") != n + 1) throw std::runtime_error("the service did not upload every small file to WebDAV");
      }
      auto const t0 = Clock::now();
      for (std::string const& name : m_smallNames) {
        timeProgram({"curl", "-fsS", "-o", "/dev/null", "-u", m_dav.user + ":" + m_dav.password, "-T",
                     (m_work / "sources" / "small" / name).string(), m_dav.url + "/" + folder + "/curl/" + name},
                    m_work / "curl-dav");
      }
      curlSeconds.push_back(seconds(Clock::now() - t0));
      if (fileCount(root / "curl") != n) throw std::runtime_error("curl did not upload every small file to WebDAV");
      qxtest::davRequest(m_dav, "DELETE", "/" + folder + "/");
    }
    double const svc = static_cast<double>(n) / median(svcSeconds);
    double const curl = static_cast<double>(n) / median(curlSeconds);
    std::string const figure = std::to_string(n) + " x " + std::to_string(m_options.fileKiB) + " KiB to WebDAV, 2 at once";
    m_rows.push_back({figure, format("%.0f files/s", svc), format("curl loop %.0f files/s", curl), svc / curl,
                      format("%.2fx", svc / curl), Compare::AtLeast, 0.8, ">= 0.8x"});
    noteRuns(figure, svcSeconds, curlSeconds, "curl");
  }

  void dropToPut() {
    std::string const bucket = qxtest::makeBucket(m_s3, "bench-latency");
    qxtest::HostPort const upstream = qxtest::hostPortOf(m_s3.endpoint);
    std::mutex mutex;
    std::map<std::string, Clock::time_point> putSeen;  // target -> when its head arrived
    qxtest::FaultProxy proxy(upstream.host, upstream.port, [&](std::string const& method, std::string const& target) {
      if (method == "PUT") {
        std::lock_guard<std::mutex> lock(mutex);
        putSeen.emplace(target, Clock::now());
      }
      return qxtest::Fault::pass();
    });
    ServiceConfig config{"s3://127.0.0.1:" + std::to_string(proxy.port()) + "/" + bucket, m_s3.accessKey,
                         m_s3.secretKey, 2};
    auto service = startWarm("latency", config, [&] { return keyCount(m_s3, bucket, "") == 1; });
    // When the first PUT of the object named name arrived (its key ends in /name).
    auto headOf = [&](std::string const& name) {
      std::string const tail = "/" + name;
      std::lock_guard<std::mutex> lock(mutex);
      for (auto const& seen : putSeen) {
        std::string const& target = seen.first;
        if (target.size() > tail.size() && target.compare(target.size() - tail.size(), tail.size(), tail) == 0) {
          return seen.second;
        }
      }
      return Clock::time_point{};
    };
    std::vector<double> latencyMs;
    for (int i = 0; i < m_options.drops; ++i) {
      std::string const name = "drop-" + std::to_string(i) + ".bin";
      auto drop = service->prepareDrop(latencySource(), name);
      auto const t0 = Clock::now();
      drop();
      service->await("drop " + name, [&] { return headOf(name) != Clock::time_point{}; }, std::chrono::milliseconds(1));
      latencyMs.push_back(std::chrono::duration<double, std::milli>(headOf(name) - t0).count());
      // One at a time: the next drop once this one is on the server.
      service->await("upload " + name,
                     [&] { return keyCount(m_s3, bucket, "") == static_cast<std::size_t>(i) + 2; },
                     std::chrono::milliseconds(5));
    }
    removeObjects(m_s3, bucket);
    double const med = median(latencyMs);
    double const worst = *std::max_element(latencyMs.begin(), latencyMs.end());
    m_rows.push_back({"drop to PUT head, median of " + std::to_string(latencyMs.size()), format("%.1f ms", med),
                      format("(slowest %.1f ms)", worst), med, format("%.1f ms", med), Compare::AtMost, 100,
                      "<= 100 ms"});
  }

  // The table; whether every target was met.
  bool print() const {
    std::printf("\nUploadBench: %llu MiB, %d x %llu KiB (medians of %d runs), %d drops; S3 %s, WebDAV %s\n",
                static_cast<unsigned long long>(m_options.bigMiB), m_options.files,
                static_cast<unsigned long long>(m_options.fileKiB), m_options.runs, m_options.drops, m_s3.endpoint.c_str(),
                m_dav.url.c_str());
    std::printf("%-42s %-14s %-34s %-9s %-10s %s\n", "figure", "service", "anchor(s)", "ratio", "target", "met");
    bool all = true;
    for (Row const& r : m_rows) {
      std::printf("%-42s %-14s %-34s %-9s %-10s %s\n", r.figure.c_str(), r.service.c_str(), r.anchors.c_str(),
                  r.valueText.c_str(), r.targetText.c_str(),
                  r.compare == Compare::None ? "-" : r.met() ? "met" : "NOT MET");
      all = all && r.met();
    }
    for (std::string const& note : m_notes) std::printf("%s\n", note.c_str());
    return all;
  }

 private:
  struct BigDrop {
    double seconds = 0;
    double rssGrowthMiB = 0;
    double rssBaselineMiB = 0;
  };
  // Drops source as big.bin into a service of its own uploading to bucket
  // (after its warm-up drop): the seconds until the object is there, and
  // the service's resident growth meanwhile.
  BigDrop timeBigDrop(std::string const& name, std::string const& bucket, fs::path const& source,
                      std::string const& what) {
    auto service = s3Service(name, bucket, 2);
    auto drop = service->prepareDrop(source, "big.bin");
    RssSampler rss(service->pid());
    auto const t0 = Clock::now();
    drop();
    service->await(what, [&] { return keyCount(m_s3, bucket, "") == 2; }, std::chrono::milliseconds(20));
    BigDrop result;
    result.seconds = seconds(Clock::now() - t0);
    rss.stop();
    result.rssGrowthMiB = rss.growthMiB();
    result.rssBaselineMiB = rss.baselineMiB();
    return result;
  }

  // Drops every small file into a started service (after its warm-up drop)
  // at once; the seconds until its log says that the server has them all.
  double timeSmallDrops(Service& service, std::string const& what) {
    std::vector<std::function<void()>> drops;
    for (std::string const& name : m_smallNames) {
      drops.push_back(service.prepareDrop(m_work / "sources" / "small" / name, name));
    }
    auto const t0 = Clock::now();
    for (auto const& drop : drops) drop();
    service.await(what, [&] { return service.uploadedJobs() == m_smallNames.size() + 1; },
                  std::chrono::milliseconds(10));
    return seconds(Clock::now() - t0);
  }

  // Under the table: each run's time of the service and its ratio to an
  // anchor's time in the same run.
  void noteRuns(std::string const& figure, std::vector<double> const& svcSeconds,
                std::vector<double> const& anchorSeconds, std::string const& anchor) {
    if (svcSeconds.size() < 2) return;
    std::vector<double> ratio;
    for (std::size_t i = 0; i < svcSeconds.size(); ++i) ratio.push_back(anchorSeconds[i] / svcSeconds[i]);
    m_notes.push_back(figure + ", each run: service " + runsText(svcSeconds, "%.2f") + " s; vs " + anchor + " " +
                      runsText(ratio, "%.2fx"));
  }

  fs::path latencySource() const { return m_work / "sources" / "small" / m_smallNames.front(); }

  fs::path rcloneConfig() const {
    fs::path const file = m_work / "rclone.conf";
    if (!fs::exists(file)) writeText(file, "", 0600);
    return file;
  }

  // The key of big.bin in a bucket that holds the warm-up object too.
  std::string bigKey(std::string const& bucket) const {
    for (std::string const& key : qxtest::s3ListKeys(m_s3, bucket)) {
      if (key.size() >= 8 && key.compare(key.size() - 8, 8, "/big.bin") == 0) return key;
    }
    throw std::runtime_error("no big.bin in bucket " + bucket);
  }

  void expectObjectSize(std::string const& bucket, std::string const& key, std::uint64_t size) const {
    qxtest::HttpAnswer const head = qxtest::s3Request(m_s3, "HEAD", "/" + bucket + "/" + qxtest::s3Encode(key, true));
    if (head.status != 200 || head.header("content-length") != std::to_string(size)) {
      throw std::runtime_error("object " + bucket + "/" + key + ": status " + std::to_string(head.status) +
                               ", length " + head.header("content-length") + ", expected " + std::to_string(size));
    }
  }

  // A service that uploaded its warm-up drop: its connections are open.
  std::unique_ptr<Service> startWarm(std::string const& name, ServiceConfig const& config,
                                     std::function<bool()> const& warmUpDone) {
    auto service = std::make_unique<Service>(m_work / ("svc-" + name), config);
    service->prepareDrop(m_tiny, "warm-up.bin")();
    service->await("the warm-up drop", warmUpDone, std::chrono::milliseconds(10));
    return service;
  }

  std::unique_ptr<Service> s3Service(std::string const& name, std::string const& bucket, int concurrency) {
    ServiceConfig config{"s3://" + m_s3.endpoint.substr(m_s3.endpoint.find("//") + 2) + "/" + bucket, m_s3.accessKey,
                         m_s3.secretKey, concurrency};
    return startWarm(name, config, [&] { return keyCount(m_s3, bucket, "") == 1; });
  }

  Options const m_options;
  fs::path const m_work;
  qxtest::S3TestServer const m_s3;
  qxtest::DavTestServer const m_dav;
  fs::path m_big, m_quarter, m_tiny;
  std::vector<std::string> m_smallNames;
  std::vector<Row> m_rows;
  std::vector<std::string> m_notes;  // printed under the table
};

}  // namespace

int main(int argc, char** argv) {
  Options const options = parseOptions(argc, argv);
  fs::path const work =
      (options.dir.empty() ? fs::temp_directory_path() : options.dir) / fs::unique_path("qx-uploadbench-%%%%-%%%%");
  bool allMet = false;
  struct sigaction onInterrupt {};
  onInterrupt.sa_handler = [](int) { g_interrupted = 1; };
  sigemptyset(&onInterrupt.sa_mask);
  ::sigaction(SIGINT, &onInterrupt, nullptr);
  ::sigaction(SIGTERM, &onInterrupt, nullptr);
  try {
    fs::create_directories(work);
    ::chmod(work.c_str(), 0700);
    Servers const servers(options.servers, work);
    Bench bench(options, work, servers.env);
    auto step = [](char const* what) {
      std::printf("UploadBench: %s\n", what);
      std::fflush(stdout);
    };
    step("one big file to S3: the service, curl, rclone");
    bench.bigFile();
    step("a file of a quarter of its size: the service's memory");
    bench.quarterFileMemory();
    step("small files to S3, 2 at once: the service, rclone");
    bench.smallFilesS3(2);
    step("small files to S3, 8 at once: the service, rclone");
    bench.smallFilesS3(8);
    step("small files to WebDAV: the service, a curl loop");
    bench.smallFilesDav();
    step("single drops through a proxy: the time to the PUT");
    bench.dropToPut();
    allMet = bench.print();
  } catch (std::exception const& e) {
    std::fprintf(stderr, "UploadBench: %s\n", e.what());
    boost::system::error_code ec;
    fs::remove_all(work, ec);
    return 2;
  }
  boost::system::error_code ec;
  fs::remove_all(work, ec);
  return options.checkTargets && !allMet ? 1 : 0;
}
