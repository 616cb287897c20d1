// Intrusive reference counting for the libraries.
//
// A counted class derives from RefCounted<Self, Interface>, where Interface is
// IRefCountable or an abstract interface that derives from it:
//
//   class WorkGroup : public zel::RefCounted<WorkGroup, zel::IRefCountable> {...};
//   class Call : public zel::IRefCountable {...};                 // interface
//   class RpcCall : public zel::RefCounted<RpcCall, Call> {...};  // its impl
//
// and is held by zel::RefPtr<T>, which is boost::intrusive_ptr<T>:
//
//   zel::RefPtr<WorkGroup> group = zel::MakeRefCounted<WorkGroup>(args...);
//   zel::RefPtr<Call> call = rpcCall;          // upcasts like a raw pointer
//   call.reset();                              // the last reset deletes
//
// An object starts life with a count of 0; the first RefPtr raises it to 1,
// and the Release that takes it from 1 to 0 deletes the most derived object
// through the virtual destructor. Create counted objects with `new` (or
// MakeRefCounted) and hand them to a RefPtr at once; never put one on the
// stack or in a std::unique_ptr.
//
// There are no weak references to intrusively counted objects. Objects that
// callbacks must not keep alive (channels, connections, timers) are held by
// boost::shared_ptr and reached through boost::weak_ptr; see weak_callback.h.
//
// Threads: AddRef and Release are atomic read-modify-write operations with
// sequentially consistent ordering, so RefPtr copies of one object may be
// made and dropped on any threads at once. Nothing else here is thread-safe.
#ifndef ZEL_COMMON_REF_COUNTED_H_
#define ZEL_COMMON_REF_COUNTED_H_

#include <atomic>
#include <cstdint>
#include <type_traits>
#include <utility>

#include <boost/smart_ptr/intrusive_ptr.hpp>

namespace zel {

class IRefCountable {
 public:
  virtual ~IRefCountable() = default;
  virtual void AddRef() const = 0;
  // Drops one reference; the last one deletes the object.
  virtual void Release() const = 0;

 protected:
  IRefCountable() = default;
  IRefCountable(const IRefCountable&) = default;
  IRefCountable& operator=(const IRefCountable&) = default;
};

template <class T, class I = IRefCountable>
class RefCounted : public I {
  static_assert(std::is_base_of<IRefCountable, I>::value,
                "RefCounted<T, I>: I must be IRefCountable or derive from it");

 public:
  void AddRef() const override { count_.fetch_add(1, std::memory_order_seq_cst); }

  void Release() const override {
    if (count_.fetch_sub(1, std::memory_order_seq_cst) == 1) {
      delete this;
    }
  }

  // The current count. Only meaningful while no other thread changes it, so
  // it serves tests and log lines, never decisions.
  int32_t RefCountForLog() const { return count_.load(std::memory_order_relaxed); }

 protected:
  RefCounted() = default;
  ~RefCounted() override = default;

  // A copy is a new object: it starts with its own count of 0.
  RefCounted(const RefCounted& other) : I(other) {}
  RefCounted& operator=(const RefCounted& other) {
    I::operator=(other);
    return *this;
  }

 private:
  mutable std::atomic<int32_t> count_{0};
};

// Hooks that boost::intrusive_ptr finds by argument-dependent lookup.
inline void intrusive_ptr_add_ref(const IRefCountable* p) { p->AddRef(); }
inline void intrusive_ptr_release(const IRefCountable* p) { p->Release(); }

template <class T>
using RefPtr = boost::intrusive_ptr<T>;

// `new T(args...)` already held by a RefPtr (count 1).
template <class T, class... Args>
RefPtr<T> MakeRefCounted(Args&&... args) {
  return RefPtr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace zel

#endif  // ZEL_COMMON_REF_COUNTED_H_
