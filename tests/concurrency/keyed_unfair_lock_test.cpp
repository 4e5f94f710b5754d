#include <atomic>
#include <chrono>
#include <latch>
#include <optional>
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

TEST(CRKeyedUnfairLock, ClearWithCallersInLineResetsTheKeyForThemAndKeepsOneLine) {
  // A holds the key and clears it; B is already in line and stores; C arrives while B is inside.
  // B must see the cleared key, C must wait for B and see what B stored.
  using Strings = CRKeyedUnfairLock<std::string, std::string>;
  using Step = Strings::Control<void>;
  Strings keyed;
  keyed.withLock("k",
                 [](std::int64_t, std::optional<std::string>) { return Step::store("stale"); });

  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  auto enter = [&] {
    if (inside.fetch_add(1) != 0) overlapped = true;
  };
  std::latch aInside(1);
  std::latch bInside(1);
  std::int64_t bHits = 0;
  std::optional<std::string> bSaw{"unset"};
  std::int64_t cHits = 0;
  std::optional<std::string> cSaw;

  std::thread a([&] {
    keyed.withLock("k", [&](std::int64_t, std::optional<std::string>) {
      enter();
      aInside.count_down();
      std::this_thread::sleep_for(std::chrono::milliseconds(60));
      inside.fetch_sub(1);
      return Step::clear();
    });
  });
  aInside.wait();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  std::thread b([&] {
    keyed.withLock("k", [&](std::int64_t hits, std::optional<std::string> cached) {
      enter();
      bHits = hits;
      bSaw = cached;
      bInside.count_down();
      std::this_thread::sleep_for(std::chrono::milliseconds(60));
      inside.fetch_sub(1);
      return Step::store("fresh");
    });
  });
  bInside.wait();
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::thread c([&] {
    keyed.withLock("k", [&](std::int64_t hits, std::optional<std::string> cached) {
      enter();
      cHits = hits;
      cSaw = cached;
      inside.fetch_sub(1);
      return Step::doNothing();
    });
  });
  a.join();
  b.join();
  c.join();

  EXPECT_FALSE(overlapped);
  EXPECT_EQ(bHits, 1);
  EXPECT_EQ(bSaw, std::nullopt);
  EXPECT_EQ(cHits, 2);
  EXPECT_EQ(cSaw, "fresh");
  EXPECT_EQ(keyed.count(), 1u);
}

TEST(CRKeyedUnfairLock, ClearsRacingQueuedWaitersNeitherHangNorOverlapNorLeakEntries) {
  // Clears made while other callers wait keep one line per key; a key nobody holds or waits for
  // after a clear leaves the table.
  CRKeyedUnfairLock<int, int> keyed;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 1000; ++i) {
        keyed.withLock(3, [&](std::int64_t hits, std::optional<int> cached) {
          using C = CRKeyedUnfairLock<int, int>::Control<void>;
          if (inside.fetch_add(1) != 0) overlapped = true;
          EXPECT_GE(hits, 1);
          EXPECT_EQ(hits == 1, !cached.has_value());
          inside.fetch_sub(1);
          return (i + t) % 3 == 0 ? C::clear() : C::store(i);
        });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_FALSE(overlapped);
  EXPECT_LE(keyed.count(), 1u);
  keyed.withLock(3, [](std::int64_t, std::optional<int>) {
    return CRKeyedUnfairLock<int, int>::Control<void>::clear();
  });
  EXPECT_EQ(keyed.count(), 0u);
}

}  // namespace
}  // namespace carrow
