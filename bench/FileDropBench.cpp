// The throughput of a file drop over loopback, against a plain socket
// transfer of the same file and against cp, and the growth of the service's
// resident memory during a drop.
//
//   FileDropBench [--size=BYTES] [--runs=N] [--warmups=N] [--dir=FOLDER] [--check-targets]
//
// The size defaults to 1 GiB (or QX_BENCH_DROP_SIZE). The source file is
// written once and read once before timing, so that it is in the page cache.
// Each run drops the file, sends it over a plain socket, and copies it with
// cp, starting with a different one each run, after untimed warm-up rounds
// (1 by default) that let the system settle its page-cache memory; the
// medians of the timed runs (5 by default) are reported. The receiving sides (the drop
// service and the plain receiver) run in a child process forked before any
// thread exists; its peak resident set is reset before each drop (clear_refs)
// and read afterwards from /proc/PID/status. Every copy is compared with the
// source after its timing, then removed.
//
// Targets: the drop reaches at least 0.8 times the plain transfer, and the
// service's resident memory grows by at most 8 MiB. With --check-targets the
// exit status is 1 when one is missed; it is 2 when a transfer fails.
#include "bench/BenchFiles.h"
#include "ipc/IpcCmdsLite.h"
#include "shared/CmdClient.h"
#include "shared/CmdServer.h"
#include "shared/IoThreads.h"
#include "shared/SecretToken.h"

#include <boost/filesystem.hpp>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace fs = boost::filesystem;
using qxbench::errnoText;
using qxbench::median;
using qxbench::runsText;
using qxbench::sameContent;
using qxbench::seconds;

namespace {

constexpr std::size_t kBlock = 1 << 20;

[[noreturn]] void fail(std::string const& what) {
  std::fprintf(stderr, "FileDropBench: %s\n", what.c_str());
  std::exit(2);
}


void writeAll(int fd, char const* data, std::size_t len, char const* what) {
  while (len > 0) {
    ssize_t const n = ::write(fd, data, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) fail(errnoText(what));
    data += n;
    len -= static_cast<std::size_t>(n);
  }
}

void sendAll(int fd, char const* data, std::size_t len) {
  while (len > 0) {
    ssize_t const n = ::send(fd, data, len, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) fail(errnoText("plain send"));
    data += n;
    len -= static_cast<std::size_t>(n);
  }
}

// Reads exactly len bytes; false at the end of the stream.
bool recvAll(int fd, char* data, std::size_t len) {
  while (len > 0) {
    ssize_t const n = ::recv(fd, data, len, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    len -= static_cast<std::size_t>(n);
  }
  return true;
}

int loopbackSocket(std::uint16_t port, bool listen) {
  int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) fail(errnoText("socket"));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int const one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  if (listen) {
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) fail(errnoText("bind"));
    if (::listen(fd, 4) != 0) fail(errnoText("listen"));
  } else if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    fail(errnoText("connect"));
  }
  return fd;
}

std::uint16_t localPort(int fd) {
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  return ntohs(addr.sin_port);
}

// ---------------------------------------------------------------------------
// The child: the drop service and the plain receiver.

class SetRespProcessor : public Ipc::CmdProcessorLiteI {
 public:
  void visit(Ipc::FileDrop& drop) override { drop.setResp(); }
};

// Each connection: an 8-byte size, then that many bytes, written to target in
// pieces of 1 MiB with plain POSIX calls; one byte answers when all is
// written.
class PlainReceiver {
 public:
  explicit PlainReceiver(fs::path target) : m_target(std::move(target)), m_listen(loopbackSocket(0, true)) {
    m_thread = std::thread([this] { serve(); });
  }
  ~PlainReceiver() {
    ::shutdown(m_listen, SHUT_RDWR);
    m_thread.join();
    ::close(m_listen);
  }
  std::uint16_t port() const { return localPort(m_listen); }

 private:
  void serve() {
    std::vector<char> buffer(kBlock);
    for (;;) {
      int const conn = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
      if (conn < 0) {
        if (errno == EINTR) continue;
        return;  // shut down
      }
      std::uint64_t size = 0;
      if (recvAll(conn, reinterpret_cast<char*>(&size), sizeof size)) {
        int const out = ::open(m_target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (out < 0) fail(errnoText("open " + m_target.string()));
        bool complete = true;
        for (std::uint64_t done = 0; done < size;) {
          std::size_t const n = static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, size - done));
          if (!recvAll(conn, buffer.data(), n)) {
            complete = false;
            break;
          }
          writeAll(out, buffer.data(), n, "plain write");
          done += n;
        }
        ::close(out);
        char const ack = complete ? 'k' : 'x';
        sendAll(conn, &ack, 1);
      }
      ::close(conn);
    }
  }

  fs::path const m_target;
  int const m_listen;
  std::thread m_thread;
};

