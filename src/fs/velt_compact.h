// Small member types of an entry. The whole tree stays in memory (tens of thousands of entries on
// a recorder's card), so each of these keeps a member a few bytes wide and allocates only for
// the entries that need it.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <utility>

namespace velt {

// A 4-byte mutex (Lockable): 0 free, 1 held, 2 held with waiters. Waiters sleep on the word
// (futex) instead of spinning.
class EntryMutex {
 public:
  EntryMutex() = default;
  EntryMutex(const EntryMutex&) = delete;
  EntryMutex& operator=(const EntryMutex&) = delete;

  void lock() {
    uint32_t c = 0;
    if (state_.compare_exchange_strong(c, 1, std::memory_order_acquire)) return;
    if (c != 2) c = state_.exchange(2, std::memory_order_acquire);
    while (c != 0) {
      state_.wait(2, std::memory_order_relaxed);
      c = state_.exchange(2, std::memory_order_acquire);
    }
  }
  bool try_lock() {
    uint32_t c = 0;
    return state_.compare_exchange_strong(c, 1, std::memory_order_acquire);
  }
  void unlock() {
    if (state_.exchange(0, std::memory_order_release) == 2) state_.notify_one();
  }

 private:
  std::atomic<uint32_t> state_{0};
};

// A container held behind one pointer and allocated on first write: a file entry pays 8 bytes
// for the members only directories (or open files) fill. Reading an unallocated one sees an
// empty container. Offers the container's interface that entries use.
template <class C>
class OutOfLine {
 public:
  using value_type = typename C::value_type;
  using iterator = typename C::iterator;
  using const_iterator = typename C::const_iterator;

  OutOfLine() = default;
  OutOfLine(const OutOfLine& other) {
    if (other.p_) p_ = std::make_unique<C>(*other.p_);
  }
  OutOfLine& operator=(const OutOfLine& other) {
    if (this != &other) get() = other.get();
    return *this;
  }
  OutOfLine& operator=(const C& c) {
    get() = c;
    return *this;
  }
  OutOfLine& operator=(C&& c) {
    get() = std::move(c);
    return *this;
  }

  C& get() {
    if (!p_) p_ = std::make_unique<C>();
    return *p_;
  }
  const C& get() const { return p_ ? *p_ : empty_container(); }
  operator C&() { return get(); }
  operator const C&() const { return get(); }
  // Gives the memory back (clear() keeps it, as the container's clear does).
  void release() { p_.reset(); }

  bool empty() const { return !p_ || p_->empty(); }
  size_t size() const { return p_ ? p_->size() : 0; }
  iterator begin() { return get().begin(); }
  iterator end() { return get().end(); }
  const_iterator begin() const { return get().begin(); }
  const_iterator end() const { return get().end(); }
  value_type& operator[](size_t i) { return (*p_)[i]; }
  const value_type& operator[](size_t i) const { return (*p_)[i]; }
  value_type& front() { return p_->front(); }
  value_type& back() { return p_->back(); }
  const value_type& front() const { return p_->front(); }
  const value_type& back() const { return p_->back(); }
  value_type* data() { return get().data(); }
  const value_type* data() const { return get().data(); }
  void clear() {
    if (p_) p_->clear();
  }
  template <class... A>
  void push_back(A&&... a) {
    get().push_back(std::forward<A>(a)...);
  }
  template <class... A>
  void assign(A&&... a) {
    get().assign(std::forward<A>(a)...);
  }
  template <class... A>
  void resize(A&&... a) {
    get().resize(std::forward<A>(a)...);
  }
  template <class... A>
  auto insert(A&&... a) {
    return get().insert(std::forward<A>(a)...);
  }
  template <class... A>
  auto erase(A&&... a) {
    return get().erase(std::forward<A>(a)...);
  }
  void swap(C& other) { get().swap(other); }
  friend bool operator==(const OutOfLine& a, const OutOfLine& b) { return a.get() == b.get(); }
  friend bool operator==(const OutOfLine& a, const C& b) { return a.get() == b; }

