// Programs that the benchmarks start: posix_spawn with the output in two
// files, killed and reaped when their Process goes. posix_spawn, not a
// toolkit's process class, so that ThreadSanitizer builds follow the
// parent's threads correctly after the start.
//
// One thread: the one that made the Process.
#ifndef QX_BENCH_BENCHPROCESS_H
#define QX_BENCH_BENCHPROCESS_H

#include <boost/filesystem/path.hpp>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace qxbench {

namespace fs = boost::filesystem;

// The whole of file; empty when it cannot be read.
inline std::string readText(fs::path const& file) {
  std::ifstream in(file.string(), std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// A program run with its output in two files; killed and reaped when its
// Process dies, so that a failing bench leaves nothing running.
class Process {
 public:
  Process(std::vector<std::string> args, fs::path const& outFile, fs::path const& errFile,
          std::vector<std::string> const& extraEnv = {})
      : m_program(args.front()), m_errFile(errFile) {
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    // extraEnv: "NAME=value" sets NAME, a bare "NAME" removes it.
    std::vector<std::string> envText;
    auto nameOf = [](std::string const& entry) { return entry.substr(0, entry.find('=')); };
    for (char** e = environ; *e; ++e) {
      std::string const entry = *e;
      bool const replaced = std::any_of(extraEnv.begin(), extraEnv.end(),
                                        [&](std::string const& x) { return nameOf(x) == nameOf(entry); });
      if (!replaced) envText.push_back(entry);
    }
    for (std::string const& e : extraEnv) {
      if (e.find('=') != std::string::npos) envText.push_back(e);
    }
    std::vector<char*> envp;
    for (std::string& e : envText) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int const rc = ::posix_spawnp(&m_pid, m_program.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) throw std::runtime_error("cannot start " + m_program + ": " + std::strerror(rc));
  }
  ~Process() {
    if (m_status < 0) {
      ::kill(m_pid, SIGKILL);
      reap(0);
    }
  }
  Process(Process const&) = delete;
  Process& operator=(Process const&) = delete;

  pid_t pid() const { return m_pid; }
  bool running() { return m_status < 0 && !reap(WNOHANG); }
  std::string err() const { return readText(m_errFile); }

  // Waits for the end, calling whileWaiting between looks (it may throw);
  // throws naming the program and its standard error unless it exited with
  // status 0.
  void expectSuccess(std::chrono::milliseconds limit, std::function<void()> const& whileWaiting = {}) {
    auto const deadline = std::chrono::steady_clock::now() + limit;
    while (running()) {
      if (whileWaiting) whileWaiting();
      if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error(m_program + " did not end in time");
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (m_status != 0) {
      throw std::runtime_error(m_program + " ended with status " + std::to_string(m_status) + ": " + err());
    }
  }
  // SIGTERM, then SIGKILL after 20 s; the exit status.
  int stop() {
    if (!running()) return m_status;
    ::kill(m_pid, SIGTERM);
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (running()) {
      if (std::chrono::steady_clock::now() > deadline) ::kill(m_pid, SIGKILL);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return m_status;
  }

 private:
  bool reap(int flags) {
    int st = 0;
    pid_t r;
    while ((r = ::waitpid(m_pid, &st, flags)) < 0 && errno == EINTR) {
    }
    if (r != m_pid) return false;
    m_status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    return true;
  }

  std::string const m_program;
  fs::path const m_errFile;
  pid_t m_pid = -1;
  int m_status = -1;
};

}  // namespace qxbench

#endif  // QX_BENCH_BENCHPROCESS_H
