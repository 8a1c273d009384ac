// Tests of Generation, which tells the completions of what is still current
// from those of what has ended.
#include "shared/transport/Generation.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

using Ipc::transport::Generation;

TEST(GenerationTest, ABoundHandlerRunsWhileItsGenerationIsCurrent) {
  Generation generation;
  std::vector<std::string> ran;
  auto handler = generation.bind([&](int n, std::string const& text) { ran.push_back(std::to_string(n) + text); });
  handler(1, "a");
  handler(2, "b");
  EXPECT_EQ((std::vector<std::string>{"1a", "2b"}), ran);
}

TEST(GenerationTest, ABoundHandlerDoesNothingOnceTheGenerationAdvanced) {
  Generation generation;
  int ran = 0;
  auto before = generation.bind([&] { ++ran; });
  generation.advance();
  auto after = generation.bind([&] { ran += 10; });
  before();
  EXPECT_EQ(0, ran);
  after();
  EXPECT_EQ(10, ran);
  generation.advance();
  after();
  EXPECT_EQ(10, ran);
}

TEST(GenerationTest, ACopyOfABoundHandlerKeepsItsGeneration) {
  Generation generation;
  int ran = 0;
  auto const bound = generation.bind([&] { ++ran; });
  auto copy = bound;
  copy();
  bound();
  EXPECT_EQ(2, ran);
  generation.advance();
  copy();
  bound();
  EXPECT_EQ(2, ran);
}

TEST(GenerationTest, ATicketIsCurrentUntilTheNextAdvance) {
  Generation generation;
  std::uint64_t const ticket = generation.current();
  EXPECT_TRUE(generation.isCurrent(ticket));
  generation.advance();
  EXPECT_FALSE(generation.isCurrent(ticket));
  EXPECT_TRUE(generation.isCurrent(generation.current()));
}

}  // namespace
