// Internal: tells the completions of what is still current from those of
// what has ended (an exchange, a socket object). Not installed.
//
// A handler made by bind() runs its function only while no advance() has
// come since it was made; otherwise it returns without a word. The object
// must outlive the handlers it makes: they hold their owner, which holds it.
// A handler that must stay within two words (what a std::function holds
// without allocating: a command's read or write runs many times a second)
// keeps current() instead and asks isCurrent() itself. Used on one strand
// only.
#ifndef QX_SHARED_TRANSPORT_GENERATION_H
#define QX_SHARED_TRANSPORT_GENERATION_H

#include <cstdint>
#include <utility>

namespace Ipc {
namespace transport {

class Generation {
 public:
  template <class F>
  class Bound {
   public:
    template <class... Args>
    void operator()(Args&&... args) {
      if (m_generation->isCurrent(m_at)) m_f(std::forward<Args>(args)...);
    }
    template <class... Args>
    void operator()(Args&&... args) const {
      if (m_generation->isCurrent(m_at)) m_f(std::forward<Args>(args)...);
    }

   private:
    friend class Generation;
    Bound(Generation const* generation, std::uint64_t at, F f)
        : m_generation(generation), m_at(at), m_f(std::move(f)) {}

    Generation const* m_generation;
    std::uint64_t m_at;
    F m_f;
  };

  Generation() = default;
  Generation(Generation const&) = delete;
  Generation& operator=(Generation const&) = delete;

  // Ends the current generation: what was bound before is ignored from now.
  void advance() { ++m_value; }
  std::uint64_t current() const { return m_value; }
  bool isCurrent(std::uint64_t generation) const { return generation == m_value; }
  // f, to run only if the current generation is still current then.
  template <class F>
  Bound<F> bind(F f) const {
    return Bound<F>(this, m_value, std::move(f));
  }

 private:
  std::uint64_t m_value = 0;
};

}  // namespace transport
}  // namespace Ipc

#endif  // QX_SHARED_TRANSPORT_GENERATION_H
