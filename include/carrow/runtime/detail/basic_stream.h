#pragma once

// The implementation shared by AsyncStream and AsyncThrowingStream; see those headers.

#include <concepts>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_sequence.h>
#include <carrow/runtime/detail/stream_storage.h>

namespace carrow::detail {

template <class T, bool Throwing>
class BasicStream {
 public:
  using Element = T;
  using Termination = StreamTermination;
  using YieldResult = StreamYieldResult;
  /// The producing step of an unfolding stream: an element, or std::nullopt for the end.
  using Producer = std::function<Async<std::optional<T>>()>;

  /// The producer's handle on a continuation-fed stream. Copyable; every copy feeds the same
  /// stream, from any thread. The buffer is unbounded.
  class Continuation {
   public:
    /// Hands `value` to the consumer (scheduling it if it waits) or buffers it. After the stream
    /// has ended, the value is dropped and `terminated` is returned.
    YieldResult yield(T value) const { return storage_->yield(std::move(value)); }

    /// Ends the stream: the consumer reads the buffered elements, then the end. Also runs the
    /// termination handler (at once). Later calls, and later yields, do nothing.
    void finish() const { storage_->finish(nullptr); }

    /// Ends the stream with `error` (null: a normal end): the consumer reads the buffered elements,
    /// then `next` throws `error` once, then reads the end. Throwing streams only.
    void finish(std::exception_ptr error) const {
      static_assert(Throwing, "only a throwing stream can finish with an error");
      storage_->finish(std::move(error));
    }

    /// `finish(std::make_exception_ptr(error))`. Throwing streams only.
    template <class Error>
    void finishThrowing(Error&& error) const {
      static_assert(Throwing, "only a throwing stream can finish with an error");
      storage_->finish(std::make_exception_ptr(std::forward<Error>(error)));
    }

    /// Installs the handler that runs exactly once when the stream ends: on `finish`, or when the
    /// consumer goes away (its iterator and the stream dropped, or its task cancelled while it
    /// reads). It runs on the thread that ends the stream, without locks held, and must not throw.
    /// A handler installed after the stream has ended runs at once; a replaced one never runs.
    void setOnTermination(std::function<void(Termination)> handler) const {
      storage_->setOnTermination(std::move(handler));
    }

   private:
    friend class BasicStream;
    explicit Continuation(std::shared_ptr<StreamStorage<T>> storage) noexcept
        : storage_(std::move(storage)) {}
    std::shared_ptr<StreamStorage<T>> storage_;
  };

  /// The consumer's iterator. Move-only; it belongs to the one task that reads it.
  class Iterator {
   public:
    Iterator(Iterator&& other) noexcept = default;
    Iterator& operator=(Iterator&& other) noexcept {
      Iterator old(std::move(*this));
      consumer_ = std::move(other.consumer_);
      return *this;
    }
    ~Iterator() {
      // Dropping the iterator is the consumer going away.
      if (consumer_ && consumer_->storage) consumer_->storage->consumerGone(true);
    }

    /// The next element, or std::nullopt at the end; a throwing stream may throw its error once.
    Async<std::optional<T>> next() {
      Consumer& consumer = *consumer_;
      if (consumer.storage) {
        StreamNextAwaiter<T> awaiter(*consumer.storage);
        co_return co_await awaiter;
      }
      if (consumer.finished) co_return std::nullopt;
      std::optional<T> element;
      try {
        auto step = consumer.produce();
        element = co_await std::move(step);
      } catch (...) {
        consumer.finished = true;
        if constexpr (Throwing) throw;
        // A non-throwing stream cannot report the error: it ends instead.
      }
      if (!element) consumer.finished = true;
      co_return element;
    }

   private:
    friend class BasicStream;
    struct Consumer;
    explicit Iterator(std::shared_ptr<Consumer> consumer) noexcept
        : consumer_(std::move(consumer)) {}
    std::shared_ptr<Consumer> consumer_;
  };

  /// Both ends of a new continuation-fed stream.
  struct Pair {
    BasicStream stream;
    Continuation continuation;
  };

  /// A new continuation-fed stream and its continuation.
  static Pair makeStream() {
    auto storage = std::make_shared<StreamStorage<T>>();
    Continuation continuation(storage);
    return Pair{BasicStream(std::make_shared<typename Iterator::Consumer>(std::move(storage))),
                std::move(continuation)};
  }

  /// A continuation-fed stream whose producer is set up by `build`, which is called at once with
  /// the continuation (it typically hands it to a callback or a task).
  template <class Build>
  requires std::invocable<Build&, Continuation>
  explicit BasicStream(Build build) : BasicStream(built(build)) {}

  /// An unfolding stream: each `next` awaits `produce()` once; nothing is produced ahead. A step
  /// that returns std::nullopt ends the stream; for a throwing stream, a step that throws ends it
  /// and `next` throws that error (a non-throwing stream just ends).
  static BasicStream unfolding(Producer produce) {
    return BasicStream(std::make_shared<typename Iterator::Consumer>(std::move(produce)));
  }

  /// The stream's iterator. A stream has one consumer: iterators made from one stream share it,
  /// are used by one task at a time, and dropping any of them ends the stream for all.
  Iterator makeAsyncIterator() const { return Iterator(consumer_); }

 private:
  template <class Build>
  static BasicStream built(Build& build) {
    Pair pair = makeStream();
    build(std::move(pair.continuation));
    return std::move(pair.stream);
  }
  explicit BasicStream(std::shared_ptr<typename Iterator::Consumer> consumer) noexcept
      : consumer_(std::move(consumer)) {}

  std::shared_ptr<typename Iterator::Consumer> consumer_;
};

/// The consumer side: either the storage of a continuation-fed stream or the producing step of an
/// unfolding one. When the last stream copy and iterator are gone, the consumer has gone away.
template <class T, bool Throwing>
struct BasicStream<T, Throwing>::Iterator::Consumer {
  explicit Consumer(std::shared_ptr<StreamStorage<T>> streamStorage) noexcept
      : storage(std::move(streamStorage)) {}
  explicit Consumer(Producer producer) noexcept : produce(std::move(producer)) {}
  Consumer(const Consumer&) = delete;
  Consumer& operator=(const Consumer&) = delete;
  ~Consumer() {
    if (storage) storage->consumerGone(true);
  }

  std::shared_ptr<StreamStorage<T>> storage;
  Producer produce;
  bool finished = false;
};

}  // namespace carrow::detail
