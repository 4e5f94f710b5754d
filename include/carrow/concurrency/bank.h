#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <variant>

#include <carrow/concurrency/bank_options.h>
#include <carrow/concurrency/detail/wait_events.h>
#include <carrow/concurrency/lock_wait.h>
#include <carrow/concurrency/task_waiter_event.h>
#include <carrow/logging/log.h>
#include <carrow/platform/fatal_error.h>
#include <carrow/runtime/actor.h>
#include <carrow/runtime/async.h>
#include <carrow/runtime/cancellation.h>
#include <carrow/runtime/cancellation_error.h>
#include <carrow/runtime/executor.h>
#include <carrow/runtime/result.h>
#include <carrow/runtime/task.h>

namespace carrow {

/// A key a `Bank` accepts: hashable with `std::hash`, comparable with `==`, copyable, and
/// printable with `operator<<` on a `std::ostream` (its printed form appears in log records).
template <class Key>
concept BankKey = std::copy_constructible<Key> && std::equality_comparable<Key> && requires(
    const Key& key, std::ostream& out) {
  { std::hash<Key>{}(key) } -> std::convertible_to<std::size_t>;
  out << key;
};

/// The work a `Bank` runs for a key: a callable taking nothing and returning `Async<Value>`.
template <class Work, class Value>
concept BankWork = std::same_as<std::invoke_result_t<Work&>, Async<Value>>;

/// Coalesces asynchronous work by key: while an entry for a key exists, every caller of
/// `lock(key, wait, work)` shares the one task that the entry's first caller started.
///
/// ```
/// auto bank = std::make_shared<Bank<std::string, Token>>(0, BankOptions::clearWhenUnused());
/// Token token = co_await bank->lock(account, LockWait::throwAfter(5, Timeout{}),
///                                   [account] { return fetchToken(account); });
/// ```
///
/// Each entry counts the callers inside it. When the last one leaves, the entry is removed
/// (`BankOptions::clearWhenUnused`) or kept, and a kept entry answers later callers with its
/// finished task's outcome, value or error, without running the work again. The first caller
/// waits for the task without a limit and forwards its own cancellation to it; later callers wait
/// at most as long as their `LockWait` says and, when they give up (time limit or their own
/// cancellation), leave the task running for the others. Every step is logged at debug level in
/// category "Bank" when the installed logger's `shouldLog("Bank")` is true; when it is false the
/// records are neither formatted nor counted (as with `CRLog::debugIfEnabled`).
///
/// The bank is an `Actor`: its operations run one at a time on its own executor, so it needs no
/// lock, and any task may call them. Its running operations refer to it, so hold it by
/// `std::shared_ptr` and keep it alive until they have returned. Dropping the bank cancels no
/// task. `Value` must be copyable (every caller receives its own copy); for work without a value
/// use `std::monostate`.
template <BankKey Key, class Value>
class Bank final : public Actor {
  static_assert(std::is_copy_constructible_v<Value> && !std::is_void_v<Value>,
                "a Bank hands each caller a copy of the value: Value must be copyable");

 public:
  /// What one key of the cache holds.
  struct Entry {
    /// What the entry holds: the task computing the value (`inProgress`, also after the task has
    /// finished: it then serves its outcome), or a stored outcome (`ready`).
    class State {
     public:
      enum class Kind : std::uint8_t { inProgress, ready };

      static State inProgress(Task<Value> task) { return State(std::move(task)); }
      static State ready(Result<Value> result) { return State(std::move(result)); }

      Kind kind() const noexcept { return storage_.index() == 0 ? Kind::inProgress : Kind::ready; }
      /// The task of an `inProgress` state; null for `ready`.
      const Task<Value>* task() const noexcept { return std::get_if<0>(&storage_); }
      /// The outcome of a `ready` state; null for `inProgress`.
      const Result<Value>* result() const noexcept { return std::get_if<1>(&storage_); }

     private:
      explicit State(Task<Value> task) : storage_(std::in_place_index<0>, std::move(task)) {}
      explicit State(Result<Value> result) : storage_(std::in_place_index<1>, std::move(result)) {}

      std::variant<Task<Value>, Result<Value>> storage_;
    };

    /// Callers currently inside `lock` for this key; never negative.
    std::int64_t waiting = 0;
    State state;
  };

  /// An empty bank. `pollRate` is kept for clients that read it back; no operation uses it.
  explicit Bank(std::uint64_t pollRate, BankOptions options = BankOptions())
      : pollRate_(pollRate), options_(options) {}

  std::uint64_t pollRate() const noexcept { return pollRate_; }
  BankOptions options() const noexcept { return options_; }

