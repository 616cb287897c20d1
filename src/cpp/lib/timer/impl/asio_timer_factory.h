// zel::AsioTimerFactory: the TimerFactory on an asio io_context, usually the
// one of an AsioDispatcher:
//
//   zel::AsioDispatcher dispatcher;
//   zel::AsioTimerFactory timers(dispatcher.GetIoContextHandle());
//   zel::TimerPtr t = timers.CreateTimer(std::chrono::seconds(5), callback);
//   dispatcher.Run(1, false);
//
// Every timer holds a reference to the io_context, so the io_context outlives
// its timers; the timers fire only while something runs the io_context.
//
// Threads: as TimerFactory; the factory itself holds no mutable state.
#ifndef ZEL_TIMER_IMPL_ASIO_TIMER_FACTORY_H_
#define ZEL_TIMER_IMPL_ASIO_TIMER_FACTORY_H_

#include <chrono>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "cpp/lib/timer/impl/timer_clock.h"
#include "cpp/lib/timer/timer_factory.h"

namespace boost {
namespace asio {
class io_context;
}  // namespace asio
}  // namespace boost

namespace zel {

class AsioTimerFactory : public TimerFactory {
 public:
  // A null `clock` means the real clock. Throws std::invalid_argument for a
  // null io_context.
  explicit AsioTimerFactory(boost::shared_ptr<boost::asio::io_context> ioContext,
                            boost::shared_ptr<const TimerClock> clock = nullptr);
  ~AsioTimerFactory() override;

  // TimerFactory
  TimerPtr CreateTimer(std::chrono::nanoseconds interval, TimerCallback callback) override;
  TimerPtr CreatePeriodicTimer(std::chrono::nanoseconds interval, TimerCallback callback,
                               bool aligned) override;

  const boost::shared_ptr<boost::asio::io_context>& GetIoContextHandle() const { return io_; }

 private:
  const boost::shared_ptr<boost::asio::io_context> io_;
  const boost::shared_ptr<const TimerClock> clock_;
};

}  // namespace zel

#endif  // ZEL_TIMER_IMPL_ASIO_TIMER_FACTORY_H_
