// Tests of Exchange, the exchange a connection has in progress: which calls
// and completions it turns away once it has ended, and how a transfer error
// reaches the command.
#include "shared/transport/Exchange.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Ipc::CmdI;
using Ipc::transport::Exchange;

// A command whose onTransferError only records why, as an override that does
// not end the exchange would.
class QuietCmd : public CmdI {
 public:
  QuietCmd() : CmdI(nullptr, 1) {}
  char const* name() const override { return "Quiet"; }
  void accept(Ipc::CmdProcessorI&) override {}
  void onTransferError(std::string why) override { errors.push_back(why); }
  std::vector<std::string> errors;
};

// Records the channel calls it gets.
class RecordingChannel : public Ipc::CmdChannel {
 public:
  void reqDone(std::shared_ptr<CmdI> const&) override { calls.push_back("reqDone"); }
  void failCmd(std::shared_ptr<CmdI> const& cmd, std::string const& why) override {
    calls.push_back(std::string("failCmd ") + cmd->name() + ": " + why);
  }
  void finishCmd(std::shared_ptr<CmdI> const&) override { calls.push_back("finishCmd"); }
  void writeAsync(std::shared_ptr<CmdI> const&, void const*, std::size_t, std::function<void()>) override {}
  void readAsync(std::shared_ptr<CmdI> const&, void*, std::size_t, std::function<void()>) override {}
  std::vector<std::string> calls;
};

TEST(ExchangeTest, HoldsOnlyTheCommandOfTheExchangeInProgress) {
  Exchange exchange;
  auto const first = std::make_shared<QuietCmd>();
  auto const second = std::make_shared<QuietCmd>();
  EXPECT_FALSE(exchange.active());
  EXPECT_FALSE(exchange.holds(nullptr));
  exchange.begin(first);
  EXPECT_TRUE(exchange.holds(first));
  EXPECT_FALSE(exchange.holds(second));
  EXPECT_FALSE(exchange.holds(nullptr));
  EXPECT_EQ(first, exchange.end());
  EXPECT_FALSE(exchange.active());
  EXPECT_FALSE(exchange.holds(first));
}

TEST(ExchangeTest, HandlersOfAnEndedExchangeDoNotRunEvenWhenTheSameCommandRunsAgain) {
  Exchange exchange;
  auto const cmd = std::make_shared<QuietCmd>();
  std::vector<std::string> ran;
  exchange.begin(cmd);
  auto first = exchange.bind([&] { ran.push_back("first"); });
  exchange.end();
  exchange.begin(cmd);
  auto second = exchange.bind([&] { ran.push_back("second"); });
  first();
  second();
  EXPECT_EQ((std::vector<std::string>{"second"}), ran);
}

TEST(ExchangeTest, EndingDropsThePendingOperation) {
  Exchange exchange;
  auto const cmd = std::make_shared<QuietCmd>();
  exchange.begin(cmd);
  exchange.startOp(cmd, [] {});
  EXPECT_EQ(3, cmd.use_count());  // the test, the exchange, its operation
  exchange.end();
  EXPECT_EQ(1, cmd.use_count());
  EXPECT_EQ(nullptr, exchange.takeOp().cmd);
}

TEST(ExchangeTest, ATransferErrorThatTheCommandDoesNotEndEndsItThroughTheChannel) {
  Exchange exchange;
  RecordingChannel channel;
  auto const cmd = std::make_shared<QuietCmd>();
  exchange.begin(cmd);
  exchange.transferFailed(cmd, "Ipc Quiet: the service closed the connection", channel);
  EXPECT_EQ((std::vector<std::string>{"Ipc Quiet: the service closed the connection"}), cmd->errors);
  EXPECT_EQ((std::vector<std::string>{"failCmd Quiet: Ipc Quiet: the service closed the connection"}),
            channel.calls);
}

TEST(ExchangeTest, ATransferErrorOfAnEndedExchangeReachesOnlyTheCommand) {
  Exchange exchange;
  RecordingChannel channel;
  auto const cmd = std::make_shared<QuietCmd>();
  exchange.begin(cmd);
  exchange.end();
  exchange.transferFailed(cmd, "Ipc Quiet: late", channel);
  EXPECT_EQ((std::vector<std::string>{"Ipc Quiet: late"}), cmd->errors);
  EXPECT_TRUE(channel.calls.empty());
}

TEST(ExchangeTest, GuardedTurnsAnExceptionIntoAFailureNamingTheCommand) {
  QuietCmd cmd;
  std::vector<std::string> failures;
  Exchange::guarded(cmd, [] { throw std::runtime_error("the disk is full"); },
                    [&](std::string const& why) { failures.push_back(why); });
  Exchange::guarded(cmd, [] {}, [&](std::string const& why) { failures.push_back(why); });
  EXPECT_EQ((std::vector<std::string>{"Ipc Quiet failed: the disk is full"}), failures);
}

}  // namespace
