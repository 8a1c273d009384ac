// Example: ask whether the service runs, then hand it a file or a folder and
// show how far the transfer has come.
//
//   qxlite-drop-example [--port PORT] [--token-file FILE] PATH
//
// A user interface keeps one Ipc::CmdClient, with transport threads of its
// own, for as long as it runs. A command runs asynchronously (execute) and
// reports through its completion, on a transport thread; meanwhile any thread
// may read CmdClient::bytesSent() for a progress display.
#include "ServiceOptions.h"

#include <ipc/IpcCmdsLite.h>
#include <shared/CmdClient.h>
#include <shared/IoThreads.h>
#include <shared/SecretToken.h>

#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <future>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

char const kProgram[] = "qxlite-drop-example";
char const kUsage[] = "usage: qxlite-drop-example [--port PORT] [--token-file FILE] PATH";

int fail(std::string const& message) {
  std::cerr << kProgram << ": " << message << "\n";
  return 1;
}

void showProgress(std::uint64_t sent, std::uint64_t total) {
  std::cout << "sent " << sent << " of " << total << " bytes (" << sent * 100 / total << "%)\n" << std::flush;
}

int dropWithProgress(Ipc::CmdClient& client, std::string const& path, std::shared_ptr<Ipc::FileDrop> const& drop) {
  auto const running = std::make_shared<Ipc::IsRunning>(nullptr);
  std::string const error = client.run(running);
  if (!error.empty()) return fail("cannot reach the service: " + error);
  // A paused service still takes the drop; it only starts no upload.
  std::cout << "the service is " << (running->running ? "running" : "paused") << "\n";

  // Counted now: the transfer takes the files off the list as they go.
  std::size_t const count = drop->files.size();
  std::uint64_t total = 0;
  for (Ipc::FileDrop::FileInf const& file : drop->files) total += file.size;
  // The completion holds the promise: it may still be inside set_value when
  // this thread, woken, has returned.
  auto const finished = std::make_shared<std::promise<std::string>>();
  std::future<std::string> outcome = finished->get_future();
  // The client counts every byte it writes, the request's own among them, so
  // the count runs a little ahead of the content: it is held at the total.
  std::uint64_t const before = client.bytesSent();
  client.execute(drop, [finished](std::shared_ptr<Ipc::CmdI> const&, std::string const& failure) {
    finished->set_value(failure);
  });
  std::uint64_t shown = 0;
  while (outcome.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
    std::uint64_t const sent = std::min(client.bytesSent() - before, total);
    if (sent > shown && sent < total) showProgress(sent, total);
    shown = std::max(shown, sent);
  }
  std::string const failure = outcome.get();
  if (!failure.empty()) return fail("the drop of \"" + path + "\" failed: " + failure);
  if (!drop->ok) return fail("the service refused the drop of \"" + path + "\": " + drop->msg);
  showProgress(total, total);
  std::cout << "dropped \"" << path << "\": " << count << " file(s), " << total << " bytes\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  qxexample::ServiceOptions service;
  try {
    service = qxexample::parseServiceOptions(argc, argv);
    if (service.arguments.size() != 1) throw std::invalid_argument("one PATH to drop is needed");
  } catch (std::invalid_argument const& e) {
    std::cerr << kProgram << ": " << e.what() << "\n" << kUsage << "\n";
    return 2;
  }
  std::string const path = service.arguments.front();

  // What can go wrong here is found before the service is asked anything.
  // prepareReq lists the files; it skips empty files and sub-folders, each
  // with a warning line in the log (standard error).
  auto const drop = std::make_shared<Ipc::FileDrop>(nullptr, path);
  try {
    if (!drop->prepareReq()) return fail("\"" + path + "\" holds nothing to drop");
  } catch (boost::filesystem::filesystem_error const& e) {
    return fail("\"" + path + "\": " + e.code().message());
  }
  try {
    // The threads outlive the client, which is destroyed first.
    Ipc::IoThreads io;
    Ipc::CmdClient client(io, qxexample::clientOptions(service), Ipc::SecretToken::load(service.tokenFile));
    return dropWithProgress(client, path, drop);
  } catch (std::runtime_error const& e) {
    return fail(e.what());
  }
}
