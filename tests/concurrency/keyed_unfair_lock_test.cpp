#include <atomic>
#include <chrono>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/concurrency/keyed_unfair_lock.h>

namespace carrow {
namespace {

using Keyed = CRKeyedUnfairLock<std::string, int>;
using Verdict = Keyed::Control<std::int64_t>;

TEST(CRKeyedUnfairLock, HitCountsStartAtOneAndRisePerKey) {
  Keyed keyed;
  EXPECT_EQ(keyed.withLock("a", [](std::int64_t hits) { return hits; }), 1);
  EXPECT_EQ(keyed.withLock("a", [](std::int64_t hits) { return hits; }), 2);
  EXPECT_EQ(keyed.withLock("b", [](std::int64_t hits) { return hits; }), 1);
  EXPECT_EQ(keyed.withLock("a", [](std::int64_t hits) { return hits; }), 3);
}

TEST(CRKeyedUnfairLock, StoreAndDoNothingKeepTheValueAndClearForgetsEverything) {
  Keyed keyed;
  auto first = keyed.withLock("k", [](std::int64_t hits, std::optional<int> cached) {
    EXPECT_FALSE(cached);
    return Verdict::store(5, hits);
  });
  EXPECT_EQ(first, 1);
  keyed.withLock("k", [](std::int64_t, std::optional<int>) { return Verdict::doNothing(0); });
  keyed.withLock("k", [](std::int64_t hits, std::optional<int> cached) {
    EXPECT_EQ(hits, 3);
    EXPECT_EQ(cached, 5);
    return Verdict::clear(hits);
  });
  EXPECT_EQ(keyed.count(), 0u);
  keyed.withLock("k", [](std::int64_t hits, std::optional<int> cached) {
    EXPECT_EQ(hits, 1);
    EXPECT_FALSE(cached);
    return Verdict::doNothing(hits);
  });
}

TEST(CRKeyedUnfairLock, ThrowingBodyLeavesTheKeyUsableAndTheEntryUnchanged) {
  Keyed keyed;
  keyed.withLock("k",
                 [](std::int64_t, std::optional<int>) { return Keyed::Control<void>::store(1); });
  EXPECT_THROW(keyed.withLock("k",
                              [](std::int64_t, std::optional<int>) -> Keyed::Control<void> {
                                throw std::runtime_error("body failed");
                              }),
               std::runtime_error);
  EXPECT_THROW(keyed.withLock("k", [](std::int64_t) -> int { throw std::logic_error("again"); }),
               std::logic_error);
  // Would hang if an error path had kept the key.
  keyed.withLock("k", [](std::int64_t hits, std::optional<int> cached) {
    EXPECT_EQ(hits, 4);
    EXPECT_EQ(cached, 1);
    return Keyed::Control<void>::doNothing();
  });
}

TEST(CRKeyedUnfairLock, OneKeyNeverRunsTwoBodiesAtOnce) {
  CRKeyedUnfairLock<int, long> keyed;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        keyed.withLock(7, [&](std::int64_t, std::optional<long> cached) {
          if (inside.fetch_add(1) != 0) overlapped = true;
          long next = cached.value_or(0) + 1;
          inside.fetch_sub(1);
          return CRKeyedUnfairLock<int, long>::Control<void>::store(next);
        });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_FALSE(overlapped);
  keyed.withLock(7, [](std::int64_t hits, std::optional<long> cached) {
    EXPECT_EQ(cached, 8000);  // no store was lost
    EXPECT_EQ(hits, 8001);
    return CRKeyedUnfairLock<int, long>::Control<void>::doNothing();
  });
}

TEST(CRKeyedUnfairLock, DifferentKeysRunInParallelEvenWhileOneKeyIsContended) {
  CRKeyedUnfairLock<int, int> keyed;
  std::latch otherKeyRan(1);
  std::atomic<bool> released{false};
  // The holder of key 1 keeps it until a body for key 2 has run; a waiter queues on key 1 too.
  std::thread holder([&] {
    keyed.withLock(1, [&](std::int64_t) {
      otherKeyRan.wait();
      released = true;
    });
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  std::thread waiter([&] { keyed.withLock(1, [&](std::int64_t) { EXPECT_TRUE(released); }); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  keyed.withLock(2, [&](std::int64_t) { otherKeyRan.count_down(); });
  holder.join();
  waiter.join();
}

TEST(CRKeyedUnfairLock, CallersOfOneKeyEnterInArrivalOrder) {
  CRKeyedUnfairLock<int, int> keyed;
  std::vector<std::int64_t> order;
  std::latch started(1);
  std::thread first([&] {
    keyed.withLock(1, [&](std::int64_t hits) {
      started.count_down();
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
      order.push_back(hits);
    });
  });
  started.wait();
  std::vector<std::thread> later;
  for (int i = 0; i < 4; ++i) {
    later.emplace_back(
        [&] { keyed.withLock(1, [&](std::int64_t hits) { order.push_back(hits); }); });
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  first.join();
  for (auto& thread : later) thread.join();
  EXPECT_EQ(order, (std::vector<std::int64_t>{1, 2, 3, 4, 5}));
}

TEST(CRKeyedUnfairLock, ClearsRacingQueuedWaitersNeitherHangNorLeakEntries) {
  // Callers queued on an entry that a clear removes finish on that entry; later callers start a
  // new one. Under ThreadSanitizer this also checks the hand-over between the two.
  CRKeyedUnfairLock<int, int> keyed;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 1000; ++i) {
        keyed.withLock(3, [&](std::int64_t hits, std::optional<int> cached) {
          using C = CRKeyedUnfairLock<int, int>::Control<void>;
          EXPECT_GE(hits, 1);
          EXPECT_GE(cached.value_or(0), 0);
          return (i + t) % 3 == 0 ? C::clear() : C::store(i);
        });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_LE(keyed.count(), 1u);
}

}  // namespace
}  // namespace carrow
