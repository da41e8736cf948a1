// PodArray<T>: an owned, malloc-family array of trivially copyable values.
//
// It exists for two reasons std::vector cannot serve: a zero-filled allocation
// (calloc) whose untouched pages are never made resident, so that an array
// sized for the worst case costs only what is used; and growth by realloc,
// which the allocator can satisfy by remapping instead of copying. The array
// owns its storage alone. No internal synchronisation.
#ifndef TPA_FSA_POD_ARRAY_H_
#define TPA_FSA_POD_ARRAY_H_

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <type_traits>

namespace tpa::fsa {

template <typename T>
class PodArray {
  static_assert(std::is_trivially_copyable_v<T>, "PodArray moves its values with realloc");

 public:
  PodArray() = default;

  // Replaces the contents with `n` zero-filled values. Returns false (and
  // holds nothing) when the allocator refuses.
  [[nodiscard]] bool allocateZeroed(std::size_t n) {
    data_.reset(static_cast<T*>(std::calloc(n == 0 ? 1 : n, sizeof(T))));
    size_ = data_ ? n : 0;
    return data_ != nullptr;
  }

  // Grows or shrinks to `n` values, keeping the common prefix; new values are
  // uninitialised. Throws std::bad_alloc like any standard container would.
  void resize(std::size_t n) {
    void* grown = std::realloc(data_.get(), (n == 0 ? 1 : n) * sizeof(T));
    if (grown == nullptr) throw std::bad_alloc();
    data_.release();  // realloc already took ownership of the old block
    data_.reset(static_cast<T*>(grown));
    size_ = n;
  }

  void reset() {
    data_.reset();
    size_ = 0;
  }

  explicit operator bool() const { return data_ != nullptr; }
  std::size_t size() const { return size_; }
  T* data() { return data_.get(); }
  const T* data() const { return data_.get(); }
  T& operator[](std::size_t i) { return data_.get()[i]; }
  const T& operator[](std::size_t i) const { return data_.get()[i]; }

 private:
  struct Free {
    void operator()(T* p) const { std::free(p); }
  };
  std::unique_ptr<T, Free> data_;  // null, or a block of at least size_ values
  std::size_t size_ = 0;
};

}  // namespace tpa::fsa

#endif  // TPA_FSA_POD_ARRAY_H_
