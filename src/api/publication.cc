#include "api/publication.h"

#include <chrono>
#include <thread>
#include <utility>

#include "mapper/map.h"

namespace tpa::api {

namespace {

// Threads take slots in turn; more threads than slots share them.
std::atomic<std::size_t> slotsTaken{0};

std::size_t slotOfThisThread() {
  thread_local const std::size_t slot = slotsTaken.fetch_add(1, std::memory_order_relaxed);
  return slot;
}

}  // namespace

Publication::Publication() = default;

Publication::~Publication() = default;

// Sequentially consistent throughout: a Reading raises its count before it
// reads current_, publish stores current_ before it reads the counts, so a
// Reading that publish does not see counted reads the new map. A Reading
// counts itself under the phase it saw only if the phase has not moved on
// meanwhile; so the count a publish waits for holds every Reading that may
// read the map it replaced, and none that began after it moved the phase on.
Publication::Reading::Reading(const Publication& publication)
    : readers_(countOf(publication)), map_(publication.current_.load()) {}

std::atomic<std::int64_t>& Publication::Reading::countOf(const Publication& publication) {
  Slot& slot = publication.slots_[slotOfThisThread() % kSlots];
  for (;;) {
    const unsigned phase = publication.phase_.load();
    std::atomic<std::int64_t>& readers = slot.readers[phase % 2];
    readers.fetch_add(1);
    if (publication.phase_.load() == phase) return readers;
    readers.fetch_sub(1);
  }
}

Publication::Reading::~Reading() { readers_.fetch_sub(1); }

std::unique_ptr<mapper::Map> Publication::publish(std::unique_ptr<mapper::Map> next) {
  current_.store(next.get());
  std::unique_ptr<mapper::Map> previous = std::move(owned_);
  owned_ = std::move(next);
  // Readings that begin from here on read the new map and count under the
  // new phase: only the old count can hold Readings of the previous map.
  drain(phase_.fetch_add(1));
  return previous;
}

void Publication::drain(unsigned phase) const {
  for (Slot& slot : slots_) {
    // A query takes microseconds, unless its thread lost its core: then
    // sleeping leaves the cores to the readers.
    for (int tries = 0; slot.readers[phase % 2].load() != 0; ++tries) {
      if (tries < 64) {
        std::this_thread::yield();
      } else {
        std::this_thread::sleep_for(std::chrono::microseconds(50));
      }
    }
  }
}

BuildTurns::Turn::Turn(BuildTurns& turns) : turns_(turns) {
  std::unique_lock<std::mutex> lock(turns.mutex_);
  const std::uint64_t mine = turns.next_++;
  turns.changed_.wait(lock, [&] { return turns.serving_ == mine; });
}

BuildTurns::Turn::~Turn() {
  {
    std::lock_guard<std::mutex> lock(turns_.mutex_);
    ++turns_.serving_;
  }
  turns_.changed_.notify_all();
}

}  // namespace tpa::api
