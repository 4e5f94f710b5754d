#pragma once

// Test helpers for the combinators: sequences that count what is done to them, and readers that
// record what a consumer sees.

#include <atomic>
#include <chrono>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_sequence.h>
#include <carrow/runtime/async_throwing_stream.h>

namespace carrow::testing {

/// What has been done to the iterators of one probed sequence.
struct ProbeCounts {
  std::atomic<int> iteratorsMade{0};
  std::atomic<int> iteratorsDropped{0};
  std::atomic<int> nexts{0};
};

/// Wraps a sequence and counts iterators made and dropped and `next()` calls.
template <class Base>
class Probed {
 public:
  using Element = AsyncSequenceElement<Base>;

  Probed(Base base, std::shared_ptr<ProbeCounts> counts)
      : base_(std::move(base)), counts_(std::move(counts)) {}

  class Iterator {
   public:
    Iterator(AsyncSequenceIterator<Base> base, std::shared_ptr<ProbeCounts> counts)
        : base_(std::move(base)), counts_(std::move(counts)) {
      counts_->iteratorsMade.fetch_add(1);
    }
    Iterator(Iterator&& other) noexcept
        : base_(std::move(other.base_)), counts_(std::exchange(other.counts_, nullptr)) {}
    Iterator& operator=(Iterator&&) = delete;
    ~Iterator() {
      if (counts_) counts_->iteratorsDropped.fetch_add(1);
    }

    Async<std::optional<Element>> next() {
      counts_->nexts.fetch_add(1);
      co_return co_await base_.next();
    }

   private:
    AsyncSequenceIterator<Base> base_;
    std::shared_ptr<ProbeCounts> counts_;
  };

  Iterator makeAsyncIterator() const {
    Base base = base_;
    return Iterator(base.makeAsyncIterator(), counts_);
  }

 private:
  Base base_;
  std::shared_ptr<ProbeCounts> counts_;
};

template <class Base>
Probed<Base> probed(Base base, std::shared_ptr<ProbeCounts> counts) {
  return Probed<Base>(std::move(base), std::move(counts));
}

/// A scripted sequence of ints: each `next()` plays the next entry (a value; 0 is the end; a
/// negative number throws std::runtime_error("failure <n>")). Past the script: the end.
class Scripted {
 public:
  explicit Scripted(std::vector<int> script)
      : script_(std::make_shared<const std::vector<int>>(std::move(script))) {}

  class Iterator {
   public:
    explicit Iterator(std::shared_ptr<const std::vector<int>> script)
        : script_(std::move(script)) {}
    Async<std::optional<int>> next() {
      const int entry = position_ < script_->size() ? (*script_)[position_] : 0;
      ++position_;
      if (entry < 0) throw std::runtime_error("failure " + std::to_string(-entry));
      if (entry == 0) co_return std::nullopt;
      co_return entry;
    }

   private:
    std::shared_ptr<const std::vector<int>> script_;
    std::size_t position_ = 0;
  };

  Iterator makeAsyncIterator() const { return Iterator(script_); }

 private:
  std::shared_ptr<const std::vector<int>> script_;
};

/// Text of one outcome: the element, "end", or "error: <what>".
template <class Iterator>
Async<std::string> step(Iterator& iterator) {
  try {
    auto element = co_await iterator.next();
    co_return element ? std::to_string(*element) : std::string("end");
  } catch (const std::exception& error) {
    co_return std::string("error: ") + error.what();
  }
}

/// `count` outcomes of a new iterator of `sequence`.
template <class Sequence>
Async<std::vector<std::string>> play(Sequence sequence, int count) {
  auto iterator = sequence.makeAsyncIterator();
  std::vector<std::string> results;
  for (int i = 0; i < count; ++i) results.push_back(co_await step(iterator));
  co_return results;
}

using Results = std::vector<std::string>;

}  // namespace carrow::testing

namespace carrow::testing {

/// Polls `condition` until it holds or `limit` passes; true if it held. For waiting on work that
/// other threads finish, never for measuring it.
template <class Condition>
bool eventually(Condition condition,
                std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

/// A stream of ints that the test feeds through `continuation`, with a count of the times its
/// termination handler ran. Its destructor lets go of the stream and waits until the handler has
/// run, so a handler that a late cancellation runs on another thread never outlives the test.
struct Fed {
  using Stream = AsyncThrowingStream<int>;

  Fed() {
    auto pair = Stream::makeStream();
    stream.emplace(pair.stream);
    continuation.emplace(pair.continuation);
    continuation->setOnTermination([this](StreamTermination) { terminations.fetch_add(1); });
  }
  Fed(const Fed&) = delete;
  Fed& operator=(const Fed&) = delete;
  ~Fed() {
    continuation.reset();
    stream.reset();
    EXPECT_TRUE(eventually([this] { return terminations.load() == 1; }));
  }

  std::optional<Stream> stream;
  std::optional<Stream::Continuation> continuation;
  std::atomic<int> terminations{0};
};

}  // namespace carrow::testing
