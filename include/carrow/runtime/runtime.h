#pragma once

// The task runtime: async functions, tasks, cancellation, task groups, continuations, executors,
// actors, task-local values, the program entry, clocks and sleeps, streams and the sequence
// concept.

#include <carrow/runtime/actor.h>
#include <carrow/runtime/async.h>
#include <carrow/runtime/async_sequence.h>
#include <carrow/runtime/async_stream.h>
#include <carrow/runtime/async_throwing_stream.h>
#include <carrow/runtime/cancellable_task.h>
#include <carrow/runtime/cancellation.h>
#include <carrow/runtime/cancellation_error.h>
#include <carrow/runtime/clock.h>
#include <carrow/runtime/continuation.h>
#include <carrow/runtime/executor.h>
#include <carrow/runtime/result.h>
#include <carrow/runtime/run_main.h>
#include <carrow/runtime/sleep.h>
#include <carrow/runtime/task.h>
#include <carrow/runtime/task_group.h>
#include <carrow/runtime/task_local.h>
#include <carrow/runtime/task_priority.h>
