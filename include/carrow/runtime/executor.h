#pragma once

#include <cstddef>

#include <carrow/platform/unfair_lock.h>

namespace carrow {

/// One unit of work queued on an executor. Jobs are intrusive: the executor links them through
/// `nextJob` and never allocates, so scheduling cannot fail. The runtime embeds one job in every
/// task (a suspended task is scheduled at most once at a time) and one in every serial executor.
class Job {
 public:
  /// Runs the job on a thread of the executor it was queued on. Must not throw.
  virtual void run() noexcept = 0;

  /// Link owned by the executor while the job is queued.
  Job* nextJob = nullptr;

 protected:
  Job() = default;
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;
  ~Job() = default;
};

/// Something that runs jobs. Enqueueing is thread-safe, allocation-free and never runs the job
/// inline: it only queues it.
class Executor {
 public:
  /// Queues `job`; it runs later on one of the executor's threads. `job` must stay alive and must
  /// not be queued anywhere else until it has run.
  virtual void enqueue(Job& job) noexcept = 0;

  /// True while the calling thread is running a job of this executor (for a serial executor: while
  /// it drains it). Code that is already on an executor hops to it without queueing.
  bool isCurrent() const noexcept;

 protected:
  Executor() = default;
  Executor(const Executor&) = delete;
  Executor& operator=(const Executor&) = delete;
  ~Executor() = default;
};

/// The process-wide concurrent executor: a pool of one thread per core, started on first use and
/// never stopped. Tasks start here; code that is not isolated to an actor runs here.
Executor& globalExecutor() noexcept;

/// An executor that runs its jobs one at a time, in the order they were queued, borrowing a
/// thread of the global executor whenever it has work (it owns no thread). Every `Actor` has one.
///
/// It must outlive the jobs queued on it.
class SerialExecutor : public Executor {
 public:
  SerialExecutor() noexcept;
  SerialExecutor(const SerialExecutor&) = delete;
  SerialExecutor& operator=(const SerialExecutor&) = delete;
  ~SerialExecutor();

  void enqueue(Job& job) noexcept override;

 protected:
  /// Hands the drain job to whatever supplies this executor's thread; the default is the global
  /// executor. The main actor overrides it with the main thread (or a thread of its own).
  virtual void scheduleDrain(Job& drainJob) noexcept;

  /// Runs queued jobs, at most `limit` of them, on the calling thread, and reports whether more
  /// work remains (in which case the executor is still marked scheduled and the caller must call
  /// `drain` again or hand the drain job on).
  bool drain(std::size_t limit) noexcept;

 private:
  class DrainJob final : public Job {
   public:
    explicit DrainJob(SerialExecutor& owner) noexcept : owner_(owner) {}
    void run() noexcept override;

   private:
    SerialExecutor& owner_;
  };

  platform::os_unfair_lock lock_{};
  Job* head_ = nullptr;
  Job* tail_ = nullptr;
  bool scheduled_ = false;
  DrainJob drainJob_;
};

}  // namespace carrow
