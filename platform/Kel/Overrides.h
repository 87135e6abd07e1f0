// Whether the class of an object overrides a virtual function.
#pragma once

#include <bit>
#include <cstddef>
#include <cstring>
#include <type_traits>

namespace Kel {

namespace detail {

// The entry of the object's virtual table for the function; null where that cannot be found out.
template <class R, class Function>
const void* virtualFunction(const R& object, Function function) noexcept {
#if defined(__GXX_ABI_VERSION) && (defined(__x86_64__) || defined(__i386__))
  // The Itanium C++ ABI: a pointer to a virtual member is one more than its place in the table, with the
  // offset of its class behind it.
  struct Member {
    std::size_t place;
    std::ptrdiff_t offset;
  };
  static_assert(sizeof(Function) == sizeof(Member));
  const auto member = std::bit_cast<Member>(function);
  if ((member.place & 1) == 0 || member.offset != 0) {
    return nullptr;
  }
  const char* table = nullptr;
  std::memcpy(&table, static_cast<const void*>(&object), sizeof table);
  const void* address = nullptr;
  std::memcpy(&address, table + member.place - 1, sizeof address);
  return address;
#else
  static_cast<void>(object);
  static_cast<void>(function);
  return nullptr;
#endif
}

template <auto function>
struct MemberOf;
template <class R, class Result, class... Args, Result (R::*function)(Args...)>
struct MemberOf<function> {
  using Class = R;
};

}  // namespace detail

// Whether the object's class has a version of its own of this virtual function of R. Never false when it has
// one; always true where R cannot be made, or the compiler's tables are not known.
template <auto function, class R = typename detail::MemberOf<function>::Class>
bool overrides(const R& object) {
  if constexpr (std::is_default_constructible_v<R>) {
    static const void* const plain = detail::virtualFunction(R(), function);
    return plain == nullptr || detail::virtualFunction(object, function) != plain;
  } else {
    return true;
  }
}

}  // namespace Kel
