// Small member types of an entry. The whole tree stays in memory (tens of thousands of entries on
// a recorder's card), so each of these keeps a member a few bytes wide and allocates only for
// the entries that need it.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

namespace velt {

// A 1-byte mutex (Lockable): 0 free, 1 held, 2 held with waiters. Waiters sleep on the byte
// (atomic wait) instead of spinning.
class EntryMutex {
 public:
  EntryMutex() = default;
  EntryMutex(const EntryMutex&) = delete;
  EntryMutex& operator=(const EntryMutex&) = delete;

  void lock() {
    uint8_t c = 0;
    if (state_.compare_exchange_strong(c, 1, std::memory_order_acquire)) return;
    if (c != 2) c = state_.exchange(2, std::memory_order_acquire);
    while (c != 0) {
      state_.wait(2, std::memory_order_relaxed);
      c = state_.exchange(2, std::memory_order_acquire);
    }
  }
  bool try_lock() {
    uint8_t c = 0;
    return state_.compare_exchange_strong(c, 1, std::memory_order_acquire);
  }
  void unlock() {
    if (state_.exchange(0, std::memory_order_release) == 2) state_.notify_all();
  }

 private:
  std::atomic<uint8_t> state_{0};
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

// Card offsets of an entry's long-name records, element 0 next to the short-name record, in
// one word. The records of a name almost always sit in consecutive slots before it (element k
// at element 0 minus k records); such a list is kept as its first offset alone, with the count
// in the top bits. Others go to the heap (count first, then the offsets).
class LfnOffsets {
 public:
  static constexpr int64_t kStep = 32;  // bytes per directory record
  LfnOffsets() = default;
  LfnOffsets(const LfnOffsets&) = delete;
  LfnOffsets& operator=(const LfnOffsets&) = delete;
  ~LfnOffsets() { clear(); }

  size_t size() const { return onHeap() ? static_cast<size_t>(heap()[0]) : (word_ >> kCountShift); }
  bool empty() const { return size() == 0; }
  int64_t operator[](size_t k) const {
    return onHeap() ? heap()[k + 1] : first() - kStep * static_cast<int64_t>(k);
  }
  void clear() {
    if (onHeap()) delete[] heap();
    word_ = 0;
  }
  // `n` offsets from `offsets`.
  void assign(const int64_t* offsets, size_t n) {
    bool consecutive = n == 0 || fitsInline(offsets[0]);
    for (size_t k = 1; k < n && consecutive; ++k) {
      consecutive = offsets[k] == offsets[0] - kStep * static_cast<int64_t>(k);
    }
    if (consecutive) {
      clear();
      word_ = (static_cast<uint64_t>(n) << kCountShift) |
              (n > 0 ? static_cast<uint64_t>(offsets[0]) : 0);
    } else {
      toHeap(offsets, n);
    }
  }
  // `n` copies of `value`.
  void assign(size_t n, int64_t value) {
    if (n > 1 || !fitsInline(value)) {
      int64_t copies[256];
      for (size_t k = 0; k < n && k < 256; ++k) copies[k] = value;
      toHeap(copies, n < 256 ? n : 256);
    } else {
      assign(&value, n);
    }
  }
  void set(size_t k, int64_t value) {
    if ((*this)[k] == value) return;
    if (!onHeap()) {
      int64_t copy[256];
      const size_t n = size();
      for (size_t i = 0; i < n; ++i) copy[i] = (*this)[i];
      toHeap(copy, n);
    }
    heap()[k + 1] = value;
  }

