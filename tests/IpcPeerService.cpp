// A service for the two-process IPC tests: serves the lite commands with the
// test processor on a loopback port that the system chooses.
//
//   IpcPeerService TOKEN-FILE [MAX-FILES]
//
// Reads the secret token from TOKEN-FILE, or creates the file with a new one,
// starts the server (IPv4 loopback), prints its port and a line feed on
// standard output, and serves until standard input reaches its end or the
// process receives SIGTERM or SIGINT. Exit status 0 after a clean stop, 2 on
// a usage or start-up error (with a message on standard error). MAX-FILES
// lowers its limit of open descriptors (RLIMIT_NOFILE), for the tests of
// what it does when it runs out; so that a flood of silent connections can
// use them up, it then keeps them the way every connection once was kept:
// any of the 64 places may go to an unproved one, for 10 s. Its log goes to
// standard error.
#include "ipc/IpcCmdsLite.h"
#include "shared/CmdServer.h"
#include "shared/IoThreads.h"
#include "shared/SecretToken.h"
#include "tests/IpcTestProcessor.h"

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <thread>

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) {
    std::cerr << "usage: IpcPeerService TOKEN-FILE [MAX-FILES]\n";
    return 2;
  }
  if (argc == 3) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::strtoul(argv[2], nullptr, 10);
    if (limit.rlim_cur == 0 || ::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
      std::cerr << "IpcPeerService: cannot set the limit of open files to " << argv[2] << "\n";
      return 2;
    }
  }

  // Every thread started from here on inherits the blocked set, so the stop
  // signals are taken only by sigwait below.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  try {
    Ipc::SecretToken const token = Ipc::SecretToken::loadOrCreate(argv[1]);
    Ipc::IoThreads io;
    Ipc::CmdServerOptions options;
    options.port = 0;
    options.forceIp4 = true;
    if (argc == 3) {
      options.maxUnprovedConnections = options.maxConnections;
      options.helloTimeout = std::chrono::seconds(10);
    }
    Ipc::CmdServer server(io, options, token, &qxtest::makeLiteCmd,
                          std::make_shared<qxtest::TestLiteProcessor>());
    server.start();
    std::cout << server.port() << std::endl;

    // The end of standard input becomes a SIGTERM to this process, so that
    // one sigwait covers both ways to stop.
    std::thread stdinWatch([] {
      char buf[256];
      while (true) {
        ssize_t const n = ::read(STDIN_FILENO, buf, sizeof buf);
        if (n == 0 || (n < 0 && errno != EINTR)) break;
      }
      ::kill(::getpid(), SIGTERM);
    });
    stdinWatch.detach();

    int sig = 0;
    sigwait(&stopSignals, &sig);
    server.stop();
    io.stop();
  } catch (std::exception const& e) {
    std::cerr << "IpcPeerService: " << e.what() << "\n";
    return 2;
  }
  return 0;
}
