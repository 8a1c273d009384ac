// The socket of an IPC connection: reads served from what one receive took,
// writes tried at once, and completions that run in turn, never nested and
// never inside the call that started them.
#include "shared/transport/BufferedStream.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

namespace {

namespace ba = boost::asio;
using ba::ip::tcp;
using Ipc::transport::BufferedStream;

constexpr std::size_t kReadAhead = 1024;

class BufferedStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tcp::acceptor acceptor(m_peerIo, tcp::endpoint(ba::ip::make_address("127.0.0.1"), 0));
    m_peer.connect(acceptor.local_endpoint());
    Ipc::transport::Socket accepted(ba::make_strand(m_io));
    acceptor.accept(accepted);
    m_stream = std::make_unique<BufferedStream>(std::move(accepted), kReadAhead);
  }

  // Runs handlers until done is set; false after 10 s.
  bool runUntil(bool const& done) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    m_io.restart();
    while (!done && std::chrono::steady_clock::now() < end) m_io.run_one_for(std::chrono::milliseconds(100));
    return done;
  }

  void peerWrite(std::string const& bytes) { ba::write(m_peer, ba::buffer(bytes)); }

  // Starts a read of a request frame that records how it ended.
  void readFrame(boost::system::error_code& error, bool& done) {
    m_stream->read(m_frame, sizeof m_frame, m_keep, [&error, &done](boost::system::error_code ec) {
      error = ec;
      done = true;
    });
  }

  std::string peerRead(std::size_t n) {
    std::string bytes(n, '\0');
    ba::read(m_peer, ba::buffer(&bytes[0], n));
    return bytes;
  }

  ba::io_context m_io;
  ba::io_context m_peerIo;  // never run: the peer uses blocking calls
  tcp::socket m_peer{m_peerIo};
  std::unique_ptr<BufferedStream> m_stream;
  char m_frame[8] = {};
  std::shared_ptr<void> const m_keep = std::make_shared<int>(0);
};

TEST_F(BufferedStreamTest, ReadsAfterOneReceiveAreServedInOrderAndNeverNested) {
  peerWrite(std::string("QX\x01\x00" "abcd" "1234" "{\"resp\":true}", 25));
  char frame[8], length[4], body[13];
  int depth = 0;
  bool inCall = false;
  bool done = false;
  std::string order;
  auto enter = [&](char const* name) {
    EXPECT_FALSE(inCall) << name << " ran inside the call that started it";
    EXPECT_EQ(0, depth) << name << " ran nested";
    order += name;
  };
  inCall = true;
  m_stream->read(frame, sizeof frame, m_keep, [&](boost::system::error_code ec) {
    enter("frame ");
    ++depth;
    EXPECT_FALSE(ec);
    inCall = true;
    m_stream->read(length, sizeof length, m_keep, [&](boost::system::error_code ec) {
      enter("length ");
      ++depth;
      EXPECT_FALSE(ec);
      inCall = true;
      m_stream->read(body, sizeof body, m_keep, [&](boost::system::error_code ec) {
        enter("body");
        EXPECT_FALSE(ec);
        done = true;
      });
      inCall = false;
      --depth;
    });
    inCall = false;
    --depth;
  });
  inCall = false;
  ASSERT_TRUE(runUntil(done));
  EXPECT_EQ("frame length body", order);
  EXPECT_EQ(std::string("QX\x01\x00" "abcd", 8), std::string(frame, 8));
  EXPECT_EQ("1234", std::string(length, 4));
  EXPECT_EQ("{\"resp\":true}", std::string(body, 13));
}