// Runs until ctlFd reaches its end (the parent closed it).
int serviceMain(fs::path const& spool, fs::path const& plainTarget, Ipc::SecretToken const& token,
                int infoFd, int ctlFd) {
  Ipc::IoThreads io(2);
  Ipc::CmdServerOptions options;
  options.forceIp4 = true;
  auto const processor = std::make_shared<SetRespProcessor>();
  Ipc::CmdServer server(
      io, options, token,
      [spool](Ipc::CmdI::TypeCode type, std::shared_ptr<Ipc::CmdProcessorI> const& p) {
        return std::shared_ptr<Ipc::CmdI>(Ipc::createLiteCmd(type, p, spool));
      },
      processor);
  server.start();
  PlainReceiver plain(plainTarget);
  std::uint16_t const ports[2] = {server.port(), plain.port()};
  writeAll(infoFd, reinterpret_cast<char const*>(ports), sizeof ports, "info pipe");
  ::close(infoFd);
  char c;
  while (::read(ctlFd, &c, 1) > 0) {
  }
  server.stop();
  io.stop();
  return 0;
}

// ---------------------------------------------------------------------------
// The parent

// A value in kB from /proc/PID/status ("VmRSS", "VmHWM").
long statusKb(pid_t pid, std::string const& key) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, key.size() + 1, key + ":") == 0) return std::atol(line.c_str() + key.size() + 1);
  }
  fail("no " + key + " in /proc/" + std::to_string(pid) + "/status");
}

// Resets the peak resident set of pid to its current one.
void resetPeak(pid_t pid) {
  std::ofstream out("/proc/" + std::to_string(pid) + "/clear_refs");
  out << "5" << std::flush;
  if (!out) fail("cannot reset the peak resident set of the service (clear_refs)");
}

}  // namespace

