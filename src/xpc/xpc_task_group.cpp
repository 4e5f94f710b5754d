#include <charconv>
#include <cstdio>

#include <carrow/logging/log.h>
#include <carrow/platform/fatal_error.h>
#include <carrow/xpc/xpc_task_group.h>

namespace carrow {

namespace {

constexpr std::string_view kCategory = "XPCTask";

// A double in its shortest form that reads back exactly, written as a number with a fraction
// ("0.25", "1.0", "1e-05").
std::string shortestDecimal(double value) {
  char text[64];
  auto [end, error] = std::to_chars(text, text + sizeof text, value);
  std::string result(text, error == std::errc() ? end : text);
  if (result.find_first_of(".einf") == std::string::npos) result += ".0";
  return result;
}

}  // namespace

XPCTaskGroup::XPCTaskGroup(const void* connectionID) : connectionID_(connectionID) {
  char text[48];
  std::snprintf(text, sizeof text, "ObjectIdentifier(0x%016llx)",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(connectionID_)));
  connectionDescription_ = text;
}

std::int64_t XPCTaskGroup::registerTask(std::shared_ptr<const CancellableTask> task,
                                        TaskOptions options) {
  return lock_.withLock([&] {
    taskCounter_ =
        checkedAdd<std::int64_t>(taskCounter_, 1, "CarrowPrivate/XPCTaskGroup", __LINE__);
    tasks_.insert_or_assign(taskCounter_, TaskEntry{std::move(task), options});
    return taskCounter_;
  });
}

void XPCTaskGroup::logStart(std::int64_t number, const std::string& selector) const {
  CRLog::debugIfEnabled(kCategory, "Start #" + std::to_string(number) + " on "
                                       + connectionDescription_ + ": " + selector);
}

void XPCTaskGroup::finishTask(std::int64_t number, const std::string& selector) {
  std::optional<std::chrono::steady_clock::time_point> cancelled = lock_.withLock([&] {
    std::optional<std::chrono::steady_clock::time_point> date;
    auto found = cancellationDates_.find(number);
    if (found != cancellationDates_.end()) {
      date = found->second;
      cancellationDates_.erase(found);
    }
    return date;
  });
  if (cancelled) {
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - *cancelled;
    CRLog::info(kCategory, "Cancellation took " + shortestDecimal(elapsed.count()) + " seconds");
  }
  CRLog::debugIfEnabled(kCategory, "End #" + std::to_string(number) + " on "
                                       + connectionDescription_ + ": " + selector + " ");
  lock_.withLock([&] { tasks_.erase(number); });
}

void XPCTaskGroup::connectionInterrupted() {
  CRLog::error(kCategory, "XPC Connection, Interrupted");
  lock_.withLock([&] {
    if (tasks_.empty()) return;
    CRLog::info(kCategory, "Cancelling " + std::to_string(tasks_.size())
                               + " tasks due to connection interruption.");
    const auto now = std::chrono::steady_clock::now();
    for (const auto& [number, entry] : tasks_) {
      entry.erasedTask->cancel();
      cancellationDates_.insert_or_assign(number, now);
    }
    tasks_.clear();
  });
}

void XPCTaskGroup::connectionInvalidated() {
  lock_.withLock([&] {
    std::vector<std::int64_t> selected;
    for (const auto& [number, entry] : tasks_) {
      if (entry.options.contains(TaskOptions::cancelOnInvalidation())) selected.push_back(number);
    }
    if (selected.empty()) return;
    CRLog::info(kCategory, "Cancelling " + std::to_string(selected.size())
                               + " tasks due to connection invalidation.");
    const auto now = std::chrono::steady_clock::now();
    for (std::int64_t number : selected) {
      auto found = tasks_.find(number);
      found->second.erasedTask->cancel();
      cancellationDates_.insert_or_assign(number, now);
      tasks_.erase(found);
    }
  });
}

std::vector<std::int64_t> XPCTaskGroup::registeredTaskNumbers() const {
  return lock_.withLock([&] {
    std::vector<std::int64_t> numbers;
    for (const auto& [number, entry] : tasks_) numbers.push_back(number);
    return numbers;
  });
}

}  // namespace carrow
