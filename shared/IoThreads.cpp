#include "shared/IoThreads.h"

#include <algorithm>

namespace Ipc {

IoThreads::IoThreads(unsigned threads) : m_work(boost::asio::make_work_guard(m_context)) {
  unsigned const count = std::max(2u, threads);
  m_threads.reserve(count);
  for (unsigned i = 0; i < count; ++i) m_threads.emplace_back([this] { m_context.run(); });
}

IoThreads::~IoThreads() { stop(); }

void IoThreads::stop() {
  m_work.reset();
  for (std::thread& t : m_threads) {
    if (t.joinable()) t.join();
  }
  m_threads.clear();
}

}  // namespace Ipc
