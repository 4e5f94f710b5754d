#pragma once

// Lifting a sequence to optional elements with a leading absent value: std::nullopt first, then
// every element wrapped. Combining such sequences lets a combination produce output before every
// input has produced something (see combineLatestOptional).

#include <array>
#include <optional>
#include <utility>

#include <carrow/runtime/async_sequence.h>
#include <carrow/sequences/async_sync_sequence.h>
#include <carrow/sequences/chain.h>
#include <carrow/sequences/map.h>

namespace carrow {
namespace detail {

template <class Element>
struct WrapInOptional {
  std::optional<Element> operator()(Element element) const {
    return std::optional<Element>(std::move(element));
  }
};

}  // namespace detail

/// The sequence of `std::optional<Element>`: std::nullopt, then each element of `base`. Errors
/// of `base` pass through.
template <AsyncSequence Base>
auto prefixedWithNil(Base base) {
  using Element = AsyncSequenceElement<Base>;
  std::array<std::optional<Element>, 1> leading{};
  return chain(asAsync(std::move(leading)),
               map(std::move(base), detail::WrapInOptional<Element>{}));
}

}  // namespace carrow
