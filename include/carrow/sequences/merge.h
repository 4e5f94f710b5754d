#pragma once

#include <atomic>
#include <exception>
#include <memory>
#include <optional>
#include <utility>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_sequence.h>
#include <carrow/runtime/async_throwing_stream.h>
#include <carrow/runtime/task.h>

namespace carrow {

namespace detail {

template <class Base, class Element>
Async<void> pumpMergeInput(Base base, typename AsyncThrowingStream<Element>::Continuation output,
                           std::shared_ptr<std::atomic<int>> running) {
  try {
    auto iterator = base.makeAsyncIterator();
    while (auto element = co_await iterator.next()) {
      if (output.yield(std::move(*element)) == StreamYieldResult::terminated) co_return;
    }
  } catch (...) {
    output.finish(std::current_exception());
    co_return;
  }
  if (running->fetch_sub(1, std::memory_order_acq_rel) == 1) output.finish();
}

}  // namespace detail

/// The elements of two sequences, in the order they arrive.
template <AsyncSequence Base1, AsyncSequence Base2>
class AsyncMerge2Sequence {
 public:
  using Element = AsyncSequenceElement<Base1>;

  class Iterator {
   public:
    explicit Iterator(typename AsyncThrowingStream<Element>::Iterator output)
        : output_(std::move(output)) {}
    auto next() { return output_.next(); }

   private:
    typename AsyncThrowingStream<Element>::Iterator output_;
  };

  AsyncMerge2Sequence(Base1 base1, Base2 base2)
      : base1_(std::move(base1)), base2_(std::move(base2)) {}

  Iterator makeAsyncIterator() const {
    auto [stream, output] = AsyncThrowingStream<Element>::makeStream();
    auto running = std::make_shared<std::atomic<int>>(2);
    auto first = Task<void>::start([base = base1_, output = output, running] {
      return detail::pumpMergeInput<Base1, Element>(base, output, running);
    });
    auto second = Task<void>::start([base = base2_, output = output, running] {
      return detail::pumpMergeInput<Base2, Element>(base, output, running);
    });
    output.setOnTermination([first, second](StreamTermination) {
      first.cancel();
      second.cancel();
    });
    return Iterator(stream.makeAsyncIterator());
  }

 private:
  Base1 base1_;
  Base2 base2_;
};

/// Merges two sequences of the same element type; dropping the iterator cancels both readers.
template <AsyncSequence Base1, AsyncSequence Base2>
AsyncMerge2Sequence<Base1, Base2> merge(Base1 base1, Base2 base2) {
  return AsyncMerge2Sequence<Base1, Base2>(std::move(base1), std::move(base2));
}

}  // namespace carrow