 private:
  static constexpr int kCountShift = 56;  // count in bits 56..62, offset below
  static constexpr uint64_t kHeapBit = uint64_t{1} << 63;
  static constexpr uint64_t kOffsetMask = (uint64_t{1} << kCountShift) - 1;
  static bool fitsInline(int64_t offset) {
    return offset >= 0 && static_cast<uint64_t>(offset) <= kOffsetMask;
  }
  bool onHeap() const { return (word_ & kHeapBit) != 0; }
  int64_t* heap() const { return reinterpret_cast<int64_t*>(word_ & ~kHeapBit); }
  int64_t first() const { return static_cast<int64_t>(word_ & kOffsetMask); }
  void toHeap(const int64_t* offsets, size_t n) {
    int64_t* p = new int64_t[n + 1];
    p[0] = static_cast<int64_t>(n);
    memcpy(p + 1, offsets, n * sizeof(int64_t));
    clear();
    word_ = reinterpret_cast<uint64_t>(p) | kHeapBit;
  }
  uint64_t word_ = 0;
};

// An entry's name: up to kInline bytes held inline (no allocation for the names cards mostly
// carry), a longer one on the heap.
class EntryName {
 public:
  static constexpr size_t kInline = 31;
  EntryName() = default;
  EntryName(const EntryName& other) { set(other.c_str(), other.size()); }
  EntryName(const char* s) { set(s, strlen(s)); }               // NOLINT: converts like a string
  EntryName(const std::string& s) { set(s.data(), s.size()); }  // NOLINT
  ~EntryName() { drop(); }
  EntryName& operator=(const EntryName& other) {
    if (this != &other) set(other.c_str(), other.size());
    return *this;
  }
  EntryName& operator=(const char* s) {
    set(s, strlen(s));
    return *this;
  }
  EntryName& operator=(const std::string& s) {
    set(s.data(), s.size());
    return *this;
  }

  const char* c_str() const { return onHeap() ? heap() : buf_; }
  size_t size() const { return strlen(c_str()); }
  bool empty() const { return c_str()[0] == '\0'; }
  std::string str() const { return c_str(); }
  operator std::string() const { return c_str(); }  // NOLINT
  operator std::string_view() const { return c_str(); }  // NOLINT

  friend bool operator==(const EntryName& a, const EntryName& b) {
    return strcmp(a.c_str(), b.c_str()) == 0;
  }
  friend bool operator==(const EntryName& a, const char* b) { return strcmp(a.c_str(), b) == 0; }
  friend bool operator==(const EntryName& a, const std::string& b) { return b == a.c_str(); }
  friend bool operator==(const EntryName& a, std::string_view b) { return b == a.c_str(); }
  friend std::string operator+(const std::string& a, const EntryName& b) { return a + b.c_str(); }
  friend std::string operator+(const EntryName& a, const char* b) {
    return a.c_str() + std::string(b);
  }
  friend std::string operator+(const EntryName& a, const std::string& b) { return a.c_str() + b; }
  friend std::ostream& operator<<(std::ostream& os, const EntryName& n) { return os << n.c_str(); }

 private:
  // Inline: the text and its terminator, the last byte zero. On the heap: the pointer in the
  // first bytes and kHeapMark in the last.
  static constexpr char kHeapMark = 1;
  bool onHeap() const { return buf_[kInline] == kHeapMark; }
  char* heap() const {
    char* p;
    memcpy(&p, buf_, sizeof(p));
    return p;
  }
  void drop() {
    if (onHeap()) delete[] heap();
  }
  // `s` may point into this name.
  void set(const char* s, size_t n) {
    if (n <= kInline) {
      char copy[kInline];
      memcpy(copy, s, n);
      drop();
      memcpy(buf_, copy, n);
      memset(buf_ + n, 0, sizeof(buf_) - n);
      return;
    }
    char* p = new char[n + 1];
    memcpy(p, s, n);
    p[n] = '\0';
    drop();
    memcpy(buf_, &p, sizeof(p));
    buf_[kInline] = kHeapMark;
  }
  char buf_[kInline + 1] = {};
};

// A time in seconds held in 32 bits (1970 to 2106, which covers every time a FAT record can
// carry but its last months); times outside are held at the nearest end.
class Stamp {
 public:
  Stamp() = default;
  Stamp(time_t t) : s_(clamp(t)) {}  // NOLINT: converts like a time
  Stamp& operator=(time_t t) {
    s_ = clamp(t);
    return *this;
  }
  operator time_t() const { return static_cast<time_t>(s_); }  // NOLINT

 private:
  static uint32_t clamp(time_t t) {
    if (t <= 0) return 0;
    if (static_cast<uint64_t>(t) > UINT32_MAX) return UINT32_MAX;
    return static_cast<uint32_t>(t);
  }
  uint32_t s_ = 0;
};

}  // namespace velt
