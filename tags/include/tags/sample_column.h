// A growable array of plain values for the codec's per-tag sample lists.
//
// It offers the few vector operations the lists need, plus direct writing into the
// room past its end (Spare / Commit), which lets the block reader append a sample with
// one store and no per-sample capacity test. Memory is not zeroed on growth: a value
// exists once it is appended or committed.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>
#include <type_traits>
#include <utility>

namespace marquel {

// How far into its memory a column of `bytes` starts. A program's columns are read and
// written side by side, one element of each per step. Large allocations all begin at the
// same offset in a page, so the columns' current elements would all fall into the same
// few cache sets, more lines than a set holds, and every access would miss. Each large
// column therefore starts a different number of 64-byte lines into its memory, cycling
// through the 64 lines of a page.
inline size_t ColumnStagger(size_t bytes) {
  constexpr size_t kFrom = 16 * 1024;  // smaller blocks come from the allocator's pools
  if (bytes < kFrom) return 0;
  static std::atomic<unsigned> next{0};
  return (next.fetch_add(1, std::memory_order_relaxed) * 7 % 64) * 64;
}

template <class T>
class SampleColumn {
  static_assert(std::is_trivially_copyable_v<T>, "values are moved as bytes");

 public:
  using value_type = T;
  using iterator = T*;
  using const_iterator = const T*;
  using size_type = size_t;

  // Bytes past the capacity that still belong to the allocation (zero), so that a whole
  // word may be loaded at any element: the block writer copies raw bytes a word at a time.
  static constexpr size_t kReadPast = 8;

  SampleColumn() = default;
  SampleColumn(std::initializer_list<T> values) { assign(values.begin(), values.end()); }
  SampleColumn(const SampleColumn& other) { assign(other.begin(), other.end()); }
  SampleColumn(SampleColumn&& other) noexcept { swap(other); }
  SampleColumn& operator=(const SampleColumn& other) {
    if (this != &other) assign(other.begin(), other.end());
    return *this;
  }
  SampleColumn& operator=(SampleColumn&& other) noexcept {
    swap(other);
    return *this;
  }
  ~SampleColumn() { std::free(block_); }

  size_t size() const { return size_; }
  size_t capacity() const { return capacity_; }
  bool empty() const { return size_ == 0; }
  T* data() { return data_; }
  const T* data() const { return data_; }
  T* begin() { return data_; }
  T* end() { return data_ + size_; }
  const T* begin() const { return data_; }
  const T* end() const { return data_ + size_; }
  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }
  T& front() { return data_[0]; }
  const T& front() const { return data_[0]; }
  T& back() { return data_[size_ - 1]; }
  const T& back() const { return data_[size_ - 1]; }

  void push_back(const T& value) {
    if (size_ == capacity_) Grow(size_ + 1);
    data_[size_++] = value;
  }
  // Makes room for n values in all.
  void reserve(size_t n) {
    if (n > capacity_) Reallocate(n);
  }
  // Empties the column; the memory stays for reuse.
  void clear() { size_ = 0; }
  // Changes the size; new values are `fill`.
  void resize(size_t n, const T& fill = T()) {
    if (n > capacity_) Grow(n);
    for (size_t i = size_; i < n; ++i) data_[i] = fill;
    size_ = n;
  }
  template <class It>
  void assign(It first, It last) {
    size_ = 0;
    insert_back(first, last);
  }
  // Appends [first, last).
  template <class It>
  void insert_back(It first, It last) {
    size_t n = static_cast<size_t>(last - first);
    if (size_ + n > capacity_) Grow(size_ + n);
    for (size_t i = 0; i < n; ++i) data_[size_ + i] = first[i];
    size_ += n;
  }
  void swap(SampleColumn& other) noexcept {
    std::swap(block_, other.block_);
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
  }

  // --- Writing past the end ---------------------------------------------------------
  // The first of the Spare() slots past the last value; values written there count
  // once committed.
  T* SpareBegin() { return data_ + size_; }
  size_t Spare() const { return capacity_ - size_; }
  // Makes at least `n` spare slots (growing by doubling).
  void EnsureSpare(size_t n) {
    if (capacity_ - size_ < n) Grow(size_ + n);
  }
  // Counts the first n spare slots (all written by the caller) as values.
  void Commit(size_t n) { size_ += n; }

  friend bool operator==(const SampleColumn& a, const SampleColumn& b) {
    return a.size_ == b.size_ &&
           (a.size_ == 0 || std::memcmp(a.data_, b.data_, a.size_ * sizeof(T)) == 0);
  }

 private:
  void Grow(size_t needed) {
    size_t target = capacity_ < 8 ? 8 : capacity_ * 2;
    Reallocate(target < needed ? needed : target);
  }
  void Reallocate(size_t n) {
    if (n > (static_cast<size_t>(-1) - 4096) / sizeof(T)) throw std::bad_alloc();
    const size_t offset = ColumnStagger(n * sizeof(T));
    void* block = std::malloc(n * sizeof(T) + offset + kReadPast);
    if (block == nullptr) throw std::bad_alloc();
    T* fresh = reinterpret_cast<T*>(static_cast<char*>(block) + offset);
    std::memset(fresh + n, 0, kReadPast);
    if (size_ > 0) std::memcpy(fresh, data_, size_ * sizeof(T));
    std::free(block_);
    block_ = block;
    data_ = fresh;
    capacity_ = n;
  }

  void* block_ = nullptr;  // the allocation; data_ lies ColumnStagger bytes into it
  T* data_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

}  // namespace marquel
