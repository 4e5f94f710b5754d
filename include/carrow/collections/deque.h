#pragma once

#include <algorithm>
#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <type_traits>
#include <utility>

#include <carrow/collections/detail/checked.h>
#include <carrow/collections/detail/deque_block.h>
#include <carrow/platform/fatal_error.h>

namespace carrow {

template <class Element>
class Deque;

namespace detail {
// Read access to a deque's block, for the library's own tests of its sharing and layout.
struct DequeInspection {
  template <class Element>
  static const auto& storage(const Deque<Element>& deque) noexcept {
    return deque.storage_;
  }
};
}  // namespace detail

/// A first-in first-out ring buffer.
///
/// Elements are appended at the back and taken from the front; there is no other access. A new
/// deque allocates nothing. Storage grows by half its capacity (at least to what is needed) and is
/// never shrunk. The element at queue position p lives in slot (startSlot + p) mod capacity.
///
/// Copies are values that share one block until either of them changes: the first `append` or
/// `popFirst` on a shared block copies it. Sharing is counted atomically, so copies may live on
/// different threads, and one deque may be copied on several threads at once; otherwise one deque
/// must not be used from two threads at once.
template <class Element>
class Deque {
 public:
  /// The bookkeeping at the front of a block.
  struct Header {
    std::ptrdiff_t capacity;   // element slots in the block
    std::ptrdiff_t count;      // live elements
    std::ptrdiff_t startSlot;  // slot of the front element
  };

  /// The live elements as at most two contiguous runs: from startSlot towards the end of the
  /// block, then (when they wrap) from slot 0.
  struct WrappedBuffer {
    std::span<Element> first;
    std::span<Element> second;
  };

  /// One reference-counted heap block: the count of references, the `Header`, then `capacity`
  /// element slots, of which only the live ones are initialised.
  class DequeBuffer {
   public:
    DequeBuffer(const DequeBuffer&) = delete;
    DequeBuffer& operator=(const DequeBuffer&) = delete;

    const Header& header() const noexcept { return header_; }
    bool isUniquelyReferenced() const noexcept {
      // Acquire: once the other holders have let go, their last reads of the block are done.
      return references_.load(std::memory_order_acquire) == 1;
    }

   private:
    friend class Deque;

    static constexpr std::size_t slotsOffset() noexcept {
      return (sizeof(DequeBuffer) + alignof(Element) - 1) / alignof(Element) * alignof(Element);
    }

    constexpr DequeBuffer(Header header, std::ptrdiff_t references) noexcept
        : references_(references), header_(header) {}
    ~DequeBuffer() = default;

    // Stands in for "no storage": capacity 0 and never unique, so that every append on it takes
    // the slow path, which allocates. It is never retained, released or written, and it spares
    // the fast paths a null test.
    static DequeBuffer empty_;

    /// A block with room for at least `minimumCapacity` elements; its capacity is what the
    /// allocator really provides.
    static DequeBuffer* create(std::ptrdiff_t minimumCapacity) {
      auto slots = detail::checkedConvert<std::size_t>(minimumCapacity, __LINE__);
      std::size_t bytes;
      if (__builtin_mul_overflow(slots, sizeof(Element), &bytes)
          || __builtin_add_overflow(bytes, slotsOffset(), &bytes)) {
        fatalError(detail::kCollectionsLabel, __LINE__, "Deque capacity overflow");
      }
      detail::DequeBlock block =
          detail::allocateDequeBlock(bytes, std::max(alignof(DequeBuffer), alignof(Element)));
      auto capacity =
          static_cast<std::ptrdiff_t>((block.usableBytes - slotsOffset()) / sizeof(Element));
      return ::new (block.address) DequeBuffer(Header{capacity, 0, 0}, 1);
    }

    static void retain(DequeBuffer* buffer) noexcept {
      buffer->references_.fetch_add(1, std::memory_order_relaxed);
    }

