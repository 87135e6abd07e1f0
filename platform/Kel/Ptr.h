// The intrusive reference-counted pointer that holds every entity, state machine and reactor.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

#include "Kel/Export.h"

namespace Kel {

// Whether reference counts are changed atomically, process-wide. Off by default: the whole system runs on one
// thread and a plain count costs a third of an atomic one. Switch it while no other thread holds a pointer.
KEL_API bool threadSafePointers() noexcept;
KEL_API void threadSafePointersIs(bool on) noexcept;

namespace detail {
extern KEL_API bool threadSafePointersOn;
}

// The base of every object that Ptr can hold: it carries its own reference count, which begins at zero. The
// object is destroyed through its own (virtual) destructor when the count comes back to zero.
class Referenced {
 public:
  Referenced(const Referenced&) = delete;
  Referenced& operator=(const Referenced&) = delete;

  // How many pointers hold the object now. For tests and generic tools.
  std::uint32_t references() const noexcept {
    return std::atomic_ref(count_).load(std::memory_order_relaxed);
  }

 protected:
  Referenced() = default;
  ~Referenced() = default;

 private:
  template <class T>
  friend class Ptr;

  [[gnu::always_inline]] void acquire() const noexcept {
    if (detail::threadSafePointersOn) [[unlikely]] {
      std::atomic_ref(count_).fetch_add(1, std::memory_order_relaxed);
    } else {
      ++count_;
    }
  }
  // True when the last reference went.
  [[gnu::always_inline]] bool release() const noexcept {
    if (detail::threadSafePointersOn) [[unlikely]] {
      return std::atomic_ref(count_).fetch_sub(1, std::memory_order_acq_rel) == 1;
    }
    return --count_ == 0;
  }
  // The destructor is about to run: pointers that it makes to its own object come and go without effect.
  void dying() const noexcept { count_ = UINT32_MAX / 2; }

  alignas(std::atomic_ref<std::uint32_t>::required_alignment) mutable std::uint32_t count_ = 0;
};

// A counted reference to a T, or none. Ptr<const T> is a read-only binding.
template <class T>
class Ptr {
 public:
  using element_type = T;

  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  explicit Ptr(T* object) noexcept : object_(object) { acquire(); }
  Ptr(const Ptr& other) noexcept : object_(other.object_) { acquire(); }
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& other)
  noexcept : object_(other.get()) { acquire(); }
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& other)
  noexcept : object_(other.detach()) {}
  ~Ptr() { drop(); }

  Ptr& operator=(Ptr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  T* get() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  T* operator->() const noexcept { return object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }

  // Takes over a reference that `detach` gave away.
  static Ptr adopt(T* object) noexcept {
    Ptr pointer;
    pointer.object_ = object;
    return pointer;
  }
  // Gives the reference away without counting it down.
  T* detach() noexcept { return std::exchange(object_, nullptr); }

  template <class U>
  bool operator==(const Ptr<U>& other) const noexcept {
    return object_ == other.get();
  }
  bool operator==(std::nullptr_t) const noexcept { return object_ == nullptr; }

 private:
  void acquire() const noexcept {
    if (object_ != nullptr) {
      object_->acquire();
    }
  }
  void drop() noexcept {
    if (object_ != nullptr && object_->release()) {
      object_->dying();
      delete object_;
    }
  }

  T* object_ = nullptr;
};

// The same object seen as a T, or none if it is not one.
template <class T, class U>
Ptr<T> ptrCast(const Ptr<U>& pointer) noexcept {
  return Ptr<T>(dynamic_cast<T*>(pointer.get()));
}

// Makes an object and holds it.
template <class T, class... Args>
Ptr<T> make(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace Kel

template <class T>
struct std::hash<Kel::Ptr<T>> {
  std::size_t operator()(const Kel::Ptr<T>& pointer) const noexcept { return std::hash<T*>{}(pointer.get()); }
};
