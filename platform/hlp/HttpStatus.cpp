#include "hlp/HttpStatus.h"

// Beast 1.74's status header prints a status without including <ostream> itself.
#include <ostream>

#include <boost/beast/http/status.hpp>

namespace hlp {

const char* HttpStatusToString(unsigned int status) {
  // Beast knows no 306 (it would answer "<unknown-status>"), yet a redirect may be configured
  // with it. RFC 7231, whose names Beast gives every other code, calls it "(Unused)".
  if (status == 306) {
    return "(Unused)";
  }
  // Beast's phrases are string literals (an unknown code has one of its own), so the view's
  // data is NUL-terminated and lives for the whole process.
  return boost::beast::http::obsolete_reason(boost::beast::http::int_to_status(status)).data();
}

}  // namespace hlp