  /// The value of `work()` for `key`, shared with every other caller while the key's entry
  /// exists. `work` is a callable returning `Async<Value>`; only the first caller's runs, as a
  /// new unstructured task with the caller's priority and task-local values.
  ///
  /// The first caller waits for the task without a limit (`wait` is not applied) and, if it is
  /// cancelled meanwhile, cancels the task, which every other caller of the key then sees. A
  /// later caller waits at most as `wait` says: at expiry it throws the wait's error, and when it
  /// is cancelled it throws `CancellationError`; either way the task goes on for the others. The
  /// work's error reaches every caller unchanged.
  template <BankWork<Value> Work>
  Async<Value> lock(Key key, LockWait wait, Work work) {
    return enterAndWait(std::move(key), std::move(wait), std::optional<Work>(std::move(work)),
                        Task<Value>(), 0);
  }

  /// The wait of a later caller (an internal step of `lock`, which has already counted the
  /// caller as waiter `waiterNumber`): the first of the task's completion, the expiry of `wait`
  /// and the caller's cancellation decides. Leaves the waiter count in every case, never cancels
  /// the task.
  Async<Value> waitOnInProgressTask(Task<Value> task, LockWait wait, Key key,
                                    std::int64_t waiterNumber) {
    return enterAndWait(std::move(key), std::move(wait), std::optional<NoWork>(), std::move(task),
                        waiterNumber);
  }

  /// Takes one caller out of `key`'s entry (an internal step of `lock`): at zero the entry is
  /// removed with `clearWhenUnused`, else kept. Nothing happens without an entry. Must run on the
  /// bank (stops the process otherwise); a count below zero stops the process.
  void removeWaiter(const Key& key) {
    assertIsolated();
    auto found = cache_.find(key);
    if (found == cache_.end()) return;
    Entry& entry = found->second;
    entry.waiting -= 1;
    if (entry.waiting < 0) fatalError(kLabel, __LINE__, "Bank waiter count fell below zero");
    if (entry.waiting == 0 && options_.contains(BankOptions::clearWhenUnused())) {
      debugRecord("Clearing cache for key ", key, "waiting", 0);
      cache_.erase(found);
      return;
    }
    debugRecord("Decrementing waiters for key ", key, "waiting", entry.waiting);
  }

  /// Cancels the running task of `key`, if any, without waiting for it. The entry and its count
  /// stay as they are.
  Async<void> cancelTask(Key key) {
    co_await enter();
    auto found = cache_.find(key);
    if (found == cache_.end()) co_return;
    if (const Task<Value>* task = found->second.state.task()) task->cancel();
  }

  /// Cancels the running task of `key` and waits for it to end (its outcome is ignored). With
  /// `throwAfter(s, e)` it waits at most s seconds, then throws e, and returns early if the
  /// caller is cancelled. A key without a running task is only logged (info).
  Async<void> cancelTaskAndWait(Key key, LockWait wait) {
    co_await enter();
    auto found = cache_.find(key);
    const Task<Value>* running = found == cache_.end() ? nullptr : found->second.state.task();
    if (running == nullptr) {
      std::string message = "No task in-progress for ";
      appendKey(message, key);
      message += ". Ignoring cancellation...";
      CRLog::info("Bank", message);
      co_return;
    }
    Task<Value> task = *running;
    task.cancel();
    if (wait.kind() == LockWait::Kind::indefinite) {
      co_await task.result();
      co_return;
    }
    std::optional<TaskWaiterEvent<Value>> event =
        co_await detail::firstWaitEvent(std::move(task), wait.duration());
    if (!event)
      fatalError(kLabel, __LINE__, "Unexpectedly fell through while waiting for cancellation");
    if (event->kind() == TaskWaiterEvent<Value>::Kind::timedOut)
      std::rethrow_exception(wait.error());
  }

  /// A copy of `key`'s entry, if there is one.
  Async<std::optional<Entry>> entry(Key key) {
    co_await enter();
    auto found = cache_.find(key);
    if (found == cache_.end()) co_return std::nullopt;
    co_return found->second;
  }

  /// The number of entries in the cache.
  Async<std::size_t> entryCount() {
    co_await enter();
    co_return cache_.size();
  }

 private:
  static constexpr std::string_view kLabel = "CarrowPrivate/Locks";

  // The work type of a wait that joins a task it was handed.
  struct NoWork {
    Async<Value> operator()() const;
  };

