// WeakCallback0<T>: a nullary callback that calls a member function of an
// object without keeping the object alive.
//
// Weak references in this code base are boost::weak_ptr (std::weak_ptr works
// too): an object that queued callbacks must not keep alive is owned by a
// boost::shared_ptr and usually derives from boost::enable_shared_from_this.
// Intrusively counted objects (ref_counted.h) have no weak form; a callback
// that holds a RefPtr keeps its target alive on purpose.
//
//   class Channel : public boost::enable_shared_from_this<Channel> {
//     void OnActivationTimeout();
//     void Arm() {
//       timer_ = factory->CreateTimer(
//           60000, zel::MakeWeakCallback(shared_from_this(), &Channel::OnActivationTimeout));
//     }
//   };
//
// Calling the callback locks the weak reference. When the target is alive the
// member runs while the callback holds a strong reference, so the target
// cannot die under it. When the target has gone, the call runs the optional
// `onExpired` function instead (for an "... already destroyed" log line) or
// does nothing. WeakCallback0 converts to boost::function<void()> and
// std::function<void()>.
//
// Threads: a WeakCallback0 may be copied and called on any thread; the member
// runs on the calling thread.
#ifndef ZEL_COMMON_WEAK_CALLBACK_H_
#define ZEL_COMMON_WEAK_CALLBACK_H_

#include <functional>
#include <memory>
#include <utility>

#include <boost/function.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>

namespace zel {

template <class T, class WeakPtr = boost::weak_ptr<T>>
class WeakCallback0 {
 public:
  using Method = void (T::*)();

  WeakCallback0(WeakPtr target, Method method, boost::function<void()> onExpired = {})
      : target_(std::move(target)), method_(method), onExpired_(std::move(onExpired)) {}

  void operator()() const {
    if (auto strong = target_.lock()) {
      ((*strong).*method_)();
    } else if (onExpired_) {
      onExpired_();
    }
  }

  // True once the target's last strong reference has gone. A false answer can
  // be stale by the time the caller acts on it.
  bool Expired() const { return target_.expired(); }

 private:
  WeakPtr target_;
  Method method_;
  boost::function<void()> onExpired_;
};

template <class T, class U>
WeakCallback0<T> MakeWeakCallback(const boost::shared_ptr<U>& target, void (T::*method)(),
                                  boost::function<void()> onExpired = {}) {
  return WeakCallback0<T>(boost::weak_ptr<T>(target), method, std::move(onExpired));
}

template <class T, class U>
WeakCallback0<T> MakeWeakCallback(const boost::weak_ptr<U>& target, void (T::*method)(),
                                  boost::function<void()> onExpired = {}) {
  return WeakCallback0<T>(boost::weak_ptr<T>(target), method, std::move(onExpired));
}

template <class T, class U>
WeakCallback0<T, std::weak_ptr<T>> MakeWeakCallback(const std::shared_ptr<U>& target,
                                                    void (T::*method)(),
                                                    boost::function<void()> onExpired = {}) {
  return WeakCallback0<T, std::weak_ptr<T>>(std::weak_ptr<T>(target), method,
                                            std::move(onExpired));
}

}  // namespace zel

#endif  // ZEL_COMMON_WEAK_CALLBACK_H_
