#include "hlp/WinsockHelper.h"

#include <sys/resource.h>

#include <algorithm>

namespace hlp {

// POSIX sockets need no start-up.
int WinsockHelper::Init() {
  return 0;
}

void WinsockHelper::Deinit() {}

bool WinsockHelper::ListenersReuseAddress() {
  // Without it a restart cannot rebind a port whose old connections linger in TIME_WAIT.
  return true;
}

size_t WinsockHelper::ConnectionLimit(size_t wanted) {
  // Descriptors the rest of the process may need: settings and log files, the alert store,
  // dial-home and reachability connections, the host's own.
  constexpr rlim_t kReserve = 128;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
    return wanted;
  }
  const rlim_t usable =
      limit.rlim_cur > 2 * kReserve ? limit.rlim_cur - kReserve : limit.rlim_cur / 2;
  return std::min<size_t>(wanted, static_cast<size_t>(usable));
}

}  // namespace hlp
