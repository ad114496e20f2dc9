#include "hlp/ComHelper.h"

#include <windows.h>

#include <objbase.h>

namespace hlp {
namespace {

// Successful CoInitializeEx calls on this thread still to be balanced by CoUninitialize.
thread_local unsigned tInits = 0;

}  // namespace

long ComHelper::ThreadInit() {
  const HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  if (SUCCEEDED(hr)) {
    // S_FALSE (already initialised) also takes a reference that must be released.
    ++tInits;
    return 0;
  }
  if (hr == RPC_E_CHANGED_MODE) {
    // The thread already lives in a single-threaded apartment: COM is usable, and since this
    // call took no reference there is nothing to undo later.
    return 0;
  }
  return hr;
}

void ComHelper::ThreadDeinit() {
  if (tInits > 0) {
    --tInits;
    CoUninitialize();
  }
}

}  // namespace hlp
