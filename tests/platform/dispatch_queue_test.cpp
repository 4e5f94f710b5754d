#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/platform/dispatch_queue.h>

namespace carrow::platform {
namespace {

TEST(DispatchQueue, RunsBlocksInOrderOnItsOwnThread) {
  DispatchQueue queue("carrow.test");
  EXPECT_EQ(queue.label(), "carrow.test");
  EXPECT_FALSE(queue.isCurrent());
  std::vector<int> order;  // plain data: only the queue's thread writes it before the promise
  std::promise<std::thread::id> ran;
  for (int index = 0; index < 100; ++index)
    queue.async([&order, index] { order.push_back(index); });
  auto moveOnly = std::make_unique<int>(7);
  queue.async([&queue, &ran, &order, moveOnly = std::move(moveOnly)] {
    EXPECT_TRUE(queue.isCurrent());
    order.push_back(*moveOnly);
    ran.set_value(std::this_thread::get_id());
  });
  EXPECT_NE(ran.get_future().get(), std::this_thread::get_id());
  ASSERT_EQ(order.size(), 101u);
  for (int index = 0; index < 100; ++index) EXPECT_EQ(order[index], index);
}

TEST(DispatchQueue, FinishesSubmittedBlocksWhenDestroyedAndMayBeDestroyedByItsOwnBlock) {
  auto counter = std::make_shared<std::atomic<int>>(0);
  auto* selfDeleting = new DispatchQueue("carrow.self");
  for (int index = 0; index < 10; ++index) {
    selfDeleting->async([counter] { counter->fetch_add(1); });
  }
  selfDeleting->async([selfDeleting, counter] {
    delete selfDeleting;
    counter->fetch_add(1);
  });
  auto dropped = std::make_unique<DispatchQueue>("carrow.dropped");
  for (int index = 0; index < 10; ++index) dropped->async([counter] { counter->fetch_add(1); });
  dropped.reset();  // returns at once; the thread still runs the ten blocks
  for (int round = 0; round < 5000 && counter->load() != 21; ++round) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(counter->load(), 21);
}

}  // namespace
}  // namespace carrow::platform
