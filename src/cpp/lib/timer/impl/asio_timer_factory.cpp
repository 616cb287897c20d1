#include "cpp/lib/timer/impl/asio_timer_factory.h"

#include <stdexcept>
#include <utility>

#include <boost/smart_ptr/make_shared.hpp>

#include "cpp/lib/timer/impl/asio_timer.h"

namespace zel {

const boost::shared_ptr<const TimerClock>& TimerClock::Real() {
  static const boost::shared_ptr<const TimerClock> real = boost::make_shared<const TimerClock>();
  return real;
}

AsioTimerFactory::AsioTimerFactory(boost::shared_ptr<boost::asio::io_context> ioContext,
                                   boost::shared_ptr<const TimerClock> clock)
    : io_(std::move(ioContext)), clock_(clock ? std::move(clock) : TimerClock::Real()) {
  if (!io_) throw std::invalid_argument("AsioTimerFactory: null io_context");
}

AsioTimerFactory::~AsioTimerFactory() = default;

TimerPtr AsioTimerFactory::CreateTimer(std::chrono::nanoseconds interval, TimerCallback callback) {
  return impl::AsioTimer::Start(io_, clock_, impl::TimerMode::ONE_SHOT, interval, false,
                                std::move(callback));
}

TimerPtr AsioTimerFactory::CreatePeriodicTimer(std::chrono::nanoseconds interval,
                                               TimerCallback callback, bool aligned) {
  return impl::AsioTimer::Start(io_, clock_, impl::TimerMode::PERIODIC, interval, aligned,
                                std::move(callback));
}

}  // namespace zel