    static void release(DequeBuffer* buffer) noexcept {
      if (buffer->references_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
      WrappedBuffer live = buffer->wrappedBuffer();
      std::destroy(live.first.begin(), live.first.end());
      std::destroy(live.second.begin(), live.second.end());
      buffer->~DequeBuffer();
      detail::freeDequeBlock(buffer);
    }

    Element* elements() noexcept {
      return std::launder(
          reinterpret_cast<Element*>(reinterpret_cast<std::byte*>(this) + slotsOffset()));
    }

    WrappedBuffer wrappedBuffer() noexcept {
      Element* slots = elements();
      auto count = static_cast<std::size_t>(header_.count);
      auto start = static_cast<std::size_t>(header_.startSlot);
      auto toEnd = static_cast<std::size_t>(header_.capacity) - start;
      if (toEnd >= count) return {{slots + start, count}, {}};
      return {{slots + start, toEnd}, {slots, count - toEnd}};
    }

    std::atomic<std::ptrdiff_t> references_;
    Header header_;
  };

  /// Where the elements live: nothing yet (`isEmpty()`), or one reference to a `DequeBuffer`.
  ///
  /// Beside the reference it keeps a mark, "the block may be shared", so that the fast paths test
  /// a word of their own instead of the block's count of references. Every copy sets the mark on
  /// both sides; only a slow path that sees a count of one (or makes a private block) clears it.
  /// Clear therefore means unshared; set means "ask the count".
  class Storage {
   public:
    Storage() noexcept = default;
    Storage(const Storage& other) noexcept : buffer_(other.buffer_) {
      if (!isEmpty()) {
        DequeBuffer::retain(buffer_);
        // Atomic: copies of one const deque may be made on several threads at once, and all of
        // them mark it (with the same value).
        std::atomic_ref(other.sharedBias_).store(kSharedBias, std::memory_order_relaxed);
        sharedBias_ = kSharedBias;
      }
    }
    Storage(Storage&& other) noexcept
        : buffer_(std::exchange(other.buffer_, &DequeBuffer::empty_)),
          sharedBias_(std::exchange(other.sharedBias_, 0)) {}
    Storage& operator=(Storage other) noexcept {
      swap(*this, other);
      return *this;
    }
    ~Storage() {
      if (!isEmpty()) DequeBuffer::release(buffer_);
    }

    friend void swap(Storage& a, Storage& b) noexcept {
      std::swap(a.buffer_, b.buffer_);
      std::swap(a.sharedBias_, b.sharedBias_);
    }

    bool isEmpty() const noexcept { return buffer_ == &DequeBuffer::empty_; }
    /// The block, or null when no storage is allocated.
    const DequeBuffer* buffer() const noexcept { return isEmpty() ? nullptr : buffer_; }
    /// False when this storage is known to hold the only reference to its block; true when the
    /// block may be (or may have been) shared.
    bool mayBeShared() const noexcept {
      // Atomic: it may be asked while copies are made on other threads.
      return std::atomic_ref(sharedBias_).load(std::memory_order_relaxed) != 0;
    }

   private:
    friend class Deque;
    explicit Storage(DequeBuffer* adopted) noexcept : buffer_(adopted) {}

    // The mark is a number, so that one comparison serves for two tests: 0 when unshared, and
    // when the block may be shared a bias that puts a count beyond any capacity (counts stay
    // far below it, being bounded by memory) and makes no count larger than it.
    static constexpr std::size_t kSharedBias = std::size_t{1} << 62;

    // True when this is the block's only holder, clearing the mark if it was set and the other
    // holders have let go since.
    bool claimUnique() noexcept {
      if (sharedBias_ == 0) return true;
      if (!buffer_->isUniquelyReferenced()) return false;
      sharedBias_ = 0;
      return true;
    }

    // Both are plain words, so that the compiler may keep them, and the header they lead to, in
    // registers from one operation to the next (it treats every atomic access as a barrier).
    // The one write that may race, the marking by copies of a const deque, goes through an
    // `atomic_ref`; relaxed, because the count of references, read with acquire before the mark
    // is cleared, does the ordering.
    DequeBuffer* buffer_ = &DequeBuffer::empty_;
    mutable std::size_t sharedBias_ = 0;
  };

  Deque() noexcept = default;
  static constexpr bool kCopyable = std::copy_constructible<Element>;
  // Copies share the block until one of them changes, and changing means copying elements, so
  // only deques of copyable elements are copyable.
  Deque(const Deque&) noexcept requires kCopyable = default;
  Deque& operator=(const Deque&) noexcept requires kCopyable = default;
  Deque(Deque&&) noexcept = default;
  Deque& operator=(Deque&&) noexcept = default;
  ~Deque() = default;

