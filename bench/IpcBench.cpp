// IPC round trips on loopback: the IsRunning command through the transport
// against a bare TCP ping-pong of the same byte counts.
//
//   BM_IsRunningRoundTrip    one client, one command at a time; median and
//                            99th percentile latency (counters median_us,
//                            p99_us; the reported time is their mean)
//   BM_IsRunning8Clients     8 threads, each with its own client, commands
//                            back to back; items_per_second is requests per
//                            second over all of them
//   BM_TcpPingPong           plain blocking sockets: the client writes the 8
//                            bytes of a request frame, the server reads them
//                            and writes as many bytes as the IsRunning
//                            response (status frame 8, body length 4 and
//                            {"resp":true}); median and p99 as above
//
// At the end the ratio of the two medians (of the last run of each) is printed.
// On a virtual machine whose idle cores sleep deeply, wake-ups across cores
// dominate the latencies and vary from run to run; pinning the process to one
// core (taskset -c 0) gives steady figures.
#include "ipc/IpcCmdsLite.h"
#include "shared/CmdClient.h"
#include "shared/CmdServer.h"
#include "shared/IoThreads.h"
#include "shared/SecretToken.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// Serves IsRunning only: the service is running.
class RunningProcessor : public Ipc::CmdProcessorLiteI {
 public:
  void visit(Ipc::IsRunning& c) override { c.running = true; }
};

// The service, started once for all benchmarks.
struct Service {
  Service()
      : token(Ipc::SecretToken::generate()),
        server(io, options(), token,
               [](Ipc::CmdI::TypeCode type, std::shared_ptr<Ipc::CmdProcessorI> const& p) {
                 return std::shared_ptr<Ipc::CmdI>(Ipc::createLiteCmd(type, p, {}));
               },
               std::make_shared<RunningProcessor>()) {
    server.start();
  }
  static Ipc::CmdServerOptions options() {
    Ipc::CmdServerOptions o;
    o.forceIp4 = true;
    return o;
  }
  Ipc::IoThreads io;
  Ipc::SecretToken token;
  Ipc::CmdServer server;
};

std::unique_ptr<Service> g_service;
std::unique_ptr<Ipc::IoThreads> g_clientIo;  // the clients' transport threads
std::shared_ptr<Ipc::CmdProcessorI> const g_uiProcessor = std::make_shared<Ipc::CmdProcessorLiteI>();

// Medians of the last run of each latency benchmark, in microseconds.
std::atomic<double> g_ipcMedianUs{0};
std::atomic<double> g_ipcCallerMedianUs{0};
std::atomic<double> g_tcpMedianUs{0};

Ipc::CmdClientOptions clientOptions() {
  Ipc::CmdClientOptions o;
  o.port = g_service->server.port();
  return o;
}

// Nearest-rank percentile of sorted samples.
double percentile(std::vector<double> const& sorted, double p) {
  if (sorted.empty()) return 0;
  std::size_t rank = static_cast<std::size_t>(std::ceil(p / 100.0 * sorted.size()));
  rank = std::max<std::size_t>(rank, 1);
  return sorted[std::min(rank, sorted.size()) - 1];
}

// Sets the counters median_us and p99_us; returns the median.
double reportLatency(benchmark::State& state, std::vector<double>& samplesNs) {
  std::sort(samplesNs.begin(), samplesNs.end());
  double const median = percentile(samplesNs, 50) / 1000.0;
  state.counters["median_us"] = median;
  state.counters["p99_us"] = percentile(samplesNs, 99) / 1000.0;
  return median;
}

// Runs one IsRunning; false on failure (with the reason given to state).
bool isRunning(Ipc::CmdClient& client, benchmark::State& state) {
  auto const cmd = std::make_shared<Ipc::IsRunning>(g_uiProcessor);
  std::string const error = client.run(cmd);
  if (!error.empty() || !cmd->running) {
    state.SkipWithError(error.empty() ? "IsRunning answered false" : error.c_str());
    return false;
  }
  return true;
}

// Times each IsRunning round trip of client; returns the median in us.
double measureRoundTrips(Ipc::CmdClient& client, benchmark::State& state) {
  if (!isRunning(client, state)) return 0;  // connects outside the measurement
  std::vector<double> samples;
  samples.reserve(1 << 16);
  for (auto _ : state) {
    auto const cmd = std::make_shared<Ipc::IsRunning>(g_uiProcessor);
    auto const t0 = Clock::now();
    std::string const error = client.run(cmd);
    auto const t1 = Clock::now();
    if (!error.empty()) {
      state.SkipWithError(error.c_str());
      break;
    }
    double const ns = std::chrono::duration<double, std::nano>(t1 - t0).count();
    state.SetIterationTime(ns / 1e9);
    samples.push_back(ns);
  }
  return reportLatency(state, samples);
}

// A client whose completions run on the transport's threads.
void BM_IsRunningRoundTrip(benchmark::State& state) {
  Ipc::CmdClient client(*g_clientIo, clientOptions(), g_service->token);
  g_ipcMedianUs = measureRoundTrips(client, state);
}
BENCHMARK(BM_IsRunningRoundTrip)->UseManualTime()->Unit(benchmark::kMicrosecond);