int main(int argc, char** argv) {
  qxbench::DropOptions const options = qxbench::parseDropOptions(argc, argv, "FileDropBench");
  fs::path const work = (options.dir.empty() ? fs::temp_directory_path() : options.dir) /
                        fs::unique_path("qx-dropbench-%%%%-%%%%");
  fs::path const spool = work / "spool";
  fs::path const source = work / "source.bin";
  fs::path const plainTarget = work / "plain.bin";
  fs::path const cpTarget = spool / "cp.bin";
  fs::create_directories(spool);
  Ipc::SecretToken const token = Ipc::SecretToken::generate();

  // The child first, while this process has no thread.
  int info[2], ctl[2];
  if (::pipe2(info, O_CLOEXEC) != 0 || ::pipe2(ctl, O_CLOEXEC) != 0) fail(errnoText("pipe"));
  pid_t const child = ::fork();
  if (child < 0) fail(errnoText("fork"));
  if (child == 0) {
    ::close(info[0]);
    ::close(ctl[1]);
    ::_exit(serviceMain(spool, plainTarget, token, info[1], ctl[0]));
  }
  ::close(info[1]);
  ::close(ctl[0]);
  std::uint16_t ports[2];
  if (::read(info[0], ports, sizeof ports) != static_cast<ssize_t>(sizeof ports)) fail("the service did not start");
  ::close(info[0]);

  try {
    qxbench::writeSource(source, options.size, 0, 0600);
    qxbench::readThrough(source);
  } catch (std::exception const& e) {
    fail(e.what());
  }

  Ipc::IoThreads io(2);
  Ipc::CmdClientOptions clientOptions;
  clientOptions.port = ports[0];
  Ipc::CmdClient client(io, clientOptions, token);
  auto const ui = std::make_shared<Ipc::CmdProcessorLiteI>();
  fs::path const dropTarget = spool / source.filename();
  double const gib = static_cast<double>(options.size) / double(1 << 30);

  std::vector<double> dropRate, plainRate, cpRate;
  long rssBefore = 0, worstGrowthKb = 0;

  // The memory growth counts every drop, the warm-up ones too.
  auto timeDrop = [&] {
    resetPeak(child);
    long const rss = statusKb(child, "VmRSS");
    if (rssBefore == 0) rssBefore = rss;
    auto const t0 = std::chrono::steady_clock::now();
    auto drop = std::make_shared<Ipc::FileDrop>(ui, source);
    if (!drop->prepareReq()) fail("nothing to drop");
    std::string const error = client.run(drop);
    auto const t1 = std::chrono::steady_clock::now();
    if (!error.empty() || !drop->ok) fail("the drop failed: " + error + " " + drop->msg);
    worstGrowthKb = std::max(worstGrowthKb, statusKb(child, "VmHWM") - rss);
    if (!sameContent(source, dropTarget)) fail("the dropped file differs from the source");
    fs::remove(dropTarget);
    dropRate.push_back(gib / seconds(t1 - t0));
  };

  auto timePlain = [&] {
    auto const t0 = std::chrono::steady_clock::now();
    int const conn = loopbackSocket(ports[1], false);
    std::uint64_t const size = options.size;
    sendAll(conn, reinterpret_cast<char const*>(&size), sizeof size);
    int const in = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) fail(errnoText("open source"));
    std::vector<char> block(kBlock);
    for (ssize_t n; (n = ::read(in, block.data(), block.size())) > 0;) {
      sendAll(conn, block.data(), static_cast<std::size_t>(n));
    }
    ::close(in);
    char ack = 0;
    if (!recvAll(conn, &ack, 1) || ack != 'k') fail("the plain transfer failed");
    ::close(conn);
    auto const t1 = std::chrono::steady_clock::now();
    if (!sameContent(source, plainTarget)) fail("the plain copy differs from the source");
    fs::remove(plainTarget);
    plainRate.push_back(gib / seconds(t1 - t0));
  };

  auto timeCp = [&] {
    std::string const command = "cp '" + source.string() + "' '" + cpTarget.string() + "'";
    auto const t0 = std::chrono::steady_clock::now();
    if (std::system(command.c_str()) != 0) fail("cp failed");
    auto const t1 = std::chrono::steady_clock::now();
    if (!sameContent(source, cpTarget)) fail("the cp copy differs from the source");
    fs::remove(cpTarget);
    cpRate.push_back(gib / seconds(t1 - t0));
  };

  // The order turns with each run: whichever transfer comes first after a
  // pause tends to pay for page-cache memory that the system has to find.
  std::vector<std::function<void()>> const transfers{timeDrop, timePlain, timeCp};
  for (int run = -options.warmups; run < options.runs; ++run) {
    for (std::size_t i = 0; i < transfers.size(); ++i) {
      transfers[(i + static_cast<std::size_t>(run + options.warmups)) % transfers.size()]();
    }
    if (run < 0) {
      dropRate.clear();
      plainRate.clear();
      cpRate.clear();
    }
  }

  ::close(ctl[1]);
  int status = 0;
  ::waitpid(child, &status, 0);
  fs::remove_all(work);

  double const drop = median(dropRate), plain = median(plainRate), cp = median(cpRate);
  double const ratio = drop / plain;
  double const growthMiB = static_cast<double>(worstGrowthKb) / 1024.0;
  bool const ratioMet = ratio >= 0.8, memoryMet = growthMiB <= 8.0;
  std::printf("FileDropBench: %llu bytes (%.3f GiB), %d run(s) after %d warm-up round(s), medians\n",
              static_cast<unsigned long long>(options.size), gib, options.runs, options.warmups);
  std::printf("  drop over loopback        %7.3f GiB/s   (runs: %s)\n", drop, runsText(dropRate).c_str());
  std::printf("  plain socket, 1 MiB I/O   %7.3f GiB/s   (runs: %s)\n", plain, runsText(plainRate).c_str());
  std::printf("  cp into the spool folder  %7.3f GiB/s   (runs: %s)\n", cp, runsText(cpRate).c_str());
  std::printf("  drop / plain              %7.2f        (target >= 0.80: %s)\n", ratio,
              ratioMet ? "met" : "MISSED");
  std::printf("  service resident growth   %7.2f MiB    (peak over a drop; target <= 8 MiB: %s; "
              "resident before: %.1f MiB)\n",
              growthMiB, memoryMet ? "met" : "MISSED", static_cast<double>(rssBefore) / 1024.0);
  if (WIFEXITED(status) == 0 || WEXITSTATUS(status) != 0) fail("the service did not end cleanly");
  return options.checkTargets && !(ratioMet && memoryMet) ? 1 : 0;
}