  /// True when the deque holds no element.
  bool isEmpty() const noexcept { return count() == 0; }
  bool empty() const noexcept { return isEmpty(); }

  /// The number of elements.
  std::ptrdiff_t count() const noexcept { return storage_.buffer_->header_.count; }
  std::size_t size() const noexcept { return static_cast<std::size_t>(count()); }

  /// The number of slots of the current block (0 before the first append).
  std::ptrdiff_t capacity() const noexcept { return storage_.buffer_->header_.capacity; }

  /// Adds an element at the back. Amortised O(1); overflow of the count stops the process.
  void append(const Element& element) { emplace(element); }
  void append(Element&& element) { emplace(std::move(element)); }

  /// Constructs an element at the back from `args`.
  template <class... Args>
  void emplace(Args&&... args) {
    DequeBuffer* buffer = storage_.buffer_;
    Header header = buffer->header_;
    // One comparison for both reasons to leave the fast path: no free slot, or a block that may
    // be shared (whose bias pushes the count past the capacity).
    if (static_cast<std::size_t>(header.count) + storage_.sharedBias_
        >= static_cast<std::size_t>(header.capacity)) [[unlikely]] {
      return emplaceSlowly(std::forward<Args>(args)...);
    }
    constructAtBack(buffer, header, std::forward<Args>(args)...);
  }

  /// Removes and returns the front element; nullopt when the deque is empty. O(1).
  std::optional<Element> popFirst() {
    DequeBuffer* buffer = storage_.buffer_;
    Header header = buffer->header_;
    // One comparison for both reasons to leave the fast path: no element, or a block that may be
    // shared (whose bias no count reaches).
    if (static_cast<std::size_t>(header.count) <= storage_.sharedBias_) [[unlikely]] {
      if (header.count == 0) return std::nullopt;
      // Not a tail call, unlike `emplace`: merging an optional returned by a call with one built
      // here would pass it through memory, which costs more than the merged block does.
      buffer = makeUniqueForPop();
      header = buffer->header_;
    }
    return takeFront(buffer, header);
  }

  friend void swap(Deque& a, Deque& b) noexcept { swap(a.storage_, b.storage_); }

 private:
  friend struct detail::DequeInspection;

  // The slot `offset` places after `base`, wrapped once. Offsets are counts, so never negative
  // and never above the capacity: one correction suffices.
  static std::ptrdiff_t slotFor(std::ptrdiff_t base, std::ptrdiff_t offset,
                                std::ptrdiff_t capacity) noexcept {
    // Subtracting first lets the sign of the difference pick the answer (a `cmov`).
    std::ptrdiff_t slot = base + offset - capacity;
    return slot < 0 ? slot + capacity : slot;
  }

  // The fast path of `emplace` leaves only through a tail call to its slow path. Had the two
  // paths merged with a choice of block, the compiler could no longer tell that the block (and
  // the count just written) is the one a following `popFirst` reads, and would read the count
  // back from memory: a store-to-load round trip between every append and pop.
  template <class... Args>
  static void constructAtBack(DequeBuffer* buffer, Header header, Args&&... args) {
    Element* slot = buffer->elements() + slotFor(header.startSlot, header.count, header.capacity);
    std::construct_at(slot, std::forward<Args>(args)...);
    buffer->header_.count = header.count + 1;
  }

  static std::optional<Element> takeFront(DequeBuffer* buffer, Header header) {
    Element* slot = buffer->elements() + header.startSlot;
    auto removeFront = [&] {
      std::destroy_at(slot);
      // A branch, not a conditional move: it is almost always predicted right, and it keeps the
      // test off the chain from one pop's start slot to the next.
      std::ptrdiff_t nextSlot = header.startSlot + 1;
      if (nextSlot == header.capacity) [[unlikely]] {
        asm volatile("");
        nextSlot = 0;
      }
      buffer->header_.startSlot = nextSlot;
      buffer->header_.count = header.count - 1;
    };
    if constexpr (std::is_nothrow_move_constructible_v<Element>) {
      Element element(std::move(*slot));
      removeFront();
      // Built at the return, not before: an optional filled early and returned through memory
      // costs a stalled store-to-load forward on every pop.
      return std::optional<Element>(std::move(element));
    } else {
      // A move that throws leaves the deque as it was.
      std::optional<Element> element(std::move(*slot));
      removeFront();
      return element;
    }
  }