  // `lock` when `work` is given, else `waitOnInProgressTask` for `task` and `waiterNumber`. One
  // coroutine serves both, so that a later caller of `lock` waits in a single frame: thousands of
  // them may wait at once, and a frame for the lookup nested around a frame for the wait cost
  // each of them an allocation, a resumption and some 400 bytes.
  template <class Work>
  Async<Value> enterAndWait(Key key, LockWait wait, std::optional<Work> work, Task<Value> task,
                            std::int64_t waiterNumber) {
    co_await enter();
    if (work) {
      auto found = cache_.find(key);
      if (found == cache_.end()) {
        task = Task<Value>::start(std::move(*work));
        cache_.emplace(key, Entry{1, Entry::State::inProgress(task)});
        debugRecord("Took First Lock ", key, "waiter", 1);
        co_return co_await waitAsFirstCaller(std::move(task), std::move(key));
      }
      work.reset();  // only a first caller runs it: let go of what it holds while this one waits
      Entry& entry = found->second;
      entry.waiting = checkedAdd<std::int64_t>(entry.waiting, 1, kLabel, __LINE__);
      waiterNumber = entry.waiting;
      if (const Result<Value>* stored = entry.state.result()) {
        Result<Value> outcome = *stored;
        debugRecord("Cached Result ", key, "waiter", waiterNumber);
        removeWaiter(key);
        co_return std::move(outcome).get();
      }
      task = *entry.state.task();
    }
    std::optional<TaskWaiterEvent<Value>> event;
    if (task.isFinished()) {
      // A kept entry's finished task: the race could only report its outcome. Read through a
      // frame of its own, which is smaller in this frame than the task's outcome awaiter.
      event = TaskWaiterEvent<Value>::taskCompleted(co_await outcomeOf(task));
    } else {
      // The race is built, run and dropped off the actor, which only keeps the books while
      // thousands of waiters race in parallel. It is awaited in this frame rather than through
      // `firstWaitEvent`, which would add a coroutine frame to every waiting caller.
      co_await hopTo(globalExecutor());
      {
        auto events = detail::waitEvents(std::move(task), wait.duration()).makeAsyncIterator();
        try {
          event = co_await events.next();
        } catch (const CancellationError&) {
          // The merge may report this caller's own cancellation as an error: the same as an end.
        }
      }
      co_await enter();
    }
    removeWaiter(key);
    if (event && event->kind() == TaskWaiterEvent<Value>::Kind::taskCompleted) {
      debugRecord("Task completed ", key, "waiter", waiterNumber);
      co_return std::move(*event).result().get();
    }
    if (event && event->kind() == TaskWaiterEvent<Value>::Kind::timedOut) {
      debugRecord("Timed out ", key, "waiter", waiterNumber);
      std::rethrow_exception(wait.error());
    }
    debugRecord("Cancelled ", key, "waiter", waiterNumber);
    throw CancellationError();
  }

  static Async<Result<Value>> outcomeOf(Task<Value> task) { co_return co_await task.result(); }

  // The first caller's wait (a step of `lock`, on the bank): no limit, and its cancellation is
  // forwarded to the task. A frame of its own, so that later callers' `lock` frames stay small.
  Async<Value> waitAsFirstCaller(Task<Value> task, Key key) {
    co_await enter();
    auto operation = [task] { return outcomeOf(task); };
    auto forwardCancellation = [task]() noexcept { task.cancel(); };
    Result<Value> outcome = co_await withTaskCancellationHandler(operation, forwardCancellation);
    removeWaiter(key);
    co_return std::move(outcome).get();
  }

  // The key's printed form: text and integers directly, anything else through its operator<<.
  static void appendKey(std::string& out, const Key& key) {
    if constexpr (std::is_convertible_v<const Key&, std::string_view>) {
      out += std::string_view(key);
    } else if constexpr (std::is_integral_v<
                             Key> && !std::is_same_v<Key, bool> && !std::is_same_v<Key, char>) {
      out += std::to_string(key);
    } else {
      std::ostringstream printed;
      printed << key;
      out += printed.str();
    }
  }

  // Logs "<prefix>{ key: KEY <counter>: N }" at debug level, the shape of every per-key record,
  // if the installed logger takes category "Bank". These records come from every caller while
  // the bank's actor runs them one at a time, and each names a waiter number: formatting and
  // counting them for a logger that drops them all cost more than the rest of a caller's
  // bookkeeping, and grew the limiter by an entry per distinct number for nothing.
  static void debugRecord(std::string_view prefix, const Key& key, std::string_view counter,
                          std::int64_t number, CRLog::Site site = CRLog::Site::current()) {
    if (!CRLog::logger()->shouldLog("Bank")) return;
    CRLog::debug("Bank", describe(prefix, key, counter, number), std::nullopt, site);
  }

  static std::string describe(std::string_view prefix, const Key& key, std::string_view counter,
                              std::int64_t number) {
    std::string message(prefix);
    message += "{ key: ";
    appendKey(message, key);
    message += ' ';
    message += counter;
    message += ": ";
    message += std::to_string(number);
    message += " }";
    return message;
  }

  std::uint64_t pollRate_;
  BankOptions options_;
  std::unordered_map<Key, Entry> cache_;
};

}  // namespace carrow