 private:
  static const C& empty_container() {
    static const C kEmpty;
    return kEmpty;
  }
  std::unique_ptr<C> p_;
};

// An 8.3 short name ("README.TXT", at most 12 characters) stored inline.
class ShortName {
 public:
  static constexpr size_t kMax = 12;
  ShortName() = default;
  ShortName(const char* s) { set(s, strlen(s)); }               // NOLINT: converts like a string
  ShortName(const std::string& s) { set(s.data(), s.size()); }  // NOLINT
  ShortName& operator=(const char* s) {
    set(s, strlen(s));
    return *this;
  }
  ShortName& operator=(const std::string& s) {
    set(s.data(), s.size());
    return *this;
  }

  const char* c_str() const { return chars_; }
  size_t size() const { return strlen(chars_); }
  bool empty() const { return chars_[0] == '\0'; }
  char operator[](size_t i) const { return chars_[i]; }
  std::string str() const { return chars_; }
  operator std::string() const { return chars_; }  // NOLINT

  friend bool operator==(const ShortName& a, const ShortName& b) {
    return strcmp(a.chars_, b.chars_) == 0;
  }
  friend bool operator==(const ShortName& a, const char* b) { return strcmp(a.chars_, b) == 0; }
  friend bool operator==(const ShortName& a, const std::string& b) { return b == a.chars_; }
  friend std::string operator+(const std::string& a, const ShortName& b) { return a + b.chars_; }
  friend std::string operator+(const char* a, const ShortName& b) {
    return std::string(a) + b.chars_;
  }
  friend std::ostream& operator<<(std::ostream& os, const ShortName& n) { return os << n.chars_; }

 private:
  // A longer text (never a valid short name) is cut; it then matches no record name.
  void set(const char* s, size_t n) {
    if (n > kMax) n = kMax;
    memcpy(chars_, s, n);
    chars_[n] = '\0';
  }
  char chars_[kMax + 1] = {};
};

// Card offsets of an entry's long-name records, element 0 next to the short-name record. The
// records of a name almost always sit in consecutive slots before it (element k at element 0
// minus k records); such a list is kept as its first offset alone. Others go to the heap.
class LfnOffsets {
 public:
  static constexpr int64_t kStep = 32;  // bytes per directory record
  LfnOffsets() = default;
  LfnOffsets(const LfnOffsets&) = delete;
  LfnOffsets& operator=(const LfnOffsets&) = delete;
  ~LfnOffsets() { clear(); }

  size_t size() const { return count_; }
  bool empty() const { return count_ == 0; }
  int64_t operator[](size_t k) const {
    return on_heap_ ? u_.heap[k] : u_.first - kStep * static_cast<int64_t>(k);
  }
  void clear() {
    if (on_heap_) delete[] u_.heap;
    on_heap_ = false;
    u_.first = 0;
    count_ = 0;
  }
  // `n` offsets from `offsets`.
  void assign(const int64_t* offsets, size_t n) {
    clear();
    bool consecutive = true;
    for (size_t k = 1; k < n && consecutive; ++k) {
      consecutive = offsets[k] == offsets[0] - kStep * static_cast<int64_t>(k);
    }
    if (consecutive) {
      u_.first = n > 0 ? offsets[0] : 0;
    } else {
      u_.heap = new int64_t[n];
      memcpy(u_.heap, offsets, n * sizeof(int64_t));
      on_heap_ = true;
    }
    count_ = static_cast<uint8_t>(n);
  }
  // `n` copies of `value`.
  void assign(size_t n, int64_t value) {
    clear();
    if (n > 1) {
      u_.heap = new int64_t[n];
      for (size_t k = 0; k < n; ++k) u_.heap[k] = value;
      on_heap_ = true;
    } else {
      u_.first = value;
    }
    count_ = static_cast<uint8_t>(n);
  }
  void set(size_t k, int64_t value) {
    if ((*this)[k] == value) return;
    if (!on_heap_) {
      int64_t* heap = new int64_t[count_];
      for (size_t i = 0; i < count_; ++i) heap[i] = (*this)[i];
      u_.heap = heap;
      on_heap_ = true;
    }
    u_.heap[k] = value;
  }

 private:
  union {
    int64_t first;
    int64_t* heap;
  } u_{0};
  uint8_t count_ = 0;
  bool on_heap_ = false;
};

}  // namespace velt
