#include "hlp/WinsockHelper.h"

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

}  // namespace hlp
