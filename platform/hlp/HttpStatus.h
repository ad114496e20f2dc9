#pragma once

namespace hlp {

/** @brief The reason phrase of an HTTP status ("Not Found" for 404), never null. */
const char* HttpStatusToString(unsigned int status);

}  // namespace hlp
