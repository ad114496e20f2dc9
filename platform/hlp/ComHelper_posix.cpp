#include "hlp/ComHelper.h"

namespace hlp {

// No COM outside Windows; callers stay free of platform checks.
long ComHelper::ThreadInit() {
  return 0;
}

void ComHelper::ThreadDeinit() {}

}  // namespace hlp
