#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <variant>

#include <carrow/concurrency/detail/ticket_lock.h>
#include <carrow/concurrency/unfair_lock.h>
#include <carrow/platform/fatal_error.h>

namespace carrow {

/// One mutual-exclusion lock per key, made on first use, with one cached value per key.
///
/// Work for different keys runs in parallel; work for one key runs one at a time, in the order the
/// callers reached the table. Callers draw their place in a key's line under the table lock and
/// wait for their turn without it, so a busy key never holds up other keys. The body learns how
/// often its key has been taken (the hit count, 1 on first use) and, in the second form, the value
/// cached for the key, and its `Control` verdict keeps, replaces or clears the key's entry:
///
///     CRKeyedUnfairLock<std::string, Connection> connections;
///     auto c = connections.withLock(host, [&](std::int64_t hits, std::optional<Connection> cached)
///     {
///       using Verdict = decltype(connections)::Control<Connection>;
///       if (cached) return Verdict::doNothing(*cached);
///       Connection fresh = connect(host);
///       return Verdict::store(fresh, fresh);
///     });
///
/// A `clear` resets the key: the next body to run for it, whether it was already waiting or
/// arrives later, sees hit count 1 and no value, and what it stores is kept. The entry leaves the
/// table only when nobody holds or waits for the key, so callers of one key always share one line.
///
/// Bodies run with only their key's lock held: they must be short, must not suspend and must not
/// take the same key again (the lock is not recursive). The keyed lock lives in one place: it is
/// neither copied nor moved.
template <class Key, class Value, class Hash = std::hash<Key>, class KeyEqual = std::equal_to<Key>>
class CRKeyedUnfairLock {
 public:
  /// A key's entry, shared between the table and the callers that hold it.
  class Entry {
   public:
    /// The cached value, read and written only during a caller's turn.
    const std::optional<Value>& value() const noexcept { return value_; }

   private:
    friend class CRKeyedUnfairLock;
    detail::TicketLock innerLock_;  // tickets drawn under the table lock
    // Both guarded by the key's turn. The hit count is counted when a caller's turn starts, so a
    // clear can restart it for the callers already in line.
    std::int64_t hitCount_ = 0;
    std::optional<Value> value_;
  };

  /// The verdict of a body run with the cached value: keep the entry, store a new value, or
  /// clear the entry so the key's next use starts again at hit count 1 with no value. `R` is the
  /// body's own result and may be `void`.
  template <class R>
  class Control {
    using Payload = std::conditional_t<std::is_void_v<R>, std::monostate, R>;

   public:
    using Result = R;
    enum class Kind : std::uint8_t { doNothing, store, clear };

    static Control doNothing(Payload result) {
      return {Kind::doNothing, std::nullopt, std::move(result)};
    }
    static Control store(Value value, Payload result) {
      return {Kind::store, std::move(value), std::move(result)};
    }
    static Control clear(Payload result) { return {Kind::clear, std::nullopt, std::move(result)}; }
    static Control doNothing() requires std::is_void_v<R> { return doNothing(Payload{}); }
    static Control store(Value value) requires std::is_void_v<R> {
      return store(std::move(value), Payload{});
    }
    static Control clear() requires std::is_void_v<R> { return clear(Payload{}); }

    Kind kind() const noexcept { return kind_; }

   private:
    friend class CRKeyedUnfairLock;
    Control(Kind kind, std::optional<Value> value, Payload result)
        : kind_(kind), value_(std::move(value)), result_(std::move(result)) {}

    Kind kind_;
    std::optional<Value> value_;
    Payload result_;
  };

  CRKeyedUnfairLock() = default;
  CRKeyedUnfairLock(const CRKeyedUnfairLock&) = delete;
  CRKeyedUnfairLock& operator=(const CRKeyedUnfairLock&) = delete;

  /// Runs `body(hitCount)` during `key`'s turn and returns its result. An error thrown by the
  /// body is passed on after the key is released; the hit count already counted stays.
  template <class Body>
  requires std::invocable<Body&, std::int64_t>
  decltype(auto) withLock(const Key& key, Body&& body) {
    Turn turn = take(key);
    return body(turn.hitCount);
  }

  /// Runs `body(hitCount, cachedValue)` during `key`'s turn and acts on its `Control` verdict:
  /// `doNothing` keeps the entry, `store` replaces the cached value, `clear` resets the key to no
  /// value and hit count 1 (and drops its entry when nobody else holds or waits for it). Returns
  /// the verdict's result. If the body throws, the entry is unchanged.
  template <class Body>
  requires std::invocable<Body&, std::int64_t, std::optional<Value>>
  auto withLock(const Key& key, Body&& body) ->
      typename std::invoke_result_t<Body&, std::int64_t, std::optional<Value>>::Result {
    using Verdict = std::invoke_result_t<Body&, std::int64_t, std::optional<Value>>;
    Turn turn = take(key);
    Verdict verdict = body(turn.hitCount, turn.entry->value_);
    if (verdict.kind_ == Verdict::Kind::store) turn.entry->value_ = std::move(verdict.value_);
    if (verdict.kind_ == Verdict::Kind::clear) clear(key, turn);
    if constexpr (!std::is_void_v<typename Verdict::Result>) return std::move(verdict.result_);
  }

  /// The number of keys with an entry (for diagnostics and tests).
  std::size_t count() const {
    std::lock_guard guard(cacheLock_);
    return keyedLocks_.size();
  }

 private:
  // A caller's turn on one key: the entry, its place in the entry's line, the hit count counted
  // when the turn began, and the release on scope exit.
  struct Turn {
    std::shared_ptr<Entry> entry;
    std::uint64_t ticket;
    std::int64_t hitCount;
    Turn(std::shared_ptr<Entry> e, std::uint64_t t, std::int64_t hits)
        : entry(std::move(e)), ticket(t), hitCount(hits) {}
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn() { entry->innerLock_.release(); }
  };

  // Draws a place in the key's line under the table lock, then waits for it without that lock.
  Turn take(const Key& key) {
    std::shared_ptr<Entry> entry;
    std::uint64_t ticket = 0;
    {
      std::lock_guard table(cacheLock_);
      auto& slot = keyedLocks_[key];
      if (!slot) slot = std::make_shared<Entry>();
      ticket = slot->innerLock_.draw();
      entry = slot;
    }
    entry->innerLock_.wait(ticket);
    entry->hitCount_ =
        checkedAdd<std::int64_t>(entry->hitCount_, 1, "CarrowPrivate/Locks", __LINE__);
    std::int64_t hits = entry->hitCount_;
    return Turn(std::move(entry), ticket, hits);
  }

  // Resets the key during the caller's turn. Callers already in line keep the entry (and so keep
  // waiting their turn in order); only an entry nobody else has a place on leaves the table.
  // Taking the table lock during a turn cannot deadlock: nobody waits for a turn holding it.
  void clear(const Key& key, const Turn& turn) {
    turn.entry->value_.reset();
    turn.entry->hitCount_ = 0;
    std::lock_guard table(cacheLock_);
    if (turn.entry->innerLock_.hasDrawnAfter(turn.ticket)) return;
    auto found = keyedLocks_.find(key);
    if (found != keyedLocks_.end() && found->second == turn.entry) keyedLocks_.erase(found);
  }

  mutable CRUnfairLock cacheLock_;
  std::unordered_map<Key, std::shared_ptr<Entry>, Hash, KeyEqual> keyedLocks_;
};

}  // namespace carrow
