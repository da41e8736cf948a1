// How the facade lets queries run side by side with each other and with a
// build. A Publication owns the map that queries read and replaces it whole:
// a Reading sees the map current when it began, and publish frees nothing a
// Reading can still see (it waits until every Reading that might see the
// previous map has ended; readers never wait). BuildTurns lets builds run one
// at a time in the order they were called.
// Reading: any number of threads at once, a few uncontended atomic steps on a
// slot of the reader's own. publish and current: one thread at a time (the
// holder of a build turn).
#ifndef TPA_API_PUBLICATION_H_
#define TPA_API_PUBLICATION_H_

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

namespace tpa::mapper {
class Map;
}  // namespace tpa::mapper

namespace tpa::api {

class Publication {
 public:
  Publication();
  ~Publication();  // frees the current map; no Reading may be left
  Publication(const Publication&) = delete;
  Publication& operator=(const Publication&) = delete;

  // The current map for as long as this lives (null before the first
  // publish). Short-lived: a publish waits for it.
  class Reading {
   public:
    explicit Reading(const Publication& publication);
    ~Reading();
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

    const mapper::Map* map() const { return map_; }

   private:
    // Raises the count of this thread's slot under the current phase.
    static std::atomic<std::int64_t>& countOf(const Publication& publication);

    std::atomic<std::int64_t>& readers_;  // the count this Reading raised
    const mapper::Map* map_;
  };

  // Makes `next` the map of every Reading that begins after this returns,
  // waits for the Readings that may still see the previous map, and hands
  // that one back (null at first) for the caller to free.
  std::unique_ptr<mapper::Map> publish(std::unique_ptr<mapper::Map> next);

  // The current map, for the publishing thread (a build clears its caches).
  mapper::Map* current() const { return owned_.get(); }

 private:
  // Readings count themselves in the slot of their thread, under the phase
  // they read: a count of its own per cache line, so that readers on
  // different threads never write one line.
  static constexpr std::size_t kSlots = 64;
  struct alignas(64) Slot {
    std::atomic<std::int64_t> readers[2] = {};
  };
  // Waits until no Reading counted under `phase` is left in any slot.
  void drain(unsigned phase) const;

  // Only the publishing thread touches owned_; current_ always equals
  // owned_.get() outside publish.
  std::unique_ptr<mapper::Map> owned_;
  std::atomic<const mapper::Map*> current_{nullptr};
  // Readings count under phase_ % 2; publish moves it on once, so that the
  // count it waits for receives no new Readings meanwhile.
  std::atomic<unsigned> phase_{0};
  mutable Slot slots_[kSlots];
};

// A ticket lock: turns granted in the order they were asked for.
class BuildTurns {
 public:
  // Holds a turn from construction to destruction (also when an exception
  // leaves the build).
  class Turn {
   public:
    explicit Turn(BuildTurns& turns);
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

   private:
    BuildTurns& turns_;
  };

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t next_ = 0;     // the ticket the next caller gets
  std::uint64_t serving_ = 0;  // the ticket whose turn it is; serving_ <= next_
};

}  // namespace tpa::api

#endif  // TPA_API_PUBLICATION_H_
