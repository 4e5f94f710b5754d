#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <carrow/runtime/async.h>
#include <carrow/runtime/async_throwing_stream.h>
#include <carrow/runtime/run_main.h>
#include <carrow/sequences/any_async_sequence.h>
#include <carrow/sequences/async_sync_sequence.h>
#include <carrow/sequences/map.h>
#include <carrow/sequences/merge.h>

#include "sequence_probes.h"

namespace carrow {
namespace {

using testing::play;
using testing::Results;
using testing::Scripted;

TEST(Map, TransformsEachElementAndRethrowsTheBasesError) {
  const auto results = runMain([]() -> Async<std::vector<Results>> {
    auto tenfold = [](int value) { return value * 10; };
    auto failing = [](int value) {
      if (value == 2) throw std::runtime_error("transform refused 2");
      return value;
    };
    auto scripted = map(Scripted({1, 2, -4}), tenfold);
    auto refused = map(asAsync(std::vector<int>{1, 2, 3}), failing);
    std::vector<Results> results;
    results.push_back(co_await play(scripted, 4));
    results.push_back(co_await play(refused, 3));
    co_return results;
  });
  EXPECT_EQ(results[0], (Results{"10", "20", "error: failure 4", "end"}));
  EXPECT_EQ(results[1], (Results{"1", "error: transform refused 2", "3"}));
}

TEST(Map, ChangesTheElementTypeAndComposesWithStreamsErasureAndMerge) {
  const auto results = runMain([]() -> Async<Results> {
    auto [stream, continuation] = AsyncThrowingStream<std::string>::makeStream();
    continuation.yield("abc");
    continuation.finish();
    auto length = [](const std::string& text) { return static_cast<int>(text.size()); };
    AnyAsyncThrowingSequence<int> erased(map(stream, length));
    auto merged = merge(erased, map(asAsync(std::vector<int>{}), [](int v) { return v; }));
    auto plusOne = map(merged, [](int v) { return v + 1; });
    co_return co_await play(plusOne, 2);
  });
  EXPECT_EQ(results, (Results{"4", "end"}));
}

}  // namespace
}  // namespace carrow