// Each completion starts the next read: 100000 of them run one after the
// other, at a depth of one.
TEST_F(BufferedStreamTest, AStreamOfManySmallReadsRunsFlat) {
  constexpr std::size_t kRecords = 100000;
  std::string sent(kRecords, '\0');
  for (std::size_t i = 0; i < kRecords; ++i) sent[i] = static_cast<char>('a' + i % 26);
  std::thread writer([&] { peerWrite(sent); });
  std::string got;
  char byte = 0;
  int depth = 0;
  int deepest = 0;
  bool done = false;
  std::function<void(boost::system::error_code)> next = [&](boost::system::error_code ec) {
    ASSERT_FALSE(ec) << ec.message();
    ++depth;
    deepest = std::max(deepest, depth);
    got += byte;
    if (got.size() == kRecords) {
      done = true;
    } else {
      m_stream->read(&byte, 1, m_keep, next);
    }
    --depth;
  };
  m_stream->read(&byte, 1, m_keep, next);
  bool const finished = runUntil(done);
  writer.join();
  ASSERT_TRUE(finished);
  EXPECT_EQ(sent, got);
  EXPECT_EQ(1, deepest);
}

TEST_F(BufferedStreamTest, AReadLargerThanTheBufferArrivesWhole) {
  std::string sent(100 * kReadAhead + 7, '\0');
  for (std::size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 7);
  std::thread writer([&] { peerWrite("head" + sent); });
  char head[4];
  std::string got(sent.size(), '\0');
  bool done = false;
  m_stream->read(head, sizeof head, m_keep, [&](boost::system::error_code ec) {
    ASSERT_FALSE(ec);
    m_stream->read(&got[0], got.size(), m_keep, [&](boost::system::error_code ec) {
      EXPECT_FALSE(ec);
      done = true;
    });
  });
  bool const finished = runUntil(done);
  writer.join();
  ASSERT_TRUE(finished);
  EXPECT_EQ("head", std::string(head, 4));
  EXPECT_TRUE(sent == got);
}

TEST_F(BufferedStreamTest, AWriteTakenAtOnceCompletesWhenTheDrivingHandlerReturns) {
  bool done = false;
  m_stream->drive([&] {
    m_stream->write(ba::buffer("QX\x01\x00", 4), ba::buffer("body", 4), m_keep,
                    [&](boost::system::error_code ec) {
                      EXPECT_FALSE(ec);
                      done = true;
                    });
    EXPECT_FALSE(done);
  });
  EXPECT_TRUE(done);
  EXPECT_EQ(std::string("QX\x01\x00" "body", 8), peerRead(8));
  EXPECT_EQ(8u, m_stream->bytesWritten());
}

TEST_F(BufferedStreamTest, AWriteOfAnEmptyPieceAndAFullOneSendsTheFullOne) {
  bool done = false;
  m_stream->drive([&] {
    m_stream->write(ba::const_buffer(), ba::buffer("body", 4), m_keep, [&](boost::system::error_code ec) {
      EXPECT_FALSE(ec);
      done = true;
    });
  });
  EXPECT_TRUE(done);
  EXPECT_EQ("body", peerRead(4));
}

TEST_F(BufferedStreamTest, AWriteStartedOutsideADrivingHandlerCompletesFromTheStrand) {
  bool done = false;
  m_stream->write(ba::buffer("ping", 4), ba::const_buffer(), m_keep,
                  [&](boost::system::error_code ec) {
                    EXPECT_FALSE(ec);
                    done = true;
                  });
  EXPECT_FALSE(done);
  ASSERT_TRUE(runUntil(done));
  EXPECT_EQ("ping", peerRead(4));
}

// More than the socket takes at once: the rest waits for the reactor.
TEST_F(BufferedStreamTest, AWriteLargerThanTheSocketTakesGoesOutWhole) {
  std::string const sent(16 * 1024 * 1024, 'w');
  std::string received;
  std::thread reader([&] { received = peerRead(sent.size()); });
  bool done = false;
  m_stream->write(ba::buffer(sent), ba::const_buffer(), m_keep, [&](boost::system::error_code ec) {
    EXPECT_FALSE(ec);
    done = true;
  });
  bool const finished = runUntil(done);
  reader.join();
  ASSERT_TRUE(finished);
  EXPECT_TRUE(sent == received);
  EXPECT_EQ(sent.size(), m_stream->bytesWritten());
}

