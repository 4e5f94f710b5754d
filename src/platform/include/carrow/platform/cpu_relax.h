#pragma once

// The hint a spin-wait loop gives the processor between two looks at a shared word: it saves
// power and lets the sibling hyper-thread (often the thread being waited for) run.

namespace carrow::platform {

inline void cpuRelax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield" ::: "memory");
#endif
}

}  // namespace carrow::platform
