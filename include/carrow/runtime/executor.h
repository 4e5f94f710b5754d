#pragma once

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
  Executor() noexcept : identity_(this) {}
  /// Lets an executor be recognised through state that outlives it (see `SerialExecutor`).
  explicit Executor(const void* identity) noexcept : identity_(identity) {}
  Executor(const Executor&) = delete;
  Executor& operator=(const Executor&) = delete;
  ~Executor() = default;

 private:
  friend class SerialExecutor;
  const void* identity_;
};

/// The process-wide concurrent executor: a pool of one thread per core, started on first use and
/// never stopped. Tasks start here; code that is not isolated to an actor runs here.
Executor& globalExecutor() noexcept;

/// An executor that runs its jobs one at a time, in the order they were queued. It owns no
/// thread: whenever it has work it queues one drain job on its target executor (the global
/// executor unless told otherwise), which runs a batch of jobs and queues itself again if more
/// remain, so a busy serial executor cannot starve the others. Every `Actor` has one.
///
/// Its queue is shared with the drain in progress, so destroying the executor while a job of it
/// runs (the last reference to an actor dropped inside one of its own operations) is safe; jobs
/// still queued then run anyway.
class SerialExecutor final : public Executor {
 public:
  /// A serial executor that borrows threads of the global executor.
  SerialExecutor();
  /// A serial executor whose drain job runs on `target`, which must outlive it.
  explicit SerialExecutor(Executor& target);
  SerialExecutor(const SerialExecutor&) = delete;
  SerialExecutor& operator=(const SerialExecutor&) = delete;
  ~SerialExecutor();

  void enqueue(Job& job) noexcept override;

 private:
  class Queue;
  Queue* queue_;
};

}  // namespace carrow
