// WeakCallback<T, WeakPtr, Args...>: a callback that calls a member function of
// an object, with the arguments the callback is called with, without keeping
// the object alive. WeakCallback0<T> is the nullary one.
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
// does nothing. A callback converts to boost::function<void(Args...)> and
// std::function<void(Args...)>, so it serves as a completion handler:
//
//   socket.async_read_some(buffer,
//       zel::MakeWeakCallback(weak_from_this(), &Connection::OnRead));
//   // calls OnRead(ec, n) while the connection lives, nothing after.
//
// Threads: a callback may be copied and called on any thread; the member
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

template <class T, class WeakPtr, class... Args>
class WeakCallback {
 public:
  using Method = void (T::*)(Args...);

  WeakCallback(WeakPtr target, Method method, boost::function<void()> onExpired = {})
      : target_(std::move(target)), method_(method), onExpired_(std::move(onExpired)) {}

  // Arguments are forwarded to the member as the member takes them.
  template <class... CallArgs>
  void operator()(CallArgs&&... args) const {
    if (auto strong = target_.lock()) {
      ((*strong).*method_)(std::forward<CallArgs>(args)...);
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

template <class T, class WeakPtr = boost::weak_ptr<T>>
using WeakCallback0 = WeakCallback<T, WeakPtr>;

template <class T, class U, class... Args>
WeakCallback<T, boost::weak_ptr<T>, Args...> MakeWeakCallback(
    const boost::shared_ptr<U>& target, void (T::*method)(Args...),
    boost::function<void()> onExpired = {}) {
  return {boost::weak_ptr<T>(target), method, std::move(onExpired)};
}

template <class T, class U, class... Args>
WeakCallback<T, boost::weak_ptr<T>, Args...> MakeWeakCallback(
    const boost::weak_ptr<U>& target, void (T::*method)(Args...),
    boost::function<void()> onExpired = {}) {
  return {boost::weak_ptr<T>(target), method, std::move(onExpired)};
}

template <class T, class U, class... Args>
WeakCallback<T, std::weak_ptr<T>, Args...> MakeWeakCallback(
    const std::shared_ptr<U>& target, void (T::*method)(Args...),
    boost::function<void()> onExpired = {}) {
  return {std::weak_ptr<T>(target), method, std::move(onExpired)};
}

template <class T, class U, class... Args>
WeakCallback<T, std::weak_ptr<T>, Args...> MakeWeakCallback(
    const std::weak_ptr<U>& target, void (T::*method)(Args...),
    boost::function<void()> onExpired = {}) {
  return {std::weak_ptr<T>(target), method, std::move(onExpired)};
}

}  // namespace zel

#endif  // ZEL_COMMON_WEAK_CALLBACK_H_
