// Child processes of the tests: a program started with its output in files,
// or a process that the test forked itself; either is killed and reaped when
// its Child dies, so that no test leaves a process behind.
//
// One thread: the test's.
#ifndef QX_TESTS_PROCESSHARNESS_H
#define QX_TESTS_PROCESSHARNESS_H

#include "tests/TestUtil.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem/path.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace qxtest {

// Generous: sanitized processes start and run several times slower.
constexpr auto kProcessDeadline = std::chrono::seconds(30);

// Polls cond every millisecond until it holds or the deadline passes.
inline bool waitFor(std::function<bool()> const& cond,
                    std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  auto const deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    if (cond()) return true;
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// What a finished process left: its exit status (128 + the signal when a
// signal ended it) and everything it wrote.
struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

class Child {
 public:
  // Starts program with args, standard input from /dev/null and its output
  // in two files.
  Child(std::string const& program, std::vector<std::string> const& args,
        boost::filesystem::path const& outFile, boost::filesystem::path const& errFile)
      : m_outFile(outFile), m_errFile(errFile) {
    std::vector<std::string> all{program};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv = pointersInto(all);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, m_outFile.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, m_errFile.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int const rc = ::posix_spawn(&m_pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
      ADD_FAILURE() << "cannot start " << program << ": " << std::strerror(rc);
      m_pid = -1;
    }
  }
  // The same as another user, with only the environment given: for what a
  // program does when it is not root (tests run as root).
  struct AsUser {
    uid_t uid;
    gid_t gid;
    std::vector<std::string> environment;  // "NAME=value"
  };
  Child(std::string const& program, std::vector<std::string> const& args, boost::filesystem::path const& outFile,
        boost::filesystem::path const& errFile, AsUser const& as)
      : m_outFile(outFile), m_errFile(errFile) {
    std::vector<std::string> all{program};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv = pointersInto(all);
    std::vector<std::string> env = as.environment;
    std::vector<char*> envp = pointersInto(env);
    // Everything the child needs is made before the fork: after it, only
    // calls that are safe there.
    int const in = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    int const out = ::open(m_outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int const err = ::open(m_errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    m_pid = ::fork();
    if (m_pid == 0) {
      bool const become = as.uid != ::geteuid();  // already that user: nothing to change
      if (::dup2(in, STDIN_FILENO) < 0 || ::dup2(out, STDOUT_FILENO) < 0 || ::dup2(err, STDERR_FILENO) < 0 ||
          (become && (::setgroups(0, nullptr) != 0 || ::setgid(as.gid) != 0 || ::setuid(as.uid) != 0))) {
        ::_exit(126);
      }
      ::execve(program.c_str(), argv.data(), envp.data());
      ::_exit(127);
    }
    for (int fd : {in, out, err}) ::close(fd);
    if (m_pid < 0) ADD_FAILURE() << "cannot fork for " << program << ": " << std::strerror(errno);
  }
  // Takes charge of a process that the test forked; it has no output files.
  explicit Child(pid_t forked) : m_pid(forked) {}

  pid_t pid() const { return m_pid; }
  ~Child() { kill(); }
  Child(Child const&) = delete;
  Child& operator=(Child const&) = delete;

  bool running() {
    if (m_pid <= 0 || m_status >= 0) return false;
    return !reap(WNOHANG);
  }
  // Whether the child ended before the deadline.
  bool wait(std::chrono::milliseconds limit = kProcessDeadline) {
    return waitFor([this] { return !running(); }, limit);
  }
  void signal(int sig) {
    if (running()) ::kill(m_pid, sig);
  }
  // SIGKILL, unless it has ended, then reaps it; returns its wait status.
  int kill() {
    if (running()) {
      ::kill(m_pid, SIGKILL);
      reap(0);
    }
    return m_waitStatus;
  }
  // The exit status, or 128 + the signal that ended it; -1 while it runs.
  int status() const { return m_status; }
  std::string out() const { return readFile(m_outFile); }
  std::string err() const { return readFile(m_errFile); }
  Outcome outcome() const { return Outcome{m_status, out(), err()}; }

 private:
  // The null-ended array of pointers that exec takes, into texts that must
  // outlive it.
  static std::vector<char*> pointersInto(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& t : texts) pointers.push_back(&t[0]);
    pointers.push_back(nullptr);
    return pointers;
  }

  // Whether the child was reaped.
  bool reap(int flags) {
    int st = 0;
    pid_t r;
    while ((r = ::waitpid(m_pid, &st, flags)) < 0 && errno == EINTR) {
    }
    if (r != m_pid) return false;
    m_waitStatus = st;
    m_status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    return true;
  }

  boost::filesystem::path const m_outFile;
  boost::filesystem::path const m_errFile;
  pid_t m_pid = -1;
  int m_waitStatus = 0;
  int m_status = -1;
};

// Waits until the log of a starting qxlite-svc (its standard error) says it
// serves, and returns the port it serves on; 0, with a failure that shows
// its status and log, when it ends or does not serve in time.
inline std::uint16_t servingPort(Child& service) {
  static std::string const serving = "INFO:qxlite-svc 7.0.1 serving on 127.0.0.1:";
  std::uint16_t port = 0;
  bool const up = waitFor([&] {
    std::string const log = service.err();
    std::string::size_type const at = log.find(serving);
    if (at != std::string::npos && log.find(' ', at + serving.size()) != std::string::npos) {
      port = static_cast<std::uint16_t>(std::stoul(log.substr(at + serving.size())));
      return true;
    }
    return !service.running();
  }, kProcessDeadline);
  if (!up || port == 0) {
    ADD_FAILURE() << "the service does not serve; status " << service.status() << ", log:\n" << service.err();
    return 0;
  }
  return port;
}

}  // namespace qxtest

#endif  // QX_TESTS_PROCESSHARNESS_H
