#pragma once

// Combine-latest that does not wait for every input: each input is first lifted with a leading
// std::nullopt (prefixedWithNil), so the first tuple comes as soon as every input has been read
// once, with std::nullopt for the inputs that have produced nothing yet.
//
//   auto status = carrow::combineLatestOptional(progress, errors);
//   // elements: std::tuple<std::optional<Progress>, std::optional<Error>>

#include <utility>

#include <carrow/runtime/async_sequence.h>
#include <carrow/sequences/combine_latest.h>
#include <carrow/sequences/prefixed_with_nil.h>

namespace carrow {

/// combineLatest of `prefixedWithNil(base1)` and `prefixedWithNil(base2)`.
template <AsyncSequence Base1, AsyncSequence Base2>
auto combineLatestOptional(Base1 base1, Base2 base2) {
  return combineLatest(prefixedWithNil(std::move(base1)), prefixedWithNil(std::move(base2)));
}

/// combineLatest of the three inputs, each passed through prefixedWithNil.
template <AsyncSequence Base1, AsyncSequence Base2, AsyncSequence Base3>
auto combineLatestOptional(Base1 base1, Base2 base2, Base3 base3) {
  return combineLatest(prefixedWithNil(std::move(base1)), prefixedWithNil(std::move(base2)),
                       prefixedWithNil(std::move(base3)));
}

}  // namespace carrow