// A read that goes straight into its destination still tells the owner of
// each receive, so that a slow peer's deadline moves while the piece fills.
TEST_F(BufferedStreamTest, EveryReceiveOfALargeReadTellsTheOwnerBeforeItCompletes) {
  int moved = 0;
  m_stream->onBytesMoved([&] { ++moved; });
  std::string sent(4 * kReadAhead, '\0');
  for (std::size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 13);
  std::thread writer([&] {
    for (std::size_t at = 0; at < sent.size(); at += kReadAhead / 4) {
      peerWrite(sent.substr(at, kReadAhead / 4));
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  std::string got(sent.size(), '\0');
  bool done = false;
  int movedAtCompletion = 0;
  m_stream->read(&got[0], got.size(), m_keep, [&](boost::system::error_code ec) {
    EXPECT_FALSE(ec);
    movedAtCompletion = moved;
    done = true;
  });
  bool const finished = runUntil(done);
  writer.join();
  ASSERT_TRUE(finished);
  EXPECT_TRUE(sent == got);
  EXPECT_GE(movedAtCompletion, 2) << "the receives of a read that took 16 sends";
  EXPECT_EQ(movedAtCompletion, moved);
}

// What the socket does not take at once goes out one send at a time, each
// told to the owner.
TEST_F(BufferedStreamTest, EverySendOfAWriteThatWaitsTellsTheOwnerBeforeItCompletes) {
  // A send buffer of a few KiB: each send takes that much at most.
  m_stream->socket().set_option(ba::socket_base::send_buffer_size(4096));
  int moved = 0;
  m_stream->onBytesMoved([&] { ++moved; });
  std::string sent(1024 * 1024, '\0');
  for (std::size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 31);
  std::string received;
  std::thread reader([&] {
    char buf[16 * 1024];
    boost::system::error_code ec;
    while (received.size() < sent.size() && !ec) {
      received.append(buf, m_peer.read_some(ba::buffer(buf), ec));
    }
  });
  bool done = false;
  int movedAtCompletion = 0;
  m_stream->write(ba::buffer(sent), ba::const_buffer(), m_keep, [&](boost::system::error_code ec) {
    EXPECT_FALSE(ec);
    movedAtCompletion = moved;
    done = true;
  });
  bool const finished = runUntil(done);
  if (!finished) m_stream->close();  // ends the reader
  reader.join();
  ASSERT_TRUE(finished);
  EXPECT_TRUE(sent == received);
  EXPECT_EQ(sent.size(), m_stream->bytesWritten());
  EXPECT_GE(movedAtCompletion, 2) << "the sends of 1 MiB through a socket of a few KiB";
  EXPECT_EQ(movedAtCompletion, moved);
}

TEST_F(BufferedStreamTest, TheEndOfTheStreamInTheMiddleOfAReadIsAnError) {
  peerWrite("QX\x01");
  m_peer.close();
  boost::system::error_code error;
  bool done = false;
  readFrame(error, done);
  ASSERT_TRUE(runUntil(done));
  EXPECT_EQ(ba::error::eof, error);
}

TEST_F(BufferedStreamTest, ClosingFailsTheReadInProgress) {
  boost::system::error_code error;
  bool done = false;
  readFrame(error, done);
  m_io.poll();
  EXPECT_FALSE(done);
  m_stream->close();
  ASSERT_TRUE(runUntil(done));
  EXPECT_EQ(ba::error::operation_aborted, error);
}

TEST_F(BufferedStreamTest, RenewingForgetsTheOldSocketAndItsHandlers) {
  boost::system::error_code error;
  bool called = false;
  readFrame(error, called);
  m_io.poll();
  m_stream->renew();
  peerWrite("too late");
  m_io.restart();
  m_io.poll();
  EXPECT_FALSE(called);
  EXPECT_FALSE(m_stream->socket().is_open());
}

}  // namespace
