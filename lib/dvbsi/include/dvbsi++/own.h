// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <list>
#include <memory>
#include <new>
#include <string>
#include <vector>

// What the section and descriptor classes share. Not for users of the classes: nothing here is part of their interface,
// and a system libdvbsi++ has no such header.
//
// How the classes keep their values: a section copies its bytes once. Its entries and descriptors are small objects
// over that copy, made in one block a loop; single values are read out of the bytes when they are asked for. Texts and
// lists are made at the first call of their getter, which any number of threads may make at the same time.

namespace dvbsi_own {

// Whether an object copies the bytes that it is made of (whoever makes one by hand) or stands on bytes that live longer
// than itself (a section's own entries and descriptors).
enum class Keep : uint8_t { COPY, BORROW };

// Lets the first caller of run() build something; concurrent callers wait for it. A build that throws leaves everything
// for the next caller.
class Once {
 public:
  Once() : state_(EMPTY) {}
  Once(const Once&) = delete;
  Once& operator=(const Once&) = delete;

  template <typename Build>
  void run(Build build) {
    if (state_.load(std::memory_order_acquire) == DONE || !claim())
      return;
    Release release{*this, EMPTY};
    build();
    release.state = DONE;
  }

 private:
  enum : int { EMPTY, BUSY, DONE };
  struct Release {
    Once& once;
    int state;
    ~Release() { once.leave(state); }
  };
  bool claim();
  void leave(int state);

  std::atomic<int> state_;
};

inline void assign(std::string& text, const uint8_t* at, size_t size) {
  text.assign(reinterpret_cast<const char*>(at), size);
}
inline void assign(std::vector<uint8_t>& bytes, const uint8_t* at, size_t size) {
  bytes.assign(at, at + size);
}

// A std::string or byte vector that is filled when it is first asked for.
template <typename T>
class Lazy {
 public:
  Lazy() : at_(nullptr), size_(0) {}
  void set(const uint8_t* at, size_t size) {
    at_ = at;
    size_ = size;
  }
  const T& get() const {
    if (size_ != 0)
      once_.run([this] { assign(value_, at_, size_); });
    return value_;
  }

 private:
  const uint8_t* at_;
  size_t size_;
  mutable Once once_;
  mutable T value_;
};
using Lazy_text = Lazy<std::string>;
using Lazy_bytes = Lazy<std::vector<uint8_t>>;

// A list of objects that it owns, which stand in one block.
template <typename X>
class Owned_list {
 public:
  Owned_list() : block_(nullptr), next_(nullptr) {}
  ~Owned_list() { clear(); }
  Owned_list(const Owned_list&) = delete;
  Owned_list& operator=(const Owned_list&) = delete;

  // Room for so many; throws std::bad_alloc and stays empty without memory. REQUIRES: nothing is reserved yet.
  void reserve(size_t count) {
    if (count == 0)
      return;
    block_ = ::operator new(count * sizeof(X));
    next_ = static_cast<X*>(block_);
  }
  // REQUIRES: fewer elements than were reserved.
  template <typename... Args>
  void add(Args... args) {
    list_.push_back(nullptr);
    list_.back() = new (next_) X(args...);
    ++next_;
  }
  void clear() {
    for (X* x : list_)
      if (x != nullptr)
        x->~X();
    list_.clear();
    ::operator delete(block_);
    block_ = nullptr;
  }
  const std::list<X*>* get() const { return &list_; }

 private:
  std::list<X*> list_;
  void* block_;
  X* next_;
};

// The number of bytes of the entry at `at`, 0 when it does not lie wholly within the `left` bytes.
using Entry_size = size_t (*)(const uint8_t* at, size_t left);

template <size_t SIZE>
size_t fixed_size(const uint8_t*, size_t left) {
  return left >= SIZE ? SIZE : 0;
}

// The entries of a descriptor, made when they are first asked for, up to the first that is not whole.
template <typename X>
class Lazy_list {
 public:
  Lazy_list() : at_(nullptr), size_(0), entry_size_(nullptr) {}
  void set(const uint8_t* at, size_t size, Entry_size entry_size) {
    at_ = at;
    size_ = size;
    entry_size_ = entry_size;
  }
  const std::list<X*>* get() const {
    if (size_ != 0)
      once_.run([this] { build(); });
    return entries_.get();
  }

 private:
  void build() const {
    size_t count = 0;
    for (size_t i = 0, n; i < size_ && (n = entry_size_(at_ + i, size_ - i)) != 0; i += n)
      ++count;
    entries_.clear();  // what a build that ran out of memory has left
    entries_.reserve(count);
    for (size_t i = 0; count != 0; --count) {
      entries_.add(at_ + i);
      i += entry_size_(at_ + i, size_ - i);
    }
  }

  const uint8_t* at_;
  size_t size_;
  Entry_size entry_size_;
  mutable Once once_;
  mutable Owned_list<X> entries_;
};

// A section's own copy of its bytes, see copy_section() in dvbsi/bytes.h.
using Section_bytes = std::unique_ptr<uint8_t[]>;

}  // namespace dvbsi_own
