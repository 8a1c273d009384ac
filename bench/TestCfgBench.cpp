// Throughput of the result lines of a configuration test over loopback.
//
// Streams N result lines of B bytes (default 100000 of 60) from a service to
// a user interface in one Ipc::TestCfg, through CmdServer and CmdClient, and
// sends the same records (a write of the 8-byte length, then a write of the
// text, per line; a zero length at the end) over a plain blocking TCP
// connection in the same run, for reference. Both connections have
// TCP_NODELAY set, as the transport sets it (--nagle leaves it off on the
// plain one). Each round measures both. The figures are the medians and the
// best rounds (others' load on the machine only lowers a rate), and the CPU
// time of the whole process per line, which load disturbs less.
//
//   TestCfgBench [--lines N] [--bytes B] [--rounds R] [--min-ratio X] [--nagle]
//
// Exits with 1 when a run delivered other lines than were sent, and with 2
// when --min-ratio is given and the median ratio TestCfg / plain is below it.
#include "ipc/IpcCmdsLite.h"
#include "ipc/MsgsUItoSvc.h"
#include "json/Json.h"
#include "settings/Settings.h"
#include "shared/CmdClient.h"
#include "shared/CmdServer.h"
#include "shared/IoThreads.h"
#include "shared/SecretToken.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// CPU time of the whole process (every thread of both ends), in seconds.
double processCpuSeconds() {
  timespec ts{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// One measured run: lines per second of wall time, and CPU microseconds per
// line; a negative rate when the lines did not all arrive.
struct Figures {
  double rate = -1;
  double cpuMicros = 0;
};

struct Options {
  std::size_t lines = 100000;
  std::size_t bytes = 60;
  int rounds = 5;
  double minRatio = 0;
  bool nagle = false;
};

// A line of exactly bytes bytes, starting with the pass prefix.
std::string makeLine(std::size_t bytes) {
  std::string line = Ipc::TST_LINE_START_PASS + "check passed: ";
  line.resize(std::max(bytes, line.size()), 'x');
  line.resize(bytes);
  return line;
}

// ---------------------------------------------------------------------------
// Through TestCfg.

// The service's test: one line per step, count lines in all.
class LinesRunner : public Ipc::TestCfg::TestRunnerI {
 public:
  LinesRunner(Ipc::TestCfg& cmd, std::size_t count, std::string const& line)
      : m_cmd(cmd), m_left(count), m_line(line) {}
  bool runStep() override {
    if (m_left == 0) return false;
    --m_left;
    m_cmd.respMsgs()->lines.push_back(m_line);
    return true;
  }

 private:
  Ipc::TestCfg& m_cmd;
  std::size_t m_left;
  std::string const& m_line;
};

class BenchService : public Ipc::CmdProcessorLiteI {
 public:
  BenchService(std::size_t lines, std::size_t bytes) : m_lines(lines), m_line(makeLine(bytes)) {}
  void visit(Ipc::IsRunning& c) override { c.running = true; }
  void visit(Ipc::TestCfg& c) override {
    c.runner = std::make_unique<LinesRunner>(c, m_lines, m_line);
  }

 private:
  std::size_t const m_lines;
  std::string const m_line;
};

// Takes every announced line at once, as a user interface would, and checks it.
class BenchUi : public Ipc::CmdProcessorI {
 public:
  explicit BenchUi(std::string line) : m_line(std::move(line)) {}
  void processCmd(std::shared_ptr<Ipc::CmdI> cmd) override {
    auto& testCfg = static_cast<Ipc::TestCfg&>(*cmd);
    std::string line;
    while (testCfg.getRespLine(line)) {
      m_received.fetch_add(1, std::memory_order_relaxed);
      if (line != m_line) m_wrong.fetch_add(1, std::memory_order_relaxed);
    }
  }
  std::size_t received() const { return m_received.load(); }
  std::size_t wrong() const { return m_wrong.load(); }

 private:
  std::string const m_line;
  std::atomic<std::size_t> m_received{0};
  std::atomic<std::size_t> m_wrong{0};
};

class TestCfgPath {
 public:
  explicit TestCfgPath(Options const& o)
      : m_options(o),
        m_token(Ipc::SecretToken::generate()),
        m_svcProcessor(std::make_shared<BenchService>(o.lines, o.bytes)) {
    Ipc::CmdServerOptions so;
    so.forceIp4 = true;
    m_server = std::make_unique<Ipc::CmdServer>(
        m_svcIo, so, m_token,
        [](Ipc::CmdI::TypeCode type, std::shared_ptr<Ipc::CmdProcessorI> const& p) {
          return std::shared_ptr<Ipc::CmdI>(Ipc::createLiteCmd(type, p, "/nonexistent"));
        },
        m_svcProcessor);
    m_server->start();
    Ipc::CmdClientOptions co;
    co.port = m_server->port();
    m_client = std::make_unique<Ipc::CmdClient>(m_uiIo, co, m_token);
    // The connection and its token exchange are made before anything is timed.
    std::string const error = m_client->run(std::make_shared<Ipc::IsRunning>(nullptr));
    if (!error.empty()) throw std::runtime_error("warm-up failed: " + error);
  }

  ~TestCfgPath() {
    m_client.reset();
    m_server->stop();
  }

  Figures run() {
    auto const ui = std::make_shared<BenchUi>(makeLine(m_options.bytes));
    auto const cmd = std::make_shared<Ipc::TestCfg>(ui, Settings(json::Object()));
    double const cpuStart = processCpuSeconds();
    Clock::time_point const start = Clock::now();
    std::string const error = m_client->run(cmd);
    double const secs = std::chrono::duration<double>(Clock::now() - start).count();
    double const cpu = processCpuSeconds() - cpuStart;
    Figures f;
    if (!error.empty()) {
      std::fprintf(stderr, "TestCfg failed: %s\n", error.c_str());
      return f;
    }
    if (ui->received() != m_options.lines || ui->wrong() != 0) {
      std::fprintf(stderr, "TestCfg delivered %zu lines (%zu wrong) of %zu\n", ui->received(),
                   ui->wrong(), m_options.lines);
      return f;
    }
    f.rate = static_cast<double>(m_options.lines) / secs;
    f.cpuMicros = cpu * 1e6 / static_cast<double>(m_options.lines);
    return f;
  }

 private:
  Options const m_options;
  Ipc::SecretToken const m_token;
  Ipc::IoThreads m_svcIo;
  Ipc::IoThreads m_uiIo;
  std::shared_ptr<BenchService> const m_svcProcessor;
  std::unique_ptr<Ipc::CmdServer> m_server;
  std::unique_ptr<Ipc::CmdClient> m_client;
};

// ---------------------------------------------------------------------------
// Plain blocking sockets.

void check(bool ok, char const* what) {
  if (!ok) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

bool writeAll(int fd, void const* data, std::size_t len) {
  auto const* p = static_cast<char const*>(data);
  while (len > 0) {
    ssize_t const n = ::send(fd, p, len, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    len -= static_cast<std::size_t>(n);
  }
  return true;
}

bool readAll(int fd, void* buf, std::size_t len) {
  auto* p = static_cast<char*>(buf);
  while (len > 0) {
    ssize_t const n = ::recv(fd, p, len, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    len -= static_cast<std::size_t>(n);
  }
  return true;
}

void setNoDelay(int fd) {
  int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

Figures runPlain(Options const& o) {
  int const listener = ::socket(AF_INET, SOCK_STREAM, 0);
  check(listener >= 0, "socket");
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  check(::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0, "bind");
  check(::listen(listener, 1) == 0, "listen");
  check(::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) == 0, "getsockname");

  std::promise<void> go;
  std::shared_future<void> started = go.get_future().share();
  std::thread writer([&o, listener, started] {
    int const fd = ::accept(listener, nullptr, nullptr);
    if (fd < 0) return;
    if (!o.nagle) setNoDelay(fd);
    std::string const line = makeLine(o.bytes);
    started.wait();
    for (std::size_t i = 0; i < o.lines; ++i) {
      std::uint64_t const n = line.size();
      if (!writeAll(fd, &n, sizeof n) || !writeAll(fd, line.data(), line.size())) break;
    }
    std::uint64_t const end = 0;
    writeAll(fd, &end, sizeof end);
    ::close(fd);
  });

  int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
  check(fd >= 0, "socket");
  check(::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0, "connect");
  if (!o.nagle) setNoDelay(fd);
  std::string const expected = makeLine(o.bytes);
  std::size_t received = 0;
  std::size_t wrong = 0;
  double const cpuStart = processCpuSeconds();
  Clock::time_point const start = Clock::now();
  go.set_value();
  for (;;) {
    std::uint64_t n = 0;
    if (!readAll(fd, &n, sizeof n) || n == 0) break;
    std::string line(static_cast<std::size_t>(n), '\0');
    if (!readAll(fd, &line[0], line.size())) break;
    ++received;
    if (line != expected) ++wrong;
  }
  double const secs = std::chrono::duration<double>(Clock::now() - start).count();
  writer.join();  // the writer has sent everything by now; its end is not timed
  double const cpu = processCpuSeconds() - cpuStart;
  ::close(fd);
  ::close(listener);
  Figures f;
  if (received != o.lines || wrong != 0) {
    std::fprintf(stderr, "plain sockets delivered %zu lines (%zu wrong) of %zu\n", received, wrong,
                 o.lines);
    return f;
  }
  f.rate = static_cast<double>(o.lines) / secs;
  f.cpuMicros = cpu * 1e6 / static_cast<double>(o.lines);
  return f;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  std::size_t const n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    auto value = [&]() -> char const* {
      if (i + 1 >= argc) throw std::runtime_error(arg + " needs a value");
      return argv[++i];
    };
    if (arg == "--lines") {
      o.lines = std::strtoull(value(), nullptr, 10);
    } else if (arg == "--bytes") {
      o.bytes = std::strtoull(value(), nullptr, 10);
    } else if (arg == "--rounds") {
      o.rounds = std::atoi(value());
    } else if (arg == "--min-ratio") {
      o.minRatio = std::atof(value());
    } else if (arg == "--nagle") {
      o.nagle = true;
    } else {
      throw std::runtime_error("unknown argument " + arg);
    }
  }
  if (o.lines == 0 || o.bytes == 0 || o.rounds < 1) {
    throw std::runtime_error("--lines, --bytes and --rounds must be at least 1");
  }
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Options const o = parse(argc, argv);
    std::printf("TestCfgBench: %zu lines of %zu bytes per run, %d round(s), plain sockets %s\n",
                o.lines, o.bytes, o.rounds, o.nagle ? "with Nagle" : "with TCP_NODELAY");
    TestCfgPath testCfg(o);
    std::vector<double> rateT, rateP, cpuT, cpuP;
    for (int round = 1; round <= o.rounds; ++round) {
      Figures const t = testCfg.run();
      Figures const p = runPlain(o);
      if (t.rate < 0 || p.rate < 0) return 1;
      rateT.push_back(t.rate);
      rateP.push_back(p.rate);
      cpuT.push_back(t.cpuMicros);
      cpuP.push_back(p.cpuMicros);
      std::printf("round %d: TestCfg %.0f lines/s (%.2f us CPU/line), plain sockets %.0f lines/s "
                  "(%.2f us CPU/line), ratio %.2f\n",
                  round, t.rate, t.cpuMicros, p.rate, p.cpuMicros, t.rate / p.rate);
    }
    double const t = median(rateT);
    double const p = median(rateP);
    double const ratio = t / p;
    double const bestT = *std::max_element(rateT.begin(), rateT.end());
    double const bestP = *std::max_element(rateP.begin(), rateP.end());
    std::printf("median: TestCfg %.0f lines/s (%.1f MB/s of text, %.2f us CPU/line), plain sockets "
                "%.0f lines/s (%.2f us CPU/line), ratio %.2f\n",
                t, t * static_cast<double>(o.bytes) / 1e6, median(cpuT), p, median(cpuP), ratio);
    std::printf("best:   TestCfg %.0f lines/s, plain sockets %.0f lines/s, ratio %.2f\n", bestT,
                bestP, bestT / bestP);
    std::fflush(stdout);
    if (o.minRatio > 0 && ratio < o.minRatio) {
      std::fprintf(stderr, "ratio %.2f is below %.2f\n", ratio, o.minRatio);
      return 2;
    }
    return 0;
  } catch (std::exception const& e) {
    std::fprintf(stderr, "TestCfgBench: %s\n", e.what());
    return 1;
  }
}