// A client without threads: its bytes move on the caller's thread.
void BM_IsRunningRoundTripCallerThread(benchmark::State& state) {
  Ipc::CmdClient client(clientOptions(), g_service->token);
  g_ipcCallerMedianUs = measureRoundTrips(client, state);
}
BENCHMARK(BM_IsRunningRoundTripCallerThread)->UseManualTime()->Unit(benchmark::kMicrosecond);

// Requests per second of 8 clients at once, each run by its own thread.
void runClients(Ipc::CmdClient& client, benchmark::State& state) {
  if (!isRunning(client, state)) return;
  for (auto _ : state) {
    auto const cmd = std::make_shared<Ipc::IsRunning>(g_uiProcessor);
    std::string const error = client.run(cmd);
    if (!error.empty()) {
      state.SkipWithError(error.c_str());
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_IsRunning8Clients(benchmark::State& state) {
  Ipc::CmdClient client(*g_clientIo, clientOptions(), g_service->token);
  runClients(client, state);
}
BENCHMARK(BM_IsRunning8Clients)->Threads(8)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_IsRunning8ClientsCallerThread(benchmark::State& state) {
  Ipc::CmdClient client(clientOptions(), g_service->token);
  runClients(client, state);
}
BENCHMARK(BM_IsRunning8ClientsCallerThread)->Threads(8)->UseRealTime()->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------
// The bare TCP ping-pong

constexpr std::size_t kRequestBytes = 8;  // a request frame without body
// The IsRunning response: status frame, body length, {"resp":true}.
constexpr std::size_t kResponseBytes = 8 + 4 + sizeof("{\"resp\":true}") - 1;
static_assert(kResponseBytes == 25, "8 + 4 + 13");

bool readAll(int fd, char* buf, std::size_t len) {
  while (len > 0) {
    ssize_t const n = ::recv(fd, buf, len, 0);
    if (n <= 0) return false;
    buf += n;
    len -= static_cast<std::size_t>(n);
  }
  return true;
}

bool writeAll(int fd, char const* buf, std::size_t len) {
  while (len > 0) {
    ssize_t const n = ::send(fd, buf, len, MSG_NOSIGNAL);
    if (n <= 0) return false;
    buf += n;
    len -= static_cast<std::size_t>(n);
  }
  return true;
}

void noDelay(int fd) {
  int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

void BM_TcpPingPong(benchmark::State& state) {
  int const listener = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(listener, 1) != 0 ||
      ::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    state.SkipWithError("cannot listen");
    if (listener >= 0) ::close(listener);
    return;
  }
  // Answers each 8-byte request with the response's byte count, until the
  // client closes.
  std::thread server([listener] {
    int const conn = ::accept(listener, nullptr, nullptr);
    if (conn < 0) return;
    noDelay(conn);
    char request[kRequestBytes];
    char response[kResponseBytes] = {};
    while (readAll(conn, request, sizeof request) && writeAll(conn, response, sizeof response)) {
    }
    ::close(conn);
  });

  int const client = ::socket(AF_INET, SOCK_STREAM, 0);
  bool const connected =
      client >= 0 && ::connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  if (!connected) {
    state.SkipWithError("cannot connect");
  } else {
    noDelay(client);
    char request[kRequestBytes] = {'Q', 'X', 1, 1, 0, 0, 0, 0};
    char response[kResponseBytes];
    std::vector<double> samples;
    samples.reserve(1 << 16);
    for (auto _ : state) {
      auto const t0 = Clock::now();
      bool const ok = writeAll(client, request, sizeof request) &&
                      readAll(client, response, sizeof response);
      auto const t1 = Clock::now();
      if (!ok) {
        state.SkipWithError("ping-pong failed");
        break;
      }
      double const ns = std::chrono::duration<double, std::nano>(t1 - t0).count();
      state.SetIterationTime(ns / 1e9);
      samples.push_back(ns);
    }
    g_tcpMedianUs = reportLatency(state, samples);
  }
  if (client >= 0) ::close(client);  // ends the server's loop
  ::shutdown(listener, SHUT_RDWR);   // or wakes its accept
  server.join();
  ::close(listener);
}
BENCHMARK(BM_TcpPingPong)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  g_service = std::make_unique<Service>();
  g_clientIo = std::make_unique<Ipc::IoThreads>();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  double const ipc = g_ipcMedianUs;
  double const tcp = g_tcpMedianUs;
  if (ipc > 0 && tcp > 0) {
    std::printf("Median round trip: IsRunning %.1f us, bare TCP %.1f us, ratio %.2f\n", ipc, tcp,
                ipc / tcp);
  }
  if (g_ipcCallerMedianUs > 0 && tcp > 0) {
    std::printf("Median round trip: IsRunning on the caller's thread %.1f us, bare TCP %.1f us, ratio %.2f\n",
                g_ipcCallerMedianUs.load(), tcp, g_ipcCallerMedianUs.load() / tcp);
  }
  g_clientIo.reset();  // no client is left by now
  g_service.reset();
  return 0;
}
