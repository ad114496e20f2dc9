#include "hlp/WinsockHelper.h"

#include <winsock2.h>

#include <mutex>

namespace hlp {
namespace {

std::mutex gMutex;
unsigned gUsers = 0;

}  // namespace

int WinsockHelper::Init() {
  std::lock_guard<std::mutex> lock(gMutex);
  if (gUsers == 0) {
    WSADATA data{};
    const int result = WSAStartup(MAKEWORD(2, 2), &data);
    if (result != 0) {
      return result;
    }
  }
  ++gUsers;
  return 0;
}

void WinsockHelper::Deinit() {
  std::lock_guard<std::mutex> lock(gMutex);
  // An unbalanced Deinit must not tear down a library someone else still uses.
  if (gUsers == 0) {
    return;
  }
  if (--gUsers == 0) {
    WSACleanup();
  }
}

size_t WinsockHelper::ConnectionLimit(size_t wanted) {
  // Sockets are handles, not descriptors: no per-process table to leave room in.
  return wanted;
}

bool WinsockHelper::ListenersReuseAddress() {
  // On Windows SO_REUSEADDR lets any other process bind the same port and steal connections;
  // a closed listener's port can be bound again without it.
  return false;
}

}  // namespace hlp
