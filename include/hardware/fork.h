// fork.h: what keeps the library usable in a child process after fork(). Internal.
//
// Only the thread that forks lives on in the child. A lock that another thread held would stay locked there for
// ever, so the locks that stand for the whole process are taken before a fork and released after it on both sides.
#pragma once

namespace ornik {

/// The locks in the order in which they nest.
enum class ForkLock { seed, generator, engine, memory };

/// From now on `hold` is called before every fork and `release` after it, in the parent and in the child. To be
/// called once, by a thread that does not hold the lock. Does nothing where there is no fork().
void hold_over_fork(ForkLock lock, void (*hold)(), void (*release)());

/// Calls `run` in every child that is forked from now on.
void call_in_forked_children(void (*run)());

}  // namespace ornik