  template <class... Args>
  [[gnu::noinline]] void emplaceSlowly(Args&&... args) {
    DequeBuffer* buffer = makeRoomForAppend();
    constructAtBack(buffer, buffer->header_, std::forward<Args>(args)...);
  }

  // The slow path of an append, kept out of line so that the fast path inlines: a block that is
  // missing, full or shared is replaced. A block whose other holders have all let go is kept.
  DequeBuffer* makeRoomForAppend() {
    std::ptrdiff_t required =
        checkedAdd(count(), std::ptrdiff_t{1}, detail::kCollectionsLabel, __LINE__);
    bool unique = storage_.claimUnique();
    if (capacity() < required) {
      grow(required, unique);
    } else if (!unique) {
      makeUnique();
    }
    return storage_.buffer_;
  }

  // The slow path of a pop from a block that may be shared.
  [[gnu::noinline]] DequeBuffer* makeUniqueForPop() {
    if (!storage_.claimUnique()) makeUnique();
    return storage_.buffer_;
  }

  // Moves the elements, front first, into slots 0 ..< count of a larger block. A block shared
  // with another deque is copied from and left as it is.
  void grow(std::ptrdiff_t required, bool unique) {
    std::ptrdiff_t newCapacity = detail::dequeGrowthCapacity(capacity(), required);
    Storage fresh(DequeBuffer::create(newCapacity));
    DequeBuffer* old = storage_.buffer_;
    if (old->header_.count > 0) {
      WrappedBuffer live = old->wrappedBuffer();
      DequeBuffer* target = fresh.buffer_;
      if constexpr (std::is_trivially_copyable_v<Element>) {
        Element* slots = target->elements();
        std::memcpy(static_cast<void*>(slots), live.first.data(), live.first.size_bytes());
        if (!live.second.empty()) {
          std::memcpy(static_cast<void*>(slots + live.first.size()), live.second.data(),
                      live.second.size_bytes());
        }
        target->header_.count = old->header_.count;
      } else {
        for (std::span<Element> run : {live.first, live.second}) {
          for (Element& element : run) {
            Element* slot = target->elements() + target->header_.count;
            if constexpr (std::copy_constructible<Element>) {
              if (unique) {
                std::construct_at(slot, std::move_if_noexcept(element));
              } else {
                std::construct_at(slot, std::as_const(element));
              }
            } else {
              // Move-only elements are never shared (their deques cannot be copied).
              std::construct_at(slot, std::move(element));
            }
            ++target->header_.count;
          }
        }
      }
      if (unique) {
        std::destroy(live.first.begin(), live.first.end());
        std::destroy(live.second.begin(), live.second.end());
        old->header_.count = 0;
      }
    }
    storage_ = std::move(fresh);
  }

  // Replaces a shared block by a private copy: same capacity, same header, each element copied
  // into its own slot.
  [[gnu::noinline]] void makeUnique() {
    if constexpr (!std::copy_constructible<Element>) {
      // Unreachable: such deques cannot be copied, so their blocks are never shared.
      fatalError(detail::kCollectionsLabel, __LINE__, "Shared deque of move-only elements");
    } else {
      makeUniqueCopy();
    }
  }

  void makeUniqueCopy() {
    DequeBuffer* old = storage_.buffer_;
    const Header header = old->header_;
    Storage fresh(DequeBuffer::create(header.capacity));
    DequeBuffer* target = fresh.buffer_;
    target->header_ = Header{header.capacity, 0, header.startSlot};
    WrappedBuffer live = old->wrappedBuffer();
    Element* source = old->elements();
    Element* slots = target->elements();
    for (std::span<Element> run : {live.first, live.second}) {
      for (Element& element : run) {
        std::ptrdiff_t slot = &element - source;
        std::construct_at(slots + slot, std::as_const(element));
        ++target->header_.count;
      }
    }
    storage_ = std::move(fresh);
  }

  Storage storage_;
};

template <class Element>
constinit
    typename Deque<Element>::DequeBuffer Deque<Element>::DequeBuffer::empty_(Header{0, 0, 0}, 2);

}  // namespace carrow
